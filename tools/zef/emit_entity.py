"""The C++ of an entity: its class, mutators, notifiee classes and storage."""

from zef.emit_common import param_type


class EntityParts:

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
        if member is not None and member.kind == "entity":
            # Made inside the collection's node, then switched on as its factory would.
            hw(f"    Zef::Ptr<{a.type}> member = {a.name}_.emplace(key, key, std::forward<Args>(args)...);")
            hw("    member->hasNotificationActiveIs(true);")
            hw(f"    member->parentIs(this, \"{a.name}\");")
        else:
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
