#!/usr/bin/python3
"""Byte-pair tokenizer of the demo model: training from the corpus, encoding and decoding.

The vocabulary marks a space with U+2581. Merges are learned inside words only: no merge product holds
U+2581 anywhere but in front, and none mixes letters with punctuation, so merging a whole line at once,
as the runtime does, gives the same tokens as merging word by word.
"""

import argparse
import collections
import json
import re
from pathlib import Path

SPACE = "\u2581"
IM_START, IM_END, END_OF_TEXT = "<|im_start|>", "<|im_end|>", "<|endoftext|>"
UNKNOWN = "\ufffd"
SPECIALS = [IM_START, IM_END, END_OF_TEXT]
PRINTABLE = [chr(code) for code in range(0x21, 0x7F)]
TYPE_NORMAL, TYPE_SPECIAL = 1, 3

_CHUNK = re.compile(f"{SPACE}?[A-Za-z]+|{SPACE}?[0-9]|{SPACE}?[^A-Za-z0-9{SPACE}]+|{SPACE}")


def learn_merges(texts, count):
    """Returns up to `count` merge rules (left, right), most frequent pair first, learned from the texts."""
    words = collections.Counter()
    for text in texts:
        for line in text.replace(" ", SPACE).split("\n"):
            words.update(_CHUNK.findall(line))
    splits = {word: list(word) for word in words}
    merges = []
    while len(merges) < count:
        pairs = collections.Counter()
        for word, symbols in splits.items():
            for pair in zip(symbols, symbols[1:]):
                pairs[pair] += words[word]
        if not pairs:
            break
        best = min(pairs, key=lambda pair: (-pairs[pair], pair))
        if pairs[best] < 2:
            break
        merges.append(best)
        for word, symbols in splits.items():
            splits[word] = _merge_all(symbols, best)
    return merges


def _merge_all(symbols, pair):
    """Replaces every occurrence of the pair, left to right."""
    result, i = [], 0
    while i < len(symbols):
        if i + 1 < len(symbols) and (symbols[i], symbols[i + 1]) == pair:
            result.append(symbols[i] + symbols[i + 1])
            i += 2
        else:
            result.append(symbols[i])
            i += 1
    return result


class Tokenizer:
    """Encodes and decodes exactly as the runtime does for a U+2581 vocabulary."""

    def __init__(self, tokens, types, merges):
        self.tokens = list(tokens)
        self.types = list(types)
        self.merges = [tuple(pair) for pair in merges]
        self.index = {}
        for token_id, token in enumerate(self.tokens):
            self.index.setdefault(token, token_id)
        self.rank = {}
        for rank, pair in enumerate(self.merges):
            self.rank.setdefault(pair, rank)
        self.im_start, self.im_end = self.index[IM_START], self.index[IM_END]
        self.pad, self.unknown = self.index[END_OF_TEXT], self.index[UNKNOWN]
        ordered = sorted(SPECIALS, key=lambda special: (-len(special), special))
        self._special = re.compile("(" + "|".join(map(re.escape, ordered)) + ")")
        self._cache = {}

    @classmethod
    def train(cls, texts, merge_count):
        """Builds a vocabulary: specials, unknown, newline, U+2581, printable ASCII, merge products."""
        merges = learn_merges(texts, merge_count)
        tokens = SPECIALS + [UNKNOWN, "\n", SPACE] + PRINTABLE
        types = [TYPE_SPECIAL] * len(SPECIALS) + [TYPE_NORMAL] * (len(tokens) - len(SPECIALS))
        known = set(tokens)
        for left, right in merges:
            if left + right not in known:
                known.add(left + right)
                tokens.append(left + right)
                types.append(TYPE_NORMAL)
        return cls(tokens, types, merges)

    def save(self, path):
        """Writes the vocabulary as JSON."""
        record = {"tokens": self.tokens, "types": self.types, "merges": self.merges}
        Path(path).write_text(json.dumps(record, ensure_ascii=False, indent=0), encoding="utf-8")

    @classmethod
    def load(cls, path):
        """Reads a vocabulary written by `save`."""
        record = json.loads(Path(path).read_text(encoding="utf-8"))
        return cls(record["tokens"], record["types"], record["merges"])

    def encode(self, text):
        """Returns the ids of the text; there is no beginning-of-sequence id."""
        ids = []
        lines = text.replace(" ", SPACE).split("\n")
        for number, line in enumerate(lines):
            if number:
                ids.append(self.index["\n"])
            for part in self._special.split(line):
                if part in SPECIALS:
                    ids.append(self.index[part])
                elif part:
                    ids.extend(self._encode_plain(part))
        return ids

    def _encode_plain(self, text):
        if text not in self._cache:
            symbols = list(text)
            while True:
                best, where = None, -1
                for i, pair in enumerate(zip(symbols, symbols[1:])):
                    rank = self.rank.get(pair)
                    if rank is not None and (best is None or rank < best):
                        best, where = rank, i
                if best is None:
                    break
                symbols[where:where + 2] = [symbols[where] + symbols[where + 1]]
            self._cache[text] = [self.index.get(symbol, self.unknown) for symbol in symbols]
        return self._cache[text]

    def decode(self, ids):
        """Returns the text of the ids; special tokens are written as they are."""
        return "".join(self.tokens[i] if self.types[i] in (2, 3) else self.tokens[i].replace(SPACE, " ")
                       for i in ids)


def main():
    parser = argparse.ArgumentParser(description="Shows how the demo vocabulary splits a text.")
    parser.add_argument("vocabulary", help="JSON file written by train.py")
    parser.add_argument("text", help="text to split")
    args = parser.parse_args()
    tokenizer = Tokenizer.load(args.vocabulary)
    for token_id in tokenizer.encode(args.text):
        print(token_id, repr(tokenizer.tokens[token_id]))


if __name__ == "__main__":
    main()
