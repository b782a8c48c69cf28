#!/usr/bin/env python3
"""Generates the C++ of entities and state machines from their declarations.

Every entity and state machine of the engine is declared once, in a `.zef` file that reads like
its attribute table; this program writes the class with its generated mutators, notifiee classes
and reactors. The hand-written parts (handlers, helpers) live in the `.cpp` of the same name.
See README.md, "Declaring an entity or a state machine", for the language.

Usage: zefgen.py --source-root DIR --out-root DIR FILE.zef...
All declarations are read together, so a reaction may name an attribute of a type declared in
another file. For DIR/x/Y.zef it writes OUT/x/Y.h and OUT/x/Y.gen.cpp, and rewrites a file only
if its text changed.
"""

import argparse
import concurrent.futures
import os
import re
import subprocess
import sys

# --------------------------------------------------------------------------------------------
# The model


class Attr:
    def __init__(self, kind, name, type_, line):
        self.kind = kind  # ctor value counter child values entities | arg data reactor timer sm sms reactors
        self.name = name
        self.type = type_
        self.line = line
        self.default = None
        self.key = None  # key type of a collection
        self.keyof = None  # expression giving the key of a member `v`
        self.quiet = False
        self.const = False  # a reactor on a read-only notifier
        self.is_arg = False  # a state machine's constructor argument
        self.reactions = []  # of a reactor
        self.replay = None  # explicit replay order: list of handler calls
        self.handler = None  # on-change handler of data, or the handler of a timer
        self.strict = False  # sms: building an existing child with other arguments is refused

    @property
    def cap(self):
        return self.name[0].upper() + self.name[1:]


class Reaction:
    def __init__(self, attr, line):
        self.attr = attr  # the notifier's attribute
        self.line = line
        self.handlers = []  # calls, e.g. "handleKey()", "handleIntfStatus(key)"
        self.mirror = None  # Attr of kind "mirror" (nested reactors) or None
        self.collection = None  # the name of the nested collection, when not the attribute's
        self.oncreate = []  # handlers a new nested reactor runs on itself


class Type:
    def __init__(self, kind, name, namespace, source):
        self.kind = kind  # entity | sm
        self.name = name
        self.namespace = namespace
        self.source = source
        self.attrs = []
        self.methods = []
        self.epilogue = []
        self.nobackup = False

    @property
    def qname(self):
        return f"{self.namespace}::{self.name}" if self.namespace else self.name

    def attr(self, name):
        for a in self.attrs:
            if a.name == name:
                return a
        return None

    def ctor_attrs(self):
        if self.kind == "entity":
            return [a for a in self.attrs if a.kind == "ctor"]
        return [a for a in self.attrs if a.is_arg]


class ZefError(Exception):
    pass


# --------------------------------------------------------------------------------------------
# Parsing

ENTITY_KINDS = {"ctor", "value", "counter", "child", "values", "entities", "member"}
SM_KINDS = {"arg", "data", "reactor", "timer", "sm", "sms", "reactors", "member"}
CLAUSES = [" = ", " by ", " keyof ", " -> "]


def split_clauses(text):
    """Splits 'Type = 1 by K keyof v.an -> h()' into the type and its clauses."""
    positions = sorted((text.find(c), c) for c in CLAUSES if text.find(c) >= 0)
    head = text if not positions else text[: positions[0][0]]
    clauses = {}
    for i, (pos, marker) in enumerate(positions):
        end = positions[i + 1][0] if i + 1 < len(positions) else len(text)
        clauses[marker.strip()] = text[pos + len(marker) : end].strip()
    return head.strip(), clauses


def parse_calls(text):
    """'h1(key), h2()' -> ['h1(key)', 'h2()']; a bare name gets '()'."""
    calls = []
    depth = 0
    current = ""
    for ch in text:
        if ch == "(":
            depth += 1
        elif ch == ")":
            depth -= 1
        if ch == "," and depth == 0:
            calls.append(current.strip())
            current = ""
        else:
            current += ch
    if current.strip():
        calls.append(current.strip())
    return [c if "(" in c else c + "()" for c in calls]


def parse_file(path, rel):
    types = []
    includes = []
    namespace = ""
    current = None
    holder = None  # the reactor (or reactor collection) whose reactions are being read
    holder_indent = None
    nested = None  # the mirror whose nested reactor's reactions are being read
    nested_indent = None
    with open(path) as f:
        lines = f.readlines()
    for number, raw in enumerate(lines, 1):
        where = f"{rel}:{number}"
        line = raw.split("#", 1)[0].rstrip()
        if not line.strip():
            continue
        indent = len(line) - len(line.lstrip())
        text = line.strip()
        words = text.split()
        head = words[0]
        if indent == 0:
            holder = nested = None
            if head == "namespace":
                namespace = words[1]
            elif head == "include":
                includes.append(text.split(None, 1)[1].strip())
            elif head in ("entity", "sm"):
                current = Type(head, words[1], namespace, rel)
                current.nobackup = "nobackup" in words[2:]
                types.append(current)
            else:
                raise ZefError(f"{where}: unknown declaration '{head}'")
            continue
        if current is None:
            raise ZefError(f"{where}: attribute outside of a type")
        if nested is not None and indent > nested_indent:
            add_reaction(nested, text, where)
            continue
        nested = None
        if holder is not None and indent > holder_indent:
            reaction = add_reaction(holder, text, where)
            if reaction is not None and reaction.mirror is not None:
                nested, nested_indent = reaction.mirror, indent
            continue
        holder = None
        if head == "method":
            current.methods.append(text[len("method "):].strip().rstrip(";"))
            continue
        if head == "epilogue":
            current.epilogue.append(text[len("epilogue "):].strip().rstrip(";"))
            continue
        attr = parse_attr(current, text, where)
        current.attrs.append(attr)
        if attr.kind in ("reactor", "reactors"):
            holder, holder_indent = attr, indent
    return types, includes


def add_reaction(reactor, text, where):
    """A reaction line, or a 'replay' line that fixes the order of replay."""
    if text.startswith("replay "):
        reactor.replay = parse_calls(", ".join(text[len("replay "):].split()))
        return None
    reaction = parse_reaction(text, where)
    reactor.reactions.append(reaction)
    return reaction


def parse_attr(current, text, where):
    words = text.split()
    is_arg = words[0] == "arg"
    if is_arg and len(words) > 2 and words[1] == "reactor":
        words = words[1:]
        text = text[len("arg "):].strip()
    head = words[0]
    kinds = ENTITY_KINDS if current.kind == "entity" else SM_KINDS
    if head not in kinds:
        raise ZefError(f"{where}: '{head}' is not an attribute kind of {current.kind} {current.name}")
    if len(words) < 2:
        raise ZefError(f"{where}: attribute without a name")
    name = words[1]
    parts = text.split(None, 2)
    rest = parts[2] if len(parts) > 2 else ""
    type_, clauses = split_clauses(" " + rest if rest.startswith(("->", "=")) else rest)
    attr = Attr("data" if head == "arg" else head, name, type_, where)
    attr.is_arg = is_arg
    attr.default = clauses.get("=")
    attr.key = clauses.get("by")
    attr.keyof = clauses.get("keyof")
    if attr.type.endswith(" quiet"):
        attr.quiet = True
        attr.type = attr.type[: -len(" quiet")].strip()
    if attr.type.endswith(" const"):
        attr.const = True
        attr.type = attr.type[: -len(" const")].strip()
    if "->" in clauses:
        attr.handler = parse_calls(clauses["->"])
    if attr.kind == "sms" and attr.key and attr.key.endswith(" strict"):
        attr.strict = True
        attr.key = attr.key[: -len(" strict")].strip()
    if attr.kind in ("values", "entities", "sms", "reactors") and not attr.key:
        raise ZefError(f"{where}: collection {name} needs 'by KeyType'")
    if attr.kind == "timer":
        attr.type = "Orb::TimerWheel"
        if not attr.handler:
            raise ZefError(f"{where}: timer {name} needs '-> handler()'")
    if not attr.type and attr.kind != "timer":
        raise ZefError(f"{where}: attribute {name} has no type")
    return attr


def parse_reaction(text, where):
    # "attr -> h1(), h2(key)" | "attr mirror [Class] [-> h(key)] [oncreate h1 h2] [as coll]"
    m = re.match(r"^(\w+)\s+(.*)$", text)
    if not m:
        raise ZefError(f"{where}: cannot read reaction '{text}'")
    reaction = Reaction(m.group(1), where)
    body = m.group(2).strip()
    if body.startswith("->"):
        reaction.handlers = parse_calls(body[2:].strip())
        return reaction
    if body.startswith("mirror"):
        body = body[len("mirror") :].strip()
        handlers = None
        if "->" in body:
            body, handlers = body.split("->", 1)
            reaction.handlers = parse_calls(handlers.strip())
            body = body.strip()
        if " oncreate " in " " + body + " ":
            body, oncreate = (" " + body).split(" oncreate ", 1)
            oncreate_words = oncreate.split()
            # oncreate takes the handler names up to the next keyword
            reaction.oncreate = []
            rest = []
            for i, w in enumerate(oncreate_words):
                if w == "as":
                    rest = oncreate_words[i:]
                    break
                reaction.oncreate.append(w if "(" in w else w + "()")
            body = (body + " " + " ".join(rest)).strip()
        if " as " in " " + body + " ":
            body, collection = (" " + body).split(" as ", 1)
            reaction.collection = collection.strip()
            body = body.strip()
        nested = Attr("mirror", reaction.attr, "", where)
        names = body.split()
        if len(names) > 1:
            raise ZefError(f"{where}: cannot read mirror '{body}'")
        nested.nested_class = names[0] if names else None
        reaction.mirror = nested
        return reaction
    raise ZefError(f"{where}: cannot read reaction '{text}'")


# --------------------------------------------------------------------------------------------
# Type resolution across files


class Model:
    def __init__(self, types):
        self.types = {}
        for t in types:
            if t.qname in self.types:
                raise ZefError(f"{t.source}: {t.qname} declared twice")
            self.types[t.qname] = t

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


# --------------------------------------------------------------------------------------------
# Emitting C++


def qual(t, from_namespace):
    """How type t is spelled from inside from_namespace."""
    if t.namespace == from_namespace:
        return t.name
    return "::" + t.qname if t.namespace else t.name


def factory_name(name):
    return name[0].lower() + name[1:] + "Factory"


def param_type(type_):
    """Pass small scalars by value, everything else by const reference."""
    scalars = {"bool", "double", "float", "int", "unsigned", "uint8_t", "uint16_t", "uint32_t", "uint64_t",
               "int8_t", "int16_t", "int32_t", "int64_t", "size_t", "char"}
    return type_ if type_ in scalars else f"const {type_}&"


class Emitter:
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

    # ---- entities ----------------------------------------------------------------------------

    @staticmethod
    def topic_of(t, a):
        """The bit of a notifying attribute: its place among the type's notifying attributes, modulo
        64. A reactor registers the bits of the attributes it reacts to, and a notification skips the
        reactors without its bit."""
        notifying = [x for x in t.attrs if x.kind not in ("ctor", "member")]
        return 1 << (notifying.index(a) % 64)

    def notify(self, call, t, a):
        return f"zefNotify<NotifieeConst>(0x{self.topic_of(t, a):x}ull, [&](NotifieeConst* zefN) {{ zefN->{call}; }});"

    def entity(self, t):
        ns = t.namespace
        ctor = t.ctor_attrs()
        base_name = ctor[0] if ctor and ctor[0].name == "name" and ctor[0].type in ("Zef::Name",) else None
        params = ", ".join(f"{param_type(a.type)} {a.name}" for a in ctor)
        args = ", ".join(a.name for a in ctor)
        hw = self.hw
        hw(f"class {t.name} : public Zef::Entity {{")
        hw(" public:")
        # Notifiee classes: one virtual per attribute, in declaration order.
        hw(f"  class NotifieeConst : public Zef::NotifieeConstOf<{t.name}> {{")
        hw("   public:")
        for a in t.attrs:
            if a.kind in ("ctor", "member"):
                continue
            if a.kind in ("values", "entities"):
                hw(f"    virtual void on{a.cap}({param_type(a.key)}) {{}}")
                hw(f"    virtual void on{a.cap}zefImmediate() {{}}")
                hw(f"    virtual void on{a.cap}() {{}}")
            else:
                hw(f"    virtual void on{a.cap}() {{}}")
        hw("")
        hw("   protected:")
        hw("    NotifieeConst() = default;")
        hw(f"    explicit NotifieeConst(const Zef::Ptr<{t.name} const>& notifier) : NotifieeConstOf(notifier) {{}}")
        hw("  };")
        hw(f"  class Notifiee : public Zef::NotifieeOf<{t.name}, NotifieeConst> {{")
        hw("   protected:")
        hw("    using NotifieeOf::NotifieeOf;")
        hw("  };")
        hw("")
        hw(f"  static Zef::Ptr<{t.name}> {t.name}Is({params});")
        if t.nobackup:
            hw("  bool hasBackupSupport() const override { return false; }")
        if ctor and not base_name:
            hw(f"  const {ctor[0].type}& zefKey() const noexcept {{ return {ctor[0].name}_; }}")
        hw("")
        for a in t.attrs:
            getattr(self, f"entity_{a.kind}")(t, a)
        if t.methods:
            hw("")
            for m in t.methods:
                hw(f"  {m};")
        self.class_tail(t, ctor, params, [a for a in t.attrs if a is not base_name])
        # Source
        cw = self.cw
        inits = []
        if base_name:
            inits.append(f"Zef::Entity({base_name.name})")
        for a in ctor:
            if a is not base_name:
                inits.append(f"{a.name}_({a.name})")
        cw(f"{t.name}::{t.name}({params}){' : ' + ', '.join(inits) if inits else ''} {{")
        for statement in t.epilogue:
            cw(f"  {statement};")
        cw("}")
        cw("")
        cw(f"{t.name}::~{t.name}() {{")
        for a in reversed(t.attrs):
            if a.kind == "child":
                cw(f"  if ({a.name}_) {a.name}_->parentIs(nullptr);")
            elif a.kind == "entities":
                cw(f"  for (auto& zefMember : {a.name}_) zefMember->parentIs(nullptr);")
        cw("}")
        cw("")
        self.factories(t, params, args)

    def entity_member(self, t, a):
        """Private storage for the hand-written methods: no accessor, no notification."""

    def sm_member(self, t, a):
        """Private storage for the hand-written methods: no accessor."""

    def entity_ctor(self, t, a):
        if a.name == "name" and a.type == "Zef::Name":
            return
        self.hw(f"  const {a.type}& {a.name}() const noexcept {{ return {a.name}_; }}")

    def entity_value(self, t, a):
        hw = self.hw
        hw(f"  const {a.type}& {a.name}() const noexcept {{ return {a.name}_; }}")
        hw(f"  void {a.name}Is({param_type(a.type)} value) {{")
        hw(f"    if ({a.name}_ == value) return;")
        hw(f"    {a.name}_ = value;")
        if not a.quiet:
            hw(f"    {self.notify(f'on{a.cap}()', t, a)}")
        hw("  }")

    def entity_counter(self, t, a):
        hw = self.hw
        self.entity_value(t, a)
        for op, sign in (("Inc", "+"), ("Dec", "-")):
            hw(f"  {a.type} {a.name}{op}({a.type} delta = 1) {{")
            hw(f"    if (delta == 0) return {a.name}_;")
            hw(f"    {a.name}_ = static_cast<{a.type}>({a.name}_ {sign} delta);")
            if not a.quiet:
                hw(f"    {self.notify(f'on{a.cap}()', t, a)}")
            hw(f"    return {a.name}_;")
            hw("  }")

    def entity_child(self, t, a):
        hw = self.hw
        child = self.model.find(a.type, t.namespace)
        hw(f"  const Zef::Ptr<{a.type}>& {a.name}() noexcept {{ return {a.name}_; }}")
        hw(f"  Zef::Ptr<{a.type} const> {a.name}() const noexcept {{ return {a.name}_; }}")
        hw("  template <class... Args>")
        hw(f"  Zef::Ptr<{a.type}> {a.name}Is(Args&&... args) {{")
        hw(f"    if ({a.name}_) return {a.name}_;")
        creator = f"{a.type}::{child.name if child else a.type.split('::')[-1]}Is"
        hw(f"    Zef::Ptr<{a.type}> child = {creator}(std::forward<Args>(args)...);")
        hw(f"    child->parentIs(this, \"{a.name}\");")
        hw(f"    {a.name}_ = child;")
        hw(f"    {self.notify(f'on{a.cap}()', t, a)}")
        hw("    return child;")
        hw("  }")
        hw(f"  Zef::Ptr<{a.type}> {a.name}Del() {{")
        hw(f"    Zef::Ptr<{a.type}> child = std::move({a.name}_);")
        hw("    if (!child) return child;")
        hw("    child->parentIs(nullptr);")
        hw(f"    {self.notify(f'on{a.cap}()', t, a)}")
        hw("    return child;")
        hw("  }")

    def collection_common(self, t, a):
        hw = self.hw
        hw(f"  size_t {a.name}Size() const noexcept {{ return {a.name}_.size(); }}")
        hw(f"  bool {a.name}Has({param_type(a.key)} key) const {{ return {a.name}_.contains(key); }}")
        hw(f"  auto {a.name}Iter() const {{ return {a.name}_.iterator(); }}")
        hw(f"  void {a.name}Notify({param_type(a.key)} key) {{ {self.notify(f'on{a.cap}(key)', t, a)} }}")
        hw(f"  void {a.name}DelAll() {{")
        hw(f"    for (auto it = {a.name}_.iterator(); it; ++it) {a.name}Del({a.key}(it.key()));")
        hw("  }")

    def entity_values(self, t, a):
        hw = self.hw
        hw(f"  {a.type} {a.name}({param_type(a.key)} key) const {{")
        hw(f"    const {a.type}* value = {a.name}_.find(key);")
        hw(f"    return value ? *value : {a.type}();")
        hw("  }")
        hw(f"  void {a.name}Is({param_type(a.key)} key, {param_type(a.type)} value) {{")
        hw(f"    if (!{a.name}_.assign(key, value)) return;")
        hw(f"    {self.notify(f'on{a.cap}(key)', t, a)}")
        hw("  }")
        if a.keyof:
            hw(f"  void {a.name}Is({param_type(a.type)} v) {{ {a.name}Is({a.keyof}, v); }}")
        hw(f"  {a.type} {a.name}Del({param_type(a.key)} key) {{")
        hw(f"    {a.type} old{{}};")
        hw(f"    if (!{a.name}_.erase(key, &old)) return old;")
        hw(f"    {self.notify(f'on{a.cap}(key)', t, a)}")
        hw("    return old;")
        hw("  }")
        self.collection_common(t, a)

    def entity_entities(self, t, a):
        hw = self.hw
        member = self.model.find(a.type, t.namespace)
        hw(f"  Zef::Ptr<{a.type}> {a.name}({param_type(a.key)} key) {{ return {a.name}_.find(key); }}")
        hw(f"  Zef::Ptr<{a.type} const> {a.name}({param_type(a.key)} key) const {{ return {a.name}_.find(key); }}")
        hw("  template <class... Args>")
        hw(f"  Zef::Ptr<{a.type}> {a.name}Is({param_type(a.key)} key, Args&&... args) {{")
        hw(f"    if (Zef::Ptr<{a.type}> existing = {a.name}_.find(key)) return existing;")
        creator = f"{a.type}::{member.name if member else a.type.split('::')[-1]}Is"
        hw(f"    Zef::Ptr<{a.type}> member = {creator}(key, std::forward<Args>(args)...);")
        hw(f"    member->parentIs(this, \"{a.name}\");")
        hw(f"    {a.name}_.insert(key, member);")
        hw(f"    {self.notify(f'on{a.cap}(key)', t, a)}")
        hw("    return member;")
        hw("  }")
        hw(f"  Zef::Ptr<{a.type}> {a.name}Del({param_type(a.key)} key) {{")
        hw(f"    Zef::Ptr<{a.type}> member = {a.name}_.erase(key);")
        hw("    if (!member) return member;")
        hw("    member->parentIs(nullptr);")
        hw(f"    {self.notify(f'on{a.cap}(key)', t, a)}")
        hw("    return member;")
        hw("  }")
        self.collection_common(t, a)

    # ---- state machines ----------------------------------------------------------------------

    def notifier_of(self, sm, a):
        """(type spelling, Type or None) of the notifier of a reactor-like attribute."""
        if a.kind == "timer":
            return "Orb::TimerWheel", None
        t = self.model.find(a.type, sm.namespace)
        return a.type, t

    def notifier_attr(self, notifier_type, name, where):
        if notifier_type is None:
            raise ZefError(f"{where}: reactions need a notifier declared in a .zef file")
        attr = notifier_type.attr(name)
        if attr is None or attr.kind == "ctor":
            raise ZefError(f"{where}: {notifier_type.qname} has no notifying attribute '{name}'")
        return attr

    def call_text(self, call, target):
        return f"{target}{call}"

    def sm_param_type(self, a):
        if a.kind == "reactor":
            return f"const Zef::Ptr<{a.type}{' const' if a.const else ''}>&"
        return param_type(a.type)

    def reactor_class(self, sm, a, indent, owner_type, handlers_on_self, class_name, key_type, full_path):
        """Emits a reactor class for attribute a (a reactor, a reactor collection member, or a
        mirror's nested reactor). Returns the handler declarations the state machine needs, as
        (call, key type, where) triples."""
        hw = self.hw
        pad = " " * indent
        notifier_spelling, notifier_type = self.notifier_of(sm, a)
        if a.kind == "timer":
            base = "Orb::TimerWheel::Notifiee"
            ptr_type = "Orb::TimerWheel"
            const_ptr = "Zef::Ptr<Orb::TimerWheel const>"
        else:
            base = f"{notifier_spelling}::{'NotifieeConst' if a.const else 'Notifiee'}"
            ptr_type = f"{notifier_spelling}{' const' if a.const else ''}"
            const_ptr = f"Zef::Ptr<{notifier_spelling} const>"
        target = "" if handlers_on_self else "owner_->"
        declarations = []
        hw(f"{pad}class {class_name} : public {base} {{")
        hw(f"{pad} public:")

        # Mirrors: nested reactors, one per member of a watched collection, held here. Nested
        # classes come first.
        mirrors = [r for r in a.reactions if r.mirror is not None]
        for r in mirrors:
            member_attr = self.notifier_attr(notifier_type, r.attr, r.line)
            nested = r.mirror
            inner = member_attr.type
            m = re.match(r"^Zef::Ptr<(.+?)( const)?>$", inner)
            if m:
                inner = m.group(1)
                nested.const = nested.const or bool(m.group(2))
            nested.const = nested.const or a.const
            nested.nested_class = nested.nested_class or f"Zef{nested.cap}"
            member_type = self.model.find(inner, notifier_type.namespace)
            nested.type = qual(member_type, sm.namespace) if member_type is not None else inner
            nested.oncreate = r.oncreate
            r.coll = r.collection or r.attr
            r.key = member_attr.key
            self.reactor_class(sm, nested, indent + 2, class_name, True, nested.nested_class, member_attr.key,
                               f"{full_path}::{class_name}")
            hw("")

        ctor_extra = f", const {key_type}& key" if key_type else ""
        hw(f"{pad}  {class_name}(const Zef::Ptr<{ptr_type}>& notifier, {owner_type}* owner{ctor_extra})")
        if a.kind == "timer":
            hw(f"{pad}      : {base}(notifier), owner_(owner){', key_(key)' if key_type else ''} {{")
        else:
            # The attributes it reacts to are known before it registers: notifications of the
            # others pass it by without reading it.
            interests = 0
            for r in a.reactions:
                n_attr = self.notifier_attr(notifier_type, r.attr, r.line)
                interests |= self.topic_of(notifier_type, n_attr)
            hw(f"{pad}      : owner_(owner){', key_(key)' if key_type else ''} {{")
            hw(f"{pad}    zefInterestsIs(0x{interests:x}ull);")
            hw(f"{pad}    zefNotifierIs(Zef::Ptr<{notifier_spelling} const>(notifier));")
            hw(f"{pad}    isRegisteredNotifieeIs(static_cast<bool>(notifier));")
        # A mirror built on a populated collection watches its members from the start, without
        # running any handler.
        for r in mirrors:
            hw(f"{pad}    zefReconcile{r.coll[0].upper() + r.coll[1:]}();")
        hw(f"{pad}  }}")
        hw(f"{pad}  {owner_type}* owner() const noexcept {{ return owner_; }}")
        if owner_type != sm.name:
            hw(f"{pad}  // The state machine of the reactor that holds this one; null once either has gone.")
            hw(f"{pad}  {sm.name}* stateMachine() const noexcept {{ return owner_ ? owner_->owner() : nullptr; }}")
        if key_type:
            hw(f"{pad}  const {key_type}& key() const noexcept {{ return key_; }}")
        hw(f"{pad}  void zefOwnerIs({owner_type}* owner) noexcept {{")
        hw(f"{pad}    owner_ = owner;")
        for r in mirrors:
            hw(f"{pad}    {r.coll}_.forEach([](auto& nested) {{ nested.zefOwnerIs(nullptr); }});")
        hw(f"{pad}  }}")
        if getattr(a, "oncreate", None):
            hw(f"{pad}  // Runs once when the reactor is first made for a member.")
            hw(f"{pad}  void zefCreated() {{")
            for c in a.oncreate:
                hw(f"{pad}    {c};")
            hw(f"{pad}  }}")
            declarations += [(c, None, a.line) for c in a.oncreate]

        # Notification overrides.
        overridden = []
        replay_calls = []
        if a.kind == "timer":
            hw(f"{pad}  void onTime() override {{")
            hw(f"{pad}    if (isZombie() || !owner_) return;")
            for c in a.handler:
                hw(f"{pad}    {target}{c};")
            hw(f"{pad}  }}")
            replay_calls = [target + c for c in a.handler]
            declarations += [(c, None, a.line) for c in a.handler]
        guard = "isZombie()" if handlers_on_self else "isZombie() || !owner_"
        for r in a.reactions:
            n_attr = self.notifier_attr(notifier_type, r.attr, r.line)
            collection = n_attr.kind in ("values", "entities")
            keyed = [c for c in r.handlers if c.endswith("(key)")]
            keyless = [c for c in r.handlers if not c.endswith("(key)")]
            if r.mirror is not None:
                if not collection:
                    raise ZefError(f"{r.line}: only a collection can be mirrored")
                cap = r.coll[0].upper() + r.coll[1:]
                hw(f"{pad}  void on{n_attr.cap}({param_type(n_attr.key)} key) override {{")
                hw(f"{pad}    if (isZombie()) return;")
                hw(f"{pad}    if (auto member = notifier()->{r.attr}(key)) {{")
                hw(f"{pad}      {r.coll}Is(key, member);")
                hw(f"{pad}    }} else {{")
                hw(f"{pad}      {r.coll}Del(key);")
                hw(f"{pad}    }}")
                for c in keyed:
                    hw(f"{pad}    if (!isZombie() && owner_) {target}{c};")
                hw(f"{pad}  }}")
                hw(f"{pad}  void on{n_attr.cap}zefImmediate() override {{")
                hw(f"{pad}    if (isZombie()) return;")
                hw(f"{pad}    zefReconcile{cap}();")
                hw(f"{pad}  }}")
                overridden.append(f"on{n_attr.cap}")
                replay_calls.append(f"zefReconcile{cap}()")
                declarations += [(c, n_attr.key, r.line) for c in keyed]
                continue
            if collection:
                if keyed:
                    hw(f"{pad}  void on{n_attr.cap}({param_type(n_attr.key)} key) override {{")
                    hw(f"{pad}    if ({guard}) return;")
                    for c in keyed:
                        hw(f"{pad}    {target}{c};")
                    hw(f"{pad}  }}")
                if keyless:
                    hw(f"{pad}  void on{n_attr.cap}zefImmediate() override {{")
                    hw(f"{pad}    if ({guard}) return;")
                    for c in keyless:
                        hw(f"{pad}    {target}{c};")
                    hw(f"{pad}  }}")
                overridden.append(f"on{n_attr.cap}")
                replay_calls += [target + c for c in keyless]
                declarations += [(c, n_attr.key, r.line) for c in keyed] + [(c, None, r.line) for c in keyless]
            else:
                hw(f"{pad}  void on{n_attr.cap}() override {{")
                hw(f"{pad}    if ({guard}) return;")
                for c in r.handlers:
                    hw(f"{pad}    {target}{c};")
                hw(f"{pad}  }}")
                replay_calls += [target + c for c in r.handlers]
                declarations += [(c, None, r.line) for c in r.handlers]
        for name in dict.fromkeys(overridden):
            hw(f"{pad}  using {base}::{name};")
        if a.replay is not None:
            replay_calls = [target + c for c in a.replay]

        # Binding to another notifier replays the reaction.
        hw(f"{pad}  void notifierIs(const {const_ptr}& notifier) override {{")
        hw(f"{pad}    if (notifier.ptr() == notifierRaw()) return;")
        hw(f"{pad}    const bool replay = notifier && !isZombie() && owner_;")
        hw(f"{pad}    {'zefTimerWheelIs' if a.kind == 'timer' else 'zefNotifierIs'}(notifier);")
        if replay_calls:
            hw(f"{pad}    if (replay) {{")
            for c in replay_calls:
                hw(f"{pad}      {c};")
            hw(f"{pad}    }}")
        else:
            hw(f"{pad}    (void)replay;")
        for r in mirrors:
            hw(f"{pad}    if (!notifier) zefReconcile{r.coll[0].upper() + r.coll[1:]}();")
        hw(f"{pad}    isRegisteredNotifieeIs(static_cast<bool>(notifier));")
        hw(f"{pad}  }}")
        hw(f"{pad}  using {base}::notifierIs;")

        for r in mirrors:
            nested = r.mirror
            nested_ptr = f"{nested.type}{' const' if nested.const else ''}"
            cls, key, coll = nested.nested_class, r.key, r.coll
            hw(f"{pad}  Zef::Ptr<{cls}> {coll}({param_type(key)} key) const {{ return {coll}_.find(key); }}")
            hw(f"{pad}  Zef::Ptr<{cls}> {coll}Is({param_type(key)} key, const Zef::Ptr<{nested_ptr}>& member) {{")
            hw(f"{pad}    if (!member) Zef::throwNullMutatorArgument(\"{coll}\", \"{full_path}::{class_name}\", \"{coll}\");")
            hw(f"{pad}    return {coll}_.set(key, member, this);")
            hw(f"{pad}  }}")
            hw(f"{pad}  void {coll}Del({param_type(key)} key) {{ {coll}_.del(key); }}")
            hw(f"{pad}  size_t {coll}Size() const noexcept {{ return {coll}_.size(); }}")
            hw(f"{pad}  auto {coll}Iter() const {{ return {coll}_.iterator(); }}")
        for r in mirrors:
            holder = ""
            hw(f"{pad}  // Makes the nested reactors match the watched collection.")
            hw(f"{pad}  void zefReconcile{r.coll[0].upper() + r.coll[1:]}() {{")
            hw(f"{pad}    auto watched = notifier();")
            hw(f"{pad}    if (watched) {{")
            hw(f"{pad}      for (auto it = watched->{r.attr}Iter(); it; ++it) {{")
            hw(f"{pad}        if (auto member = watched->{r.attr}({r.key}(it.key()))) {holder}{r.coll}Is({r.key}(it.key()), member);")
            hw(f"{pad}      }}")
            hw(f"{pad}    }}")
            hw(f"{pad}    for (auto it = {holder}{r.coll}Iter(); it; ++it) {{")
            hw(f"{pad}      if (!watched || !watched->{r.attr}Has(it.key())) {holder}{r.coll}Del({r.key}(it.key()));")
            hw(f"{pad}    }}")
            hw(f"{pad}  }}")
        if mirrors:
            hw(f"{pad}  void hasNotificationActiveIs(bool active) override {{")
            hw(f"{pad}    {base}::hasNotificationActiveIs(active);")
            for r in mirrors:
                hw(f"{pad}    {r.coll}_.forEach([active](auto& nested) {{ nested.hasNotificationActiveIs(active); }});")
            hw(f"{pad}  }}")
            hw(f"{pad}  void zefDoZombieReactors(bool zombie) override {{")
            for r in mirrors:
                hw(f"{pad}    {r.coll}_.forEach([zombie](auto& nested) {{ nested.zefDoZombieReactors(zombie); }});")
            hw(f"{pad}    {base}::zefDoZombieReactors(zombie);")
            hw(f"{pad}  }}")
        # Hand-written handlers that live on this reactor class.
        if handlers_on_self:
            signatures = []
            for call, key, where in declarations:
                signature = self.handler_signature(call, key, where)
                self.defined_handlers.append((f"{full_path}::{class_name}", call, where))
                if signature not in signatures:
                    signatures.append(signature)
                    hw(f"{pad}  void {signature};")
            declarations = []
        hw("")
        hw(f"{pad} private:")
        hw(f"{pad}  {owner_type}* owner_;")
        if key_type:
            hw(f"{pad}  {key_type} key_;")
        for r in mirrors:
            hw(f"{pad}  Zef::ReactorMap<{r.key}, {r.mirror.nested_class}> {r.coll}_;")
        hw(f"{pad}}};")
        return declarations

    def handler_signature(self, call, key, where):
        name, args = call.split("(", 1)
        args = args.rstrip(")").strip()
        if args == "":
            return f"{name}()"
        if args == "key":
            return f"{name}({param_type(key)} key)"
        raise ZefError(f"{where}: handler '{call}' passes literal arguments: declare it with 'method'")

    def sm(self, t):
        ns = t.namespace
        hw = self.hw
        ctor = t.ctor_attrs()
        params = ", ".join(f"{self.sm_param_type(a)} {a.name}" for a in ctor)
        args = ", ".join(a.name for a in ctor)
        method_names = {re.match(r".*?(\w+)\s*\(", m).group(1) for m in t.methods if re.match(r".*?(\w+)\s*\(", m)}
        hw(f"class {t.name} : public Zef::StateMachine {{")
        hw(" public:")
        handler_decls = []
        for a in t.attrs:
            if a.kind == "reactor" or a.kind == "timer":
                handler_decls += self.reactor_class(t, a, 2, t.name, False, f"Zef{a.cap}", None, t.qname)
                hw("")
            elif a.kind == "reactors":
                self.reactor_class(t, a, 2, t.name, True, f"Zef{a.cap}", a.key, t.qname)
                hw("")
        hw(f"  static Zef::Ptr<{t.name}> {t.name}Is({params});")
        hw("")
        for a in t.attrs:
            getattr(self, f"sm_{a.kind}")(t, a)
        hw("")
        hw("  // The constructor arguments' refusal text if they differ from this object's, else empty.")
        hw(f"  Zef::String zefArgsMismatch({params}) const;")
        hw("  void hasNotificationActiveIs(bool active) override;")
        hw("  void zefDoZombieReactors(bool zombie) override;")
        # Handlers named in reactions and not declared by hand.
        extra = []
        for a in t.attrs:
            if a.kind == "data" and a.handler:
                handler_decls += [(call, None, a.line) for call in a.handler]
        for call, key, where in handler_decls:
            self.defined_handlers.append((t.qname, call, where))
            if call.split("(")[0] in method_names:
                continue
            signature = self.handler_signature(call, key, where)
            if signature not in extra:
                extra.append(signature)
        if extra or t.methods:
            hw("")
            for sig in extra:
                hw(f"  void {sig};")
            for m in t.methods:
                hw(f"  {m};")
        self.class_tail(t, ctor, params, t.attrs)
        # ---- source
        cw = self.cw
        # Parameters are spelled _x in the definition, so that the epilogue's calls of the
        # accessors are not shadowed.
        inits = [f"{a.name}_(_{a.name})" for a in t.attrs if a.is_arg and a.kind != "reactor"]
        definition_params = ", ".join(f"{self.sm_param_type(a)} _{a.name}" for a in ctor)
        cw(f"{t.name}::{t.name}({definition_params}){' : ' + ', '.join(inits) if inits else ''} {{")
        cw("  ConstructionGuard guard(*this);")
        # Reactors on arguments come first, in declaration order, once every member exists: a
        # mirror already watches the members of its collection when it is built.
        for a in t.attrs:
            if a.kind == "reactor" and a.is_arg:
                cw(f"  {a.name}_ = Zef::makeReactor<Zef{a.cap}>(_{a.name}, this);")
                cw(f"  {a.name}Notifier_ = _{a.name}.ptr();")
        epilogue = t.epilogue or (["handleInitialized()"] if "handleInitialized" in method_names else [])
        for statement in epilogue:
            cw(f"  {statement};")
        cw("}")
        cw("")
        cw(f"{t.name}::~{t.name}() {{")
        if "handleCleanUp" in method_names:
            cw("  handleCleanUp();")
        cw("  zefDoZombieReactors(true);")
        for a in t.attrs:
            if a.kind in ("reactor", "timer"):
                cw(f"  if ({a.name}_) {a.name}_->zefOwnerIs(nullptr);")
            elif a.kind == "reactors":
                cw(f"  {a.name}_.forEach([](auto& reactor) {{ reactor.zefOwnerIs(nullptr); }});")
        for a in t.attrs:
            if a.kind == "sms":
                cw(f"  {a.name}DelAll();")
        cw("}")
        cw("")
        self.factories(t, params, args)
        cw(f"Zef::String {t.name}::zefArgsMismatch({params}) const {{")
        for a in ctor:
            current = f"this->{a.name}()"
            cw(f"  if (!({current} == {a.name})) {{")
            cw(f"    return Zef::String(\"Reinstantiating the pointer interface where constructor parameter attribute _{a.name} \"")
            cw(f"                       \"has a different value of \") + Zef::valueToString({a.name}) + \" than the current value of \" +")
            cw(f"           Zef::valueToString({current}) + \" not allowed\";")
            cw("  }")
        if not ctor:
            cw("  return Zef::String();")
        else:
            cw("  return Zef::String();")
        cw("}")
        cw("")
        cw(f"void {t.name}::hasNotificationActiveIs(bool active) {{")
        cw("  StateMachine::hasNotificationActiveIs(active);")
        for a in t.attrs:
            if a.kind in ("reactor", "timer", "sm"):
                cw(f"  if ({a.name}_) {a.name}_->hasNotificationActiveIs(active);")
            elif a.kind in ("reactors",):
                cw(f"  {a.name}_.forEach([active](auto& reactor) {{ reactor.hasNotificationActiveIs(active); }});")
            elif a.kind == "sms":
                cw(f"  for (auto& child : {a.name}_) child->hasNotificationActiveIs(active);")
        cw("}")
        cw("")
        cw(f"void {t.name}::zefDoZombieReactors(bool zombie) {{")
        for a in t.attrs:
            if a.kind in ("reactor", "timer"):
                cw(f"  if ({a.name}_) {a.name}_->zefDoZombieReactors(zombie);")
            elif a.kind == "reactors":
                cw(f"  {a.name}_.forEach([zombie](auto& reactor) {{ reactor.zefDoZombieReactors(zombie); }});")
        cw("  StateMachine::zefDoZombieReactors(zombie);")
        cw("}")
        cw("")

    def class_tail(self, t, ctor, params, stored):
        """The protected constructor and destructor, the storage, and the factory's declaration."""
        hw = self.hw
        hw("")
        hw(" protected:")
        hw(f"  {'explicit ' if len(ctor) == 1 else ''}{t.name}({params});")
        hw(f"  ~{t.name}() override;")
        hw("")
        hw(" private:")
        for a in stored:
            hw(f"  {self.storage(a)};")
            if a.kind == "reactor":
                hw(f"  {a.type}{' const' if a.const else ''}* {a.name}Notifier_ = nullptr;")
        hw("};")
        hw("")
        hw(f"Zef::Ptr<{t.name}> {factory_name(t.name)}({params});")
        hw("")

    def factories(self, t, params, args):
        """XIs and xFactory: construct, then switch notification on."""
        cw = self.cw
        cw(f"Zef::Ptr<{t.name}> {t.name}::{t.name}Is({params}) {{")
        cw(f"  Zef::Ptr<{t.name}> object(new {t.name}({args}));")
        cw("  object->hasNotificationActiveIs(true);")
        cw("  return object;")
        cw("}")
        cw("")
        cw(f"Zef::Ptr<{t.name}> {factory_name(t.name)}({params}) {{ return {t.name}::{t.name}Is({args}); }}")
        cw("")

    def storage(self, a):
        """The member that holds an attribute of an entity or a state machine."""
        if a.kind in ("ctor", "value", "counter", "data", "member"):
            init = f" = {a.default}" if a.default is not None else "{}"
            return f"{a.type} {a.name}_{init}"
        if a.kind in ("child", "sm"):
            return f"Zef::Ptr<{a.type}> {a.name}_"
        if a.kind == "values":
            return f"Zef::ValueMap<{a.key}, {a.type}> {a.name}_"
        if a.kind in ("entities", "sms"):
            return f"Zef::HashMap<{a.key}, {a.type}> {a.name}_"
        if a.kind in ("reactor", "timer"):
            return f"Zef::Ptr<Zef{a.cap}> {a.name}_"
        if a.kind == "reactors":
            return f"Zef::ReactorMap<{a.key}, Zef{a.cap}> {a.name}_"
        raise ZefError(f"{a.line}: no storage for {a.kind}")

    def sm_data(self, t, a):
        hw = self.hw
        hw(f"  const {a.type}& {a.name}() const noexcept {{ return {a.name}_; }}")
        if a.is_arg:
            return
        hw(f"  void {a.name}Is({param_type(a.type)} value) {{")
        if a.handler:
            hw(f"    if ({a.name}_ == value) return;")
        hw(f"    {a.name}_ = value;")
        for c in a.handler or []:
            hw(f"    {c};")
        hw("  }")
        if re.match(r"^(u?int(8|16|32|64)_t|unsigned|int|size_t)$", a.type):
            hw(f"  {a.type} {a.name}Inc({a.type} delta = 1) {{")
            hw(f"    {a.name}Is(static_cast<{a.type}>({a.name}_ + delta));")
            hw(f"    return {a.name}_;")
            hw("  }")

    def sm_reactor(self, t, a):
        hw = self.hw
        ptr = f"{a.type}{' const' if a.const else ''}"
        # The notifier is also kept here, beside the reactor: handlers read it all the time, and the
        # reactor is a separate object that a read would otherwise have to visit. It is set before
        # the reactor moves, so that a handler the move replays reads the new notifier.
        hw(f"  Zef::Ptr<{ptr}> {a.name}() const {{ return Zef::Ptr<{ptr}>({a.name}Notifier_); }}")
        hw(f"  const Zef::Ptr<Zef{a.cap}>& {a.name}Reactor() const noexcept {{ return {a.name}_; }}")
        hw(f"  void {a.name}Is(const Zef::Ptr<{ptr}>& notifier) {{")
        hw(f"    {a.name}Notifier_ = notifier.ptr();")
        hw(f"    Zef::reactorIs({a.name}_, notifier, this);")
        hw(f"    {a.name}Notifier_ = {a.name}_ ? {a.name}_->notifier().ptr() : nullptr;")
        hw("  }")
        hw(f"  void {a.name}Del() {{")
        hw(f"    {a.name}Notifier_ = nullptr;")
        hw(f"    Zef::reactorDel({a.name}_);")
        hw("  }")

    def sm_timer(self, t, a):
        hw = self.hw
        hw(f"  const Zef::Ptr<Zef{a.cap}>& {a.name}() const noexcept {{ return {a.name}_; }}")
        hw(f"  void {a.name}Is(const Zef::Ptr<Orb::TimerWheel>& wheel) {{ Zef::reactorIs({a.name}_, wheel, this); }}")
        hw(f"  void {a.name}Del() {{ Zef::reactorDel({a.name}_); }}")

    def sm_reactors(self, t, a):
        hw = self.hw
        ptr = f"{a.type}{' const' if a.const else ''}"
        cls = f"Zef{a.cap}"
        hw(f"  Zef::Ptr<{cls}> {a.name}({param_type(a.key)} key) const {{ return {a.name}_.find(key); }}")
        hw(f"  Zef::Ptr<{cls}> {a.name}Is({param_type(a.key)} key, const Zef::Ptr<{ptr}>& notifier) {{")
        hw(f"    if (!notifier) Zef::throwNullMutatorArgument(\"{a.name}\", \"{t.qname}\", \"{a.name}\");")
        hw(f"    return {a.name}_.set(key, notifier, this);")
        hw("  }")
        if a.keyof:
            hw(f"  Zef::Ptr<{cls}> {a.name}Is(const Zef::Ptr<{ptr}>& v) {{")
            hw(f"    if (!v) Zef::throwNullMutatorArgument(\"{a.name}\", \"{t.qname}\", \"{a.name}\");")
            hw(f"    return {a.name}Is({a.keyof}, v);")
            hw("  }")
        hw(f"  void {a.name}Del({param_type(a.key)} key) {{ {a.name}_.del(key); }}")
        hw(f"  void {a.name}DelAll() {{ {a.name}_.delAll(); }}")
        hw(f"  size_t {a.name}Size() const noexcept {{ return {a.name}_.size(); }}")
        hw(f"  auto {a.name}Iter() const {{ return {a.name}_.iterator(); }}")

    def child_params(self, t, a):
        child = self.model.need(a.type, t.namespace, a.line)
        ctor = child.ctor_attrs()
        params = ", ".join(f"{self.respell(self.sm_param_type(c), child.namespace, t.namespace)} {c.name}" for c in ctor)
        return child, ctor, params, ", ".join(c.name for c in ctor)

    def respell(self, text, written_in, spelled_from):
        """A type written in one namespace, as it is spelled from another: the declared types it
        names without qualification get their namespace."""
        if written_in == spelled_from:
            return text

        def name(m):
            found = self.model.find(m.group(0), written_in)
            return qual(found, spelled_from) if found is not None else m.group(0)

        return re.sub(r"(?<![:\w])[A-Za-z_]\w*(?:::\w+)*", name, text)

    def sm_sm(self, t, a):
        hw = self.hw
        child, ctor, params, args = self.child_params(t, a)
        cq = qual(child, t.namespace)
        hw(f"  const Zef::Ptr<{cq}>& {a.name}() const noexcept {{ return {a.name}_; }}")
        hw(f"  // Keeps the child if it was built with the same arguments; otherwise a new one replaces it.")
        hw(f"  Zef::Ptr<{cq}> {a.name}Is({params}) {{")
        hw(f"    if ({a.name}_ && {a.name}_->zefArgsMismatch({args}).empty()) return {a.name}_;")
        hw(f"    {a.name}Del();")
        hw(f"    {a.name}_ = {cq}::{child.name}Is({args});")
        hw(f"    return {a.name}_;")
        hw("  }")
        hw(f"  void {a.name}Del() {{")
        hw(f"    Zef::Ptr<{cq}> child = std::move({a.name}_);")
        hw("    if (child) child->hasNotificationActiveIs(false);")
        hw("  }")

    def sm_sms(self, t, a):
        hw = self.hw
        child, ctor, params, args = self.child_params(t, a)
        cq = qual(child, t.namespace)
        if not ctor:
            raise ZefError(f"{a.line}: {child.qname} needs a constructor argument to key it by")
        hw(f"  Zef::Ptr<{cq}> {a.name}({param_type(a.key)} key) const {{ return {a.name}_.find(key); }}")
        if a.strict:
            hw(f"  // Returns the existing child of the key; building it again with other arguments is refused.")
            hw(f"  Zef::Ptr<{cq}> {a.name}Is({params}) {{")
            hw(f"    if (Zef::Ptr<{cq}> existing = {a.name}_.find({ctor[0].name})) {{")
            hw(f"      const Zef::String refusal = existing->zefArgsMismatch({args});")
            hw("      if (!refusal.empty()) Zef::throwRangeException(refusal);")
            hw("      return existing;")
            hw("    }")
        else:
            hw(f"  // Returns the existing child of the key unchanged, whatever the other arguments.")
            hw(f"  Zef::Ptr<{cq}> {a.name}Is({params}) {{")
            hw(f"    if (Zef::Ptr<{cq}> existing = {a.name}_.find({ctor[0].name})) return existing;")
        hw(f"    Zef::Ptr<{cq}> child = {cq}::{child.name}Is({args});")
        hw(f"    {a.name}_.insert({ctor[0].name}, child);")
        hw("    return child;")
        hw("  }")
        hw(f"  void {a.name}Del({param_type(a.key)} key) {{")
        hw(f"    Zef::Ptr<{cq}> child = {a.name}_.erase(key);")
        hw("    if (child) child->hasNotificationActiveIs(false);")
        hw("  }")
        hw(f"  void {a.name}DelAll() {{")
        hw(f"    for (auto it = {a.name}_.iterator(); it; ++it) {a.name}Del({a.key}(it.key()));")
        hw("  }")
        hw(f"  size_t {a.name}Size() const noexcept {{ return {a.name}_.size(); }}")
        hw(f"  auto {a.name}Iter() const {{ return {a.name}_.iterator(); }}")


def emit_file(model, rel, types, includes):
    e = Emitter(model)
    guard_includes = ["platform/Entity.h", "platform/HashMap.h", "platform/ValueMap.h", "platform/StateMachine.h",
                      "platform/TimerWheel.h", "platform/ValueText.h"]
    stem = os.path.splitext(rel)[0]
    e.hw("// Generated from " + rel + " by tools/zefgen.py. Do not edit: change the declaration.")
    e.hw("#pragma once")
    e.hw("")
    for inc in guard_includes:
        e.hw(f'#include "{inc}"')
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
            e.hw(f"class {t.name};")
        e.hw("")
        for t in dependency_order(in_ns):
            if t.kind == "entity":
                e.entity(t)
            else:
                e.sm(t)
        if ns:
            e.hw(f"}}  // namespace {ns}")
            e.cw(f"}}  // namespace {ns}")
    return "\n".join(e.h) + "\n", "\n".join(e.cpp) + "\n", e.defined_handlers


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


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--source-root", required=True)
    parser.add_argument("--out-root", required=True)
    parser.add_argument("files", nargs="+")
    options = parser.parse_args()
    parsed = []
    try:
        for path in options.files:
            rel = os.path.relpath(os.path.abspath(path), os.path.abspath(options.source_root))
            types, includes = parse_file(path, rel)
            parsed.append((rel, types, includes))
        model = Model([t for _, types, _ in parsed for t in types])
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
