#!/usr/bin/env python3
"""Speed of a model while another process takes half of one processor, relative to a quiet machine.

  shared_machine.py ORB MODEL     prints JSON

Quiet and shared runs alternate, and each kind counts with its middle one, so that what else goes on
touches both alike.
"""

import json
import os
import signal
import statistics
import subprocess
import sys
import time

ROUNDS = 3
SLICE = 0.005  # seconds of work, then of sleep
PROMPT_TOKENS = 256
GENERATED_TOKENS = 48


def take_half(processor):
    os.sched_setaffinity(0, {processor})
    while True:
        end = time.monotonic() + SLICE
        while time.monotonic() < end:
            pass
        time.sleep(SLICE)


class Neighbour:
    """A process that takes half of the first processor."""

    def __enter__(self):
        self.pid = os.fork()
        if self.pid == 0:
            try:
                take_half(min(os.sched_getaffinity(0)))
            finally:
                os._exit(1)

    def __exit__(self, *_):
        os.kill(self.pid, signal.SIGKILL)
        os.waitpid(self.pid, 0)


def speeds(orb, model):
    out = subprocess.run([orb, "bench", model, "--json", "--prompt-tokens", str(PROMPT_TOKENS),
                          "--gen-tokens", str(GENERATED_TOKENS)], check=True, stdout=subprocess.PIPE)
    bench = json.loads(out.stdout)
    return {"prompt": bench["prompts"][0]["tokensPerSecond"],
            "generation": bench["generations"][0]["tokensPerSecond"]}


def main():
    orb, model = sys.argv[1:]
    quiet, shared = [], []
    for _ in range(ROUNDS):
        quiet.append(speeds(orb, model))
        with Neighbour():
            shared.append(speeds(orb, model))
    report = {"file": model}
    for what in ("prompt", "generation"):
        both = [statistics.median(run[what] for run in runs) for runs in (quiet, shared)]
        report[what] = {"quietTokensPerSecond": both[0], "sharedTokensPerSecond": both[1],
                        "share": both[1] / both[0]}
    json.dump(report, sys.stdout, indent=2)
    print()


if __name__ == "__main__":
    main()
