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
        wanted = record["values"]
        if stream.tell() != len(payload):
            print(f"record {number}: {len(payload) - stream.tell()} bytes left over")
            failures += 1
        if set(decoded) != set(wanted):
            print(f"record {number}: fields {sorted(decoded)} where {sorted(wanted)} were written")
            failures += 1
            continue
        for name, value in wanted.items():
            found = decoded[name]
            values = zip(found, value) if isinstance(value, list) else [(found, value)]
            if (isinstance(value, list) and len(found) != len(value)) or not all(same(f, w) for f, w in values):
                print(f"record {number}: {name} is {found}, {value} was written")
                failures += 1
    print(f"{len(records)} records decoded, {failures} differences")
    return 1 if failures else 0


if __name__ == "__main__":
    sys.exit(main())
