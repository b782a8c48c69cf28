#!/usr/bin/env python3
"""The manual pages render without a warning, and mkad.toml(5) documents every key the
configuration file takes: each setting of a profile as model/ProfileSettings.zef declares it, and
each key the file reader knows besides.

usage: check_manuals.py SOURCE_DIR MAN_DIR
"""

import os
import re
import subprocess
import sys


def main():
    source, pages = sys.argv[1], sys.argv[2]
    failures = []
    names = sorted(os.listdir(pages))
    if sorted(names) != ["mkactl.8", "mkad.8", "mkad.toml.5"]:
        failures.append("the manual pages are %s" % names)
    for name in names:
        result = subprocess.run(["man", "--warnings", "-l", "-Tutf8", os.path.join(pages, name)],
                                capture_output=True, text=True, env=dict(os.environ, MANWIDTH="100"))
        if result.returncode != 0 or result.stderr.strip() or len(result.stdout) < 500:
            failures.append("%s does not render cleanly: %s" % (name, result.stderr.strip()[:500]))

    with open(os.path.join(source, "model", "ProfileSettings.zef")) as f:
        keys = set(re.findall(r"^\s*(?:param|live|profile)\s.*?\sfile\s+([a-z][a-z-]*)", f.read(), re.M))
    with open(os.path.join(source, "agent", "ConfigFile.cpp")) as f:
        reader = f.read()
    # The keys the reader lists as known, and those it reads itself.
    for listed in re.findall(r"onlyKnown\((?:global|t|root_),[^;]*?\{([^}]*)\}", reader, re.S) + \
            re.findall(r"std::vector<std::string_view> known\{([^}]*)\}", reader, re.S):
        keys.update(re.findall(r'"([a-z][a-z-]*)"', listed))
    keys -= {"global", "keychain", "profile", "interface"}
    if len(keys) < 20:
        failures.append("only %d keys found in the sources: %s" % (len(keys), sorted(keys)))
    with open(os.path.join(source, "dist", "mkad.toml.5.scd")) as f:
        manual = f.read()
    # A key is documented where a definition begins with it: "*key* = ..." or "*a*, *b*".
    documented = set()
    for line in manual.splitlines():
        if line.startswith("*"):
            documented.update(re.findall(r"\*([a-z][a-z-]*)\*", line.split(" = ")[0]))
    for key in sorted(keys - documented):
        failures.append("mkad.toml(5) does not document %s" % key)

    for failure in failures:
        print("FAIL: " + failure)
    print("%d pages, %d keys documented" % (len(names), len(keys)))
    return 1 if failures else 0


if __name__ == "__main__":
    sys.exit(main())
