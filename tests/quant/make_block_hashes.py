#!/usr/bin/env python3
"""The numbers of quantizer_bytes_test.cpp: FNV-1a hashes of what every quantizer writes for one row.

A second implementation of the formats, from their description, in plain Python. Single precision is a
double rounded after every operation (exact for sums, products and quotients); the fused multiply-add
goes through fractions.
"""

import struct
from fractions import Fraction


def f32(x):
    return struct.unpack("<f", struct.pack("<f", x))[0]


def half_bytes(x):
    return struct.pack("<e", x)


def half(x):
    return struct.unpack("<e", half_bytes(x))[0]


def fma(a, b, c):
    """Rounded once: floats are 24-bit fractions, the nearest of them is found by integers."""
    exact = Fraction(a) * Fraction(b) + Fraction(c)
    if exact == 0:
        return 0.0
    exponent = -149
    while abs(exact) / Fraction(2) ** exponent >= 1 << 24:
        exponent += 1
    unit = Fraction(2) ** exponent
    return float(round(exact / unit) * unit)  # round() of a fraction takes ties to even


def rounded(x, low, high):
    return max(low, min(high, int(f32(x + 0.5) if x >= 0 else f32(x - 0.5))))


def test_row():
    """4096 + 100 values of many magnitudes; every third group of 32 is positive, some are zero."""
    state, row = 1, []
    for i in range(4096 + 100):
        state = (state * 6364136223846793005 + 1442695040888963407) % 2**64
        value = ((state >> 40) - 2**23) / 2 ** (10 + i // 256 % 16)
        if i // 32 % 3 == 0:
            value = abs(value)
        if i // 32 % 11 == 5 or i // 256 == 9:
            value = 0.0
        row.append(value)
    return row


def blocks(row, size):
    row = row + [0.0] * (-len(row) % size)
    return [row[i:i + size] for i in range(0, len(row), size)]


def q4_0(x):
    extreme = max(x, key=abs)  # the first of equals
    d = f32(extreme * -0.125)
    inverse = f32(1 / d) if d else 0.0
    codes = [max(0, min(15, int(fma(v, inverse, 8.5)))) for v in x]
    return half_bytes(d) + bytes(codes[2 * k] | codes[2 * k + 1] << 4 for k in range(16))


def q8_0(x):
    d = f32(max(abs(v) for v in x) / 127)
    codes = [rounded(f32(v / d), -127, 127) if d else 0 for v in x]
    return half_bytes(d) + struct.pack("32b", *codes)


def scaled_k(x, most):
    subs = blocks(x, 32)
    scales = [f32(f32(max(s) - min(s)) / most) for s in subs]
    mins = [-min(s) for s in subs]
    codes = [[rounded(f32(f32(v - min(s)) / scale), 0, most) if scale > 0 else 0 for v in s]
             for s, scale in zip(subs, scales)]

    def six_bits(values):
        largest = max([0.0] + values)
        inverse = f32(63 / largest) if largest > 0 else 0.0
        return [rounded(f32(inverse * v), 0, 63) for v in values], f32(largest / 63)

    ls, d = six_bits(scales)
    lm, dmin = six_bits(mins)
    for j, s in enumerate(subs):
        step = f32(ls[j] * half(d))
        if step:
            offset = f32(lm[j] * half(dmin))
            codes[j] = [rounded(f32(f32(v + offset) / step), 0, most) for v in s]
    packed = [ls[j] | ls[j + 4] >> 4 << 6 for j in range(4)]
    packed += [lm[j] | lm[j + 4] >> 4 << 6 for j in range(4)]
    packed += [ls[j + 4] & 15 | (lm[j + 4] & 15) << 4 for j in range(4)]
    return half_bytes(d) + half_bytes(dmin) + bytes(packed), sum(codes, [])


def nibbles(codes):
    return bytes(codes[64 * c + l] & 15 | (codes[64 * c + 32 + l] & 15) << 4
                 for c in range(4) for l in range(32))


def q4_k(x):
    head, codes = scaled_k(x, 15)
    return head + nibbles(codes)


def q5_k(x):
    head, codes = scaled_k(x, 31)
    high = bytes(sum((codes[32 * j + l] >> 4) << j for j in range(8)) for l in range(32))
    return head + high + nibbles(codes)


def q6_k(x):
    subs = blocks(x, 16)
    scales = [f32(max(abs(v) for v in s) / 31) for s in subs]
    d = half(f32(max(scales) / 127))
    ls = [rounded(f32(s / d), 0, 127) if d else 0 for s in scales]
    codes = []
    for s, scale in zip(subs, ls):
        step = f32(d * scale)
        codes += [rounded(f32(v / step), -32, 31) + 32 if step else 32 for v in s]
    low, high = bytearray(128), bytearray(64)
    for e, code in enumerate(codes):
        h, quarter, l = e // 128, e % 128 // 32, e % 32
        low[64 * h + 32 * (quarter % 2) + l] |= (code & 15) << 4 * (quarter // 2)
        high[32 * h + l] |= code >> 4 << 2 * quarter
    return bytes(low) + bytes(high) + bytes(ls) + half_bytes(d)


def fnv1a(data):
    value = 0xCBF29CE484222325
    for byte in data:
        value = (value ^ byte) * 0x100000001B3 % 2**64
    return value


for quantize, size in ((q4_0, 32), (q8_0, 32), (q4_k, 256), (q5_k, 256), (q6_k, 256)):
    encoded = b"".join(quantize(block) for block in blocks(test_row(), size))
    print(f"{quantize.__name__} {len(encoded)} 0x{fnv1a(encoded):016X}")
