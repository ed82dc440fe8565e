#!/usr/bin/python3
"""Counts how many questions .orb files answer exactly as the training text does.

An answer is exact when greedy choice reproduces it token for token, closing marker included. The weights
are read from the file, so quantized files are judged by what they really hold.
"""

import argparse
import sys
from pathlib import Path

import torch

import corpus as corpus_module
from export import FULL_TENSORS, LINEAR_TENSORS
from model import BLOCKS, DemoModel, is_full
from tokenizer import Tokenizer
from train import wrong_answers

sys.path.insert(0, str(Path(__file__).resolve().parents[2] / "tests" / "reference"))

from orb_file import SECTION_TOKENIZER, OrbError, OrbFile  # noqa: E402
from orb_tokenizer import Tokenizer as FileTokenizer  # noqa: E402


def load(path):
    """Returns (network, tokenizer) of an .orb file that export.py wrote."""
    file = OrbFile(path)
    record = FileTokenizer(file.section(SECTION_TOKENIZER))
    text = lambda items: [item.decode() for item in items]
    tokenizer = Tokenizer(text(record.tokens), record.types, [rule.split(" ") for rule in text(record.merges)])

    norms = {block: file.vector(f"blk.{block}.attn_norm.weight") for block in range(BLOCKS)}
    active = [block for block in range(BLOCKS) if norms[block].any()]
    state = {"embedding": file.matrix("token_embd.weight"), "output_norm": file.vector("output_norm.weight")}
    for block in active:
        state[f"attn_norm.{block}"] = norms[block]
        state[f"post_norm.{block}"] = file.vector(f"blk.{block}.post_attention_norm.weight")
        for suffix, (name, _) in (FULL_TENSORS if is_full(block) else LINEAR_TENSORS).items():
            state[name] = file.matrix(f"blk.{block}.{suffix}")
    state = {name: torch.tensor(array, dtype=torch.float32) for name, array in state.items()}
    state["linear.log_decay"] = torch.log(-state.pop("linear.decay"))
    network = DemoModel(len(tokenizer.tokens), active)
    network.load_state_dict({name: state[name].view_as(old) for name, old in network.state_dict().items()})
    return network, tokenizer


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n")[0])
    parser.add_argument("model", nargs="+", help=".orb file")
    parser.add_argument("--threads", type=int, default=2, help="threads of PyTorch (default: 2)")
    parser.add_argument("--list", action="store_true", help="print the questions answered otherwise")
    args = parser.parse_args()
    torch.set_num_threads(args.threads)
    corpus = corpus_module.read_corpus()
    exams = [("trained wordings", corpus_module.exam(corpus)),
             ("unseen wordings", corpus_module.unseen_exam(corpus))]
    for path in args.model:
        try:
            network, tokenizer = load(path)
        except OrbError as error:
            raise SystemExit(f"examine: {error}")
        for name, pairs in exams:
            failed = wrong_answers(network, tokenizer, pairs)
            print(f"{path}: {name}: {len(pairs) - len(failed)} of {len(pairs)} exact")
            for question in failed if args.list else []:
                print(f"    {question}")


if __name__ == "__main__":
    main()
