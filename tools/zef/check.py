"""The checks across declarations: every type named is declared once, members come before their
owners, and every handler a declaration names is defined by hand."""

import os
import re

from zef.declarations import Attr, Reaction, ZefError


class Model:
    def __init__(self, types):
        self.types = {}
        for t in types:
            if t.qname in self.types:
                raise ZefError(f"{t.source}: {t.qname} declared twice")
            self.types[t.qname] = t
        for t in types:
            self.expand_settings(t)

    def settings_of(self, group, namespace, where):
        """The settings of a group, of one reach or all."""
        name, reach = group
        t = self.need(name, namespace, where)
        if t.kind != "settings":
            raise ZefError(f"{where}: {name} is no settings group")
        return t, [s for s in t.attrs if reach is None or s.kind == reach]

    def expand_settings(self, t):
        """A `settings` line of an entity becomes a value per setting, and the settings held in a
        constructor argument of the group's parameters become its getters; a `settings` reaction
        becomes a reaction per setting."""
        if t.kind == "entity":
            attrs = []
            for a in t.attrs:
                if a.kind != "settings":
                    attrs.append(a)
                    continue
                group, settings = self.settings_of(a.group, t.namespace, a.line)
                for s in settings:
                    value = Attr("value", s.name, s.type, a.line)
                    value.default = s.default
                    attrs.append(value)
                held = [c for c in t.attrs if c.kind == "ctor" and c.type == group.params]
                for s in group.attrs if held else []:
                    if s.kind == "param":
                        t.methods.append(f"{s.type} {s.name}() const {{ return {held[0].name}_.{s.name}; }}")
            t.attrs = attrs
        elif t.kind == "sm":
            for a in t.attrs:
                if a.kind in ("reactor", "reactors"):
                    self.expand_reactions(a, t.namespace)

    def expand_reactions(self, holder, namespace):
        reactions = []
        for r in holder.reactions:
            if r.mirror is not None:
                self.expand_reactions(r.mirror, namespace)
            if r.group is None:
                reactions.append(r)
                continue
            for s in self.settings_of(r.group, namespace, r.line)[1]:
                one = Reaction(s.name, r.line)
                one.handlers = list(r.handlers)
                reactions.append(one)
        holder.reactions = reactions

    def find(self, name, namespace):
        name = name.strip()
        if name.startswith("::"):
            return self.types.get(name[2:])
        for candidate in (f"{namespace}::{name}" if namespace else name, name):
            if candidate in self.types:
                return self.types[candidate]
        # A name qualified relative to an enclosing namespace.
        parts = namespace.split("::") if namespace else []
        while parts:
            parts.pop()
            candidate = "::".join(parts + [name]) if parts else name
            if candidate in self.types:
                return self.types[candidate]
        return None

    def need(self, name, namespace, where):
        t = self.find(name, namespace)
        if t is None:
            raise ZefError(f"{where}: unknown type '{name}' (declare it in a .zef file)")
        return t


def dependency_order(types):
    """The types of one file, each after the types of the file that it holds as members, so that
    an owner's inline mutators see complete member classes; otherwise in declaration order."""
    by_name = {t.name: t for t in types}
    ordered, visiting = [], set()

    def visit(t):
        if t in ordered:
            return
        if t.name in visiting:
            raise ZefError(f"{t.source}: {t.name} holds itself through its members")
        visiting.add(t.name)
        for a in t.attrs:
            member = by_name.get(a.type.split("::")[-1]) if a.kind in ("child", "entities", "sm", "sms") else None
            if member is not None and member is not t:
                visit(member)
        visiting.discard(t.name)
        ordered.append(t)

    for t in types:
        visit(t)
    return ordered


def check_handlers(source_root, rel, namespaces, handlers):
    """Every handler that a declaration names must be defined in the hand-written source of the
    same name, so that a misspelt handler is reported here with its line, not by the linker."""
    if not handlers:
        return
    stem = os.path.splitext(rel)[0]
    path = os.path.join(source_root, stem + ".cpp")
    text = ""
    if os.path.exists(path):
        with open(path) as f:
            text = f.read()
    for qualified, call, where in handlers:
        cls = qualified
        for ns in namespaces:
            if ns and cls.startswith(ns + "::"):
                cls = cls[len(ns) + 2 :]
        name = call.split("(")[0]
        if not re.search(rf"\b{re.escape(cls)}::{re.escape(name)}\s*\(", text):
            raise ZefError(f"{where}: handler '{name}' of {cls} is not defined in {stem}.cpp")
