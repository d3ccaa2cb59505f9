#!/usr/bin/env python3
"""Builds the fuzzer's seed corpus from the conformance vectors.

Each JSON graph is encoded in the byte format that graph_decoder.cpp reads
(dims are clamped to 8 and quantization snapped to the decoder's tables, so a
seed is a small graph of the same structure, not an exact copy).

Usage: make_corpus.py CONFORMANCE_DIR OUT_DIR [LIMIT]
"""
import json
import os
import struct
import sys

# Must match graph_decoder.cpp.
OPERATION_CODES = [0, 1, 2, 3, 4, 9, 17, 19, 20, 21, 22, 23, 36, 71, 91, 6, 14, 18, 25, 32, 34, 26, 29, 33, 28,
                   13, 12, 37, 5, 8, 38, 70, 72, 20000, 20001, -1, 1000, 255, 16]
SCALES = [0.5, 0.25, 1.0, 0.0078125, 0.0, -1.0, 0.1, 2.0]
ZERO_POINTS = [0, 128, 255, 1, -1, 256, 127, 64]
LIFETIMES = {"input": 0, "output": 1, "constant": 2, "internal": 3}


def nearest(table, value):
    return min(range(len(table)), key=lambda i: abs(table[i] - value))


def encode(model):
    out = bytearray()
    operands = model["operands"][:24]
    out.append((len(operands) - 1) % 256)
    for op in operands:
        out.append(op["type"] % 6)
        dims = [min(d, 8) for d in op["dims"][:5]]
        out.append(len(dims))
        out.extend(dims)
        q = nearest(SCALES, op.get("scale", 0.0)) | (nearest(ZERO_POINTS, op.get("zeroPoint", 0)) << 3)
        out.append(q)
        life = LIFETIMES.get(op.get("lifetime", "internal"), 3)
        out.append(life)
        if life == 2:
            out.append(2)  # complete data
            count = 1
            for d in dims:
                count *= d
            values = (op.get("data") or [0])[:count]
            values += [0] * (count - len(values))
            for v in values:
                if op["type"] == 5:
                    out.append(int(v) & 0xFF)
                elif op["type"] in (0, 3):
                    out.extend(struct.pack("<f", float(v)))
                else:
                    out.extend(struct.pack("<i", int(v)))
    operations = model["operations"][:5]
    out.append(len(operations))
    n = len(operands)
    for operation in operations:
        code = operation["type"]
        out.append(OPERATION_CODES.index(code) if code in OPERATION_CODES else len(OPERATION_CODES) - 1)
        ins = operation["inputs"][:11]
        outs = operation["outputs"][:2]
        out.append(len(ins))
        out.append(len(outs))
        out.extend(i % (n + 2) for i in ins)
        out.extend(i % (n + 2) for i in outs)
    out.append(0)
    return bytes(out)


def main():
    src, dst = sys.argv[1], sys.argv[2]
    limit = int(sys.argv[3]) if len(sys.argv) > 3 else 10**9
    os.makedirs(dst, exist_ok=True)
    written = 0
    for root, _, files in sorted(os.walk(src)):
        for name in sorted(files):
            if not name.endswith(".json") or written >= limit:
                continue
            with open(os.path.join(root, name)) as f:
                model = json.load(f)
            with open(os.path.join(dst, os.path.splitext(name)[0] + ".bin"), "wb") as f:
                f.write(encode(model))
            written += 1
    print(f"{written} seeds written to {dst}")


if __name__ == "__main__":
    main()
