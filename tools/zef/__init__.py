"""The generator of entities and state machines: parse, check, emit (tools/zefgen.py runs it)."""
