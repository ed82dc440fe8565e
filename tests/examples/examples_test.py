"""The example hosts, run as a reader of the documents would.

ORB_HOST_C is the built host.c (with an emulator in front of it where one is needed), ORB_HOST_PY the
script (not set where the interpreter cannot load the libraries, as under a sanitizer), ORB_PLUGIN the plug-in, ORB_MOCK the mock, ORB_DEMO_MODEL the
bundled model.
"""

import os
import shlex
import subprocess
import sys
import tempfile
import unittest

HOSTS = {"host.c": shlex.split(os.environ["ORB_HOST_C"])}
if "ORB_HOST_PY" in os.environ:
    HOSTS["host.py"] = [sys.executable, os.environ["ORB_HOST_PY"]]
PLUGIN, MOCK = os.environ["ORB_PLUGIN"], os.environ["ORB_MOCK"]
DEMO = os.environ["ORB_DEMO_MODEL"]
QUESTION = "What is orb?"
ANSWER = "Orb is a command line tool that"


class Hosts(unittest.TestCase):
    def run_hosts(self, *arguments, code=0, stdin=""):
        """Runs both hosts; yields what each printed."""
        for name, command in HOSTS.items():
            with self.subTest(host=name):
                done = subprocess.run(command + list(arguments), input=stdin, capture_output=True,
                                      text=True, timeout=240)
                self.assertEqual(done.returncode, code, done.stderr)
                yield done.stdout, done.stderr

    def echo_model(self):
        folder = tempfile.TemporaryDirectory(prefix="orb_examples_")
        self.addCleanup(folder.cleanup)
        path = os.path.join(folder.name, "any.echo")
        open(path, "w").close()
        return path

    def test_the_demo_model_answers(self):
        for out, err in self.run_hosts(PLUGIN, DEMO, QUESTION):
            self.assertTrue(out.startswith(ANSWER), out)
            self.assertIn("tokens in the context", err)

    def test_questions_come_from_arguments_or_lines(self):
        model = self.echo_model()
        for out, _ in self.run_hosts(MOCK, model, "first", "sec\u00f6nd"):
            self.assertEqual(out, "first\nsec\u00f6nd\n")
        for out, _ in self.run_hosts(MOCK, model, stdin="first\nsecond\n"):
            self.assertEqual(out, "first\nsecond\n")

    def test_an_answer_can_be_stopped(self):
        for out, _ in self.run_hosts("--stop-after", "3", MOCK, self.echo_model(), "abcdef"):
            self.assertIn(out, ("abc\n", "abc [stopped]\n"))

    def test_a_full_context_begins_anew(self):
        long = "x" * 5000  # twice that does not fit the mock's context
        for out, _ in self.run_hosts(MOCK, self.echo_model(), long, long):
            self.assertEqual(out, ("x" * 96 + "\n") * 2)

    def test_what_is_no_model_is_refused(self):
        for _, err in self.run_hosts(MOCK, DEMO, code=1):
            self.assertIn("not a model of mock-echo", err)


if __name__ == "__main__":
    unittest.main(argv=sys.argv)
