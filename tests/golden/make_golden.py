#!/usr/bin/python3
"""Writes demo.json: prompts, greedy answers, final hidden states and logits of the demo model.

Everything comes from the reference in tests/reference. The values of the float32 model need its export,
which is too large to keep here; without --float32 those of the existing file are kept, as long as the
token ids are still the same.
"""

import argparse
import hashlib
import json
import sys
from pathlib import Path

import numpy as np

ROOT = Path(__file__).resolve().parents[2]
sys.path.insert(0, str(ROOT / "tests" / "reference"))

import orb_reference  # noqa: E402

OUT = Path(__file__).with_name("demo.json")
CASES = [
    ("what_is_orb", "chat", ["What is orb?"]),
    ("what_is_an_orb_file", "chat", ["What is an .orb file?"]),
    ("new_conversation", "chat", ["How do I start a new conversation?"]),
    ("quantization_types", "chat", ["which quantization types are supported"]),
    ("two_turns", "chat", ["Which subcommands are there?", "What does the first one do?"]),
    ("prose", "generate", ["Orb is a small tool"]),
]


def state(hidden, logits):
    """Final normalised hidden state and logits, nine significant digits."""
    digits = lambda values: [float(f"{value:.9g}") for value in values]
    return {"hidden": digits(hidden), "logits": digits(logits)}


class MarginModel(orb_reference.Model):
    """The reference, noting how close the greedy choices are."""

    smallest = float("inf")

    def logits(self, hidden):
        scores = super().logits(hidden)
        second, best = np.partition(scores, -2)[-2:]
        self.smallest = min(self.smallest, best - second)
        return scores


def run_case(model, kind, texts):
    """Runs one case on the shipped model; returns its turns."""
    model.reset()
    turns = []
    for text in texts:
        model.smallest = float("inf")
        ids, hidden, logits, answer = (model.chat_turn if kind == "chat" else model.completion)(text)
        turns.append({
            "text": text,
            "prompt": orb_reference.chat_prompt(text) if kind == "chat" else text,
            "prompt_ids": ids,
            "answer_ids": answer,
            "answer": model.tokenizer.decode(answer).decode(),
            "smallest_margin": float(f"{model.smallest:.4g}"),
            "shipped": state(hidden, logits),
        })
    return turns


def add_float32(model, turns):
    """Adds the float32 model's values after the same tokens."""
    model.reset()
    for turn in turns:
        turn["float32"] = state(*model.prefill(turn["prompt_ids"]))
        answer = turn["answer_ids"]
        for token in answer if len(answer) < orb_reference.MAX_NEW_TOKENS else answer[:-1]:
            model.step(token)


def keep_float32(name, turns, old):
    """Takes the float32 values from the existing file."""
    for turn, before in zip(turns, old.get(name, [])):
        if "float32" in before and turn["prompt_ids"] == before["prompt_ids"]:
            turn["float32"] = before["float32"]


def to_json(record):
    """JSON with one line for each array of numbers, so that differences stay readable."""
    text = json.dumps(record, indent=1, ensure_ascii=False)
    lines, inside = [], False
    for line in text.split("\n"):
        if inside:
            lines[-1] += line.strip()
            inside = line.strip() not in ("]", "],")
        else:
            lines.append(line)
            inside = line.endswith("[") and not line.strip().startswith(('"cases"', '"turns"'))
    return "\n".join(lines) + "\n"


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n")[0])
    parser.add_argument("--model", default=str(ROOT / "models" / "demo.orb"), help="the shipped model")
    parser.add_argument("--float32", help="the same checkpoint exported with --float32")
    args = parser.parse_args()

    old = {}
    if OUT.exists():
        old = {case["name"]: case["turns"] for case in json.loads(OUT.read_text())["cases"]}
    shipped = MarginModel(args.model)
    float32 = orb_reference.Model(args.float32) if args.float32 else None
    cases = []
    for name, kind, texts in CASES:
        turns = run_case(shipped, kind, texts)
        if float32:
            add_float32(float32, turns)
        else:
            keep_float32(name, turns, old)
        cases.append({"name": name, "kind": kind, "turns": turns})
        for turn in turns:
            print(f"{name}: margin {turn['smallest_margin']}: {turn['text']} -> {turn['answer']}")
    data = Path(args.model).read_bytes()
    OUT.write_text(to_json({"model": "models/demo.orb", "model_bytes": len(data),
                            "model_sha256": hashlib.sha256(data).hexdigest(),
                            "max_new_tokens": orb_reference.MAX_NEW_TOKENS, "cases": cases}))
    print(f"{OUT.name}: {OUT.stat().st_size} bytes")


if __name__ == "__main__":
    main()
