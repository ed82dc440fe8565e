"""The built command from outside: what it prints, what it leaves behind, how it exits.

Run one group with `command_test.py -v Chat`. ORB_COMMAND is the command (with an emulator in front of
it where one is needed), ORB_DEMO_MODEL the bundled model.
"""

import json
import os
import re
import shlex
import shutil
import signal
import subprocess
import sys
import tempfile
import time
import unittest

COMMAND = shlex.split(os.environ["ORB_COMMAND"])
DEMO = os.environ["ORB_DEMO_MODEL"]
GOLDEN = os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "golden", "demo.json")
WINDOWS = COMMAND[-1].endswith(".exe")  # there or under an emulator

# A model that answers in an instant, and one whose answers run to thousands of tokens.
SMALL = ["--type", "f32", "--query-heads", "1", "--value-heads", "1"]
TINY = SMALL + ["--hidden", "32", "--ffn", "32", "--vocab", "160"]
TALKATIVE = SMALL + ["--hidden", "64", "--ffn", "64", "--vocab", "4096", "--seed", "3"]


def setUpModule():
    global FOLDER, MODEL
    FOLDER = tempfile.mkdtemp(prefix="orb_e2e_")
    MODEL = os.path.join(FOLDER, "tiny.orb")
    # One thread: waiting for a second one on a busy machine takes longer than a tiny model.
    os.environ["OMP_NUM_THREADS"] = "1"
    for name in [n for n in os.environ if n.startswith("QWEN35_")]:
        del os.environ[name]
    subprocess.run(COMMAND + ["synth", MODEL] + TINY, check=True, stdout=subprocess.DEVNULL)


def tearDownModule():
    shutil.rmtree(FOLDER)


class CommandTest(unittest.TestCase):
    def orb(self, *arguments, code=0, stdin="", env=None):
        """Runs the command, checks its exit code, returns (stdout, stderr) as bytes."""
        if isinstance(stdin, str):
            stdin = stdin.encode()
        done = subprocess.run(COMMAND + list(arguments), input=stdin, capture_output=True,
                              timeout=240, env={**os.environ, **(env or {})})
        self.assertEqual(done.returncode, code, done.stdout + done.stderr)
        return done.stdout, done.stderr

    def failure(self, *arguments, code=1, **options):
        """Runs a command that must fail: nothing on stdout, one line on stderr, which is returned."""
        out, err = self.orb(*arguments, code=code, **options)
        self.assertEqual(out, b"")
        text = err.decode()
        self.assertRegex(text, r"\Aorb: [^\n]+\n\Z")
        return text

    def path(self, name, content=None):
        path = os.path.join(FOLDER, name)
        if content is not None:
            with open(path, "wb") as file:
                file.write(content)
        return path


class Usage(CommandTest):
    def test_help_lists_every_subcommand(self):
        out, _ = self.orb("--help")
        for name in (b"chat", b"run", b"bench", b"info", b"probe", b"convert", b"quantize",
                     b"eval", b"synth", b"validate"):
            self.assertIn(b"\n  " + name + b" ", out)

    def test_every_subcommand_has_examples(self):
        for name in ("chat", "run", "bench", "info", "probe", "convert", "quantize", "eval",
                     "synth", "validate"):
            out, err = self.orb(name, "--help")
            self.assertIn(b"Examples:\n  orb " + name.encode(), out.replace(b"printf", b"orb"))
            self.assertEqual(err, b"")

    def test_version(self):
        out, _ = self.orb("--version")
        self.assertRegex(out, rb"\Aorb \d+\.\d+\.\d+\n\Z")

    def test_wrong_usage_is_exit_code_2(self):
        for arguments in ([], ["nonsense"], ["chat"], ["info"], ["probe"], ["synth"], ["run"],
                          ["chat", MODEL, "--threads", "0"], ["chat", MODEL, "--nonsense"],
                          ["run", MODEL, "-p", "a", "-f", "b"], ["synth", "x.orb", "--type", "q2_k"],
                          ["synth", "x.orb", "--shape", "9b"], ["chat", MODEL, "extra"]):
            line = self.failure(*arguments, code=2)
            self.assertIn("--help", line)

    def test_an_unknown_tier_is_refused(self):
        line = self.failure("chat", MODEL, "--isa", "mmx", code=2)
        self.assertIn("there is no tier mmx; this machine runs scalar", line)

    def test_a_missing_plugin_is_explained(self):
        line = self.failure("chat", MODEL, "--plugin", self.path("none.so"))
        self.assertIn("none.so: expected the runtime plug-in, found none that loads", line)

    def test_a_missing_model_is_explained(self):
        for command in (["chat"], ["bench"], ["info"], ["run", "-p", "x"]):
            line = self.failure(command[0], self.path("none.orb"), *command[1:])
            self.assertIn("none.orb: expected a model file (.orb), found no file", line)

    def test_output_that_cannot_be_written_is_a_failure(self):
        if not os.path.exists("/dev/full"):
            self.skipTest("no /dev/full here")
        with open("/dev/full", "wb") as full:
            done = subprocess.run(COMMAND + ["info", MODEL], stdout=full, stderr=subprocess.PIPE)
        self.assertEqual(done.returncode, 1)
        self.assertIn(b"could not be written", done.stderr)


class Info(CommandTest):
    def test_a_model_is_described(self):
        out, err = self.orb("info", MODEL)
        for text in ("ORB2 version 2", "general.architecture", "qwen35", "160 tokens (3 special)",
                     "24 linear and 8 full blocks", "blk.31.attn_output.weight", "key/value caches",
                     "tensor index"):
            self.assertIn(text, out.decode())
        self.assertNotIn(b"check", out)
        self.assertEqual(err, b"")

    def test_check_passes(self):
        for model in (MODEL, DEMO):
            out, _ = self.orb("info", model, "--check")
            self.assertIn(b"the runtime takes this file", out)

    def test_json(self):
        out, _ = self.orb("info", MODEL, "--json", "--check", "--context", "100")
        info = json.loads(out)
        self.assertEqual(info["model"]["hidden"], 32)
        self.assertEqual(len(info["model"]["tensors"]), 426)
        self.assertEqual(info["model"]["memory"]["context"], 100)
        self.assertTrue(info["check"]["passed"])
        self.assertEqual(info["bytes"], os.path.getsize(MODEL))

    def spoiled(self, name, tensor, offset, value):
        """A copy of the model with bytes of one index entry overwritten."""
        with open(MODEL, "rb") as file:
            content = bytearray(file.read())
        at = content.index(tensor.encode().ljust(64, b"\0")) + offset
        content[at:at + len(value)] = value
        return self.path(name, bytes(content))

    def test_check_names_the_tensor_that_is_wrong(self):
        bad = self.spoiled("rows.orb", "blk.7.attn_q.weight", 80, (8193).to_bytes(8, "little"))
        out, _ = self.orb("info", bad, "--check", code=1)
        self.assertRegex(out.decode(), r"FAILED  blk\.7\.attn_q\.weight: expected .*, found .*\n")
        self.orb("info", bad)  # described all the same
        checked = json.loads(self.orb("info", bad, "--check", "--json", code=1)[0])
        self.assertFalse(checked["check"]["passed"])
        self.assertEqual(checked["check"]["findings"][0]["subject"], "blk.7.attn_q.weight")
        self.assertIn("orb info --check", self.failure("chat", bad))

    def test_files_that_are_no_model(self):
        with open(MODEL, "rb") as file:
            content = file.read()
        cases = {
            "empty.orb": (b"", "ORB2: cannot stat file"),
            "short.orb": (b"ORB2", "ORB2: file too small"),
            "other.orb": (b"GGUF" + bytes(100), "ORB2: bad magic"),
            "crc.orb": (content[:56] + bytes(8) + content[64:], "ORB2: CRC mismatch"),
            "cut.orb": (content[:5000], "ORB2: bad section bounds"),
        }
        for name, (data, message) in cases.items():
            line = self.failure("info", self.path(name, data))
            self.assertIn(name + ": expected ", line)
            self.assertIn("(" + message + ")", line)
            out, _ = self.orb("info", self.path(name), "--json", code=1)
            self.assertIn(message, json.loads(out)["error"])

    def test_a_folder_is_no_model(self):
        self.assertIn("found no file", self.failure("info", FOLDER))


class Probe(CommandTest):
    def test_served_files(self):
        out, _ = self.orb("probe", MODEL, DEMO)
        lines = out.decode().splitlines()
        self.assertEqual(len(lines), 3)
        for line in lines[1:]:
            self.assertRegex(line, r"  92  qwen35 +cpu ")

    def test_one_file_that_is_not_served_is_exit_code_1(self):
        other = self.path("probe.txt", b"text")
        out, _ = self.orb("probe", MODEL, other, "--json", code=1)
        self.assertEqual([(entry["file"], entry["score"]) for entry in json.loads(out)],
                         [(MODEL, 92), (other, 0)])


class Synth(CommandTest):
    def info(self, path):
        return json.loads(self.orb("info", path, "--check", "--json")[0])

    def test_options_reach_the_file(self):
        path = self.path("options.orb")
        self.orb("synth", path, "--hidden", "256", "--ffn", "512", "--vocab", "300", "--pattern",
                 "fl", "--type", "q5_k", "--embedding-type", "bf16", "--biases", "--tokenizer",
                 "byte-level", "--seed", "9", "--unshared", "--query-heads", "4", "--value-heads",
                 "2", "--ffn-type", "q8_0")
        info = self.info(path)
        self.assertEqual(info["model"]["blocks"], "fl" * 16)
        self.assertTrue(info["tokenizer"]["byteLevel"])
        tensors = {tensor["name"]: tensor for tensor in info["model"]["tensors"]}
        self.assertEqual(tensors["token_embd.weight"]["type"], "BF16")
        self.assertEqual(tensors["token_embd.weight"]["shape"], [256, 300])
        self.assertEqual(tensors["blk.0.attn_q.weight"]["type"], "Q5_K")
        self.assertEqual(tensors["blk.0.attn_q.weight"]["shape"], [256, 2048])
        self.assertEqual(tensors["blk.1.attn_gate.weight"]["shape"], [256, 256])
        self.assertEqual(tensors["blk.1.ssm_alpha.weight"]["type"], "Q8_0")
        self.assertEqual(tensors["blk.0.ffn_up.weight"]["type"], "Q8_0")
        self.assertIn("blk.30.attn_k.bias", tensors)
        self.assertFalse(any("sameBytesAs" in tensor for tensor in tensors.values()))

    def test_the_same_options_give_the_same_bytes(self):
        first, second = self.path("first.orb"), self.path("second.orb")
        self.orb("synth", first, *TINY, "--seed", "4")
        self.orb("synth", second, *TINY, "--seed", "4")
        with open(first, "rb") as a, open(second, "rb") as b:
            self.assertEqual(a.read(), b.read())

    def test_an_existing_file_is_refused_without_force(self):
        path = self.path("existing.orb", b"precious")
        self.assertIn("existing.orb: expected a new file", self.failure("synth", path, *TINY))
        with open(path, "rb") as file:
            self.assertEqual(file.read(), b"precious")
        self.orb("synth", path, *TINY, "--force")
        self.info(path)

    def test_options_that_do_not_fit_are_wrong_usage(self):
        path = self.path("misfit.orb")
        line = self.failure("synth", path, "--hidden", "100", code=2)
        self.assertIn("expected a multiple of 256", line)
        self.assertFalse(os.path.exists(path))

    def test_a_folder_that_is_not_there(self):
        self.failure("synth", os.path.join(FOLDER, "nowhere", "x.orb"), *TINY)

    def test_an_interrupt_leaves_nothing_behind(self):
        for number in (signal.SIGINT,) if WINDOWS else (signal.SIGINT, signal.SIGTERM):
            folder = tempfile.mkdtemp(dir=FOLDER)
            process = subprocess.Popen(
                COMMAND + ["synth", os.path.join(folder, "x.orb"), "--shape", "4b", "--type", "f32"],
                stdout=subprocess.PIPE, stderr=subprocess.PIPE)
            for _ in range(500):
                if os.listdir(folder):
                    break
                time.sleep(0.01)
            self.assertNotEqual(os.listdir(folder), [])
            process.send_signal(number)
            out, err = process.communicate(timeout=60)
            self.assertEqual(process.returncode, 1)
            self.assertEqual(out, b"")
            self.assertIn(b"stopped; nothing was written", err)
            self.assertEqual(os.listdir(folder), [])

    def test_progress_is_for_terminals(self):
        _, err = self.orb("synth", self.path("silent.orb"), *TINY)
        self.assertEqual(err, b"")


class Chat(CommandTest):
    def test_the_demo_answers_a_piped_question(self):
        out, err = self.orb("chat", DEMO, stdin="What is orb?\n")
        text = out.decode()
        self.assertTrue(text.startswith("> What is orb?\n"), text)
        self.assertIn("orb", text.lower()[15:])
        self.assertTrue(text.endswith("\n\n"))
        self.assertEqual(err, b"")

    def test_the_demo_answers_as_recorded_on_every_system(self):
        with open(GOLDEN, encoding="utf-8") as file:
            cases = [case for case in json.load(file)["cases"] if case["kind"] == "chat"]
        questions, expected = "", ""
        for turns in [case["turns"] for case in cases]:
            for turn in turns:
                questions += turn["text"] + "\n"
                expected += f"> {turn['text']}\n{turn['answer']}\n\n"
            questions += "/reset\n"
            expected += "> /reset\nThe conversation is forgotten.\n\n"
        self.assertGreater(len(cases), 3)
        self.assertEqual(self.orb("chat", DEMO, stdin=questions)[0].decode(), expected)

    def test_a_transcript_has_every_question_and_answer(self):
        out, _ = self.orb("chat", MODEL, "--max-tokens", "3", stdin="one\n\n  \ntwo\r\nthree")
        self.assertRegex(out.decode(), r"(?s)\A> one\n.+\n\n> two\n.+\n\n> three\n.+\n\n\Z")

    def test_the_context_grows_until_reset(self):
        out, _ = self.orb("chat", MODEL, "--max-tokens", "2",
                          stdin="/stats\nhi\n/stats\nhi\n/stats\n/reset\n/stats\n")
        held = [int(n) for n in re.findall(r"context +(\d+) of 8192 tokens", out.decode())]
        self.assertEqual((held[0], held[3]), (0, 0))
        self.assertLess(held[1], held[2])

    def test_the_stats_tell_how_fast_the_answers_came(self):
        out, _ = self.orb("chat", MODEL, "--max-tokens", "3", stdin="/stats\nhi\nhi\n/stats\n")
        answers = re.findall(r"answers +(.+)", out.decode())
        self.assertEqual(answers[0], "0, 0 tokens")
        self.assertRegex(answers[1], r"^2, 6 tokens, [\d.]+ tokens/s$")

    def test_reset_makes_the_same_question_new(self):
        out, _ = self.orb("chat", MODEL, "--max-tokens", "20", stdin="hi\n/reset\nhi\nhi\n")
        answers = out.decode().split("> hi\n")
        self.assertEqual(answers[1].split("> /reset")[0].strip(), answers[2].strip())
        self.assertNotEqual(answers[2].strip(), answers[3].strip())

    def test_help_and_quit(self):
        out, _ = self.orb("chat", MODEL, stdin="/help\n/quit \nnever asked\n")
        self.assertIn(b"/reset", out)
        self.assertNotIn(b"never asked", out)

    def test_an_unknown_command_is_not_sent_to_the_model(self):
        out, err = self.orb("chat", MODEL, stdin="/nonsense\n/stats\n", code=1)
        self.assertIn(b"found /nonsense", err)
        self.assertIn(b"context         0 of", out)

    def test_a_full_context_says_so_and_reset_helps(self):
        out, err = self.orb("chat", MODEL, "--context", "60", "--max-tokens", "10",
                            stdin="hello there\nhello again\nmore\n/reset\nhi\n/stats\n", code=1)
        self.assertEqual(err.count(b"the context of 60 tokens is full; /reset"), 2)
        self.assertRegex(out.decode(), r"context +[1-5]\d of 60 tokens")

    def test_sampling_follows_the_seed(self):
        def answer(*options):
            return self.orb("chat", MODEL, "--max-tokens", "20", *options, stdin="hi\n")[0]
        hot = ["--temperature", "3", "--seed"]
        self.assertEqual(answer(*hot, "5"), answer(*hot, "5"))
        self.assertNotEqual(answer(*hot, "5"), answer(*hot, "6"))
        self.assertNotEqual(answer(*hot, "5"), answer())
        self.assertEqual(answer(*hot, "5", "--top-k", "1"), answer())

    def test_threads_and_tiers_do_not_change_the_answer(self):
        help_text = self.orb("chat", "--help")[0].decode()
        tiers = help_text.split("here: ")[1].split("\n")[0].split(", ")
        answers = {self.orb("chat", MODEL, "--max-tokens", "12", "--isa", tier, "--threads",
                            threads, stdin="hi\n")[0] for tier in tiers for threads in "12"}
        self.assertEqual(len(answers), 1)

    def test_the_transcript_is_valid_utf8(self):
        out, _ = self.orb("chat", MODEL, "--temperature", "50", "--max-tokens", "300",
                          stdin="\u4f60\u597d \U0001f600\n")
        out.decode("utf-8")

    def test_a_nul_byte_is_refused(self):
        _, err = self.orb("chat", MODEL, stdin=b"a\0b\n", code=1)
        self.assertIn(b"NUL", err)

    def test_no_input_is_no_failure(self):
        self.assertEqual(self.orb("chat", MODEL), (b"", b""))


class Run(CommandTest):
    def test_prompt_file_and_stdin_are_the_same(self):
        path = self.path("prompt.txt", b"the and you")
        out, err = self.orb("run", MODEL, "-p", "the and you")
        self.assertTrue(out)
        self.assertEqual(err, b"")
        self.assertEqual(self.orb("run", MODEL, "-f", path)[0], out)
        self.assertEqual(self.orb("run", MODEL, stdin="the and you")[0], out)

    def test_length_is_limited_by_max_tokens(self):
        short = self.orb("run", MODEL, "-p", "the", "--max-tokens", "5")[0]
        usual = self.orb("run", MODEL, "-p", "the")[0]
        more = self.orb("run", MODEL, "-p", "the", "--max-tokens", "200")[0]
        self.assertTrue(usual.startswith(short))
        self.assertTrue(more.startswith(usual))
        self.assertGreater(len(more), len(usual))

    def test_a_prompt_that_does_not_fit_is_explained(self):
        line = self.failure("run", MODEL, "-p", "a b c d e f g h i j", "--context", "8")
        self.assertIn("context of 8 tokens", line)

    def test_bad_prompts(self):
        self.assertIn("none.txt", self.failure("run", MODEL, "-f", self.path("none.txt")))
        self.assertIn("offset 1", self.failure("run", MODEL, stdin=b"a\0b"))
        self.failure("run", MODEL, "-f", FOLDER)


class Bench(CommandTest):
    def test_table_and_json(self):
        options = ["--gen-tokens", "4", "--prompt-tokens", "40,70", "--contexts", "1,100",
                   "--threads", "1", MODEL]
        out, _ = self.orb("bench", *options)
        for text in ("TOKENS/S", "prompt", "generation at", "bench slot", "create", "pure read",
                     "peak memory"):
            self.assertIn(text, out.decode())
        bench = json.loads(self.orb("bench", *options, "--json")[0])
        for speed, tokens in zip(bench["prompts"], (40, 70), strict=True):
            self.assertLess(abs(speed["tokens"] - tokens), 8)
        early, late = bench["generations"]
        self.assertLess(early["context"], 90)
        self.assertLess(abs(late["context"] - 100), 25)
        self.assertEqual((early["tokens"], late["tokens"], bench["benchSlot"]["tokens"]), (4, 4, 4))
        self.assertEqual(bench["threads"], 1)
        self.assertGreater(bench["pureReadBytesPerSecond"], 1e8)
        self.assertGreater(bench["peakMemoryBytes"], 0)
        self.assertGreater(bench["createSeconds"], 0)
        info = json.loads(self.orb("info", MODEL, "--json")[0])["model"]
        self.assertEqual(bench["readBytesPerToken"], info["readBytesPerToken"])
        self.assertEqual(bench["benchSlot"]["readBytesPerToken"], info["readBytesPerToken"])
        # Keys and values of a position: 8 full blocks, 4 heads of 256 floats each.
        self.assertEqual(late["readBytesPerToken"],
                         info["readBytesPerToken"] + late["context"] * 8 * 2 * 4 * 256 * 4)
        for row in (early, late, bench["benchSlot"]):
            self.assertAlmostEqual(row["bytesPerSecond"],
                                   row["tokensPerSecond"] * row["readBytesPerToken"], delta=1e3)

    def test_the_tier_that_was_asked_for_is_named(self):
        out, _ = self.orb("bench", MODEL, "--isa", "scalar", "--gen-tokens", "2",
                          "--prompt-tokens", "2", "--contexts", "1", "--json")
        self.assertEqual(json.loads(out)["tier"], "scalar")


class Terminal(CommandTest):
    """The conversation at a pseudo-terminal; where the program sees a console, that one's keys."""

    # An emulated console gives no program a Ctrl-Z.
    ENTER, END = (b"\r", b"/quit\r") if WINDOWS else (b"\n", b"\x04")
    # What ends a program at Ctrl-C: the signal, or an exit code whose low byte this is, or an emulator.
    INTERRUPTED = (0x3A, 0) if WINDOWS else (-signal.SIGINT,)

    @classmethod
    def setUpClass(cls):
        cls.model = os.path.join(FOLDER, "talkative.orb")
        subprocess.run(COMMAND + ["synth", cls.model] + TALKATIVE, check=True,
                       stdout=subprocess.DEVNULL)

    def setUp(self):
        try:
            import fcntl
            import pty
            import struct
            import termios
        except ImportError:
            self.skipTest("no pseudo-terminals here")
        pid, self.terminal = pty.fork()
        if pid == 0:
            os.environ["TERM"] = "xterm"
            fcntl.ioctl(0, termios.TIOCSWINSZ, struct.pack("4H", 50, 160, 0, 0))
            # The slowest tier, so that there is time to interrupt.
            os.execvp(COMMAND[0], COMMAND + ["chat", self.model, "--max-tokens", "100000",
                                             "--context", "100000", "--isa", "scalar"])
        self.pid = pid
        self.seen = b""

    def tearDown(self):
        os.close(self.terminal)
        if self.pid:
            os.kill(self.pid, signal.SIGKILL)
            os.waitpid(self.pid, 0)

    def read(self, timeout):
        import select
        if not select.select([self.terminal], [], [], timeout)[0]:
            return False
        try:
            data = os.read(self.terminal, 65536)
        except OSError:
            return False
        self.seen += data
        if WINDOWS:  # what an emulated console makes of the text: moves of the cursor, colours
            self.seen = re.sub(rb"\x1b\[(\d+)C", lambda m: b" " * int(m[1]), self.seen)
            self.seen = re.sub(rb"\x1b\[[?;0-9]*[A-Za-z]", b"", self.seen)
            self.seen = self.seen.replace(b"\r\r\n", b"\r\n")
        return bool(data)

    def wait_for(self, text, timeout=60):
        """Reads until the text has come since the last wait."""
        end = time.time() + timeout
        while text not in self.seen:
            self.assertLess(time.time(), end, self.seen[-2000:])
            self.read(0.2)
        self.seen = self.seen.split(text, 1)[1]

    def wait_for_prompt(self):
        """The prompt, and a moment for the editor to take the terminal over."""
        self.wait_for(b"> ")
        time.sleep(0.5)

    def type(self, text):
        os.write(self.terminal, text)

    def exit_code(self, timeout=30):
        end = time.time() + timeout
        while time.time() < end:
            self.read(0.05)
            pid, status = os.waitpid(self.pid, os.WNOHANG)
            if pid:
                self.pid = 0
                return os.waitstatus_to_exitcode(status)
        self.fail("still running: " + repr(self.seen[-2000:]))

    def test_greeting_prompt_and_end_of_input(self):
        self.wait_for(b"/help lists the commands")
        self.wait_for_prompt()
        self.type(self.END)
        self.assertEqual(self.exit_code(), 0)

    def test_quit_ends_it(self):
        self.wait_for_prompt()
        self.type(b"/quit" + self.ENTER)
        self.assertEqual(self.exit_code(), 0)

    def test_an_interrupt_stops_the_answer_and_not_the_program(self):
        self.wait_for_prompt()
        self.type(b"talk" + self.ENTER)
        self.wait_for(b"talk\r\n")
        self.assertTrue(self.read(60))  # the answer has begun
        self.type(b"\x03")
        self.wait_for(b", stopped")
        self.wait_for_prompt()
        self.type(b"/stats" + self.ENTER)
        self.wait_for(b"of 100000 tokens")
        self.wait_for_prompt()
        self.type(self.END)
        self.assertEqual(self.exit_code(), 0)

    @unittest.skipIf(WINDOWS, "an emulated console goes on with the line")
    def test_an_interrupt_at_the_prompt_clears_the_line(self):
        self.wait_for_prompt()
        self.type(b"never asked")
        self.wait_for(b"asked")
        self.type(b"\x03")
        self.wait_for(b"^C")
        self.wait_for_prompt()
        self.type(b"/stats" + self.ENTER)
        self.wait_for(b"context         0 of")
        self.wait_for_prompt()
        self.type(self.END)
        self.assertEqual(self.exit_code(), 0)

    def test_lines_can_be_edited_and_recalled(self):
        self.wait_for_prompt()
        self.type(b"/statsX\x7f" + self.ENTER)  # backspace
        self.wait_for(b"context         0 of")
        self.wait_for_prompt()
        self.type(b"\x1b[A" + self.ENTER)  # the line before, again
        self.wait_for(b"context         0 of")
        self.wait_for_prompt()
        self.type("/\u00e9\u4f60\x7f\x7f".encode() + b"stats" + self.ENTER)
        self.wait_for(b"context         0 of")
        self.wait_for_prompt()
        self.type(self.END)
        self.assertEqual(self.exit_code(), 0)

    def test_a_second_interrupt_ends_a_program_that_does_not_answer(self):
        self.wait_for_prompt()
        self.type(b"a " * 400 + self.ENTER)  # a while before the first token
        self.wait_for(b"a \r\n")
        self.type(b"\x03")
        time.sleep(0.3)
        self.type(b"\x03")
        self.assertIn(self.exit_code(), self.INTERRUPTED)


class Linking(CommandTest):
    def test_the_command_does_not_load_the_threading_library_itself(self):
        if WINDOWS:
            self.skipTest("every module has a threading library inside")
        out = subprocess.run(["readelf", "-d", COMMAND[-1]], capture_output=True, text=True).stdout
        self.assertIn("NEEDED", out)
        self.assertNotIn("gomp", out)

    def test_threads_reach_the_plugin(self):
        out, err = self.orb("chat", MODEL, "--threads", "1", "--max-tokens", "1", stdin="hi\n",
                            env={"OMP_DISPLAY_ENV": "true", "OMP_NUM_THREADS": "3"})
        self.assertRegex(err.decode(), r"OMP_NUM_THREADS ?= ?'1'")


if __name__ == "__main__":
    unittest.main(argv=[sys.argv[0]] + sys.argv[1:])
