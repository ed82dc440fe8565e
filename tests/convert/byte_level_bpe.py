"""A byte-level BPE tokenizer as checkpoints have it: training and encoding, the plain way."""

import unicodedata
from collections import Counter


def is_letter(c):
    """\\p{L} or \\p{M}"""
    return unicodedata.category(c)[0] in "LM"


def split_words(text):
    """The original's pieces: contractions, words with one leading character, single digits, runs of
    punctuation, line breaks, spaces (the last of which belongs to the word after it)."""
    pieces, at = [], 0
    number = lambda c: unicodedata.category(c)[0] == "N"
    other = lambda c: not (c.isspace() or is_letter(c) or number(c))
    run = lambda i, test: i if i == len(text) or not test(text[i]) else run_end(i, test)

    def run_end(i, test):
        while i < len(text) and test(text[i]):
            i += 1
        return i

    while at < len(text):
        c = text[at]
        following = text[at + 1] if at + 1 < len(text) else " "
        suffix = next((s for s in ("s", "t", "re", "ve", "m", "ll", "d")
                       if c == "'" and text[at + 1:at + 1 + len(s)].lower() == s), None)
        if suffix:
            end = at + 1 + len(suffix)
        elif is_letter(c) or (c not in "\r\n" and not number(c) and is_letter(following)):
            end = run_end(at + 1, is_letter)
        elif number(c):
            end = at + 1
        elif other(c) or (c == " " and other(following)):
            end = run(run_end(at + 1, other), lambda x: x in "\r\n")
        else:
            end = run_end(at, str.isspace)
            breaks = max(text.rfind("\n", at, end), text.rfind("\r", at, end))
            if breaks >= 0:
                end = breaks + 1
            elif end < len(text) and end - at > 1:
                end -= 1
        pieces.append(text[at:end])
        at = end
    return pieces


class ByteLevelBpe:
    """Tokens and merges as bytes; ids in the order of creation, special tokens last."""

    def __init__(self, corpus, merges, specials):
        words = Counter(tuple(bytes([b]) for b in piece.encode())
                        for text in corpus for piece in split_words(text))
        self.tokens = [bytes([b]) for b in range(256)]
        self.merges = []
        for _ in range(merges):
            pairs = Counter()
            for word, count in words.items():
                for pair in zip(word, word[1:]):
                    pairs[pair] += count
            if not pairs:
                break
            best = max(pairs, key=lambda p: (pairs[p], p))
            self.merges.append(best)
            self.tokens.append(best[0] + best[1])
            words = Counter({self.merge(word, best): count for word, count in words.items()})
        self.ids = {}
        for index, token in enumerate(self.tokens):
            self.ids.setdefault(token, index)
        self.ranks = {pair: rank for rank, pair in reversed(list(enumerate(self.merges)))}
        self.added = {s: len(self.tokens) + i for i, s in enumerate(specials)}
        self.tokens += [s.encode() for s in specials]

    @staticmethod
    def merge(word, pair):
        """Every occurrence of the pair in one symbol."""
        made, i = [], 0
        while i < len(word):
            if word[i:i + 2] == pair:
                made.append(pair[0] + pair[1])
                i += 2
            else:
                made.append(word[i])
                i += 1
        return tuple(made)

    def encode(self, text):
        """Ids of a text without special tokens."""
        ids = []
        for piece in split_words(unicodedata.normalize("NFC", text)):
            word = tuple(bytes([b]) for b in piece.encode())
            while len(word) > 1:
                pair = min(zip(word, word[1:]), key=lambda p: self.ranks.get(p, 1 << 30))
                if pair not in self.ranks:
                    break
                word = self.merge(word, pair)
            ids += [self.ids[token] for token in word]
        return ids
