#!/usr/bin/env python3
"""A host in Python: loads the plug-in with ctypes and streams a conversation.

    host.py PLUGIN MODEL [QUESTION...]

Without questions they come from the standard input, one a line. --stop-after N stops each answer
after N tokens.
"""

import argparse
import codecs
import ctypes as c
import sys

OK, FAILED, INVALID = 0, 1, 2
Handle = c.c_void_p
ChunkFn = c.CFUNCTYPE(None, c.POINTER(c.c_char), c.c_uint, c.c_void_p)


class Probe(c.Structure):
    _fields_ = [("score", c.c_uint32), ("arch", c.c_char_p), ("device", c.c_char_p),
                ("detail", c.c_char_p)]


class SessionOptions(c.Structure):
    _fields_ = [("structSize", c.c_uint32), ("temperature", c.c_float), ("topK", c.c_int32),
                ("topP", c.c_float), ("seed", c.c_uint64), ("hostDefined", c.c_uint8 * 32)]


class Stats(c.Structure):
    _fields_ = [("structSize", c.c_uint32), ("contextTokens", c.c_uint64),
                ("totalForwardMs", c.c_double), ("lastForwardMs", c.c_double)]


class Descriptor(c.Structure):
    _fields_ = [("version", c.c_uint32), ("secondVersion", c.c_uint32), ("id", c.c_char_p),
                ("description", c.c_char_p), ("reserved0", c.c_void_p), ("reserved1", c.c_void_p)]


class RuntimeV2(c.Structure):
    _fields_ = [
        ("version", c.c_uint32), ("size", c.c_uint32), ("id", c.c_char_p),
        ("description", c.c_char_p), ("flags", c.c_uint64),
        ("probe", c.CFUNCTYPE(c.c_int, c.c_char_p, c.POINTER(Probe))),
        ("create", c.CFUNCTYPE(c.c_int, c.c_char_p, c.c_char_p, c.POINTER(Handle), c.c_char_p,
                               c.c_size_t)),
        ("destroy", c.CFUNCTYPE(None, Handle)),
        ("generate", c.CFUNCTYPE(c.c_int, Handle, c.c_char_p, c.c_char_p, c.c_size_t)),
        ("generateEx", c.CFUNCTYPE(c.c_int, Handle, c.c_char_p, c.POINTER(SessionOptions),
                                   c.c_char_p, c.c_size_t)),
        ("bench", c.CFUNCTYPE(c.c_int, Handle, c.c_void_p, c.c_void_p)),
        ("configure", c.CFUNCTYPE(c.c_int, Handle, c.POINTER(SessionOptions))),
        ("chatTurn", c.CFUNCTYPE(c.c_int, Handle, c.c_char_p, c.c_char_p, c.c_size_t)),
        ("reset", c.CFUNCTYPE(c.c_int, Handle)),
        ("stats", c.CFUNCTYPE(c.c_int, Handle, c.POINTER(Stats))),
    ]


class RuntimeV2S(c.Structure):
    _fields_ = [
        ("version", c.c_uint32), ("size", c.c_uint32), ("id", c.c_char_p),
        ("chatTurnStream", c.CFUNCTYPE(c.c_int, Handle, c.c_char_p, ChunkFn, c.c_void_p,
                                       c.POINTER(c.c_int))),
    ]


class Runtime:
    """The first runtime of a plug-in, with a model opened."""

    def __init__(self, plugin, model):
        self.library = c.CDLL(plugin)  # stays loaded: the tables lie in it
        self.table, self.streaming = self._tables()
        probe = Probe()
        self.table.probe(model.encode(), c.byref(probe))
        if probe.score == 0:
            raise RuntimeError(f"{model}: not a model of {self.table.id.decode()}")
        self.handle = Handle()
        message = c.create_string_buffer(256)
        if self.table.create(model.encode(), None, c.byref(self.handle), message, 256) != OK:
            raise RuntimeError(f"{model}: {message.value.decode(errors='replace')}")

    def _tables(self):
        for name, result in (("orb_plugin_init", Descriptor),
                             ("orb_plugin_runtimes_v2", RuntimeV2),
                             ("orb_plugin_runtimes_v2s", RuntimeV2S)):
            getattr(self.library, name).restype = c.POINTER(result)
        if self.library.orb_plugin_init().contents.version != 1:
            raise RuntimeError("the plug-in is of an unknown version")
        count = c.c_uint32()
        runtimes = self.library.orb_plugin_runtimes_v2(c.byref(count))
        if count.value == 0 or runtimes[0].version != 3 or runtimes[0].size < c.sizeof(RuntimeV2):
            raise RuntimeError("the plug-in offers no runtime of a known version")
        extensions = self.library.orb_plugin_runtimes_v2s(c.byref(count))
        for i in range(count.value):
            if extensions[i].version == 1 and extensions[i].id == runtimes[0].id:
                return runtimes[0], extensions[i]
        raise RuntimeError("the runtime does not stream")

    def configure(self, temperature=-1.0, top_k=0, top_p=0.0, seed=0):
        """Changes the sampling settings; the defaults leave each as it is."""
        options = SessionOptions(c.sizeof(SessionOptions), temperature, top_k, top_p, seed)
        return self.table.configure(self.handle, c.byref(options))

    def ask(self, question, on_text, stop_after=None):
        """One turn, each piece of text handed to on_text; False when the context is full."""
        decoder = codecs.getincrementaldecoder("utf-8")("replace")  # characters come in pieces
        cancel = c.c_int(0)
        tokens = 0

        def receive(data, length, _):
            nonlocal tokens
            tokens += 1
            on_text(decoder.decode(c.string_at(data, length)))
            if tokens == stop_after:
                cancel.value = 1  # any thread may do this

        result = self.streaming.chatTurnStream(self.handle, question.encode(), ChunkFn(receive),
                                               None, c.byref(cancel))
        on_text(decoder.decode(b"", final=True))
        return result == OK

    def reset(self):
        return self.table.reset(self.handle)

    def stats(self):
        stats = Stats()
        self.table.stats(self.handle, c.byref(stats))
        return stats

    def close(self):
        self.table.destroy(self.handle)
        self.handle = None


def main():
    parser = argparse.ArgumentParser(description="Chats with a model through a runtime plug-in.")
    parser.add_argument("plugin")
    parser.add_argument("model")
    parser.add_argument("questions", nargs="*")
    parser.add_argument("--stop-after", type=int, metavar="N")
    arguments = parser.parse_args()
    try:
        runtime = Runtime(arguments.plugin, arguments.model)
    except (OSError, RuntimeError) as error:
        sys.exit(f"host.py: {error}")

    def show(text):
        print(text, end="", flush=True)

    runtime.configure(temperature=0.0)
    for question in arguments.questions or (line.rstrip("\n") for line in sys.stdin):
        if not runtime.ask(question, show, arguments.stop_after):
            runtime.reset()
            runtime.ask(question, show, arguments.stop_after)
        print()
    stats = runtime.stats()
    print(f"{stats.contextTokens} tokens in the context, {stats.totalForwardMs:.1f} ms",
          file=sys.stderr)
    runtime.close()


if __name__ == "__main__":
    main()
