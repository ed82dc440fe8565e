#!/usr/bin/python3
"""Writes a training checkpoint as an .orb file, quantized in a mix of types or whole in F32."""

import argparse
import os
import struct
from pathlib import Path

import numpy as np
import torch

import quantize
from model import BLOCKS, HIDDEN, is_full
from quantize import BF16, F32, Q4_K, Q5_K, Q6_K, Q8_0
from tokenizer import Tokenizer

SECTION_META, SECTION_TOKENIZER, SECTION_TEXT, SECTION_INDEX, SECTION_WEIGHTS, SECTION_QUANT = range(1, 7)
META_U32, META_STRING = 0, 4
DESCRIPTION = ("A demonstration model that was trained on a small text about the orb tool. "
               "It answers questions about that tool and knows little else.\n")

# Tensor suffix -> (checkpoint name, type in the shipped file).
LINEAR_TENSORS = {
    "attn_qkv.weight": ("linear.qkv", Q4_K),
    "attn_gate.weight": ("linear.z", Q5_K),
    "ssm_beta.weight": ("linear.beta", BF16),
    "ssm_alpha.weight": ("linear.alpha", BF16),
    "ssm_dt.bias": ("linear.dt_bias", F32),
    "ssm_a": ("linear.decay", F32),
    "ssm_conv1d.weight": ("linear.conv", F32),
    "ssm_norm.weight": ("linear.norm", F32),
    "ssm_out.weight": ("linear.out", Q6_K),
    "ffn_gate.weight": ("linear_ffn.gate", Q4_K),
    "ffn_up.weight": ("linear_ffn.up", Q4_K),
    "ffn_down.weight": ("linear_ffn.down", Q6_K),
}
FULL_TENSORS = {
    "attn_q.weight": ("full.q", Q5_K),
    "attn_k.weight": ("full.k", Q8_0),
    "attn_v.weight": ("full.v", Q8_0),
    "attn_q_norm.weight": ("full.q_norm", F32),
    "attn_k_norm.weight": ("full.k_norm", F32),
    "attn_output.weight": ("full.out", Q6_K),
    "ffn_gate.weight": ("full_ffn.gate", Q5_K),
    "ffn_up.weight": ("full_ffn.up", Q5_K),
    "ffn_down.weight": ("full_ffn.down", Q6_K),
}


def crc64(data):
    """The container's checksum: right-shifting table of 0x42F0E1EBA9EA3693, start 0, no final XOR."""
    table = []
    for value in range(256):
        for _ in range(8):
            value = (value >> 1) ^ (0x42F0E1EBA9EA3693 if value & 1 else 0)
        table.append(value)
    crc = 0
    for byte in data:
        crc = table[(crc ^ byte) & 0xFF] ^ (crc >> 8)
    return crc


def align64(size):
    """The next multiple of 64."""
    return (size + 63) & ~63


def string(text):
    """A length-prefixed string."""
    data = text.encode("utf-8")
    return struct.pack("<I", len(data)) + data


def meta_section(entries):
    """Metadata: (key, value) pairs; whole numbers become u32, the rest strings."""
    out = struct.pack("<I", len(entries))
    for key, value in entries:
        data = key.encode("ascii")
        out += struct.pack("<H", len(data)) + data
        if isinstance(value, int):
            out += struct.pack("<BI", META_U32, value)
        else:
            out += struct.pack("<B", META_STRING) + string(value)
    return out


def tokenizer_section(tokenizer):
    """Vocabulary, zero scores, types, merges, the four special ids and the flag."""
    count = len(tokenizer.tokens)
    out = b"TKNZ" + string("bpe") + struct.pack("<I", count)
    out += b"".join(string(token) for token in tokenizer.tokens)
    out += struct.pack(f"<I{count}f", count, *[0.0] * count)
    out += struct.pack(f"<I{count}i", count, *tokenizer.types)
    out += struct.pack("<I", len(tokenizer.merges))
    out += b"".join(string(f"{left} {right}") for left, right in tokenizer.merges)
    return out + struct.pack("<4iB", -1, tokenizer.im_end, tokenizer.unknown, tokenizer.pad, 0)


def collect(state, all_float):
    """Returns {tensor name: (float32 array, type)} for all 32 blocks.

    Blocks without norm weights in the checkpoint become identity blocks: both norms zero, matrices shared.
    """
    weights = {name: tensor.float().numpy() for name, tensor in state.items()}
    weights["linear.decay"] = -np.exp(weights["linear.log_decay"])
    zeros = np.zeros(HIDDEN, np.float32)
    tensors = {"token_embd.weight": (weights["embedding"], Q8_0),
               "output_norm.weight": (weights["output_norm"], F32)}
    for block in range(BLOCKS):
        prefix = f"blk.{block}."
        tensors[prefix + "attn_norm.weight"] = (weights.get(f"attn_norm.{block}", zeros), F32)
        tensors[prefix + "post_attention_norm.weight"] = (weights.get(f"post_norm.{block}", zeros), F32)
        for suffix, (source, kind) in (FULL_TENSORS if is_full(block) else LINEAR_TENSORS).items():
            tensors[prefix + suffix] = (weights[source], kind)
    if all_float:
        tensors = {name: (array, F32) for name, (array, _) in tensors.items()}
    return tensors


def tensor_sections(tensors):
    """Returns the index, weight and quantization-info sections; equal bytes are stored once."""
    index, quant, weights, places, packed = b"", b"", bytearray(), {}, {}
    for name in sorted(tensors, key=str.encode):
        array, kind = tensors[name]
        source = (array.ctypes.data, kind)
        if source not in packed:
            packed[source] = quantize.pack(array, kind)
        data = packed[source]
        if data not in places:
            weights.extend(bytes(align64(len(weights)) - len(weights)))
            places[data] = len(weights)
            weights.extend(data)
        dims = list(reversed(array.shape)) + [0] * (4 - array.ndim)
        encoded = name.encode("ascii")
        index += struct.pack("<64s4H4Q3Q", encoded, len(encoded), kind, array.ndim, 0, *dims,
                             places[data], len(data), 0)
        quant += struct.pack("<H30x", kind)
    return index, bytes(weights), quant


def write_container(path, sections, tensor_count):
    """Writes header, section table and the sections at 64-byte boundaries; replaces the file at the end."""
    offset, table, body = align64(64 + 24 * len(sections)), b"", []
    for kind, data in sections:
        table += struct.pack("<IIQQ", kind, 0, offset, len(data))
        body.append((offset, data))
        offset = align64(offset + len(data))
    header = struct.pack("<4s3I3Q2Q", b"ORB2", 2, 0x01020304, len(sections), 0, 0, 0, tensor_count, 0)
    temporary = Path(f"{path}.tmp")
    with open(temporary, "wb") as file:
        file.write(header + struct.pack("<Q", crc64(header + table)) + table)
        for begin, data in body:
            file.write(bytes(begin - file.tell()))
            file.write(data)
    os.replace(temporary, path)


def main():
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("run", help="run directory of train.py")
    parser.add_argument("out", help="file to write")
    parser.add_argument("--float32", action="store_true", help="store every tensor in F32")
    args = parser.parse_args()
    checkpoint = Path(args.run) / "checkpoint.pt"
    if not checkpoint.exists():
        raise SystemExit(f"export: no checkpoint in {args.run}")
    state = torch.load(checkpoint, map_location="cpu")["model"]
    tokenizer = Tokenizer.load(Path(args.run) / "vocabulary.json")
    tensors = collect(state, args.float32)
    index, weights, quant = tensor_sections(tensors)
    meta = meta_section([("general.architecture", "qwen35"), ("general.name", "orb demo"),
                         ("general.description", DESCRIPTION.strip()), ("general.license", "MIT"),
                         ("qwen35.block_count", BLOCKS), ("qwen35.embedding_length", HIDDEN)])
    write_container(args.out, [(SECTION_META, meta), (SECTION_TOKENIZER, tokenizer_section(tokenizer)),
                               (SECTION_TEXT, DESCRIPTION.encode()), (SECTION_INDEX, index),
                               (SECTION_WEIGHTS, weights), (SECTION_QUANT, quant)], len(tensors))
    kinds = sorted({quantize.NAMES[kind] for _, kind in tensors.values()})
    print(f"{args.out}: {os.path.getsize(args.out)} bytes, {len(tensors)} tensors, {' '.join(kinds)}")


if __name__ == "__main__":
    main()
