"""What the tests of conversions share: a folder, the command, and checkpoints to begin with."""

import os
import resource
import shlex
import shutil
import subprocess
import tempfile
import unittest

from checkpoints import Checkpoint

COMMAND = shlex.split(os.environ["ORB_COMMAND"])
WINDOWS = COMMAND[-1].endswith(".exe")  # there or under an emulator


class ConvertCase(unittest.TestCase):
    """Each test has a folder of its own."""

    def setUp(self):
        self.folder = tempfile.mkdtemp(prefix="orb_convert_")
        self.addCleanup(shutil.rmtree, self.folder)

    def path(self, name):
        return os.path.join(self.folder, name)

    def orb(self, *arguments, code=0, **options):
        """Runs the command, checks its exit code, returns (stdout, stderr) as text."""
        done = subprocess.run(COMMAND + list(arguments), capture_output=True, timeout=240,
                              stdin=subprocess.DEVNULL, **options)
        out, err = done.stdout.decode("utf-8", "replace"), done.stderr.decode("utf-8", "replace")
        self.assertEqual(done.returncode, code, out + err)
        return out, err

    def refused(self, source, *options, out="refused.orb", **more):
        """Converts what must be refused: exit code 1, one line, nothing left behind; the line."""
        target = self.path(out)
        before = set(os.listdir(self.folder))
        text, err = self.orb("convert", source, target, *options, code=1, **more)
        self.assertEqual(text, "")
        self.assertRegex(err, r"\Aorb: [^\n]+\n\Z")
        self.assertEqual(set(os.listdir(self.folder)), before)
        return err

    def convert(self, source, name="out.orb", *options):
        """Converts, checks the result with `orb info --check`, returns its path and the output."""
        target = self.path(name)
        out, err = self.orb("convert", source, target, *options)
        info, _ = self.orb("info", target, "--check")
        self.assertIn("the runtime takes this file", info)
        return target, out + err

    def small(self, **options):
        """A checkpoint of few and narrow blocks."""
        return Checkpoint.random(**{"hidden": 32, "ffn": 32, "kinds": "lf", "query_heads": 4,
                                    "value_heads": 16, **options})


def limit_file_size(size):
    """For preexec_fn: writing beyond `size` bytes fails, as on a full disk."""
    return lambda: resource.setrlimit(resource.RLIMIT_FSIZE, (size, size))
