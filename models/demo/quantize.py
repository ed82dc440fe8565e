"""Weight quantization in numpy: float rows to the bytes of BF16, Q8_0, Q4_K, Q5_K and Q6_K.

All arithmetic is single precision. Every function takes a float32 array whose last dimension is a row of
whole blocks and returns the packed bytes of all rows.
"""

import numpy as np

F32, BF16, Q8_0, Q4_K, Q5_K, Q6_K = 0, 2, 4, 5, 6, 7
NAMES = {F32: "F32", BF16: "BF16", Q8_0: "Q8_0", Q4_K: "Q4_K", Q5_K: "Q5_K", Q6_K: "Q6_K"}


def round_away(x):
    """Rounds half away from zero: adds 0.5 by sign and truncates."""
    return np.trunc(x + np.where(x >= 0, np.float32(0.5), np.float32(-0.5)))


def divide(x, y):
    """x / y in single precision, 0 where y is 0."""
    return np.divide(x, y, out=np.zeros(np.broadcast(x, y).shape, np.float32), where=y != 0)


def pack_bf16(x):
    """Upper half of each float, rounded to nearest, ties to even."""
    bits = x.view(np.uint32)
    return ((bits + 0x7FFF + ((bits >> 16) & 1)) >> 16).astype("<u2").tobytes()


def pack_q8_0(x):
    """Blocks of 32: half scale, 32 signed bytes."""
    blocks = x.reshape(-1, 32)
    scale = np.abs(blocks).max(1, keepdims=True) / np.float32(127)
    out = np.zeros((len(blocks), 34), np.uint8)
    out[:, :2] = scale.astype("<f2").view(np.uint8)
    codes = np.clip(round_away(divide(blocks, scale)), -127, 127)
    out[:, 2:] = codes.astype(np.int8).view(np.uint8)
    return out.tobytes()


def pack_scales(scales, mins):
    """Eight 6-bit scales and minimums per block in 12 bytes; returns (bytes, d, dmin, scales, mins)."""
    def quantize(values):
        largest = np.maximum(values.max(1, keepdims=True), np.float32(0))
        codes = np.clip(round_away(divide(np.float32(63), largest) * values), 0, 63)
        return codes.astype(np.uint8), (largest / np.float32(63))[:, 0]

    ls, d = quantize(scales)
    lm, dmin = quantize(mins)
    out = np.zeros((len(scales), 12), np.uint8)
    out[:, 0:4] = ls[:, :4] | (ls[:, 4:] >> 4) << 6
    out[:, 4:8] = lm[:, :4] | (lm[:, 4:] >> 4) << 6
    out[:, 8:12] = (ls[:, 4:] & 15) | (lm[:, 4:] & 15) << 4
    return out, d, dmin, ls, lm


def k_codes(x, most):
    """Common part of Q4_K and Q5_K: returns (16 header bytes a block, codes [blocks, 8, 32])."""
    groups = x.reshape(-1, 8, 32)
    low, high = groups.min(2), groups.max(2)
    scales = (high - low) / np.float32(most)
    codes = np.clip(round_away(divide(groups - low[..., None], scales[..., None])), 0, most)
    packed, d, dmin, ls, lm = pack_scales(scales, -low)
    halves = np.stack([d, dmin], 1).astype("<f2")
    stored = halves.astype(np.float32)
    step = (ls * stored[:, :1])[..., None]
    offset = (lm * stored[:, 1:])[..., None]
    codes = np.where(step != 0, np.clip(round_away(divide(groups + offset, step)), 0, most), codes)
    return np.concatenate([halves.view(np.uint8), packed], 1), codes.astype(np.uint8)


def pack_nibbles(codes):
    """Low nibbles of sub-blocks 2c with those of 2c + 1 above them: [blocks, 8, 32] to [blocks, 128]."""
    return ((codes[:, 0::2] & 15) | (codes[:, 1::2] & 15) << 4).reshape(len(codes), 128)


def pack_q4_k(x):
    """Blocks of 256, 144 bytes."""
    header, codes = k_codes(x, 15)
    return np.concatenate([header, pack_nibbles(codes)], 1).tobytes()


def pack_q5_k(x):
    """Blocks of 256, 176 bytes."""
    header, codes = k_codes(x, 31)
    bits = np.arange(8, dtype=np.uint8)[None, :, None]
    fifth = np.bitwise_or.reduce((codes >> 4) << bits, axis=1)
    return np.concatenate([header, fifth, pack_nibbles(codes)], 1).tobytes()


def pack_q6_k(x):
    """Blocks of 256, 210 bytes."""
    groups = x.reshape(-1, 16, 16)
    scales = np.abs(groups).max(2) / np.float32(31)
    d = (scales.max(1, keepdims=True) / np.float32(127)).astype("<f2")
    stored = d.astype(np.float32)
    sc = np.clip(round_away(divide(scales, stored)), 0, 127).astype(np.float32)
    codes = np.clip(round_away(divide(groups, (stored * sc)[..., None])), -32, 31)
    codes = (codes + 32).astype(np.uint8).reshape(-1, 2, 4, 32)
    low = codes & 15
    ql = np.stack([low[:, :, 0] | low[:, :, 2] << 4, low[:, :, 1] | low[:, :, 3] << 4], 2)
    shifts = np.array([0, 2, 4, 6], np.uint8)[None, None, :, None]
    qh = np.bitwise_or.reduce((codes >> 4) << shifts, axis=2)
    blocks = len(groups)
    return np.concatenate([ql.reshape(blocks, 128), qh.reshape(blocks, 64),
                           sc.astype(np.int8).view(np.uint8), d.view(np.uint8)], 1).tobytes()


PACKERS = {F32: lambda x: x.astype("<f4").tobytes(), BF16: pack_bf16, Q8_0: pack_q8_0,
           Q4_K: pack_q4_k, Q5_K: pack_q5_k, Q6_K: pack_q6_k}


def pack(x, kind):
    """Packs a float32 array in the given type."""
    return PACKERS[kind](np.ascontiguousarray(x, dtype=np.float32))
