"""Reads the training text and turns it into token sequences in the form that the runtime feeds."""

import dataclasses
import random
from pathlib import Path

CORPUS = Path(__file__).with_name("corpus.txt")
QUESTIONS = Path(__file__).with_name("questions.txt")
UNSEEN = Path(__file__).with_name("unseen.txt")
MOST_WORDINGS = 20
CONVERSATION_REPEATS = 3


@dataclasses.dataclass
class Turn:
    """One question in several wordings, and its answer."""
    questions: list
    answer: str


@dataclasses.dataclass
class Corpus:
    """Single turns, conversations (lists of turns whose order matters) and prose."""
    turns: list
    conversations: list
    prose: list

    def texts(self):
        """All text pieces, lower-cased questions included, for training the tokenizer."""
        pieces = list(self.prose)
        for beginning, others in REWRITES:
            pieces += [beginning] + others + [other.lower() for other in others]
        for turns in [self.turns] + self.conversations:
            for turn in turns:
                pieces += turn.questions + [question.lower() for question in turn.questions]
                pieces += [" " + question for question in turn.questions] + [turn.answer]
        return pieces + ["user", "assistant"] * 20


def read_corpus(path=CORPUS):
    """Parses the corpus file; the format is described at its top."""
    corpus = Corpus([], [], [])
    for number, block in enumerate(Path(path).read_text(encoding="utf-8").split("\n\n")):
        turns = []
        questions = []
        for line in block.split("\n"):
            kind, text = line[:2], line[3:]
            if kind == "Q:":
                questions.append(text)
            elif kind == "A:" and questions:
                turns.append(Turn(questions, text))
                questions = []
            elif kind == "P:":
                corpus.prose.append(text)
            elif line and not line.startswith("#"):
                raise SystemExit(f"{path}: block {number + 1}: cannot read line: {line}")
        if questions:
            raise SystemExit(f"{path}: block {number + 1}: question without an answer")
        if len(turns) > 1:
            corpus.conversations.append(turns)
        else:
            corpus.turns += turns
    return corpus


def turn_prompt(text):
    """The text that the runtime feeds for one user message."""
    return f"<|im_start|>user\n{text}<|im_end|>\n<|im_start|>assistant\n"


REWRITES = [
    ("How do I ", ["How can I ", "How to ", "How could I ", "How does one ", "Tell me how to ", "Explain how to ",
                   "I want to ", "How should I ", "I would like to "]),
    ("What is ", ["What's ", "Explain ", "Tell me about ", "Define ", "Can you explain ", "Say what ",
                  "Do you know what ", "I want to know what "]),
    ("What does ", ["Tell me what ", "Explain what ", "Do you know what ", "Say what "]),
    ("What are ", ["Tell me ", "Which are ", "List ", "Show me "]),
    ("Which ", ["What ", "Tell me which ", "Say which "]),
    ("Can I ", ["May I ", "Could I ", "Is it possible to ", "I want to ", "Am I able to "]),
    ("Is ", ["Tell me if ", "Do you know if "]),
    ("Does ", ["Tell me if ", "Do you know if "]),
    ("How many ", ["Tell me how many ", "Say how many "]),
    ("How long ", ["Tell me how long ", "Say how long "]),
]
SMALL_WORDS = {"a", "an", "the", "is", "are", "do", "does", "i", "it", "there", "of", "my"}
PREFIXES = ["please ", "Please ", "so ", "So, ", "ok, ", "and ", "But ", "Hello, ", "hi, ", "Well, ", "Now ",
            "Can you tell me: ", "Quick question: "]
SUFFIXES = [" please", ", please", " then", " now", " exactly", " again", " here"]


def misspell(text, rng):
    """Swaps, drops or doubles one letter."""
    i = rng.randrange(len(text))
    kind = rng.randrange(3)
    if kind == 0:
        return text[:i] + text[i + 1:] or text
    if kind == 1:
        return text[:i] + text[i] + text[i:]
    return text[:i] + text[i + 1:i + 2] + text[i:i + 1] + text[i + 2:]


def vary(question, rng):
    """Returns the question as it is, or in another wording, with small slips that people make."""
    if rng.random() < 0.35:
        return question
    if rng.random() < 0.3:
        for beginning, others in REWRITES:
            if question.startswith(beginning):
                question = rng.choice(others) + question[len(beginning):]
                break
    words = question.split(" ")
    small = [i for i, word in enumerate(words) if word.lower() in SMALL_WORDS]
    if rng.random() < 0.15 and small and len(words) > 3:
        del words[rng.choice(small)]
        question = " ".join(words)
    if rng.random() < 0.08:
        question = rng.choice(PREFIXES) + question[0].lower() + question[1:]
    if rng.random() < 0.06 and question.endswith("?"):
        question = question[:-1] + rng.choice(SUFFIXES) + "?"
    if rng.random() < 0.1:
        question = misspell(question, rng)
    if rng.random() < 0.3:
        question = question.lower()
    if rng.random() < 0.25:
        question = question.rstrip("?.!")
    elif rng.random() < 0.1:
        question = question.rstrip("?.!") + rng.choice(["?", ".", "!", " ?"])
    return question or "?"


def encode_turns(tokenizer, pairs, context_weight=0.05):
    """Encodes (question, answer) pairs to (inputs, targets, weights).

    The closing marker of an answer is a target but never an input: the runtime stops there without feeding
    it, and the next turn begins directly behind the last answer token. The three lists are equally long.
    """
    inputs, targets, weights = [], [], []
    for question, answer in pairs:
        prompt = tokenizer.encode(turn_prompt(question))
        reply = tokenizer.encode(answer)
        inputs += prompt + reply
        targets += prompt[1:] + reply + [tokenizer.im_end]
        weights += [context_weight] * (len(prompt) - 1) + [1.0] * (len(reply) + 1)
    return inputs, targets, weights


def encode_prose(tokenizer, text):
    """Encodes a plain text; it ends with the closing marker as a target."""
    ids = tokenizer.encode(text)
    return ids, ids[1:] + [tokenizer.im_end], [0.1] + [1.0] * (len(ids) - 1)


def epoch(corpus, tokenizer, rng, max_length):
    """Returns one epoch of sequences: every wording of every turn once, packed into conversations.

    Of a turn with very many wordings (the one for everything off topic) each epoch takes some at random.

    About half of the sequences are single turns; the others hold two to six turns, so that the model learns
    to answer late in a conversation as well.
    """
    questions = [(vary(question, rng), turn.answer) for turn in corpus.turns
                 for question in (turn.questions if len(turn.questions) <= MOST_WORDINGS
                                  else rng.sample(turn.questions, MOST_WORDINGS))]
    rng.shuffle(questions)
    sequences = []
    while questions:
        wanted = rng.choices([1, 2, 3, 4, 6], [50, 22, 14, 8, 6])[0]
        taken = questions[:wanted]
        while len(taken) > 1 and len(encode_turns(tokenizer, taken)[0]) > max_length:
            taken.pop()
        del questions[:len(taken)]
        sequences.append(encode_turns(tokenizer, taken))
    for turns in corpus.conversations * CONVERSATION_REPEATS:
        pairs = [(vary(rng.choice(turn.questions), rng), turn.answer) for turn in turns]
        sequences.append(encode_turns(tokenizer, pairs))
    sequences += [encode_prose(tokenizer, text) for text in corpus.prose]
    return sequences


def batches(sequences, tokens_per_batch, rng):
    """Groups sequences of similar length into batches of at most `tokens_per_batch` padded tokens."""
    ordered = sorted(sequences, key=lambda sequence: len(sequence[0]) + 4 * rng.random())
    result, batch, longest = [], [], 0
    for sequence in ordered:
        length = max(longest, len(sequence[0]))
        if batch and length * (len(batch) + 1) > tokens_per_batch:
            result.append(batch)
            batch, length = [], len(sequence[0])
        batch.append(sequence)
        longest = length
    result.append(batch)
    rng.shuffle(result)
    return result


def exam(corpus):
    """All (question, answer) pairs as written, for measuring how many are answered exactly."""
    return [(question, turn.answer) for turn in corpus.turns for question in turn.questions]


def unseen_exam(corpus, path=UNSEEN):
    """(question, answer) pairs in wordings that the training text does not hold."""
    answers = dict(exam(corpus))
    pairs = []
    for line in Path(path).read_text(encoding="utf-8").splitlines():
        if line and not line.startswith("#"):
            wording, known = line.split(" | ")
            pairs.append((wording, answers[known]))
    return pairs
