#!/usr/bin/env python3
"""Writes a random Intel HEX image, the same for the same seed, for the
comparisons with other hex tools: a few blocks of random bytes below a top
address, 16- to 32-byte records behind extended linear address records, and
a start linear address record when asked.

    random_image.py SEED TOP [SLA] > image.hex
"""
import random
import sys


def record(rtype, addr, data):
    body = bytes([len(data), (addr >> 8) & 0xFF, addr & 0xFF, rtype]) + bytes(data)
    return ":%s%02X" % (body.hex().upper(), (-sum(body)) & 0xFF)


def main():
    seed, top = int(sys.argv[1]), int(sys.argv[2], 16)
    rnd = random.Random(seed)
    blocks = []
    for _ in range(rnd.randint(2, 6)):
        size = rnd.randint(1, 3000)
        start = rnd.randint(0, max(0, top - size + 1))
        blocks.append((start, bytes(rnd.getrandbits(8) for _ in range(size))))
    image = {}
    for start, data in blocks:  # later blocks win where they overlap
        for i, b in enumerate(data):
            image[start + i] = b
    lines, upper, addrs = [], None, sorted(image)
    i = 0
    while i < len(addrs):
        a = addrs[i]
        n = 1
        width = rnd.choice((16, 32))
        while (i + n < len(addrs) and n < width and addrs[i + n] == a + n
               and (a + n) & 0xFFFF):
            n += 1
        if a >> 16 != upper:
            upper = a >> 16
            lines.append(record(4, 0, [(upper >> 8) & 0xFF, upper & 0xFF]))
        lines.append(record(0, a & 0xFFFF, [image[a + k] for k in range(n)]))
        i += n
    if len(sys.argv) > 3:
        sla = int(sys.argv[3], 16)
        lines.append(record(5, 0, list(sla.to_bytes(4, "big"))))
    lines.append(":00000001FF")
    print("\n".join(lines))


main()
