"""Reads the .orb container: sections, metadata and tensors."""

import struct

import numpy as np

from orb_formats import FORMATS

SECTION_META, SECTION_TOKENIZER, SECTION_INDEX, SECTION_WEIGHTS = 1, 2, 4, 5


class OrbError(Exception):
    """A file or an argument that this program cannot work with; the text is one line for the user."""


def crc64(data):
    """Right-shifting table CRC of the polynomial constant 0x42F0E1EBA9EA3693, start 0, no final XOR."""
    table = []
    for value in range(256):
        for _ in range(8):
            value = (value >> 1) ^ (0x42F0E1EBA9EA3693 if value & 1 else 0)
        table.append(value)
    crc = 0
    for byte in data:
        crc = table[(crc ^ byte) & 0xFF] ^ (crc >> 8)
    return crc


class OrbFile:
    """An .orb file: metadata, tokenizer record and tensors by name.

    Matrices are expanded to double once; index entries over the same bytes share one array.
    """

    def __init__(self, path):
        try:
            self.data = np.memmap(path, np.uint8, "r")
        except (OSError, ValueError) as error:
            raise OrbError(f"cannot open {path}: {error}") from None
        header = bytes(self.data[:64])
        if len(header) < 64 or header[:4] != b"ORB2":
            raise OrbError(f"{path}: not an .orb file")
        version, endian, count = struct.unpack_from("<3I", header, 4)
        self.tensor_count, _, checksum = struct.unpack_from("<3Q", header, 40)
        if version != 2 or endian != 0x01020304 or not 1 <= count <= 16:
            raise OrbError(f"{path}: unsupported version, byte order or section count")
        table = bytes(self.data[64:64 + 24 * count])
        if crc64(header[:56] + table) != checksum:
            raise OrbError(f"{path}: checksum mismatch")
        self.sections = {}
        for kind, _, offset, size in struct.iter_unpack("<IIQQ", table):
            if offset % 64 or offset + size > len(self.data):
                raise OrbError(f"{path}: section {kind} lies outside the file")
            self.sections.setdefault(kind, (offset, size))
        for kind in (SECTION_META, SECTION_TOKENIZER, SECTION_INDEX, SECTION_WEIGHTS):
            if kind not in self.sections:
                raise OrbError(f"{path}: section {kind} is missing")
        self.meta = self._read_meta()
        self.entries = self._read_index()
        self._expanded = {}

    def section(self, kind):
        """The bytes of a section."""
        offset, size = self.sections[kind]
        return bytes(self.data[offset:offset + size])

    def _read_meta(self):
        data, meta, at = self.section(SECTION_META), {}, 4
        for _ in range(struct.unpack_from("<I", data)[0]):
            length, = struct.unpack_from("<H", data, at)
            key, kind = data[at + 2:at + 2 + length].decode("utf-8", "replace"), data[at + 2 + length]
            at += 3 + length
            if kind < 4:
                code = "<" + "IifQ"[kind]
                value, = struct.unpack_from(code, data, at)
                at += struct.calcsize(code)
            else:
                count, = struct.unpack_from("<I", data, at)
                size = count if kind == 4 else 4 * count
                value = data[at + 4:at + 4 + size]
                value = value.decode("utf-8", "replace") if kind == 4 else list(np.frombuffer(value, "<u4"))
                at += 4 + size
            meta.setdefault(key, value)
        return meta

    def _read_index(self):
        index, entries = self.section(SECTION_INDEX), {}
        for i in range(self.tensor_count):
            name, length, kind, ndims, _, *rest = struct.unpack_from("<64s4H4Q3Q", index, 128 * i)
            entries[name[:min(length, 64)].decode()] = (kind, tuple(rest[:ndims]), rest[4], rest[5])
        return entries

    def matrix(self, name):
        """The tensor as a double array [rows, cols]; a tensor of one dimension is one row. None if absent."""
        if name not in self.entries:
            return None
        kind, dims, offset, size = self.entries[name]
        key = (kind, dims, offset)
        if key not in self._expanded:
            if kind not in FORMATS or not dims:
                raise OrbError(f"{name}: type {kind} with {len(dims)} dimensions is not supported")
            type_name, elements, block_bytes, expand = FORMATS[kind]
            cols, rows = dims[0], int(np.prod(dims[1:], dtype=np.int64))
            if cols % elements:
                raise OrbError(f"{name}: rows of {cols} are not whole {type_name} blocks")
            needed = rows * (cols // elements) * block_bytes
            begin = self.sections[SECTION_WEIGHTS][0] + offset
            if needed > size or begin + needed > len(self.data):
                raise OrbError(f"{name}: data lies outside the file")
            raw = np.array(self.data[begin:begin + needed])
            self._expanded[key] = expand(raw, cols).astype(np.float64)
        return self._expanded[key]

    def vector(self, name):
        """The tensor as a flat double array. None if absent."""
        matrix = self.matrix(name)
        return None if matrix is None else matrix.reshape(-1)
