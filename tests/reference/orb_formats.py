"""Weight formats of .orb files: bytes of whole rows to float32 arrays [rows, cols]."""

import numpy as np


def halves(raw):
    """Little-endian half-precision bytes [n, 2k] to float32 [n, k]."""
    return np.ascontiguousarray(raw).view("<f2").astype(np.float32)


def expand_f32(raw, cols):
    """Plain floats."""
    return raw.view("<f4").reshape(-1, cols)


def expand_bf16(raw, cols):
    """The upper halves of floats."""
    return (raw.view("<u2").astype(np.uint32) << 16).view(np.float32).reshape(-1, cols)


def expand_q8_0(raw, cols):
    """Blocks of 32: half d, 32 signed codes; value = code * d."""
    blocks = raw.reshape(-1, 34)
    codes = blocks[:, 2:].view(np.int8).astype(np.float32)
    return (codes * halves(blocks[:, :2])).reshape(-1, cols)


def unpack_scales(packed):
    """The 12 scale bytes of Q4_K and Q5_K blocks [n, 12] to (scales [n, 8], minimums [n, 8])."""
    low, high, mixed = packed[:, 0:4], packed[:, 4:8], packed[:, 8:12]
    scales = np.concatenate([low & 63, (mixed & 15) | (low >> 6) << 4], 1)
    mins = np.concatenate([high & 63, (mixed >> 4) | (high >> 6) << 4], 1)
    return scales.astype(np.float32), mins.astype(np.float32)


def fused_multiply_add(code, scale, offset):
    """code * scale + offset with one rounding: computed in double, then narrowed."""
    return (code.astype(np.float64) * scale + offset).astype(np.float32)


def expand_scaled(blocks, codes, cols):
    """Common end of Q4_K and Q5_K: codes [n, 8, 32] with the block headers."""
    supers = halves(blocks[:, 0:4])
    scales, mins = unpack_scales(blocks[:, 4:16])
    step = (supers[:, :1] * scales)[..., None]
    offset = -(supers[:, 1:] * mins)[..., None]
    return fused_multiply_add(codes, step, offset).reshape(-1, cols)


def nibbles(qs):
    """128 bytes to codes [n, 8, 32]: low nibbles are the even sub-blocks, high nibbles the odd ones."""
    quads = qs.reshape(-1, 4, 32)
    return np.stack([quads & 15, quads >> 4], 2).reshape(-1, 8, 32)


def expand_q4_k(raw, cols):
    """Blocks of 256 in 144 bytes: d, dmin, 12 scale bytes, 128 bytes of nibbles."""
    blocks = raw.reshape(-1, 144)
    return expand_scaled(blocks, nibbles(blocks[:, 16:]), cols)


def expand_q5_k(raw, cols):
    """Blocks of 256 in 176 bytes: as Q4_K with 32 bytes of fifth bits before the nibbles."""
    blocks = raw.reshape(-1, 176)
    fifth = (blocks[:, None, 16:48] >> np.arange(8, dtype=np.uint8)[None, :, None]) & 1
    return expand_scaled(blocks, nibbles(blocks[:, 48:]) | fifth << 4, cols)


def expand_q6_k(raw, cols):
    """Blocks of 256 in 210 bytes: 128 low nibbles, 64 high bit pairs, 16 signed scales, d."""
    blocks = raw.reshape(-1, 210)
    low = blocks[:, :128].reshape(-1, 2, 2, 32)
    low = np.concatenate([low & 15, low >> 4], 2)
    shifts = np.array([0, 2, 4, 6], np.uint8)[None, None, :, None]
    high = (blocks[:, 128:192].reshape(-1, 2, 1, 32) >> shifts) & 3
    codes = (low | high << 4).astype(np.int32) - 32
    scales = blocks[:, 192:208].view(np.int8).astype(np.int32).reshape(-1, 16, 1)
    products = (codes.reshape(-1, 16, 16) * scales).astype(np.float32)
    return (products * halves(blocks[:, 208:210])[..., None]).reshape(-1, cols)


# type code -> (name, elements per block, bytes per block, expander)
FORMATS = {
    0: ("F32", 1, 4, expand_f32),
    2: ("BF16", 1, 2, expand_bf16),
    4: ("Q8_0", 32, 34, expand_q8_0),
    5: ("Q4_K", 256, 144, expand_q4_k),
    6: ("Q5_K", 256, 176, expand_q5_k),
    7: ("Q6_K", 256, 210, expand_q6_k),
}
