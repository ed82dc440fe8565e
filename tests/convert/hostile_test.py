"""`orb convert` on sources that are wrong, by accident or on purpose: for each one clear line, exit code 1,
no file, and no more memory than any other conversion takes.
"""

import os
import struct
import subprocess
import unittest

import numpy as np

from checkpoints import gguf_string, write_gguf, write_json, write_safetensors
from convert_case import COMMAND, ConvertCase

MEMORY = 1 << 30


def key(name, kind, body):
    """One metadata entry of a GGUF file with a hand-made value."""
    return gguf_string(name) + struct.pack("<I", kind) + body


def gguf(keys=b"", key_count=None, tensors=b"", tensor_count=0, version=3, tail=bytes(64)):
    """A GGUF file of hand-made parts."""
    count = (1 if keys else 0) if key_count is None else key_count
    return b"GGUF" + struct.pack("<IQQ", version, tensor_count, count) + keys + tensors + tail


def tensor(name=b"t", dims=(32,), kind=0, offset=0):
    """One tensor info."""
    return gguf_string(name) + struct.pack(f"<I{len(dims)}QIQ", len(dims), *dims, kind, offset)


HUGE = (1 << 64) - 1
NESTED = struct.pack("<IQ", 9, 1) * 100000

# (name, bytes of the file, what the line must contain)
GGUF_FILES = [
    ("empty", b"", "expected a GGUF file"),
    ("three bytes", b"GGU", "expected a GGUF file"),
    ("other magic", b"GGML" + bytes(100), "expected a GGUF file"),
    ("only magic", b"GGUF", "version: expected 2 or 3"),
    ("version 1", gguf(version=1), "version: expected 2 or 3, found 1"),
    ("big endian", gguf(version=3 << 24), "found a big-endian file"),
    ("header ends", b"GGUF" + struct.pack("<IQ", 3, 1), "header: expected 24 bytes"),
    ("tensor count", gguf(tensor_count=HUGE), f"tensors: expected at most 65536, found {HUGE}"),
    ("key count", gguf(key_count=HUGE), f"keys: expected at most 65536, found {HUGE}"),
    ("no keys there", gguf(key_count=5, tail=b""), "key 1: expected a name that fits"),
    ("key length", gguf(struct.pack("<Q", HUGE)), "key 1: expected a name that fits"),
    ("value type", gguf(key("k", 13, b"")), "key k: expected a type of 0 to 12, found 13"),
    ("string length", gguf(key("k", 8, struct.pack("<Q", HUGE))), "key k: expected a value"),
    ("string length, 60 MB", gguf(key("k", 8, struct.pack("<Q", 60 << 20))), "key k: expected a value"),
    ("array count", gguf(key("k", 9, struct.pack("<IQ", 8, HUGE))), "key k: expected a value"),
    ("array count that overflows", gguf(key("k", 9, struct.pack("<IQ", 10, 1 << 61))),
     "key k: expected a value"),
    ("array type", gguf(key("k", 9, struct.pack("<IQ", 77, 1))), "key k: expected a value"),
    ("nested arrays", gguf(key("k", 9, NESTED)), "key k: expected a value"),
    ("key twice", gguf(key("k", 0, b"1") * 2, 2), "key k: expected once, found twice"),
    ("no tensor there", gguf(tensor_count=1, tail=b""), "tensor 1: expected an entry"),
    ("tensor name length", gguf(tensors=struct.pack("<Q", 1 << 40), tensor_count=1),
     "tensor 1: expected an entry that fits"),
    ("no dimensions", gguf(tensors=tensor(dims=()), tensor_count=1), "expected 1 to 4 dimensions"),
    ("five dimensions", gguf(tensors=tensor(dims=(1,) * 5), tensor_count=1),
     "expected 1 to 4 dimensions, found 5"),
    ("dimension 0", gguf(tensors=tensor(dims=(4, 0)), tensor_count=1), "found a dimension of 0"),
    ("dimensions that overflow", gguf(tensors=tensor(dims=(1 << 32, 1 << 32)), tensor_count=1),
     "expected rows of whole blocks and less than 2^62 bytes"),
    ("part of a block", gguf(tensors=tensor(dims=(31,), kind=8), tensor_count=1),
     "expected rows of whole blocks"),
    ("data beyond the end", gguf(tensors=tensor(dims=(1 << 20,)), tensor_count=1),
     "tensor t: expected data inside the file"),
    ("offset beyond the end", gguf(tensors=tensor(offset=1 << 62), tensor_count=1),
     "tensor t: expected data inside the file"),
    ("offset that overflows", gguf(tensors=tensor(offset=HUGE - 31), tensor_count=1),
     "tensor t: expected data inside the file"),
    ("odd offset", gguf(tensors=tensor(dims=(1,), offset=3), tensor_count=1),
     "expected an offset at a multiple of 32, found 3"),
    ("overlap", gguf(tensors=tensor(b"a", (8,)) + tensor(b"b", (16,)), tensor_count=2,
                     tail=bytes(256)), "overlaps"),
    ("name twice", gguf(tensors=tensor(dims=(1,)) * 2, tensor_count=2, tail=bytes(256)),
     "tensor t: expected once, found twice"),
    ("alignment 0", gguf(key("general.alignment", 4, bytes(4)), tensors=tensor(), tensor_count=1),
     "general.alignment: expected a power of two"),
    ("alignment 3", gguf(key("general.alignment", 4, struct.pack("<I", 3))),
     "general.alignment: expected a power of two"),
    ("no architecture", gguf(), 'general.architecture: expected "qwen35", found none'),
]

# Changes of one key of a good file: (key, new type and value or None to leave it out, line)
GGUF_KEYS = [
    ("general.architecture", (8, "qwen35moe"), "found \"qwen35moe\", a mixture of experts"),
    ("general.architecture", (8, "another"), 'expected "qwen35", found "another"'),
    ("general.architecture", (8, "a\nb\x1b[31m"), 'found "a\\nb\\x1B[31m"'),
    ("general.architecture", (4, 1), 'expected "qwen35", found none'),
    ("qwen35.block_count", None, "qwen35.block_count: expected a size, found none"),
    ("qwen35.block_count", (4, 64), "blocks: expected 1 to 32, as many as the runtime has, found 64"),
    ("qwen35.block_count", (5, -1), "qwen35.block_count: expected a size, found -1"),
    ("qwen35.block_count", (4, 3), "tensor blk.2.attn_norm.weight: expected, found none"),
    ("qwen35.embedding_length", (4, 64), "tensor token_embd.weight: expected dimensions 64 x 300"),
    ("qwen35.embedding_length", (10, 1 << 60), "hidden size: expected 1 to 65536"),
    ("qwen35.feed_forward_length", (4, 0), "feed-forward size: expected 1 to 1048576, found 0"),
    ("qwen35.attention.head_count", (4, 24), "query heads: expected 4 for each key/value head"),
    ("qwen35.attention.head_count_kv", (4, 6), "key/value heads: expected 1 to 4, found 6"),
    ("qwen35.attention.key_length", (4, 128), "attention.key_length: expected 256, found 128"),
    ("qwen35.attention.layer_norm_rms_epsilon", (6, 1e-5), "expected 1e-06, found 1e-05"),
    ("qwen35.rope.freq_base", (6, 1e6), "rope.freq_base: expected 10000000, found 1000000"),
    ("qwen35.rope.dimension_count", (8, "64"), "dimension_count: expected 64, found no number"),
    ("qwen35.ssm.state_size", (4, 64), "ssm.state_size: expected 128, found 64"),
    ("qwen35.ssm.time_step_rank", (4, 48), "linear value heads: expected 16 or 32, found 48"),
    ("qwen35.ssm.inner_size", (4, 1), "ssm.inner_size: expected 2048, found 1"),
    ("qwen35.nextn_predict_layers", (4, 9), "expected fewer than the blocks, found 9"),
    ("split.count", (2, 2), "split.count: expected one file; merge its parts first"),
    ("tokenizer.ggml.model", (8, "llama"), 'tokenizer.ggml.model: expected "gpt2"'),
    ("tokenizer.ggml.tokens", None, "tokenizer.ggml.tokens and tokenizer.ggml.merges, found not both"),
    ("tokenizer.ggml.tokens", (9, (8, ["a"] * 301)), "expected at most 300 tokens"),
    ("tokenizer.ggml.tokens", (9, (8, [])), "expected tokens, found none"),
    ("tokenizer.ggml.token_type", (9, (5, [1])), "expected 263 types, one a token, found 1"),
    ("tokenizer.ggml.merges", (9, (8, ["a b", "ab"])), 'merge 2: expected "left right", found "ab"'),
]

# Changes of one tensor: (name, dims, type, line); bytes are zeros in plenty.
GGUF_TENSORS = [
    ("token_embd.weight", [32, 300], 16, "expected a type that can be converted, found IQ2_XXS"),
    ("blk.0.attn_norm.weight", [32], 8, "expected type F32, F16 or BF16, found Q8_0"),
    ("blk.0.attn_qkv.weight", [32, 8192], 0, "expected dimensions 32 x 6144, found 32 x 8192"),
    ("blk.1.attn_q.weight", [2048, 32], 99, "expected a type that can be converted, found type 99"),
]

# (name, header text or length field, line)
SAFETENSORS = [
    ("length beyond the file", struct.pack("<Q", 1000) + b"{}", "expected a header of at most"),
    ("absurd length", struct.pack("<Q", HUGE) + b"{}", "expected a header of at most"),
    ("short", b"1234", "the file ends before byte 0 + 8"),
    ("no JSON", b"not json", "expected JSON, found an error at byte"),
    ("a list", b"[]", "expected a JSON object"),
    ("depth", b"[" * 1000000, "expected at most 64 levels, found more"),
    ("objects of depth", b'{"a":' * 1000000, "expected at most 64 levels, found more"),
    ("many values", b"[" + b"[]," * 5000000 + b"0]", "expected at most 4194304 values, found more"),
    ("key twice", b'{"a": {}, "a": {}}', 'expected each key once, found "a" twice'),
    ("no entry", b'{"a": 1}', "tensor a: expected dtype, shape and data_offsets"),
    ("negative offset", b'{"a": {"dtype": "F32", "shape": [1], "data_offsets": [-4, 0]}}',
     "numbers that are not negative"),
    ("fractions", b'{"a": {"dtype": "F32", "shape": [1.5], "data_offsets": [0, 4]}}',
     "numbers that are not negative"),
    ("three offsets", b'{"a": {"dtype": "F32", "shape": [1], "data_offsets": [0, 4, 8]}}',
     "expected dtype, shape and data_offsets"),
    ("offsets beyond", b'{"a": {"dtype": "F32", "shape": [99], "data_offsets": [0, 396]}}',
     "tensor a: expected data inside the file, found bytes 0 to 396 of 64"),
    ("offsets reversed", b'{"a": {"dtype": "F32", "shape": [1], "data_offsets": [8, 4]}}',
     "tensor a: expected data inside the file"),
    ("shape and bytes", b'{"a": {"dtype": "F32", "shape": [2], "data_offsets": [0, 4]}}',
     "tensor a: expected as many bytes as its shape takes, found 4"),
    ("shape that overflows", b'{"a": {"dtype": "F32", "shape": [4294967296, 4294967296, 4], '
     b'"data_offsets": [0, 0]}}', "expected as many bytes as its shape takes"),
    ("overlap", b'{"a": {"dtype": "F32", "shape": [2], "data_offsets": [0, 8]}, '
     b'"b": {"dtype": "F32", "shape": [2], "data_offsets": [4, 12]}}', "overlaps"),
]

# (file, text, line)
FOLDER_FILES = [
    ("config.json", None, "config.json: expected a file, found none"),
    ("config.json", "{", "config.json: expected JSON, found an error at byte"),
    ("config.json", "[" * 500000, "expected at most 64 levels"),
    ("config.json", " " * 2000000, "config.json: expected at most 1048576 bytes"),
    ("config.json", "[]", "config.json: expected a JSON object"),
    ("config.json", "{}", 'model_type: expected "qwen3_5", found none'),
    ("tokenizer.json", None, "tokenizer.json: expected a file, found none"),
    ("tokenizer.json", "{}", "expected a model of type BPE"),
    ("tokenizer.json", '{"model": {"type": "BPE", "vocab": {"a": -1}, "merges": []}}',
     'token "a": expected an id below 300'),
    ("tokenizer.json", '{"model": {"type": "BPE", "vocab": {"a": 99999999999}, "merges": []}}',
     'token "a": expected an id below 300'),
    ("tokenizer.json", '{"model": {"type": "BPE", "vocab": {"a": 1, "b": 1}, "merges": []}}',
     "token 1: expected one text"),
    ("tokenizer.json", '{"model": {"type": "BPE", "vocab": {"a": 1}, "merges": [["a"]]}}',
     'merge 1: expected "left right" or a pair'),
    ("tokenizer.json", '{"model": {"type": "BPE", "vocab": {"a": 1, "a": 2}, "merges": []}}',
     "expected each key once"),
    ("model.safetensors.index.json", "{}", "expected a weight_map, found none"),
    ("model.safetensors.index.json", '{"weight_map": {"x": "../../etc/passwd"}}',
     "tensor x: expected the name of a file in the folder"),
    ("model.safetensors.index.json", '{"weight_map": {"x": "none.safetensors"}}',
     "none.safetensors: expected a file, found none"),
    ("model.safetensors.index.json", '{"weight_map": {"x": "model.safetensors"}}',
     "tensor x: expected in model.safetensors, found not there"),
    ("model.safetensors", None, "expected *.safetensors files, found none"),
]

# Changes of config.json: (key, value, line)
CONFIG = [
    ("num_experts", 128, "num_experts: expected a dense model"),
    ("model_type", "qwen3_5_moe", "model_type: expected a dense model"),
    ("model_type", "another", 'model_type: expected "qwen3_5", found "another"'),
    ("head_dim", 128, "head_dim: expected 256.0, found 128"),
    ("linear_num_key_heads", 8, "linear_num_key_heads: expected 16.0, found 8"),
    ("num_hidden_layers", 64, "blocks: expected 1 to 32"),
    ("hidden_size", -5, "hidden_size: expected a size, found -5"),
    ("vocab_size", 1 << 40, "vocabulary: expected 1 to 4194304"),
    ("intermediate_size", 33, "expected dimensions 32 x 33"),
    ("attention_bias", True, "attention_bias: expected false"),
]


class Hostile(ConvertCase):
    """One clear line for each defect."""

    def check(self, source, expected):
        """Converts what must fail, within memory and without a trace."""
        before = set(os.listdir(self.folder))
        process = subprocess.Popen(COMMAND + ["convert", source, self.path("bad.orb")],
                                   stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                                   stderr=subprocess.PIPE)
        with process.stdout, process.stderr:
            out, err = process.stdout.read(), process.stderr.read().decode()
        _, status, usage = os.wait4(process.pid, 0)
        process.returncode = os.waitstatus_to_exitcode(status)
        self.assertEqual((process.returncode, out), (1, b""), err)
        self.assertRegex(err, r"\Aorb: [^\n]{1,600}\n\Z")
        self.assertIn(expected, err)
        self.assertLess(usage.ru_maxrss * 1024, MEMORY)
        self.assertEqual(set(os.listdir(self.folder)), before)

    def test_gguf_files(self):
        source = self.path("bad.gguf")
        for name, content, expected in GGUF_FILES:
            with self.subTest(name):
                with open(source, "wb") as file:
                    file.write(content)
                self.check(source, expected)

    def test_gguf_keys(self):
        checkpoint = self.small()
        source = self.path("bad.gguf")
        for name, change, expected in GGUF_KEYS:
            with self.subTest(name, change=str(change)[:60]):
                keys = [entry for entry in checkpoint.gguf_keys() if entry[0] != name]
                if change is not None:
                    keys.append((name, *change))
                write_gguf(source, keys, checkpoint.gguf_tensors())
                self.check(source, expected)

    def test_gguf_tensors(self):
        checkpoint = self.small()
        source = self.path("bad.gguf")
        for name, dims, kind, expected in GGUF_TENSORS:
            with self.subTest(name, expected=expected):
                tensors = [(n, dims, kind, bytes(4 * int(np.prod(dims)))) if n == name else entry
                           for entry in checkpoint.gguf_tensors() for n in entry[:1]]
                write_gguf(source, checkpoint.gguf_keys(), tensors)
                self.check(source, expected)
        tensors = [entry for entry in checkpoint.gguf_tensors() if entry[0] != "blk.1.ffn_up.weight"]
        write_gguf(source, checkpoint.gguf_keys(), tensors)
        self.check(source, "tensor blk.1.ffn_up.weight: expected, found none of that name")

    def test_a_cut_file(self):
        checkpoint = self.small()
        source = self.path("bad.gguf")
        checkpoint.write_gguf(source)
        size = os.path.getsize(source)
        for part in (0.001, 0.002, 0.5, 0.999):
            os.truncate(source, int(size * part))
            self.check(source, "bad.gguf: ")
            checkpoint.write_gguf(source)

    def folder_source(self):
        folder = self.path("checkpoint")
        self.small().write_folder(folder)
        return folder

    def test_safetensors_files(self):
        folder = self.folder_source()
        for name, content, expected in SAFETENSORS:
            with self.subTest(name):
                with open(os.path.join(folder, "model.safetensors"), "wb") as file:
                    if not content.endswith(b"{}") and content != b"1234":
                        content = struct.pack("<Q", len(content)) + content + bytes(64)
                    file.write(content)
                self.check(folder, expected)

    def test_other_files_of_a_folder(self):
        for name, text, expected in FOLDER_FILES:
            folder = self.folder_source()
            path = os.path.join(folder, name)
            with self.subTest(name, text=str(text)[:60]):
                if text is None:
                    os.remove(path)
                else:
                    with open(path, "w", encoding="utf-8") as file:
                        file.write(text)
                self.check(folder, expected)
            if os.path.exists(path):
                os.remove(path)

    def test_configurations(self):
        folder = self.folder_source()
        checkpoint = self.small()
        for name, value, expected in CONFIG:
            with self.subTest(name, value=value):
                config = checkpoint.config()
                config["text_config"][name] = value
                write_json(folder, "config.json", config)
                self.check(folder, expected)

    def test_an_output_matrix_of_its_own(self):
        folder = self.folder_source()
        config = self.small().config()
        config["tie_word_embeddings"] = False
        write_json(folder, "config.json", config)
        self.check(folder, "tie_word_embeddings: expected true, or an lm_head.weight")
        write_safetensors(os.path.join(folder, "head.safetensors"),
                          {"lm_head.weight": ("F32", np.zeros((300, 32), np.float32))})
        self.check(folder, "lm_head.weight: expected no output matrix of its own")

    def test_foreign_types(self):
        checkpoint = self.small()
        folder = self.folder_source()
        path = os.path.join(folder, "model.safetensors")
        with open(path, "rb") as file:
            content = file.read()
        name = b"model.language_model.embed_tokens.weight"
        at = content.index(name) + content[content.index(name):].index(b'"F32"')
        with open(path, "wb") as file:
            file.write(content[:at] + b'"I32"' + content[at + 5:])
        self.check(folder, "embed_tokens.weight: expected a type that can be converted")

    def test_what_is_no_source(self):
        self.check(self.path("nothing"), "nothing: expected a file, found none of that name")
        os.mkfifo(self.path("pipe"))
        self.check(self.path("pipe"), "pipe: expected a file, found none of that name")
        os.mkdir(self.path("empty"))
        self.check(self.path("empty"), "config.json: expected a file, found none of that name")


if __name__ == "__main__":
    unittest.main()
