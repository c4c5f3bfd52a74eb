#!/usr/bin/env python3
# SPDX-License-Identifier: MIT
"""validate.py SCHEMA DOCUMENTS: whether each value of the JSON array in DOCUMENTS is valid, as a JSON
array, by an implementation that is not the tool's. Exits 77 where there is none."""
import json, sys

try:
    from jsonschema import Draft202012Validator as Validator
except ImportError as missing:
    print(f"{missing}: install python3-jsonschema")
    sys.exit(77)
with open(sys.argv[1]) as schema, open(sys.argv[2]) as documents:
    validator = Validator(json.load(schema))
    Validator.check_schema(validator.schema)
    print(json.dumps([validator.is_valid(document) for document in json.load(documents)]))
