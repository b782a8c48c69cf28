#!/usr/bin/env python3
"""Fails when a layer of the engine includes a layer above it.

The library is built in layers, each of which may include only itself and the layers below it:

    platform < model < mkpdu < config < hw < mka < dot1x < engine < agent

The device and root state machines (mka) build the self test (hw) and the configuration state
machine (config), which is why those two sit below mka. Port authentication (dot1x) stands beside
the MKA layers rather than on them: it may include platform and model only. The engine's assembly
(engine) is portable and stands on all of them, joining the two; the Linux process (agent) runs one
on a host. The simulation harness
(sim), the tests, benchmarks and programs stand outside the library: they may include any layer,
and no layer may include them.

Usage: check_layers.py SOURCE_ROOT [STAMP]
Reads every .h, .cpp and .zef file of the layers, prints each include that goes up as
`file:line: layer includes upper/...`, and exits 1 if there is one. With STAMP, touches that file
on success, so that the build runs the check again only when a source changes.
"""

import os
import re
import sys

LAYERS = ["platform", "model", "mkpdu", "config", "hw", "mka", "dot1x", "engine", "agent"]
OUTSIDE = ["sim", "tests", "bench", "programs", "tools"]
# Layers below a layer that it still may not include.
BESIDE = {"dot1x": ["mkpdu", "config", "hw", "mka"]}
INCLUDE = re.compile(r'^\s*(?:#\s*include|include)\s+"([A-Za-z_]+)/')


def violations(root):
    rank = {layer: i for i, layer in enumerate(LAYERS)}
    for layer in LAYERS:
        folder = os.path.join(root, layer)
        if not os.path.isdir(folder):
            continue
        for directory, _, files in os.walk(folder):
            for name in sorted(files):
                if not name.endswith((".h", ".cpp", ".zef")):
                    continue
                path = os.path.join(directory, name)
                with open(path, encoding="utf-8") as f:
                    for number, line in enumerate(f, 1):
                        match = INCLUDE.match(line)
                        if not match:
                            continue
                        target = match.group(1)
                        where = os.path.relpath(path, root)
                        if target in OUTSIDE or rank.get(target, -1) > rank[layer]:
                            yield f"{where}:{number}: {layer} includes {target}/, which is above it"
                        elif target in BESIDE.get(layer, []):
                            yield f"{where}:{number}: {layer} includes {target}/, which stands beside it"


def main():
    if len(sys.argv) not in (2, 3):
        print(__doc__, file=sys.stderr)
        return 2
    found = list(violations(sys.argv[1]))
    for line in found:
        print(line, file=sys.stderr)
    if found:
        print("layers: " + " < ".join(LAYERS) + "; a layer includes only itself and those below it",
              file=sys.stderr)
        for layer, beside in BESIDE.items():
            print(f"{layer} includes none of " + ", ".join(beside), file=sys.stderr)
        return 1
    if len(sys.argv) == 3:
        with open(sys.argv[2], "w"):
            pass
    return 0


if __name__ == "__main__":
    sys.exit(main())
