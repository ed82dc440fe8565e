"""The validator against plug-ins that break one rule each, and against the mock, which breaks none.

ORB_COMMAND is the command, ORB_FLAWED the library whose flaw the variable ORB_FLAW chooses, ORB_MOCK
the mock of the examples, ORB_NO_PLUGIN a library without the four functions.
"""

import json
import os
import shlex
import subprocess
import sys
import tempfile
import unittest

COMMAND = shlex.split(os.environ["ORB_COMMAND"])
WINDOWS = COMMAND[-1].endswith(".exe")  # there or under an emulator

# Flaw, and the test that must find it.
FLAWS = [
    ("works_when_loaded", "load.loading_does_no_work"),
    ("second_version", "tables.descriptor"),
    ("wrong_size", "tables.second_generation"),
    ("no_description", "tables.second_generation"),
    ("other_id", "tables.ids_match"),
    ("changes_its_table", "tables.tables_are_constant"),
    ("probe_fails", "arguments.probe_takes_nulls"),
    ("probe_serves_all", "arguments.probe_fills_its_record"),
    ("message_too_long", "arguments.create_tells_why_it_failed"),
    ("handle_after_failure", "arguments.odd_paths_are_refused"),
    ("null_is_fine", "arguments.null_handles_are_invalid"),
    ("takes_short_records", "arguments.short_records_are_refused"),
    ("unterminated", "arguments.buffers_of_every_length"),
    ("leaks_a_file", "lifecycle.rounds_of_create_and_destroy"),
    ("handles_share_a_generator", "lifecycle.handles_are_independent"),
    ("bench_leaves_tokens", "lifecycle.calls_in_any_order"),
    ("keeps_the_context", "generation.starts_from_an_empty_context"),
    ("options_stay", "generation.options_of_one_call_end_with_it"),
    ("seed_does_not_count", "generation.same_seed_same_text"),
    ("counts_no_tokens", "chat.the_context_keeps_the_conversation"),
    ("reset_forgets_nothing", "chat.reset_forgets"),
    ("reset_forgets_settings", "chat.reset_keeps_the_settings"),
    ("streams_on_another_thread", "chat.streaming_gives_the_same_text"),
    ("never_cancelled", "chat.cancelled_before_the_first_token"),
    ("one_chunk_too_many", "chat.cancelled_after_any_chunk"),
    ("cancelled_is_failed", "chat.cancelled_after_any_chunk"),
    ("stats_without_size", "statistics.counters_follow_the_calls"),
    ("bench_contradicts_itself", "statistics.bench_tells_what_it_measured"),
    ("sets_the_locale", "hygiene.the_process_is_left_alone"),
    ("changes_the_folder", "hygiene.the_process_is_left_alone"),
    ("ignores_a_signal", "hygiene.the_process_is_left_alone"),
    ("sets_a_variable", "hygiene.the_process_is_left_alone"),
    ("prints", "hygiene.nothing_is_written"),
    ("writes_a_file", "hygiene.nothing_is_written"),
    ("leaks_a_file", "hygiene.no_file_or_socket_is_left_open"),
    ("works_between_calls", "hygiene.no_time_is_taken_between_calls"),
    ("leaks_memory", "hygiene.memory_is_given_back"),
    ("bench_claims_too_much", "speed.bench_agrees_with_the_clock"),
]

# Skipped where an emulator does not count what a process writes.
UNCOUNTED = {"name": "hygiene.nothing_is_written", "result": "skipped"}

# Flaws that end or stop the process, and what is said of it.
ENDINGS = [
    ("crashes", "in the middle of the test: " + ("exception C0000005" if WINDOWS else "signal 11")),
    ("exits", "in the middle of the test: exit code 0"),
    ("hangs", "in the middle of the test: it took longer than 1 s"),
]


def setUpModule():
    global FOLDER, MODEL
    FOLDER = tempfile.TemporaryDirectory(prefix="orb_validate_")
    MODEL = os.path.join(FOLDER.name, "any.echo")
    with open(MODEL, "w") as file:
        file.write("any file will do\n")


def tearDownModule():
    FOLDER.cleanup()


def run(*arguments, flaw=None):
    environment = dict(os.environ)
    environment.pop("ORB_FLAW", None)
    if flaw is not None:
        environment["ORB_FLAW"] = flaw
    return subprocess.run(COMMAND + ["validate"] + list(arguments), capture_output=True, text=True,
                          timeout=300, env=environment)


def validate(*arguments, **options):
    """Runs the validator with --json; (exit code, parsed output)."""
    done = run(*arguments, "--json", **options)
    return done.returncode, json.loads(done.stdout)


def is_uncounted(test):
    return WINDOWS and UNCOUNTED.items() <= test.items()


class Mock(unittest.TestCase):
    def test_passes_every_group(self):
        code, result = validate(os.environ["ORB_MOCK"], MODEL)
        bad = [test for test in result["tests"]
               if test["result"] != "passed" and not is_uncounted(test)]
        self.assertEqual(bad, [])
        self.assertEqual(code, 0)
        self.assertEqual(result["passed"] + result["skipped"], len(result["tests"]))
        self.assertEqual({test["name"].split(".")[0] for test in result["tests"]},
                         {"load", "tables", "arguments", "lifecycle", "generation", "chat",
                          "statistics", "hygiene", "speed"})

    def test_passes_what_needs_no_model_without_one(self):
        code, result = validate(os.environ["ORB_MOCK"])
        self.assertEqual([t for t in result["tests"] if t["result"] == "failed"], [])
        self.assertEqual(code, 0)
        self.assertEqual(result["failed"], 0)
        self.assertGreater(result["passed"], 15)
        for test in result["tests"]:
            if test["result"] == "skipped":
                self.assertEqual(test["messages"], ["needs a MODEL"])


class Flawed(unittest.TestCase):
    def test_passes_without_a_flaw(self):
        code, result = validate(os.environ["ORB_FLAWED"], MODEL)
        self.assertEqual([t for t in result["tests"] if t["result"] == "failed"], [])
        self.assertEqual(code, 0)

    def test_every_flaw_is_found(self):
        for flaw, name in FLAWS:
            with self.subTest(flaw=flaw):
                code, result = validate(os.environ["ORB_FLAWED"], MODEL, "--filter", name,
                                        flaw=flaw)
                self.assertEqual([t["name"] for t in result["tests"]], [name])
                if is_uncounted(result["tests"][0]):
                    continue
                self.assertEqual(result["tests"][0]["result"], "failed")
                self.assertTrue(result["tests"][0]["messages"])
                self.assertEqual(code, 1)

    def test_an_end_of_the_process_fails_that_test_only(self):
        for flaw, message in ENDINGS:
            with self.subTest(flaw=flaw):
                code, result = validate(os.environ["ORB_FLAWED"], MODEL, "--timeout", "1",
                                        "--filter", "chat.reset_forgets,tables.desc", flaw=flaw)
                self.assertEqual(code, 1)
                descriptor, turn = result["tests"]
                self.assertEqual(descriptor["result"], "passed")
                self.assertEqual(turn["result"], "failed")
                self.assertIn(message, turn["messages"][-1])

    def test_a_library_without_functions(self):
        code, result = validate(os.environ["ORB_NO_PLUGIN"], MODEL)
        self.assertEqual(code, 1)
        self.assertEqual([t["name"] for t in result["tests"] if t["result"] == "failed"],
                         ["load.entry_points_are_exported"])


class Interface(unittest.TestCase):
    def test_a_failure_can_be_repeated_by_its_line(self):
        done = run(os.environ["ORB_FLAWED"], MODEL, "--filter", "chat.reset_forgets", "--seed", "77",
                   flaw="reset_forgets_nothing")
        self.assertEqual(done.returncode, 1)
        again = [line.split("again: ")[1] for line in done.stdout.splitlines() if "again: " in line]
        self.assertEqual(len(again), 1)
        words = shlex.split(again[0])
        self.assertEqual(words[:2], ["orb", "validate"])
        self.assertEqual(words[-2:], ["--seed", "77"])
        repeated = run(*words[2:], flaw="reset_forgets_nothing")
        self.assertEqual(repeated.returncode, 1)
        self.assertIn("failed: context after reset", repeated.stdout)
        self.assertTrue(repeated.stdout.endswith("result: failed\n"))

    def test_the_list_and_the_filter(self):
        everything = run("--list").stdout.splitlines()
        some = run("--list", "--filter", "chat.,tables.").stdout.splitlines()
        self.assertEqual([n for n in everything if n.startswith(("chat.", "tables."))], some)
        self.assertGreater(len(everything), len(some))

    def test_wrong_usage(self):
        for arguments in ([], ["missing.so"], [os.environ["ORB_MOCK"], "missing.echo"],
                          [os.environ["ORB_MOCK"], "--filter", "no_such_rule"],
                          [os.environ["ORB_MOCK"], "--test", "no_such_rule"]):
            done = run(*arguments)
            self.assertEqual(done.returncode, 2, arguments)
            self.assertEqual(done.stdout, "")
            self.assertRegex(done.stderr, r"\Aorb: [^\n]+\n\Z")


if __name__ == "__main__":
    unittest.main(argv=sys.argv)
