"""The C++ of a settings group: the struct of its parameters, and a description of each setting that
one template can walk, for the merge, the forwarding, the configuration file and the status report."""


class SettingsParts:

    def settings(self, t):
        hw, cw = self.hw, self.cw
        params = [s for s in t.attrs if s.kind == "param"]
        hw(f"// The `param` settings of {t.name}, fixed for the life of what is made with them.")
        hw(f"struct {t.params} {{")
        for s in params:
            hw(f"  {s.type} {s.name}{{{s.default or ''}}};")
        hw(f"  bool operator==(const {t.params}&) const noexcept = default;")
        hw("};")
        hw(f"std::ostream& operator<<(std::ostream& out, const {t.params}& params);")
        hw("")
        hw("// Each setting as a type S: S::Type, S::reach, S::fileKey, the bounds of a whole")
        hw("// number (S::lowest and S::highest, or S::only) or the names of a value (S::names), S::param")
        hw("// for a parameter, and S::of(holder) and S::set(holder, value) on anything that holds it.")
        hw(f"struct {t.name} {{")
        for s in t.attrs:
            hw(f"  struct {s.name} {{")
            hw(f"    using Type = {s.type};")
            hw(f"    static constexpr Zef::SettingReach reach = Zef::SettingReach::{s.kind};")
            hw(f'    static constexpr std::string_view fileKey = "{s.file_key}";')
            if s.range:
                hw(f"    static constexpr uint64_t lowest = {s.range[0]}u;")
                hw(f"    static constexpr uint64_t highest = {s.range[1]}u;")
            if s.only:
                values = ", ".join(f"{v}u" for v in s.only)
                hw(f"    static constexpr std::array<uint64_t, {len(s.only)}> only{{{values}}};")
            if s.names:
                pairs = ", ".join(f'{{"{text}", {value}}}' for text, value in s.names)
                hw(f"    static constexpr std::array<std::pair<std::string_view, Type>, {len(s.names)}> names{{{{{pairs}}}}};")
            if s.kind == "param":
                hw(f"    static constexpr Type {t.params}::*param = &{t.params}::{s.name};")
            hw(f"    static Type of(const auto& holder) {{ return holder.{s.name}(); }}")
            hw(f"    static void set(auto& holder, Type value) {{ holder.{s.name}Is(value); }}")
            hw("  };")
        hw("  // Calls visit(S{}) for each setting S, in the order of the declaration.")
        hw("  template <class Visitor>")
        hw("  static void forEach(Visitor&& visit) {")
        for s in t.attrs:
            hw(f"    visit({s.name}{{}});")
        hw("  }")
        hw("};")
        hw("")
        cw(f"std::ostream& operator<<(std::ostream& out, const {t.params}& params) {{")
        parts = []
        for s in params:
            value = f"params.{s.name}"
            if s.type == "bool":
                value = f'({value} ? "true" : "false")'
            elif s.type == "uint8_t":
                value = f"+{value}"
            label = f"{t.params}(" if not parts else ", "
            parts.append(f'"{label}{s.name}=" << {value}')
        cw(f'  return out << {" << ".join(parts)} << ")";')
        cw("}")
        cw("")
