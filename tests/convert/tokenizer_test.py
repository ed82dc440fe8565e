"""A byte-level tokenizer, trained here, through a conversion and the runtime's own encoder and decoder."""

import json
import os
import shlex
import subprocess
import unittest

from byte_level_bpe import ByteLevelBpe
from convert_case import ConvertCase

SPECIALS = ["<|endoftext|>", "<|im_start|>", "<|im_end|>", "<think>", "</think>"]
ENGLISH = "The quick brown fox doesn't jump over the lazy dogs, does it? They're 42 of them here."
CODE = "int main(int argc, char** argv) { return argc > 1 ? run(argv[1]) : 0; }  // the end"
LATIN = "Über den Flüssen fährt die Fähre größer; élève, naïve, çà et là, señor, Łódź, żółć."
CYRILLIC = "Быстрая лиса прыгает через ленивую собаку и бежит домой."
CHINESE = "快速的棕色狐狸跳过了懒狗。今天天气很好,我们去公园。"
EMOJI = "Well done 🎉 and thanks 😀 🎉"
LINES = "first line\nsecond line\n\nfourth line, after an empty one\n    return the value\n"
SAMPLES = {"English": ENGLISH, "code": CODE, "accented Latin": LATIN, "Cyrillic": CYRILLIC,
           "Chinese": CHINESE, "emoji": EMOJI, "lines": LINES}


class Tokenizer(ConvertCase):
    """What becomes of text."""

    @classmethod
    def setUpClass(cls):
        corpus = [text for text in SAMPLES.values() for _ in range(4)]
        # As in a large corpus, characters are more frequent than any pair of their parts.
        characters = {c for text in SAMPLES.values() for c in text if ord(c) > 127} | {"\ufffd"}
        corpus += [c for c in sorted(characters) for _ in range(99)]
        cls.trained = ByteLevelBpe(corpus, 700, SPECIALS)

    def converted(self, kind, **options):
        """A model with the trained tokenizer, and what the conversion said."""
        checkpoint = self.small(vocabulary=len(self.trained.tokens) + 20)
        checkpoint.tokens, checkpoint.merges = self.trained.tokens, self.trained.merges
        checkpoint.added = set(self.trained.added.values())
        source = self.path(kind)
        if kind == "gguf":
            checkpoint.write_gguf(source)
        else:
            checkpoint.write_folder(source, **options)
        return self.convert(source, "out.orb", "--force")

    def encode(self, model, text):
        """(ids, text that they decode to) by the runtime's tokenizer."""
        done = subprocess.run(shlex.split(os.environ["TOKENIZER_RUNNER"]) + [model], check=True,
                              input=text.encode(), capture_output=True).stdout
        ids, _, decoded = done.partition(b"\n")
        return [int(i) for i in ids.split()], decoded.decode("utf-8", "surrogateescape")

    def test_text_survives_and_ids_are_the_original_ones(self):
        for kind, options in (("gguf", {}), ("folder", {}), ("folder", {"pairs": True})):
            model, output = self.converted(kind, **options)
            self.assertRegex(output, r"merges: \d{3} kept, \d+ derived again, \d+ dropped")
            for name, text in SAMPLES.items():
                ids, decoded = self.encode(model, text)
                self.assertEqual(decoded, text, name)
                expected = self.trained.encode(text)
                if name == "lines":
                    # Newlines are one id each, whatever tokens of several there are.
                    newlines = lambda i: [i] if b"\n" not in self.trained.tokens[i] else \
                        [self.trained.ids[bytes([b])] for b in self.trained.tokens[i]]
                    expected = [part for i in expected for part in newlines(i)]
                self.assertEqual(ids, expected, name)

    def test_special_tokens_are_one_id(self):
        model, _ = self.converted("gguf")
        ids, decoded = self.encode(model, "<|im_start|>user\nThe fox<|im_end|>\n")
        added, newline = self.trained.added, self.trained.ids[b"\n"]
        self.assertEqual(ids[0], added["<|im_start|>"])
        self.assertEqual(ids[-2:], [added["<|im_end|>"], newline])
        self.assertEqual(ids.count(newline), 2)
        self.assertEqual(decoded, "<|im_start|>user\nThe fox<|im_end|>\n")

    def test_a_character_without_a_token_is_lost_to_the_unknown_one(self):
        model, _ = self.converted("gguf")
        ids, decoded = self.encode(model, "The ‰ fox 鱼")
        unknown = self.trained.ids["\ufffd".encode()]
        self.assertEqual(ids.count(unknown), 2)
        self.assertEqual(decoded, "The \ufffd fox \ufffd")

    def test_characters_without_a_token_are_reported(self):
        checkpoint = self.small()
        checkpoint.tokens = checkpoint.tokens[:-3] + ["né".encode()]
        checkpoint.merges = [(b"n", b"\xc3"), (b"n\xc3", b"\xa9")]
        source = self.path("source")
        checkpoint.write_gguf(source)
        _, output = self.convert(source)
        self.assertIn("1 characters have no token of their own: é", output)
        self.assertIn("merges: 0 kept, 1 derived again, 1 dropped", output)

    def test_ids_of_the_special_roles(self):
        model, _ = self.converted("gguf")
        info, _ = self.orb("info", model, "--json")
        tokenizer = json.loads(info)["tokenizer"]
        self.assertEqual(tokenizer["tokens"], len(self.trained.tokens) + 20)
        self.assertEqual(tokenizer["special"], len(SPECIALS))
        ids = list(tokenizer["ids"].values())
        self.assertEqual(ids, [-1, self.trained.added["<|im_end|>"],
                               self.trained.ids["\ufffd".encode()], 0])


if __name__ == "__main__":
    unittest.main()
