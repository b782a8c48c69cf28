#!/usr/bin/env python3
"""The generator's golden test: tests/tools/zefgen/Lamp.zef in, exactly the committed header and
source out. A change to the generator that changes what it writes shows here as a diff; when the
change is meant, `--update` writes the new output as the golden one, to be read and committed."""

import difflib
import os
import subprocess
import sys
import tempfile

ROOT = os.path.abspath(os.path.join(os.path.dirname(__file__), "..", ".."))
SAMPLE = os.path.join("tests", "tools", "zefgen", "Lamp")


def main():
    with tempfile.TemporaryDirectory() as out:
        subprocess.run([sys.executable, os.path.join(ROOT, "tools", "zefgen.py"), "--source-root", ROOT, "--out-root",
                        out, os.path.join(ROOT, SAMPLE + ".zef")], check=True)
        different = 0
        for suffix in (".h", ".gen.cpp"):
            with open(os.path.join(out, SAMPLE + suffix)) as f:
                written = f.read()
            golden_path = os.path.join(ROOT, SAMPLE + suffix + ".golden")
            if "--update" in sys.argv:
                with open(golden_path, "w") as f:
                    f.write(written)
                continue
            with open(golden_path) as f:
                golden = f.read()
            if written != golden:
                different += 1
                sys.stdout.writelines(difflib.unified_diff(golden.splitlines(True), written.splitlines(True),
                                                           golden_path, "written"))
    return 1 if different else 0


if __name__ == "__main__":
    sys.exit(main())
