#!/usr/bin/env python3
"""The layer check refuses an include that goes up, from a header, a source or a declaration, or
from port authentication into the MKA layers beside it, and passes a tree whose includes go only
down or sideways."""

import os
import subprocess
import sys
import tempfile

CHECK = os.path.join(os.path.dirname(__file__), "..", "..", "tools", "check_layers.py")


def run(files):
    with tempfile.TemporaryDirectory() as root:
        for path, text in files.items():
            os.makedirs(os.path.dirname(os.path.join(root, path)), exist_ok=True)
            with open(os.path.join(root, path), "w") as f:
                f.write(text)
        result = subprocess.run([sys.executable, CHECK, root], capture_output=True, text=True)
        return result.returncode, result.stderr


def main():
    good = {
        "platform/A.h": '#include "platform/B.h"\n',
        "mka/X.cpp": '#include "hw/Y.h"\n#include "config/Z.h"\n#include "model/V.h"\n',
        "engine/E.h": '#include "mka/X.h"\n#include "dot1x/P.h"\n',
        "dot1x/P.h": '#include "model/V.h"\n',
        "agent/D.h": '#include "engine/E.h"\n',
    }
    code, text = run(good)
    assert code == 0, text
    for path, line in [("model/V.h", '#include "mkpdu/MkaPdu.h"\n'),
                       ("hw/Y.cpp", '#  include "mka/MkaSm.h"\n'),
                       ("mka/M.zef", 'include "engine/Engine.h"\n'),
                       ("engine/F.cpp", '#include "agent/Daemon.h"\n'),
                       ("mka/S.cpp", '#include "sim/Simulation.h"\n'),
                       ("dot1x/Q.cpp", '#include "mka/MkaActorSm.h"\n')]:
        code, text = run({**good, path: "// a comment\n" + line})
        assert code == 1 and f"{path}:2:" in text, (path, code, text)
    return 0


if __name__ == "__main__":
    sys.exit(main())
