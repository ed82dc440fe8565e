"""The byte-pair tokenizer of an .orb file, on byte strings."""

import re
import struct

from orb_file import OrbError

SPACE_MARK = "\u2581".encode()
BYTE_LEVEL_MARK = "\u0120".encode()
WHITESPACE = b"\t\n\v\f\r "


class Tokenizer:
    """Byte-pair tokenizer of the container's tokenizer section."""

    def __init__(self, section):
        self._read(section)
        first = self.merges[0] if self.merges else b""
        self.byte_level = BYTE_LEVEL_MARK in first and SPACE_MARK not in first
        self.index, self.rank = {}, {}
        for i, token in enumerate(self.tokens):
            self.index.setdefault(token, i)
        for i, rule in enumerate(self.merges):
            self.rank.setdefault(rule, i)
        self.specials = []
        if len(self.types) == len(self.tokens):
            self.specials = [(t, i) for i, t in enumerate(self.tokens) if self.types[i] in (2, 3) and t]
            self.specials.sort(key=lambda pair: (-len(pair[0]), pair))

    def _read(self, data):
        at = 4

        def number(code="<I"):
            nonlocal at
            value, = struct.unpack_from(code, data, at)
            at += 4
            return value

        def text():
            nonlocal at
            length = number()
            at += length
            return data[at - length:at]

        if data[:4] != b"TKNZ":
            raise OrbError("tokenizer section: bad magic")
        self.model = text()
        self.tokens = [text() for _ in range(number())]
        for _ in range(number()):
            number()
        self.types = [number("<i") for _ in range(number())]
        self.merges = [text() for _ in range(number())]
        self.bos, self.eos, self.unknown, self.padding = (number("<i") for _ in range(4))

    def encode(self, text, add_bos=True):
        """Ids of a text (str or bytes)."""
        data = text.encode() if isinstance(text, str) else text
        ids = [self.bos] if add_bos and self.bos >= 0 else []
        if not self.byte_level:
            data = data.replace(b" ", SPACE_MARK)
        for number, line in enumerate(data.split(b"\n")):
            if number:
                if b"\n" in self.index:
                    ids.append(self.index[b"\n"])
                else:
                    self._segment(b"\n", ids)
            if line:
                self._segment(line, ids)
        return ids

    def _segment(self, data, ids):
        """Cuts out special tokens, longest first; the rest is ordinary text."""
        begin = at = 0
        while at < len(data):
            special = next(((t, i) for t, i in self.specials if data.startswith(t, at)), None)
            if special is None:
                at += 1
                continue
            self._plain(data[begin:at], ids)
            ids.append(special[1])
            begin = at = at + len(special[0])
        self._plain(data[begin:], ids)

    def _plain(self, data, ids):
        if not data:
            return
        if not self.byte_level:
            self._merge(data, ids)
            return
        for piece in split_words(data):
            self._merge(piece.replace(b" ", BYTE_LEVEL_MARK), ids)

    def _merge(self, piece, ids):
        """Merges neighbours, lowest rank first, leftmost first among equals."""
        symbols, at = [], 0
        while at < len(piece):
            length = character_length(piece[at])
            symbols.append(piece[at:at + length])
            at += length
        while len(symbols) > 1:
            ranks = [self.rank.get(a + b" " + b, len(self.rank)) for a, b in zip(symbols, symbols[1:])]
            best = min(range(len(ranks)), key=ranks.__getitem__)
            if ranks[best] == len(self.rank):
                break
            symbols[best:best + 2] = [symbols[best] + symbols[best + 1]]
        for symbol in symbols:
            token = self.index.get(symbol, self.unknown)
            if token >= 0:
                ids.append(token)

    def decode(self, ids):
        """Bytes of the ids; special tokens are written as they are, byte tokens become bytes."""
        text = b""
        for i in ids:
            if not 0 <= i < len(self.tokens):
                raise OrbError("token id out of range")
            special = i < len(self.types) and self.types[i] in (2, 3)
            text += self.tokens[i] if special else self.tokens[i].replace(SPACE_MARK, b" ")
        return re.sub(rb"<0x([0-9a-fA-F]{2})>", lambda match: bytes([int(match[1], 16)]), text)


def character_length(lead):
    """Byte length of a UTF-8 character by its first byte; 1 for a byte that cannot begin one."""
    if lead & 0xE0 == 0xC0:
        return 2
    if lead & 0xF0 == 0xE0:
        return 3
    return 4 if lead & 0xF8 == 0xF0 else 1


def is_letter(byte):
    """ASCII letters and every byte of a non-ASCII character."""
    return byte >= 0x80 or chr(byte).isalpha()


def is_other(byte):
    """Neither letter, digit nor whitespace."""
    return not (is_letter(byte) or 0x30 <= byte <= 0x39 or byte in WHITESPACE)


CONTRACTION = re.compile(rb"(?:'|\xe2\x80\x99)(?:s|t|re|ve|m|ll|d)", re.IGNORECASE)


def split_words(data):
    """Pre-tokens of a byte-level vocabulary."""
    pieces, at = [], 0
    while at < len(data):
        end = word_end(data, at)
        pieces.append(data[at:end])
        at = end
    return pieces


def word_end(data, at):
    """End of the pre-token that begins at `at`: the first rule that applies."""
    size = len(data)
    byte = data[at]
    following = data[at + 1] if at + 1 < size else None
    match = CONTRACTION.match(data, at)
    if match:
        return match.end()
    joins = not (is_letter(byte) or 0x30 <= byte <= 0x39 or byte in b"\r\n")
    if is_letter(byte) or (joins and following is not None and is_letter(following)):
        end = at if is_letter(byte) else at + 1
        while end < size and is_letter(data[end]):
            end = min(size, end + character_length(data[end]))
        return end
    if 0x30 <= byte <= 0x39:
        return at + len(re.match(rb"[0-9]{1,3}", data[at:at + 3])[0])
    if is_other(byte) or (byte == 0x20 and following is not None and is_other(following)):
        end = at + 1 if byte == 0x20 else at
        while end < size and is_other(data[end]):
            end += 1
        while end < size and data[end] in b"\r\n":
            end += 1
        return end
    end = at + 1
    while end < size and data[end] in WHITESPACE:
        end += 1
    return end
