"""What a `.zef` file declares: types, their attributes, and the reactions of state machines."""


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
        # A setting (kind param, live or profile) of a `settings` group:
        self.file_key = None  # its key in the configuration file
        self.range = None  # (lowest, highest) of a whole number
        self.only = None  # the only whole numbers it may be
        self.names = None  # [(text, value)] of a value named in the configuration file
        self.group = None  # `settings` in an entity or a reaction: (group, reach or None)

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
        self.group = None  # `settings Group [reach] -> h()`: (group, reach or None), one reaction per setting


class Type:
    def __init__(self, kind, name, namespace, source):
        self.kind = kind  # entity | sm | settings
        self.name = name
        self.namespace = namespace
        self.source = source
        self.attrs = []
        self.methods = []
        self.epilogue = []
        self.nobackup = False
        self.params = None  # of settings: the struct of its `param` settings

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
