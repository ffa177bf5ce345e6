#!/usr/bin/env python3
"""Decodes the schema texts and payloads that the library wrote with another Avro
implementation, and checks every value: python3 avro_interop.py FILE.json"""

import io
import json
import math
import sys

import avro.io
import avro.schema


def same(found, wanted):
    """Records field by field, arrays element by element, bytes as lists of numbers."""
    if isinstance(found, bytes):
        found = list(found)
    if isinstance(wanted, dict):
        return isinstance(found, dict) and set(found) == set(wanted) and all(same(found[k], wanted[k]) for k in wanted)
    if isinstance(wanted, list):
        return isinstance(found, list) and len(found) == len(wanted) and all(map(same, found, wanted))
    if isinstance(wanted, float) or isinstance(found, float):
        return math.isclose(found, wanted, rel_tol=1e-7, abs_tol=0.0)
    return found == wanted


def main():
    with open(sys.argv[1], encoding="utf-8") as source:
        records = json.load(source)
    assert records, "no record to decode"
    failures = 0
    for number, record in enumerate(records):
        schema = avro.schema.parse(record["schema"])
        payload = bytes.fromhex(record["payload"])
        stream = io.BytesIO(payload)
        decoded = avro.io.DatumReader(schema).read(avro.io.BinaryDecoder(stream))
        if stream.tell() != len(payload):
            print(f"record {number}: {len(payload) - stream.tell()} bytes left over")
            failures += 1
        # A delta record carries residuals: decoding it whole is what is checked.
        wanted = record.get("values")
        if wanted is None:
            continue
        for name in sorted(set(decoded) | set(wanted)):
            if name not in decoded or name not in wanted or not same(decoded[name], wanted[name]):
                print(f"record {number}: {name} is {decoded.get(name)}, {wanted.get(name)} was written")
                failures += 1
    print(f"{len(records)} records decoded, {failures} differences")
    return 1 if failures else 0


if __name__ == "__main__":
    sys.exit(main())
