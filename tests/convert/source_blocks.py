"""Random blocks of every GGUF element type that can be converted, and what they stand for.

Decoders are written from the layouts, element by element index, and share nothing with the runtime.
"""

import os
import sys

import numpy as np

sys.path.insert(0, os.path.join(os.path.dirname(__file__), "..", "reference"))

import orb_formats  # noqa: E402

TYPE_IDS = {"F32": 0, "F16": 1, "Q4_0": 2, "Q4_1": 3, "Q5_0": 6, "Q5_1": 7, "Q8_0": 8, "Q2_K": 10,
            "Q3_K": 11, "Q4_K": 12, "Q5_K": 13, "Q6_K": 14, "IQ4_NL": 20, "IQ4_XS": 23, "BF16": 30}
# Elements and bytes of a block, offsets of its halves.
LAYOUTS = {"Q4_0": (32, 18, [0]), "Q4_1": (32, 20, [0, 2]), "Q5_0": (32, 22, [0]),
           "Q5_1": (32, 24, [0, 2]), "Q8_0": (32, 34, [0]), "IQ4_NL": (32, 18, [0]),
           "Q2_K": (256, 84, [80, 82]), "Q3_K": (256, 110, [108]), "Q4_K": (256, 144, [0, 2]),
           "Q5_K": (256, 176, [0, 2]), "Q6_K": (256, 210, [208]), "IQ4_XS": (256, 136, [0])}
TABLE = np.array([-127, -104, -83, -65, -49, -35, -22, -10, 1, 13, 25, 38, 53, 69, 89, 113])

I = np.arange(256)
N, S, L = I // 128, I // 32 % 4, I % 32


def random_rows(kind, rows, cols, rng):
    """The bytes of a random matrix [rows, row bytes]."""
    if kind in ("F32", "F16", "BF16"):
        values = rng.standard_normal((rows, cols)).astype(np.float32)
        if kind == "BF16":
            return (values.view(np.uint32) >> 16).astype("<u2").view(np.uint8)
        return values.astype("<f4" if kind == "F32" else "<f2").view(np.uint8)
    elements, size, halves = LAYOUTS[kind]
    blocks = rng.integers(0, 256, (rows * cols // elements, size), np.uint8)
    for at in halves:
        scale = (rng.random(len(blocks)) * 0.01 + 1e-4).astype("<f2")
        blocks[:, at:at + 2] = scale.view(np.uint8).reshape(-1, 2)
    return blocks.reshape(rows, -1)


def half(blocks, at):
    """The half at a byte offset of each block, as float32 [n, 1]."""
    return np.ascontiguousarray(blocks[:, at:at + 2]).view("<f2").astype(np.float32)


def nibbles(data):
    """16 bytes to 32 codes: low nibbles, then high nibbles."""
    return np.concatenate([data & 15, data >> 4], 1).astype(np.int32)


def fifth_bits(data):
    """A u32 to 32 bits, already in place."""
    words = np.ascontiguousarray(data).view("<u4").astype(np.int64)
    return ((words >> np.arange(32)) & 1).astype(np.int32) << 4


def decode(kind, raw, cols):
    """Bytes [rows, row bytes] to float64 [rows, cols]."""
    if kind == "F16":
        return raw.reshape(-1).view("<f2").astype(np.float64).reshape(-1, cols)
    for name, _, _, expand in orb_formats.FORMATS.values():
        if name == kind:
            return expand(raw.reshape(-1), cols).astype(np.float64)
    b = raw.reshape(-1, LAYOUTS[kind][1])
    return DECODERS[kind](b).astype(np.float64).reshape(-1, cols)


def decode_q2_k(b):
    codes = b[:, 16 + 32 * N + L] >> (2 * S) & 3
    packed = b[:, I // 16]
    return half(b, 80).astype(np.float64) * ((packed & 15) * codes.astype(np.float64)) \
        - half(b, 82).astype(np.float64) * (packed >> 4)


def decode_q3_k(b):
    j = I // 16
    low = np.where(j < 8, b[:, 96 + j % 8] & 15, b[:, 96 + j % 8] >> 4)
    scale = (low | (b[:, 104 + j % 4] >> (2 * (j // 4)) & 3) << 4).astype(np.int32) - 32
    codes = (b[:, 32 + 32 * N + L] >> (2 * S) & 3).astype(np.int32)
    codes -= np.where(b[:, L] >> (4 * N + S) & 1, 0, 4)
    return half(b, 108) * (scale * codes)


def decode_iq4_xs(b):
    high = b[:, 2:3].astype(np.int32) | b[:, 3:4].astype(np.int32) << 8
    sub = I // 32
    scale = (b[:, 4 + sub // 2] >> (4 * (sub % 2)) & 15).astype(np.int32) | (high >> (2 * sub) & 3) << 4
    data = b[:, 8:].reshape(-1, 16)
    return half(b, 0).astype(np.float64) * (scale - 32) * TABLE[nibbles(data)].reshape(-1, 256)


DECODERS = {
    "Q4_0": lambda b: half(b, 0) * (nibbles(b[:, 2:]) - 8),
    "Q4_1": lambda b: half(b, 0).astype(np.float64) * nibbles(b[:, 4:]) + half(b, 2),
    "Q5_0": lambda b: half(b, 0) * ((nibbles(b[:, 6:]) | fifth_bits(b[:, 2:6])) - 16),
    "Q5_1": lambda b: half(b, 0).astype(np.float64) * (nibbles(b[:, 8:]) | fifth_bits(b[:, 4:8]))
    + half(b, 2),
    "IQ4_NL": lambda b: half(b, 0) * TABLE[nibbles(b[:, 2:])],
    "Q2_K": decode_q2_k,
    "Q3_K": decode_q3_k,
    "IQ4_XS": decode_iq4_xs,
}
