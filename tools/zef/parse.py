"""Reads a `.zef` file into declarations; refuses what the language does not have, with its line."""

import re

from zef.declarations import Attr, Reaction, Type, ZefError


ENTITY_KINDS = {"ctor", "value", "counter", "child", "values", "entities", "member", "settings"}
REACHES = ("param", "live", "profile")
SETTING_CLAUSES = ("=", "file", "range", "only", "names")
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
            elif head == "settings":
                current = Type(head, words[1], namespace, rel)
                if words[2:3] != ["params"] or len(words) != 4:
                    raise ZefError(f"{where}: write 'settings Name params StructOfParams'")
                current.params = words[3]
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
        attr = parse_setting(text, where) if current.kind == "settings" else parse_attr(current, text, where)
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


def parse_group(words, where):
    """'Group [reach]' of a `settings` line in an entity or a reaction."""
    if not words or len(words) > 2 or (len(words) == 2 and words[1] not in REACHES):
        raise ZefError(f"{where}: write 'settings Group' or 'settings Group {'|'.join(REACHES)}'")
    return words[0], words[1] if len(words) == 2 else None


def parse_setting(text, where):
    """'reach name Type [= default] file key [range lo..hi] [only a b] [names text=value ...]'"""
    words = text.split()
    if words[0] not in REACHES or len(words) < 3:
        raise ZefError(f"{where}: a setting is '{'|'.join(REACHES)} name Type ... file key'")
    attr = Attr(words[0], words[1], words[2], where)
    clauses = {}
    clause = None
    for word in words[3:]:
        if word in SETTING_CLAUSES and word not in clauses:
            clause = word
            clauses[clause] = []
        elif clause is None:
            raise ZefError(f"{where}: cannot read '{word}' of setting {attr.name}")
        else:
            clauses[clause].append(word)
    if len(clauses.get("file", [])) != 1:
        raise ZefError(f"{where}: setting {attr.name} needs 'file key', its key in the configuration file")
    attr.file_key = clauses["file"][0]
    if "=" in clauses:
        attr.default = " ".join(clauses["="])
    if "range" in clauses:
        bounds = clauses["range"][0].split("..") if len(clauses["range"]) == 1 else []
        if len(bounds) != 2 or not all(b.isdigit() for b in bounds):
            raise ZefError(f"{where}: write the range of {attr.name} as 'range lowest..highest'")
        attr.range = (int(bounds[0]), int(bounds[1]))
    if "only" in clauses:
        if not clauses["only"] or not all(v.isdigit() for v in clauses["only"]):
            raise ZefError(f"{where}: 'only' of {attr.name} takes whole numbers")
        attr.only = [int(v) for v in clauses["only"]]
    if "names" in clauses:
        pairs = [w.split("=", 1) for w in clauses["names"]]
        if not pairs or any(len(p) != 2 or not p[0] or not p[1] for p in pairs):
            raise ZefError(f"{where}: write the names of {attr.name} as 'names text=value ...'")
        attr.names = [(p[0], p[1]) for p in pairs]
    whole = attr.type in ("uint8_t", "uint16_t", "uint32_t", "uint64_t")
    if whole and not (attr.range or attr.only):
        raise ZefError(f"{where}: setting {attr.name} is a whole number: give its 'range' or 'only'")
    # A name (Zef::String) is text the file gives, naming another part of it.
    if not whole and attr.type not in ("bool", "Zef::String") and not attr.names:
        raise ZefError(f"{where}: setting {attr.name} of type {attr.type} needs its 'names'")
    return attr


def parse_attr(current, text, where):
    words = text.split()
    if words[0] == "settings" and current.kind == "entity":
        attr = Attr("settings", "", "", where)
        attr.group = parse_group(words[1:], where)
        return attr
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
    if reaction.attr == "settings" and "->" in body:
        group, handlers = body.split("->", 1)
        reaction.group = parse_group(group.split(), where)
        reaction.handlers = parse_calls(handlers.strip())
        return reaction
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
