#!/usr/bin/python3
"""Checks the reference against the training code: same weights, two implementations of the formulas.

Needs PyTorch, a run directory of models/demo/train.py and its export in F32. The PyTorch model works on
whole sequences in single precision, the reference token by token in double.
"""

import argparse
import sys
from pathlib import Path

import numpy as np
import torch

import orb_reference

DEMO = Path(__file__).resolve().parents[2] / "models" / "demo"
sys.path.insert(0, str(DEMO))

import corpus  # noqa: E402
import model as demo_model  # noqa: E402
from tokenizer import Tokenizer  # noqa: E402


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n")[0])
    parser.add_argument("run", help="run directory of train.py")
    parser.add_argument("model", help="the same checkpoint exported with --float32")
    args = parser.parse_args()

    torch.set_num_threads(1)
    network = demo_model.DemoModel(len(Tokenizer.load(Path(args.run) / "vocabulary.json").tokens))
    network.load_state_dict(torch.load(Path(args.run) / "checkpoint.pt", map_location="cpu")["model"])
    reference = orb_reference.Model(args.model)
    trainer = Tokenizer.load(Path(args.run) / "vocabulary.json")

    pairs = corpus.exam(corpus.read_corpus())
    texts = [corpus.turn_prompt(question) + answer for question, answer in pairs]
    texts += ["  two  spaces\n\nand a tab\t, Où? <|im_end|><|im_ <|endoftext|>"]
    different = [text for text in texts if trainer.encode(text) != reference.tokenizer.encode(text)]
    print(f"tokenizer: {len(texts)} texts, {len(different)} with different ids")

    worst = 0.0
    for text in ["".join(texts[i] for i in (0, 60, 120)), texts[-1], texts[40]]:
        ids = trainer.encode(text)
        with torch.no_grad():
            expected = network.hidden(torch.tensor([ids]))[0].double().numpy()
        reference.reset()
        actual = np.array([reference.step(token) for token in ids])
        errors = np.linalg.norm(actual - expected, axis=1) / np.linalg.norm(expected, axis=1)
        print(f"hidden states: {len(ids)} tokens, relative difference: "
              f"worst {errors.max():.2e}, mean {errors.mean():.2e}")
        worst = max(worst, errors.max())
    return 1 if different or worst > 1e-3 else 0


if __name__ == "__main__":
    sys.exit(main())
