"""What a user unpacks: complete, and the command in it answers.

ORB_SYSTEM is linux or windows, ORB_EMULATOR what goes ahead of a program (may be empty).
"""

import os
import shlex
import subprocess
import sys
import tempfile
import unittest

ROOT = os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "..")
WINDOWS = os.environ["ORB_SYSTEM"] == "windows"
LIBRARY = "liborb_{}.dll" if WINDOWS else "liborb_{}.so"
COMMAND = "orb.exe" if WINDOWS else "orb"


class Package(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        folder = tempfile.TemporaryDirectory(prefix="orb_package_")
        cls.addClassCleanup(folder.cleanup)
        cls.folder = folder.name
        done = subprocess.run([os.path.join(ROOT, "scripts", "package.sh"), os.environ["ORB_SYSTEM"]],
                              check=True, stdout=subprocess.PIPE, text=True)
        archive = os.path.join(ROOT, done.stdout.splitlines()[-1])
        subprocess.run(["cmake", "-E", "tar", "xf", archive], cwd=cls.folder, check=True)

    def orb(self, *arguments, **options):
        command = shlex.split(os.environ["ORB_EMULATOR"]) + [os.path.join(self.folder, COMMAND)]
        return subprocess.run(command + list(arguments), cwd=self.folder, capture_output=True,
                              timeout=240, **options)

    def test_it_holds_what_a_host_and_a_user_need(self):
        files = {os.path.relpath(os.path.join(folder, name), self.folder)
                 for folder, _, names in os.walk(self.folder) for name in names}
        expected = {COMMAND, LIBRARY.format("runtime_qwen35"), LIBRARY.format("eval"), "README.md",
                    "LICENSE", "include/orb_plugin.h", "models/demo.orb"}
        if WINDOWS:
            expected.add(LIBRARY.format("runtime_qwen35") + ".a")
        self.assertEqual(files, expected)

    def test_the_demo_model_answers_a_piped_question(self):
        done = self.orb("chat", "models/demo.orb", input=b"What is orb?\n")
        self.assertEqual((done.returncode, done.stderr), (0, b""))
        self.assertRegex(done.stdout, rb"\A> What is orb\?\nOrb is a command line tool [^\n]+\n\n\Z")

    def test_a_missing_library_is_named(self):
        library = os.path.join(self.folder, LIBRARY.format("runtime_qwen35"))
        os.rename(library, library + ".away")
        self.addCleanup(os.rename, library + ".away", library)
        done = self.orb("chat", "models/demo.orb", input=b"What is orb?\n")
        self.assertEqual((done.returncode, done.stdout), (1, b""))
        self.assertIn(LIBRARY.format("runtime_qwen35").encode(), done.stderr)


if __name__ == "__main__":
    unittest.main(argv=sys.argv)
