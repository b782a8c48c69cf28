#!/usr/bin/env python3
"""Generates the C++ of entities and state machines from their declarations.

Every entity and state machine of the engine is declared once, in a `.zef` file that reads like
its attribute table; this program writes the class with its generated mutators, notifiee classes
and reactors. The hand-written parts (handlers, helpers) live in the `.cpp` of the same name.
See README.md, "Declaring an entity or a state machine", for the language.

Usage: zefgen.py --source-root DIR --out-root DIR FILE.zef...
       zefgen.py --source-root DIR --reactions OUT.txt --writers FOLDER... FILE.zef...
All declarations are read together, so a reaction may name an attribute of a type declared in
another file. For DIR/x/Y.zef it writes OUT/x/Y.h and OUT/x/Y.gen.cpp, and rewrites a file only
if its text changed. With --reactions it writes instead the index of reactions: for every
attribute that a state machine reacts to, where the C++ of the FOLDERs writes it and which
handlers react.

The work is done in three steps, each in its own module of tools/zef/: parse (the declarations
of each file), check (across files: every type named is declared once, every handler is defined)
and emit (the C++).
"""

import argparse
import concurrent.futures
import os
import sys

from zef.check import Model, check_handlers
from zef.declarations import ZefError
from zef.emit import clang_format, emit_file, write_if_changed
from zef.parse import parse_file
from zef.reactions import reactions_text


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--source-root", required=True)
    parser.add_argument("--out-root")
    parser.add_argument("--reactions")
    parser.add_argument("--writers", nargs="*", default=[])
    parser.add_argument("files", nargs="+")
    options = parser.parse_args()
    parsed = []
    try:
        for path in options.files:
            rel = os.path.relpath(os.path.abspath(path), os.path.abspath(options.source_root))
            types, includes = parse_file(path, rel)
            parsed.append((rel, types, includes))
        model = Model([t for _, types, _ in parsed for t in types])
        if options.reactions:
            with open(options.reactions, "w") as f:
                f.write(reactions_text(model, options.source_root, options.writers))
            return 0
        if not options.out_root:
            parser.error("--out-root or --reactions is needed")
        outputs = []
        for rel, types, includes in parsed:
            header, source, handlers = emit_file(model, rel, types, includes)
            check_handlers(options.source_root, rel, {t.namespace for t in types}, handlers)
            stem = os.path.splitext(rel)[0]
            assume = os.path.join(os.path.abspath(options.source_root), stem)
            outputs.append((os.path.join(options.out_root, stem + ".h"), header, assume + ".h"))
            outputs.append((os.path.join(options.out_root, stem + ".gen.cpp"), source, assume + ".cpp"))
        # clang-format runs as a process per file; they run side by side.
        with concurrent.futures.ThreadPoolExecutor() as pool:
            formatted = list(pool.map(lambda o: clang_format(o[1], o[2]), outputs))
        for (path, _, _), text in zip(outputs, formatted):
            write_if_changed(path, text)
    except ZefError as error:
        print(f"zefgen: {error}", file=sys.stderr)
        return 1
    return 0


if __name__ == "__main__":
    sys.exit(main())
