"""Writes the header and source of one `.zef` file, formatted, and only when its text changed."""

import os
import subprocess

from zef.check import dependency_order
from zef.declarations import ZefError
from zef.emit_entity import EntityParts
from zef.emit_machine import MachineParts
from zef.emit_settings import SettingsParts


class Emitter(EntityParts, MachineParts, SettingsParts):
    def __init__(self, model):
        self.model = model
        self.h = []
        self.cpp = []
        # (qualified class, call, where) of every handler a reaction, timer or data names.
        self.defined_handlers = []

    def hw(self, text=""):
        self.h.append(text)

    def cw(self, text=""):
        self.cpp.append(text)


def emit_file(model, rel, types, includes):
    e = Emitter(model)
    guard_includes = ["platform/Entity.h", "platform/HashMap.h", "platform/ValueMap.h", "platform/StateMachine.h",
                      "platform/TimerWheel.h", "platform/ValueText.h"]
    if any(t.kind == "settings" for t in types):
        guard_includes += ["<array>", "<ostream>", "<string_view>", "<utility>", "platform/Setting.h"]
    stem = os.path.splitext(rel)[0]
    e.hw("// Generated from " + rel + " by tools/zefgen.py. Do not edit: change the declaration.")
    e.hw("#pragma once")
    e.hw("")
    for inc in guard_includes:
        e.hw(f"#include {inc}" if inc.startswith("<") else f'#include "{inc}"')
    for inc in includes:
        e.hw(f"#include {inc}")
    e.hw("")
    e.cw("// Generated from " + rel + " by tools/zefgen.py. Do not edit: change the declaration.")
    e.cw(f'#include "{stem}.h"')
    e.cw("")
    namespaces = []
    for t in types:
        if t.namespace not in namespaces:
            namespaces.append(t.namespace)
    for ns in namespaces:
        in_ns = [t for t in types if t.namespace == ns]
        if ns:
            e.hw(f"namespace {ns} {{")
            e.hw("")
            e.cw(f"namespace {ns} {{")
            e.cw("")
        for t in in_ns:
            if t.kind != "settings":
                e.hw(f"class {t.name};")
        e.hw("")
        for t in dependency_order(in_ns):
            getattr(e, t.kind)(t)
        if ns:
            e.hw(f"}}  // namespace {ns}")
            e.cw(f"}}  // namespace {ns}")
    return "\n".join(e.h) + "\n", "\n".join(e.cpp) + "\n", e.defined_handlers


def clang_format(text, assume):
    """The text formatted by the project's .clang-format, found from `assume`; unformatted if
    clang-format is not installed."""
    try:
        result = subprocess.run(["clang-format", f"--assume-filename={assume}"], input=text, capture_output=True,
                                text=True, check=True)
    except FileNotFoundError:
        return text
    except subprocess.CalledProcessError as error:
        raise ZefError(f"{assume}: clang-format failed: {error.stderr.strip()}")
    return result.stdout


def write_if_changed(path, text):
    os.makedirs(os.path.dirname(path), exist_ok=True)
    if os.path.exists(path):
        with open(path) as f:
            if f.read() == text:
                return
    with open(path, "w") as f:
        f.write(text)
