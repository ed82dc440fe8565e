#!/usr/bin/python3
"""Trains the demo model on corpus.txt for a given time; can be stopped and started again at any moment.

The run directory receives vocabulary.json, checkpoint.pt (model, optimizer, elapsed time) and training.log.
The learning rate follows the elapsed training time: a short warm-up, then a cosine down to a twentieth.
"""

import argparse
import math
import os
import random
import sys
import time
from pathlib import Path

import torch
from torch.nn import functional as F

import corpus as corpus_module
from model import DemoModel
from tokenizer import Tokenizer

MERGES = 900
WARM_UP_STEPS = 60
LONGEST_STEP = 10.0  # seconds; time beyond is a pause of the process and not counted


def parse_arguments():
    parser = argparse.ArgumentParser(description=__doc__.split("\n")[0])
    parser.add_argument("--out", default="run", help="run directory (default: run)")
    parser.add_argument("--minutes", type=float, default=65, help="total training time (default: 65)")
    parser.add_argument("--threads", type=int, default=2, help="threads of PyTorch (default: 2)")
    parser.add_argument("--rate", type=float, default=1e-3, help="peak learning rate (default: 0.001)")
    parser.add_argument("--noise-from", type=float, default=2.0, metavar="SHARE",
                        help="from this share of the time on, add weight noise of 4-bit size (default: never)")
    parser.add_argument("--batch-tokens", type=int, default=640, help="padded tokens a step (default: 640)")
    parser.add_argument("--max-length", type=int, default=200, help="longest conversation (default: 200)")
    parser.add_argument("--seed", type=int, default=1, help="seed of the first start (default: 1)")
    return parser.parse_args()


def collate(batch, pad):
    """Pads a batch of sequences to the right."""
    length = max(len(sequence[0]) for sequence in batch)
    fill = lambda values, filler: values + [filler] * (length - len(values))
    return (torch.tensor([fill(sequence[0], pad) for sequence in batch]),
            torch.tensor([fill(sequence[1], pad) for sequence in batch]),
            torch.tensor([fill(sequence[2], 0.0) for sequence in batch]))


def autocast():
    """Matrix products in bfloat16; everything else stays in float."""
    return torch.autocast("cpu", dtype=torch.bfloat16)


def learning_rate(peak, step, share):
    """Warm-up by steps, cosine decay by the share of the time that has passed."""
    decay = 0.05 + 0.95 * 0.5 * (1 + math.cos(math.pi * min(share, 1.0)))
    return peak * min(1.0, (step + 1) / WARM_UP_STEPS) * decay


def add_noise(matrices):
    """Adds uniform noise of the width of a 4-bit step to each group of 32 weights; returns the old values."""
    saved = []
    with torch.no_grad():
        for weight in matrices:
            saved.append(weight.detach().clone())
            groups = weight.view(-1, 32)
            step = (groups.amax(1, keepdim=True) - groups.amin(1, keepdim=True)) / 15
            groups += (torch.rand_like(groups) - 0.5) * step
    return saved


def restore(matrices, saved):
    """Undoes `add_noise`."""
    with torch.no_grad():
        for weight, old in zip(matrices, saved):
            weight.copy_(old)


def wrong_answers(model, tokenizer, pairs):
    """Returns the questions whose greedy answer would differ from the written one.

    An answer is exact when every one of its tokens is the most likely one given the correct ones before.
    """
    failed = []
    encoded = [corpus_module.encode_turns(tokenizer, [pair], context_weight=0.0) for pair in pairs]
    order = sorted(range(len(pairs)), key=lambda i: len(encoded[i][0]))
    with torch.no_grad():
        for start in range(0, len(order), 24):
            chosen = order[start:start + 24]
            ids, targets, weights = collate([encoded[i] for i in chosen], tokenizer.pad)
            right = (model(ids).argmax(-1) == targets) | (weights == 0)
            failed += [pairs[i][0] for i, row in zip(chosen, right) if not row.all()]
    return failed


class Run:
    """One training run and its directory."""

    def __init__(self, args):
        self.args = args
        self.directory = Path(args.out)
        self.directory.mkdir(parents=True, exist_ok=True)
        self.checkpoint = self.directory / "checkpoint.pt"
        self.corpus = corpus_module.read_corpus()
        self.exam = corpus_module.exam(self.corpus)
        self.unseen = corpus_module.unseen_exam(self.corpus)
        self.tokenizer = Tokenizer.train(self.corpus.texts(), MERGES)
        self.tokenizer.save(self.directory / "vocabulary.json")
        torch.manual_seed(args.seed)
        self.model = DemoModel(len(self.tokenizer.tokens))
        decayed = [p for p in self.model.parameters() if p.ndim == 2 and p.shape[1] > 4]
        plain = [p for p in self.model.parameters() if p.ndim != 2 or p.shape[1] <= 4]
        self.matrices = decayed
        self.optimizer = torch.optim.AdamW([{"params": decayed, "weight_decay": 0.05},
                                            {"params": plain, "weight_decay": 0.0}],
                                           lr=args.rate, betas=(0.9, 0.98))
        self.elapsed, self.step, self.epoch = 0.0, 0, 0
        if self.checkpoint.exists():
            state = torch.load(self.checkpoint)
            self.model.load_state_dict(state["model"])
            self.optimizer.load_state_dict(state["optimizer"])
            self.elapsed, self.step, self.epoch = state["elapsed"], state["step"], state["epoch"]
        self.rng = random.Random(args.seed * 100003 + self.epoch)
        torch.manual_seed(args.seed * 100003 + self.epoch)

    def log(self, text):
        """Prints a line and appends it to the log file."""
        line = f"[{self.elapsed / 60:6.2f} min] {text}"
        print(line, flush=True)
        with open(self.directory / "training.log", "a", encoding="utf-8") as file:
            file.write(line + "\n")

    def save(self):
        """Writes the checkpoint beside the old one and renames it."""
        temporary = self.checkpoint.with_suffix(".tmp")
        torch.save({"model": self.model.state_dict(), "optimizer": self.optimizer.state_dict(),
                    "elapsed": self.elapsed, "step": self.step, "epoch": self.epoch}, temporary)
        os.replace(temporary, self.checkpoint)

    def share(self):
        """The share of the training time that has passed."""
        return self.elapsed / (60 * self.args.minutes)

    def train_step(self, batch):
        """One optimizer step; returns the weighted loss sum and the weight sum."""
        ids, targets, weights = collate(batch, self.tokenizer.pad)
        saved = add_noise(self.matrices) if self.share() >= self.args.noise_from else None
        with autocast():
            logits = self.model(ids)
        losses = F.cross_entropy(logits.float().flatten(0, 1), targets.flatten(), reduction="none")
        total = (losses * weights.flatten()).sum()
        self.optimizer.zero_grad(set_to_none=True)
        (total / weights.sum()).backward()
        if saved:
            restore(self.matrices, saved)
        torch.nn.utils.clip_grad_norm_(self.model.parameters(), 1.0)
        for group in self.optimizer.param_groups:
            group["lr"] = learning_rate(self.args.rate, self.step, self.share())
        self.optimizer.step()
        self.step += 1
        return total.item(), weights.sum().item()

    def train_epoch(self):
        """One pass over the corpus."""
        begin, tokens, loss, weight = time.time(), 0, 0.0, 0.0
        sequences = corpus_module.epoch(self.corpus, self.tokenizer, self.rng, self.args.max_length)
        for batch in corpus_module.batches(sequences, self.args.batch_tokens, self.rng):
            step_begin = time.time()
            step_loss, step_weight = self.train_step(batch)
            loss, weight = loss + step_loss, weight + step_weight
            tokens += sum(len(sequence[0]) for sequence in batch)
            self.elapsed += min(time.time() - step_begin, LONGEST_STEP)
        self.epoch += 1
        self.log(f"epoch {self.epoch} step {self.step} loss {loss / weight:.4f} "
                 f"rate {self.optimizer.param_groups[0]['lr']:.2e} {tokens / (time.time() - begin):.0f} tokens/s")

    def report(self):
        """Logs how many questions are answered exactly."""
        for name, pairs in [("exact answers", self.exam), ("exact answers to unseen wordings", self.unseen)]:
            with autocast():
                failed = wrong_answers(self.model, self.tokenizer, pairs)
            self.log(f"{name}: {len(pairs) - len(failed)} of {len(pairs)}"
                     + (f"; wrong: {'; '.join(failed[:12])}" if failed else ""))


def main():
    args = parse_arguments()
    torch.set_num_threads(args.threads)
    run = Run(args)
    run.log("start: " + " ".join([Path(sys.argv[0]).name] + sys.argv[1:]))
    run.log(f"{sum(p.numel() for p in run.model.parameters())} parameters, "
            f"{len(run.tokenizer.tokens)} tokens, {len(run.exam)} questions")
    while run.share() < 1:
        run.train_epoch()
        run.save()
        if run.epoch % 10 == 0:
            run.report()
    run.save()
    run.report()


if __name__ == "__main__":
    main()
