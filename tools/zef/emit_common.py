"""How types and parameters are spelled in the generated C++."""


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
