#!/usr/bin/python3
"""Checks a dump of the registry against a JSON schema: check_settings.py SCHEMA DUMP"""

import json
import pathlib
import sys

import jsonschema


def main(schema, dump):
    rules, settings = (json.loads(pathlib.Path(path).read_text(encoding="utf-8")) for path in (schema, dump))
    errors = jsonschema.validators.validator_for(rules)(rules).iter_errors(settings)
    texts = sorted(f"/{'/'.join(error.absolute_path)}: {error.message}" for error in errors)
    sys.exit("\n".join(texts) or 0)


main(*sys.argv[1:])
