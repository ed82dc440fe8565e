#!/usr/bin/python3
"""Reference implementation of the runtime in numpy, in double precision, written for reading.

It opens an .orb file, tokenizes, runs the network one token at a time and answers greedily. Quantized
weights are expanded by the formula of their block format in single precision and then widened; everything
after that is double. It shares no code with the runtime and serves as the measure of its correctness.

Command line: `dump`, `compare`, `chat`, `generate`; see --help.
"""

import argparse
import struct
import sys
from pathlib import Path

import numpy as np

from orb_file import SECTION_TOKENIZER, OrbError, OrbFile
from orb_tokenizer import Tokenizer

BLOCKS = 32
EPS = 1e-6
MAX_NEW_TOKENS = 96
MAX_CONTEXT = 8192

HEADS, KV_HEADS, HEAD, ROTARY, ROPE_BASE = 16, 4, 256, 64, 1e7
LINEAR_HEAD, KEY_HEADS, VALUE_HEADS, KERNEL = 128, 16, 32, 4
KEY_WIDTH = KEY_HEADS * LINEAR_HEAD
VALUE_WIDTH = VALUE_HEADS * LINEAR_HEAD
CHANNELS = 2 * KEY_WIDTH + VALUE_WIDTH


def sigmoid(x):
    """1 / (1 + exp(-x)), without overflow."""
    return 0.5 * (1.0 + np.tanh(0.5 * x))


def silu(x):
    """x * sigmoid(x)"""
    return x * sigmoid(x)


def softplus(x):
    """log(1 + exp(x)); the argument itself above 20."""
    return np.where(x > 20.0, x, np.log1p(np.exp(np.minimum(x, 20.0))))


def rms_norm(x, weight):
    """x / sqrt(mean(x^2) + eps) * weight over the last dimension."""
    return x / np.sqrt(np.mean(x * x, -1, keepdims=True) + EPS) * weight


def l2_norm(x):
    """x / sqrt(sum(x^2) + eps) over the last dimension."""
    return x / np.sqrt(np.sum(x * x, -1, keepdims=True) + EPS)


def product(matrix, x, width):
    """W x in an array of `width` zeros: rows that W lacks stay zero, elements beyond W's rows are unread."""
    y = np.zeros(width)
    if matrix is not None and x.any():
        y[:len(matrix)] = matrix @ x[:matrix.shape[1]]
    return y


def rope(x, position):
    """Rotates the pairs (j, j + 32) of the first 64 elements of each row by the position."""
    half = ROTARY // 2
    angle = position * (ROPE_BASE ** (-2.0 / ROTARY)) ** np.arange(half)
    cos, sin = np.cos(angle), np.sin(angle)
    a, b = x[..., :half], x[..., half:ROTARY]
    return np.concatenate([a * cos - b * sin, a * sin + b * cos, x[..., ROTARY:]], -1)


class FullMixer:
    """Causal softmax attention; keeps normalised, rotated keys and values of all earlier tokens."""

    def __init__(self, file, prefix):
        get = lambda suffix: file.matrix(prefix + suffix)
        self.norm = file.vector(prefix + "attn_norm.weight")
        self.q, self.k, self.v = get("attn_q.weight"), get("attn_k.weight"), get("attn_v.weight")
        self.out = get("attn_output.weight")
        self.q_norm, self.k_norm = file.vector(prefix + "attn_q_norm.weight"), \
            file.vector(prefix + "attn_k_norm.weight")
        self.biases = [file.vector(prefix + f"attn_{part}.bias") for part in "qkv"]
        self.reset()

    def reset(self):
        """Forgets all tokens."""
        self.keys, self.values = [], []

    def step(self, x, position):
        """One token: [hidden] to [hidden]."""
        xn = rms_norm(x, self.norm)
        q = product(self.q, xn, HEADS * HEAD * 2)
        k = product(self.k, xn, KV_HEADS * HEAD)
        v = product(self.v, xn, KV_HEADS * HEAD)
        for array, bias in zip((q, k, v), self.biases):
            if bias is not None:
                array[:len(bias)] += bias
        q, gate = q.reshape(HEADS, 2, HEAD).transpose(1, 0, 2)
        q = rope(rms_norm(q, self.q_norm), position)
        self.keys.append(rope(rms_norm(k.reshape(KV_HEADS, HEAD), self.k_norm), position))
        self.values.append(v.reshape(KV_HEADS, HEAD))
        keys, values = np.stack(self.keys, 1), np.stack(self.values, 1)
        groups = q.reshape(KV_HEADS, HEADS // KV_HEADS, HEAD)
        scores = 0.0625 * groups @ keys.transpose(0, 2, 1)
        weights = np.exp(scores - scores.max(-1, keepdims=True))
        weights /= weights.sum(-1, keepdims=True)
        o = (weights @ values).reshape(HEADS, HEAD) * sigmoid(gate)
        return product(self.out, o.reshape(-1), len(x))


class LinearMixer:
    """Gated DeltaNet: a 128 x 128 state for each value head and the last three inputs of the convolution."""

    def __init__(self, file, prefix):
        get = lambda suffix: file.matrix(prefix + suffix)
        self.norm = file.vector(prefix + "attn_norm.weight")
        self.qkv, self.gate = get("attn_qkv.weight"), get("attn_gate.weight")
        self.beta, self.alpha = get("ssm_beta.weight"), get("ssm_alpha.weight")
        self.dt_bias, self.a = file.vector(prefix + "ssm_dt.bias"), file.vector(prefix + "ssm_a")
        self.conv = get("ssm_conv1d.weight")
        self.head_norm = file.vector(prefix + "ssm_norm.weight")
        self.out = get("ssm_out.weight")
        self.reset()

    def reset(self):
        """Zero states; the recurrent one is made when it first holds anything."""
        self.recurrent = None
        self.window = np.zeros((KERNEL - 1, CHANNELS))

    def step(self, x, _position):
        """One token: [hidden] to [hidden]."""
        xn = rms_norm(x, self.norm)
        qkv = product(self.qkv, xn, CHANNELS)
        z = product(self.gate, xn, VALUE_WIDTH)
        beta = sigmoid(product(self.beta, xn, VALUE_HEADS))
        g = softplus(product(self.alpha, xn, VALUE_HEADS) + self.dt_bias[:VALUE_HEADS]) * self.a[:VALUE_HEADS]

        window = np.vstack([self.window, qkv])
        self.window = window[1:]
        channels = silu((window * self.conv[:CHANNELS].T).sum(0))
        q = l2_norm(channels[:KEY_WIDTH].reshape(KEY_HEADS, LINEAR_HEAD))
        k = l2_norm(channels[KEY_WIDTH:2 * KEY_WIDTH].reshape(KEY_HEADS, LINEAR_HEAD))
        v = channels[2 * KEY_WIDTH:].reshape(VALUE_HEADS, LINEAR_HEAD)

        o = self._delta_rule(q, k, v, beta, g)
        o = rms_norm(o, self.head_norm[:LINEAR_HEAD]) * silu(z.reshape(VALUE_HEADS, LINEAR_HEAD))
        return product(self.out, o.reshape(-1), len(x))

    def _delta_rule(self, q, k, v, beta, g):
        """Decays the states, corrects them towards v along k, reads them along q; returns [heads, 128]."""
        if self.recurrent is None:
            if not v.any() or not k.any():
                return np.zeros((VALUE_HEADS, LINEAR_HEAD))
            self.recurrent = np.zeros((VALUE_HEADS, LINEAR_HEAD, LINEAR_HEAD))
        tiles = VALUE_HEADS // KEY_HEADS
        q, k = np.tile(q, (tiles, 1)), np.tile(k, (tiles, 1))
        state = self.recurrent
        state *= np.exp(g)[:, None, None]
        delta = (v - (k[:, None, :] @ state)[:, 0]) * beta[:, None]
        state += k[:, :, None] * delta[:, None, :]
        return (q[:, None, :] @ state)[:, 0] * LINEAR_HEAD ** -0.5


class Block:
    """One decoder block: a mixer, which the tensors decide, and a gated feed-forward step."""

    def __init__(self, file, number):
        prefix = f"blk.{number}."
        self.is_linear = prefix + "ssm_out.weight" in file.entries
        required = ["attn_norm.weight", "post_attention_norm.weight", "ffn_gate.weight", "ffn_up.weight",
                    "ffn_down.weight"]
        required += (["attn_qkv.weight", "attn_gate.weight", "ssm_beta.weight", "ssm_alpha.weight",
                      "ssm_dt.bias", "ssm_a", "ssm_conv1d.weight", "ssm_norm.weight"] if self.is_linear else
                     ["attn_q.weight", "attn_k.weight", "attn_v.weight", "attn_output.weight",
                      "attn_q_norm.weight", "attn_k_norm.weight"])
        for suffix in required:
            if prefix + suffix not in file.entries:
                raise OrbError(f"tensor {prefix + suffix} is missing")
        self.mixer = (LinearMixer if self.is_linear else FullMixer)(file, prefix)
        self.post_norm = file.vector(prefix + "post_attention_norm.weight")
        self.gate = file.matrix(prefix + "ffn_gate.weight")
        self.up = file.matrix(prefix + "ffn_up.weight")
        self.down = file.matrix(prefix + "ffn_down.weight")

    def feed_forward(self, x):
        """down(silu(gate x) * up x)"""
        width = len(self.gate)
        h = silu(product(self.gate, x, width)) * product(self.up, x, width)
        return product(self.down, h, len(x))


class Model:
    """The whole network with its state: one call of `step` for each token."""

    def __init__(self, path):
        self.file = OrbFile(path)
        if self.file.meta.get("general.architecture") != "qwen35":
            raise OrbError(f"{path}: architecture is not qwen35")
        self.tokenizer = Tokenizer(self.file.section(SECTION_TOKENIZER))
        self.embedding = self.file.matrix("token_embd.weight")
        self.output_norm = self.file.vector("output_norm.weight")
        if self.embedding is None or self.output_norm is None:
            raise OrbError(f"{path}: embedding or output norm is missing")
        self.blocks = [Block(self.file, i) for i in range(BLOCKS)]
        self.position = 0

    def reset(self):
        """Forgets the conversation."""
        for block in self.blocks:
            block.mixer.reset()
        self.position = 0

    def step(self, token, record=None):
        """Feeds one token; returns the normalised final hidden state.

        `record` is called with (position, name, vector) for the intermediate results, in the order and
        under the names of the runtime's hidden-state dump.
        """
        if not 0 <= token < len(self.embedding):
            raise OrbError(f"token id {token} is not in the vocabulary")
        if self.position >= MAX_CONTEXT:
            raise OrbError("the context is full")
        x = self.embedding[token]
        for i, block in enumerate(self.blocks):
            mixed = block.mixer.step(x, self.position)
            h = x + mixed
            normed = rms_norm(h, block.post_norm)
            fed = block.feed_forward(normed)
            x = h + fed
            if record:
                for name, value in [("attn_mm", mixed), ("attn_res", h), ("post_norm", normed),
                                    ("ffn_mm", fed), ("layer_out", x)]:
                    record(self.position, f"S{i}.{name}", value)
        if record:
            record(self.position, "result_norm", x)
        self.position += 1
        return rms_norm(x, self.output_norm)

    def logits(self, hidden):
        """Scores of all tokens."""
        return self.embedding @ hidden

    def prefill(self, ids):
        """Feeds a prompt; returns (final hidden state, logits) of its last token."""
        hidden = np.zeros(self.embedding.shape[1])
        for token in ids:
            hidden = self.step(token)
        return hidden, self.logits(hidden)

    def generate(self, logits, limit, stop):
        """Greedy continuation; the token that stops it is neither returned nor fed."""
        ids = []
        while True:
            token = int(np.argmax(logits))
            if token in (self.tokenizer.eos, stop):
                return ids
            ids.append(token)
            if len(ids) >= limit or self.position >= MAX_CONTEXT:
                return ids
            logits = self.logits(self.step(token))

    def chat_turn(self, text, limit=MAX_NEW_TOKENS):
        """Adds one user message to the conversation; returns (prompt ids, hidden, logits, answer ids)."""
        ids = self.tokenizer.encode(chat_prompt(text))
        hidden, logits = self.prefill(ids)
        stop = self.tokenizer.index.get(b"<|im_end|>", -1)
        return ids, hidden, logits, self.generate(logits, limit, stop)

    def completion(self, text, limit=MAX_NEW_TOKENS):
        """Continues a text from an empty state; returns (prompt ids, hidden, logits, answer ids)."""
        self.reset()
        ids = self.tokenizer.encode(text)
        hidden, logits = self.prefill(ids)
        return ids, hidden, logits, self.generate(logits, limit, self.tokenizer.eos)


def chat_prompt(text):
    """The text that one user message becomes."""
    return f"<|im_start|>user\n{text}<|im_end|>\n<|im_start|>assistant\n"


# ---------------------------------------------------------------------------------------------------
# Hidden-state dumps
# ---------------------------------------------------------------------------------------------------

def write_record(file, position, name, values):
    """u32 position, u32 name length, name, u64 count, count floats."""
    data = np.asarray(values, "<f4").tobytes()
    file.write(struct.pack("<II", position & 0xFFFFFFFF, len(name)) + name.encode())
    file.write(struct.pack("<Q", len(values)) + data)


def read_records(path):
    """Returns the list of ((position, name), float32 array) of a dump file."""
    try:
        data = Path(path).read_bytes()
    except OSError as error:
        raise OrbError(f"cannot read {path}: {error.strerror}") from None
    records, at = [], 0
    try:
        while at < len(data):
            position, length = struct.unpack_from("<II", data, at)
            name = data[at + 8:at + 8 + length].decode("ascii")
            count, = struct.unpack_from("<Q", data, at + 8 + length)
            at += 16 + length
            records.append(((position, name), np.frombuffer(data, "<f4", count, at)))
            at += 4 * count
    except (struct.error, ValueError):
        raise OrbError(f"{path}: truncated or malformed dump") from None
    return records


def compare_dumps(tested, reference, tolerance):
    """Checks every record of `tested` against the one of the same position and name in `reference`.

    Returns (records compared, worst relative difference, its name, list of complaints).
    """
    expected = dict(read_records(reference))
    complaints, worst, where, count = [], 0.0, "none", 0
    for key, values in read_records(tested):
        label = f"position {key[0]} {key[1]}"
        other = expected.get(key)
        if other is None:
            complaints.append(f"{label}: not in {reference}")
            continue
        if len(values) != len(other):
            complaints.append(f"{label}: {len(values)} values, expected {len(other)}")
            continue
        count += 1
        values, other = values.astype(np.float64), other.astype(np.float64)
        norm, difference = np.linalg.norm(other), np.linalg.norm(values - other)
        relative = difference / norm if norm > 0 else (0.0 if difference == 0 else np.inf)
        if not relative <= tolerance:
            complaints.append(f"{label}: relative difference {relative:.3e} exceeds {tolerance:.1e}")
        if not relative <= worst:
            worst, where = relative, label
    if count == 0:
        complaints.append("no common records")
    return count, worst, where, complaints


# ---------------------------------------------------------------------------------------------------
# Command line
# ---------------------------------------------------------------------------------------------------

def command_dump(args):
    """Writes the records of every fed token."""
    model = Model(args.model)
    if args.tokens is not None:
        try:
            ids = [int(token) for token in args.tokens.split(",") if token]
        except ValueError:
            raise OrbError("--tokens takes numbers separated by commas") from None
    else:
        ids = model.tokenizer.encode(chat_prompt(args.question) if args.prompt is None else args.prompt)
    with open(args.out, "wb") as file:
        for token in ids:
            model.step(token, lambda position, name, values: write_record(file, position, name, values))
    print(f"{len(ids)} tokens: {','.join(map(str, ids))}")
    return 0


def command_compare(args):
    """Compares two dumps; the first is the tested one, the second the reference."""
    count, worst, where, complaints = compare_dumps(args.tested, args.reference, args.tolerance)
    if complaints:
        more = f" (and {len(complaints) - 1} more)" if len(complaints) > 1 else ""
        print(f"FAIL {complaints[0]}{more}")
        return 1
    print(f"OK {count} records, worst relative difference {worst:.3e} at {where}")
    return 0


def show_answer(model, result, with_ids):
    """Prints an answer, with the ids of prompt and answer if asked for."""
    ids, _, _, answer = result
    if with_ids:
        print("prompt", ",".join(map(str, ids)))
        print("answer", ",".join(map(str, answer)))
    print(model.tokenizer.decode(answer).decode("utf-8", "replace"), flush=True)


def command_chat(args):
    """Answers the questions as turns of one conversation."""
    model = Model(args.model)
    for question in args.question:
        show_answer(model, model.chat_turn(question, args.max_tokens), args.ids)
    return 0


def command_generate(args):
    """Continues one text."""
    model = Model(args.model)
    show_answer(model, model.completion(args.prompt, args.max_tokens), args.ids)
    return 0


def parse_arguments(arguments):
    parser = argparse.ArgumentParser(description=__doc__.split("\n")[0])
    commands = parser.add_subparsers(dest="command", required=True)

    dump = commands.add_parser("dump", help="write the hidden states of a token sequence")
    dump.add_argument("model")
    source = dump.add_mutually_exclusive_group(required=True)
    source.add_argument("--tokens", help="token ids, separated by commas")
    source.add_argument("-p", "--prompt", help="text to encode and feed")
    source.add_argument("-q", "--question", help="text to feed as one user message")
    dump.add_argument("--out", required=True, help="file to write")
    dump.set_defaults(run=command_dump)

    compare = commands.add_parser("compare", help="check a dump against a reference dump")
    compare.add_argument("tested", help="dump under test; each of its records is checked")
    compare.add_argument("reference", help="reference dump; may hold more positions")
    compare.add_argument("--tolerance", type=float, default=1e-4,
                         help="largest difference relative to a record's norm (default: 1e-4)")
    compare.set_defaults(run=command_compare)

    chat = commands.add_parser("chat", help="answer questions as turns of one conversation")
    chat.add_argument("model")
    chat.add_argument("-q", "--question", action="append", required=True, help="may be given several times")
    chat.set_defaults(run=command_chat)

    generate = commands.add_parser("generate", help="continue a text")
    generate.add_argument("model")
    generate.add_argument("-p", "--prompt", required=True)
    generate.set_defaults(run=command_generate)

    for command in (chat, generate):
        command.add_argument("--max-tokens", type=int, default=MAX_NEW_TOKENS)
        command.add_argument("--ids", action="store_true", help="print the token ids too")
    return parser.parse_args(arguments)


def main(arguments=None):
    args = parse_arguments(arguments)
    try:
        return args.run(args)
    except (OrbError, OSError) as error:
        print(f"orb_reference: {error}", file=sys.stderr)
        return 2


if __name__ == "__main__":
    sys.exit(main())
