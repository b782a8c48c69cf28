"""The C++ of a state machine: its arguments, reactors, timers, children and their handlers."""

import re

from zef.declarations import ZefError
from zef.emit_common import factory_name, param_type, qual


class MachineParts:

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
        # the reactor moves, so that a handler the move replays reads the new notifier. Handed out
        # uncounted: the reactor holds it for as long as the machine does not move the reactor.
        hw(f"  {ptr}* {a.name}() const noexcept {{ return {a.name}Notifier_; }}")
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
        hw("  // Keeps the child if it was built with the same arguments; otherwise a new one replaces it.")
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
            hw("  // Returns the existing child of the key; building it again with other arguments is refused.")
            hw(f"  Zef::Ptr<{cq}> {a.name}Is({params}) {{")
            hw(f"    if (Zef::Ptr<{cq}> existing = {a.name}_.find({ctor[0].name})) {{")
            hw(f"      const Zef::String refusal = existing->zefArgsMismatch({args});")
            hw("      if (!refusal.empty()) Zef::throwRangeException(refusal);")
            hw("      return existing;")
            hw("    }")
        else:
            hw("  // Returns the existing child of the key unchanged, whatever the other arguments.")
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
