#!/usr/bin/env python3
"""Prints the memory an Intel HEX file describes, independent of record
layout: number of data bytes, lowest and highest address, and a SHA-256 over
the (address, byte) runs in address order. Two files with the same line hold
the same memory. Usage: hexsum.py FILE..."""
import hashlib
import sys


def runs(path):
    base = 0
    mem = {}
    with open(path, "rb") as f:
        for line in f:
            line = line.strip()
            if not line:
                continue
            b = bytes.fromhex(line[1:].decode())
            n, addr, typ = b[0], (b[1] << 8) | b[2], b[3]
            if typ == 0:
                mem[base + addr] = b[4:4 + n]
            elif typ == 2:
                base = ((b[4] << 8) | b[5]) << 4
            elif typ == 4:
                base = ((b[4] << 8) | b[5]) << 16
    # Join records into runs of consecutive addresses.
    out = []
    for a in sorted(mem):
        d = mem[a]
        if out and out[-1][0] + len(out[-1][1]) == a:
            out[-1][1].extend(d)
        else:
            out.append([a, bytearray(d)])
    return out


def main():
    for path in sys.argv[1:]:
        h = hashlib.sha256()
        total = 0
        rs = runs(path)
        for a, d in rs:
            h.update(a.to_bytes(8, "big") + len(d).to_bytes(8, "big"))
            h.update(d)
            total += len(d)
        lo = rs[0][0] if rs else 0
        hi = rs[-1][0] + len(rs[-1][1]) - 1 if rs else 0
        print(f"{total} {lo:X}-{hi:X} {h.hexdigest()[:16]}")


if __name__ == "__main__":
    main()
