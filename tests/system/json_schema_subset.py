"""A validator for the part of JSON Schema that docs/chmgrctl.schema.json
uses: type, const, enum, properties, required, additionalProperties (false),
items, oneOf, minimum, maximum and local $ref ("#/$defs/NAME").  Anything
else in a schema is an error, so the schema cannot silently use more than
is checked here."""

import json
from pathlib import Path

SCHEMA_PATH = Path(__file__).resolve().parents[2] / "docs" / "chmgrctl.schema.json"

KNOWN_KEYWORDS = {"$schema", "$id", "title", "description", "$defs", "type", "const", "enum", "properties",
                  "required", "additionalProperties", "items", "oneOf", "minimum", "maximum", "$ref"}

TYPES = {
    "object": lambda v: isinstance(v, dict),
    "array": lambda v: isinstance(v, list),
    "string": lambda v: isinstance(v, str),
    "boolean": lambda v: isinstance(v, bool),
    "null": lambda v: v is None,
    "integer": lambda v: isinstance(v, int) and not isinstance(v, bool),
    "number": lambda v: isinstance(v, (int, float)) and not isinstance(v, bool),
}


def load_schema():
    return json.loads(SCHEMA_PATH.read_text(encoding="utf-8"))


def _same(a, b):
    """JSON equality: true is not 1."""
    return type(a) is type(b) and a == b or (TYPES["number"](a) and TYPES["number"](b) and a == b)


def errors(value, schema, root=None, where="$"):
    """The list of reasons `value` does not match `schema` (empty: it matches)."""
    root = root if root is not None else schema
    unknown = set(schema) - KNOWN_KEYWORDS
    if unknown:
        return [f"{where}: schema uses unsupported keywords {sorted(unknown)}"]
    if "$ref" in schema:
        ref = schema["$ref"]
        assert ref.startswith("#/$defs/"), ref
        return errors(value, root["$defs"][ref[len("#/$defs/"):]], root, where)
    found = []
    if "type" in schema:
        kinds = schema["type"] if isinstance(schema["type"], list) else [schema["type"]]
        if not any(TYPES[kind](value) for kind in kinds):
            return [f"{where}: {value!r} is not of type {kinds}"]
    if "const" in schema and not _same(value, schema["const"]):
        found.append(f"{where}: {value!r} is not {schema['const']!r}")
    if "enum" in schema and not any(_same(value, option) for option in schema["enum"]):
        found.append(f"{where}: {value!r} is not one of {schema['enum']}")
    if "minimum" in schema and TYPES["number"](value) and value < schema["minimum"]:
        found.append(f"{where}: {value} is below {schema['minimum']}")
    if "maximum" in schema and TYPES["number"](value) and value > schema["maximum"]:
        found.append(f"{where}: {value} is above {schema['maximum']}")
    if "oneOf" in schema:
        matching = [option for option in schema["oneOf"] if not errors(value, option, root, where)]
        if len(matching) != 1:
            details = [errors(value, option, root, where) for option in schema["oneOf"]]
            found.append(f"{where}: matches {len(matching)} of the oneOf choices, not 1: {details}")
    if isinstance(value, dict):
        properties = schema.get("properties", {})
        for name in schema.get("required", []):
            if name not in value:
                found.append(f"{where}: member {name!r} is missing")
        for name, member in value.items():
            if name in properties:
                found += errors(member, properties[name], root, f"{where}.{name}")
            elif schema.get("additionalProperties", True) is False:
                found.append(f"{where}: member {name!r} is not allowed")
    if isinstance(value, list) and "items" in schema:
        for index, element in enumerate(value):
            found += errors(element, schema["items"], root, f"{where}[{index}]")
    return found


def assert_valid(value, schema=None):
    """Fails the test with every reason when `value` does not match the documented schema."""
    problems = errors(value, schema or load_schema())
    assert not problems, "\n".join(problems)
