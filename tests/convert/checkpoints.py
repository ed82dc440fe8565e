"""Writes checkpoints as others write them: GGUF files and safetensors folders, from scratch.

The weights come from an .orb file (`Checkpoint.of_orb`) or from a random generator
(`Checkpoint.random`); names, metadata, layouts and value conventions are those of the two formats.
"""

import json
import os
import struct
import sys

import numpy as np

sys.path.insert(0, os.path.join(os.path.dirname(__file__), "..", "reference"))

from orb_file import OrbFile, SECTION_TOKENIZER  # noqa: E402
from source_blocks import TYPE_IDS  # noqa: E402

KEY_HEADS, HEAD, LINEAR_HEAD = 16, 256, 128
SPECIALS = ["<|endoftext|>", "<|im_start|>", "<|im_end|>"]

COMMON = {
    "attn_norm.weight": "input_layernorm.weight",
    "post_attention_norm.weight": "post_attention_layernorm.weight",
    "ffn_gate.weight": "mlp.gate_proj.weight",
    "ffn_up.weight": "mlp.up_proj.weight",
    "ffn_down.weight": "mlp.down_proj.weight",
}
LINEAR = {
    "attn_qkv.weight": "linear_attn.in_proj_qkv.weight",
    "attn_gate.weight": "linear_attn.in_proj_z.weight",
    "ssm_beta.weight": "linear_attn.in_proj_b.weight",
    "ssm_alpha.weight": "linear_attn.in_proj_a.weight",
    "ssm_dt.bias": "linear_attn.dt_bias",
    "ssm_a": "linear_attn.A_log",
    "ssm_conv1d.weight": "linear_attn.conv1d.weight",
    "ssm_norm.weight": "linear_attn.norm.weight",
    "ssm_out.weight": "linear_attn.out_proj.weight",
}
FULL = {
    "attn_q.weight": "self_attn.q_proj.weight",
    "attn_k.weight": "self_attn.k_proj.weight",
    "attn_v.weight": "self_attn.v_proj.weight",
    "attn_output.weight": "self_attn.o_proj.weight",
    "attn_q_norm.weight": "self_attn.q_norm.weight",
    "attn_k_norm.weight": "self_attn.k_norm.weight",
}
GLOBAL = {"token_embd.weight": "embed_tokens.weight", "output_norm.weight": "norm.weight"}
PLUS_ONE = ("attn_norm.weight", "post_attention_norm.weight", "output_norm.weight",
            "attn_q_norm.weight", "attn_k_norm.weight")


def byte_alphabet():
    """Byte to character: printable ones stand for themselves, the other 68 follow from U+0100 on."""
    itself = [*range(33, 127), *range(161, 173), *range(174, 256)]
    others = [b for b in range(256) if b not in itself]
    return {**{b: chr(b) for b in itself}, **{b: chr(256 + i) for i, b in enumerate(others)}}


ALPHABET = byte_alphabet()


def spell(data):
    """Bytes in the byte alphabet."""
    return "".join(ALPHABET[b] for b in data)


def read_orb_tokenizer(orb):
    """(tokens, merges as pairs) of an .orb file, both bytes with plain spaces."""
    data = orb.section(SECTION_TOKENIZER)
    at = 4

    def text():
        nonlocal at
        length, = struct.unpack_from("<I", data, at)
        at += 4 + length
        return data[at - length:at]

    def count():
        nonlocal at
        at += 4
        return struct.unpack_from("<I", data, at - 4)[0]

    text()
    plain = lambda s: s.replace("\u2581".encode(), b" ")
    tokens = [plain(text()) for _ in range(count())]
    for _ in range(2):  # scores and types
        size = 4 * count()
        at += size
    merges = [tuple(map(plain, text().split(b" "))) for _ in range(count())]
    return tokens, merges


class Checkpoint:
    """Sizes, float tensors in the form of .orb files ([rows, cols] arrays) and a tokenizer."""

    def __init__(self, hidden, ffn, vocabulary, blocks, kinds, query_heads, value_heads):
        self.hidden, self.ffn, self.vocabulary, self.blocks = hidden, ffn, vocabulary, blocks
        self.kinds, self.query_heads, self.value_heads = kinds, query_heads, value_heads
        self.tensors = {}
        self.tokens, self.merges, self.added = [], [], set()  # bytes; pairs of bytes; ids
        self.template = "{{ messages }}"

    @staticmethod
    def of_orb(path):
        """All 32 blocks of an .orb model of floats."""
        orb = OrbFile(path)
        kinds = "".join("l" if f"blk.{i}.ssm_out.weight" in orb.entries else "f" for i in range(32))
        embedding = orb.entries["token_embd.weight"][1]
        ffn = orb.entries["blk.0.ffn_gate.weight"][1][1]
        query_heads = orb.entries[f"blk.{kinds.index('f')}.attn_output.weight"][1][0] // HEAD
        made = Checkpoint(embedding[0], ffn, embedding[1], 32, kinds, query_heads, 32)
        for name, (_, dims, offset, size) in orb.entries.items():
            begin = orb.sections[5][0] + offset
            array = orb.data[begin:begin + size].view("<f4")
            made.tensors[name] = array.reshape(dims[::-1])
        made.tokens, made.merges = read_orb_tokenizer(orb)
        made.added = {i for i, t in enumerate(made.tokens) if t.decode("utf-8", "replace") in SPECIALS}
        return made

    @staticmethod
    def random(seed=1, hidden=256, ffn=256, vocabulary=300, kinds="lllf", query_heads=16,
               value_heads=32):
        """Few blocks of random floats."""
        made = Checkpoint(hidden, ffn, vocabulary, len(kinds), kinds, query_heads, value_heads)
        rng = np.random.default_rng(seed)
        for name, shape in made.shapes().items():
            scale = 1 if len(shape) == 1 else shape[1] ** -0.5
            values = rng.standard_normal(shape, np.float32) * np.float32(scale)
            if name.endswith("ssm_a"):
                values = -np.exp(values)
            made.tensors[name] = values
        made.tokens = [s.encode() for s in SPECIALS] + [bytes([b]) for b in range(256)]
        made.tokens += ["\ufffd".encode(), b"he", b" t", b" the"]
        made.merges = [(b" ", b"t"), (b"h", b"e"), (b" t", b"he")]
        made.added = {0, 1, 2}
        return made

    def shapes(self):
        """The [rows, cols] (or [n]) shapes of all tensors by our name."""
        h, f, v = self.hidden, self.ffn, self.value_heads
        keys, queries = self.query_heads // 4 * HEAD, self.query_heads * HEAD
        channels, values = 2 * KEY_HEADS * LINEAR_HEAD + v * LINEAR_HEAD, v * LINEAR_HEAD
        shapes = {"token_embd.weight": (self.vocabulary, h), "output_norm.weight": (h,)}
        for i, kind in enumerate(self.kinds):
            block = {"attn_norm.weight": (h,), "post_attention_norm.weight": (h,),
                     "ffn_gate.weight": (f, h), "ffn_up.weight": (f, h), "ffn_down.weight": (h, f)}
            if kind == "l":
                block |= {"attn_qkv.weight": (channels, h), "attn_gate.weight": (values, h),
                          "ssm_beta.weight": (v, h), "ssm_alpha.weight": (v, h),
                          "ssm_dt.bias": (v,), "ssm_a": (v,), "ssm_conv1d.weight": (channels, 4),
                          "ssm_norm.weight": (LINEAR_HEAD,), "ssm_out.weight": (h, values)}
            else:
                block |= {"attn_q.weight": (2 * queries, h), "attn_k.weight": (keys, h),
                          "attn_v.weight": (keys, h), "attn_output.weight": (h, queries),
                          "attn_q_norm.weight": (HEAD,), "attn_k_norm.weight": (HEAD,)}
            shapes |= {f"blk.{i}.{name}": shape for name, shape in block.items()}
        return shapes

    def gguf_keys(self):
        """The metadata of a GGUF file, [(key, type, value)]."""
        types = [3 if i in self.added else 1 for i in range(len(self.tokens))]
        return [
            ("general.architecture", 8, "qwen35"),
            ("general.name", 8, "Test Model"),
            ("general.file_type", 4, 15),
            ("qwen35.block_count", 4, self.blocks),
            ("qwen35.context_length", 4, 262144),
            ("qwen35.embedding_length", 4, self.hidden),
            ("qwen35.feed_forward_length", 4, self.ffn),
            ("qwen35.attention.head_count", 4, self.query_heads),
            ("qwen35.attention.head_count_kv", 4, self.query_heads // 4),
            ("qwen35.attention.key_length", 4, HEAD),
            ("qwen35.attention.value_length", 4, HEAD),
            ("qwen35.attention.layer_norm_rms_epsilon", 6, 1e-6),
            ("qwen35.rope.freq_base", 6, 1e7),
            ("qwen35.rope.dimension_count", 4, 64),
            ("qwen35.rope.dimension_sections", 9, (5, [11, 11, 10, 0])),
            ("qwen35.ssm.conv_kernel", 4, 4),
            ("qwen35.ssm.state_size", 4, LINEAR_HEAD),
            ("qwen35.ssm.group_count", 10, KEY_HEADS),  # integers of either width
            ("qwen35.ssm.time_step_rank", 4, self.value_heads),
            ("qwen35.ssm.inner_size", 4, self.value_heads * LINEAR_HEAD),
            ("qwen35.full_attention_interval", 4, 4),
            ("tokenizer.ggml.model", 8, "gpt2"),
            ("tokenizer.ggml.pre", 8, "qwen35"),
            ("tokenizer.ggml.tokens", 9, (8, [self.token_text(i) for i in range(len(self.tokens))])),
            ("tokenizer.ggml.token_type", 9, (5, types)),
            ("tokenizer.ggml.merges", 9, (8, [f"{spell(a)} {spell(b)}" for a, b in self.merges])),
            ("tokenizer.ggml.eos_token_id", 4, 2),
            ("tokenizer.ggml.bos_token_id", 4, 0),
            ("tokenizer.ggml.padding_token_id", 4, 0),
            ("tokenizer.chat_template", 8, self.template),
        ]

    def token_text(self, index):
        """As a vocabulary spells it: plain for added tokens, in the byte alphabet otherwise."""
        token = self.tokens[index]
        return token.decode() if index in self.added else spell(token)

    def gguf_tensors(self):
        """[(name, dims, type id, bytes)] of floats."""
        return [(name, list(array.shape[::-1]), TYPE_IDS["F32"], array)
                for name, array in self.tensors.items()]

    def original_tensors(self, prefix="model.language_model."):
        """The tensors as in training: {name: array}."""
        per_key = self.value_heads // KEY_HEADS
        # Ours are tiled over the key heads: head p is the original's (p % 16) * per_key + p // 16.
        source = [p % KEY_HEADS * per_key + p // KEY_HEADS for p in range(self.value_heads)]
        grouped = np.argsort(source)  # original head -> ours
        made = {}
        for name, array in self.tensors.items():
            block, _, suffix = name.rpartition(".")
            parts = name.split(".")
            if parts[0] == "blk":
                suffix = ".".join(parts[2:])
                names = {**COMMON, **(LINEAR if self.kinds[int(parts[1])] == "l" else FULL)}
                original = f"{prefix}layers.{parts[1]}.{names[suffix]}"
            else:
                suffix, original = name, prefix + GLOBAL[name]
            made[original] = self.original_values(suffix, array, grouped)
        return made

    def original_values(self, suffix, array, grouped):
        """One tensor with the conventions of training."""
        if suffix in PLUS_ONE:
            return (array - np.float32(1)).astype(np.float32)
        by_head = lambda rows: rows.reshape(self.value_heads, -1, *rows.shape[1:])[grouped].reshape(rows.shape)
        if suffix in ("attn_qkv.weight", "ssm_conv1d.weight"):
            first = 2 * KEY_HEADS * LINEAR_HEAD
            array = np.concatenate([array[:first], by_head(array[first:])])
            return array[:, None, :] if suffix.startswith("ssm") else array
        if suffix in ("attn_gate.weight", "ssm_beta.weight", "ssm_alpha.weight", "ssm_dt.bias"):
            return by_head(array)
        if suffix == "ssm_a":
            return by_head(np.log(-array.astype(np.float64)).astype(np.float32))
        if suffix == "ssm_out.weight":
            return np.ascontiguousarray(by_head(np.ascontiguousarray(array.T)).T)
        return array

    def config(self):
        """config.json with the text model's settings nested."""
        return {
            "architectures": ["Qwen3_5ForConditionalGeneration"],
            "model_type": "qwen3_5",
            "tie_word_embeddings": True,
            "text_config": {
                "model_type": "qwen3_5_text", "hidden_size": self.hidden,
                "intermediate_size": self.ffn, "num_hidden_layers": self.blocks,
                "num_attention_heads": self.query_heads,
                "num_key_value_heads": self.query_heads // 4, "head_dim": HEAD,
                "linear_num_value_heads": self.value_heads, "linear_num_key_heads": KEY_HEADS,
                "linear_key_head_dim": LINEAR_HEAD, "linear_value_head_dim": LINEAR_HEAD,
                "linear_conv_kernel_dim": 4, "rms_norm_eps": 1e-6, "vocab_size": self.vocabulary,
                "max_position_embeddings": 262144, "attention_bias": False, "eos_token_id": 0,
                "rope_parameters": {"rope_theta": 10000000, "partial_rotary_factor": 0.25,
                                    "mrope_section": [11, 11, 10]},
            },
        }

    def tokenizer(self, pairs=False):
        """tokenizer.json; merges as strings or pairs."""
        merges = [[spell(a), spell(b)] for a, b in self.merges]
        return {
            "version": "1.0",
            "added_tokens": [{"id": i, "content": self.tokens[i].decode(), "special": True}
                             for i in sorted(self.added)],
            "model": {
                "type": "BPE",
                "vocab": {spell(t): i for i, t in enumerate(self.tokens) if i not in self.added},
                "merges": merges if pairs else [" ".join(m) for m in merges],
            },
        }

    def write_gguf(self, path, **options):
        write_gguf(path, self.gguf_keys(), self.gguf_tensors(), **options)

    def write_folder(self, folder, shards=1, dtype="F32", pairs=False, prefix="model.language_model."):
        """A safetensors folder; several shards have an index."""
        os.makedirs(folder, exist_ok=True)
        tensors = {n: (dtype, a) for n, a in self.original_tensors(prefix).items()}
        tensors["model.visual.patch_embed.weight"] = (dtype, np.zeros((4, 4), np.float32))
        tensors["mtp.norm.weight"] = (dtype, np.zeros(4, np.float32))
        names = sorted(tensors)
        weight_map = {}
        for shard in range(shards):
            file = "model.safetensors" if shards == 1 else \
                f"model.safetensors-{shard + 1:05}-of-{shards:05}.safetensors"
            part = {n: tensors[n] for n in names[shard::shards]}
            write_safetensors(os.path.join(folder, file), part)
            weight_map |= {n: file for n in part}
        if shards > 1:
            write_json(folder, "model.safetensors.index.json",
                       {"metadata": {"total_size": 0}, "weight_map": weight_map})
        write_json(folder, "config.json", self.config())
        write_json(folder, "tokenizer.json", self.tokenizer(pairs))
        with open(os.path.join(folder, "chat_template.jinja"), "w", encoding="utf-8") as file:
            file.write(self.template)


def write_json(folder, name, value):
    """A JSON file."""
    with open(os.path.join(folder, name), "w", encoding="utf-8") as file:
        json.dump(value, file, ensure_ascii=False)


def gguf_string(text):
    """u64 length and bytes."""
    data = text.encode() if isinstance(text, str) else text
    return struct.pack("<Q", len(data)) + data


def gguf_value(kind, value):
    """One metadata value of the type."""
    if kind == 8:
        return gguf_string(value)
    if kind == 9:
        inner, items = value
        return struct.pack("<IQ", inner, len(items)) + b"".join(gguf_value(inner, i) for i in items)
    return struct.pack("<" + {0: "B", 1: "b", 2: "H", 3: "h", 4: "I", 5: "i", 6: "f", 7: "?",
                              10: "Q", 11: "q", 12: "d"}[kind], value)


def write_gguf(path, keys, tensors, version=3, alignment=32):
    """A GGUF file of [(key, type, value)] and [(name, dims, type id, bytes or array)]."""
    if alignment != 32:
        keys = keys + [("general.alignment", 4, alignment)]
    head = b"GGUF" + struct.pack("<IQQ", version, len(tensors), len(keys))
    head += b"".join(gguf_string(k) + struct.pack("<I", kind) + gguf_value(kind, v)
                     for k, kind, v in keys)
    offset = 0
    for name, dims, kind, data in tensors:
        head += gguf_string(name) + struct.pack(f"<I{len(dims)}QIQ", len(dims), *dims, kind, offset)
        size = data.nbytes if hasattr(data, "nbytes") else len(data)
        offset += size + -size % alignment
    with open(path, "wb") as file:
        file.write(head + bytes(-len(head) % alignment))
        for _, _, _, data in tensors:
            data = np.ascontiguousarray(data) if hasattr(data, "nbytes") else data
            size = data.nbytes if hasattr(data, "nbytes") else len(data)
            file.write(data)
            file.write(bytes(-size % alignment))


def as_dtype(array, dtype):
    """The little-endian bytes of an array in a safetensors type."""
    array = np.ascontiguousarray(array, np.float32)
    if dtype == "F32":
        return array.tobytes()
    if dtype == "F16":
        return array.astype("<f2").tobytes()
    bits = array.view(np.uint32).astype(np.uint64)
    return ((bits + 0x7FFF + (bits >> 16 & 1)) >> 16).astype("<u2").tobytes()


def write_safetensors(path, tensors):
    """A safetensors file of {name: (dtype, array)}."""
    header, bodies, offset = {"__metadata__": {"format": "pt"}}, [], 0
    for name, (dtype, array) in tensors.items():
        body = as_dtype(array, dtype)
        header[name] = {"dtype": dtype, "shape": list(array.shape),
                        "data_offsets": [offset, offset + len(body)]}
        offset += len(body)
        bodies.append(body)
    text = json.dumps(header).encode()
    text += b" " * (-len(text) % 8)
    with open(path, "wb") as file:
        file.write(struct.pack("<Q", len(text)) + text)
        for body in bodies:
            file.write(body)
