"""mkasim refuses what it cannot run, naming the flag, and its exit status says whether every link
ended secured on one key.

Usage: check_mkasim_inputs.py PATH_TO_MKASIM
"""

import subprocess
import sys


def run(mkasim, *args):
    return subprocess.run([mkasim, "--quiet", *args], capture_output=True, text=True, timeout=60)


def main():
    mkasim = sys.argv[1]
    refused = [
        ("--duration", "nan"), ("--duration", "inf"), ("--latency", "nan"), ("--switches", "1e20"),
        ("--switches", "2.5"), ("--links", "0x10"), ("--links", "0"), ("--links", "4097"), ("--seed", "-1"),
        ("--cak", ""), ("--cipher", "512"), ("--loss", "1"),
    ]
    for flag, value in refused:
        result = run(mkasim, flag, value)
        assert result.returncode == 2, (flag, value, result.returncode)
        assert flag in result.stderr, (flag, value, result.stderr)
    assert run(mkasim, "--duration", "20").returncode == 0, "a clean run must end secured"
    short = run(mkasim, "--duration", "0.5")
    assert short.returncode == 1 and "not secured" in short.stderr, (short.returncode, short.stderr)
    print(f"{len(refused)} bad inputs refused; the exit status follows the links")


if __name__ == "__main__":
    main()
