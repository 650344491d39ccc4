"""The official schema of CycloneDX 1.6, which scripts/setup --lint fetches."""

import json
import pathlib

import jsonschema

_FOLDER = (
    pathlib.Path(__file__).resolve().parents[2]
    / "build/deps/cyclonedx/node_modules/@cyclonedx/cyclonedx-library/res/schema"
)
_NAME = "bom-1.6.SNAPSHOT.schema.json"

_KNOWN = jsonschema.Draft7Validator.VALIDATORS["additionalItems"]

IS_THERE = (_FOLDER / _NAME).is_file()


def _additional_items(validator, allowed, instance, schema):
    """jsonschema 4.10 sorts what is too much to word its error, and fails where that are objects."""
    try:
        yield from _KNOWN(validator, allowed, instance, schema)
    except TypeError:
        yield jsonschema.ValidationError("more items than are allowed")


_Validator = jsonschema.validators.extend(jsonschema.Draft7Validator, {"additionalItems": _additional_items})


def problems(document):
    """What is wrong with the document, a sentence each."""
    schemas = {path.name: json.loads(path.read_text()) for path in _FOLDER.glob("*.schema.json")}
    schema = schemas[_NAME]
    # What the schema refers to lies beside it; nothing is fetched.
    beside = {f"{schema['$id'].rpartition('/')[0]}/{name}": content for name, content in schemas.items()}
    resolver = jsonschema.RefResolver.from_schema(schema, store=beside)
    validator = _Validator(schema, resolver=resolver, format_checker=jsonschema.Draft7Validator.FORMAT_CHECKER)
    return [f"{error.json_path}: {error.message}" for error in validator.iter_errors(document)]
