"""`orb convert`: what comes out of GGUF files and safetensors folders.

Run one group with `convert_test.py -v Types`. ORB_COMMAND is the command, MODEL_RUNNER the program that
prints hidden states and greedy tokens.
"""

import os
import shlex
import signal
import subprocess
import time
import unittest

import numpy as np

from checkpoints import Checkpoint, OrbFile, write_gguf
from convert_case import COMMAND, WINDOWS, ConvertCase, limit_file_size
from orb_reference import Model, read_records
from source_blocks import TYPE_IDS, decode, random_rows


def read_hidden(dump):
    """The hidden states after the last block, [token, hidden], of a dump."""
    return np.array([values for (_, name), values in read_records(dump) if name == "result_norm"])


class RoundTrip(ConvertCase):
    """One synthetic model three ways: as written by `orb synth`, through GGUF, through safetensors."""

    TOKENS = "17,301,4,511,96,17,230"

    def run_model(self, model):
        """(final hidden states [token, hidden], greedy ids, greedy text)"""
        dump = self.path("hidden.bin")
        runner = shlex.split(os.environ["MODEL_RUNNER"])
        ids = subprocess.run(runner + ["run", model, self.TOKENS, dump, "12", "scalar", "2"],
                             check=True, capture_output=True).stdout
        hidden = read_hidden(dump)
        text, _ = self.orb("run", model, "-p", "Tell me more", "--max-tokens", "24")
        os.remove(dump)
        return hidden, ids, text

    def test_hidden_states_and_text_are_the_same(self):
        original = self.path("synth.orb")
        self.orb("synth", original, "--hidden", "256", "--ffn", "256", "--type", "f32",
                 "--query-heads", "4", "--unshared", "--seed", "11")
        expected = self.run_model(original)
        self.assertGreater(len(set(expected[1].split())), 2)
        checkpoint = Checkpoint.of_orb(original)
        source = self.path("model.gguf")
        checkpoint.write_gguf(source)
        self.compare(expected, self.convert(source)[0])
        os.remove(source)
        source = self.path("checkpoint")
        checkpoint.write_folder(source, shards=2)
        del checkpoint
        self.compare(expected, self.convert(source, "out.orb", "--type", "f32", "--force")[0])

    def compare(self, expected, model):
        hidden, ids, text = self.run_model(model)
        error = np.linalg.norm(hidden - expected[0], axis=1)
        self.assertLess((error / np.linalg.norm(expected[0], axis=1)).max(), 1e-5)
        self.assertEqual(ids, expected[1])
        self.assertEqual(text, expected[2])
        os.remove(model)


class Types(ConvertCase):
    """Element types of GGUF files."""

    BECOMES = {"F32": "F32", "F16": "F32", "BF16": "BF16", "Q8_0": "Q8_0", "Q4_K": "Q4_K",
               "Q5_K": "Q5_K", "Q6_K": "Q6_K", "Q4_0": "Q8_0", "Q5_0": "Q8_0", "IQ4_NL": "Q8_0",
               "Q3_K": "Q6_K", "IQ4_XS": "Q8_0", "Q4_1": "Q6_K", "Q5_1": "Q6_K", "Q2_K": "Q6_K"}
    # Largest error of a value against the largest value; 0 where nothing may change.
    LOSS = {"IQ4_XS": 2 ** -11, "Q4_1": 0.03, "Q5_1": 0.03, "Q2_K": 0.03}

    def mixed(self, kinds, **options):
        """A GGUF file whose matrices take turns with the types; {name: (type, bytes, cols)}."""
        checkpoint = Checkpoint.random(seed=5, kinds="llff", query_heads=4, value_heads=16,
                                       **options)
        rng = np.random.default_rng(3)
        tensors, known = [], {}
        for name, dims, _, array in checkpoint.gguf_tensors():
            if len(dims) == 2 and not name.endswith("conv1d.weight"):
                kind = kinds[len(known) % len(kinds)]
                raw = random_rows(kind, dims[1], dims[0], rng)
                known[name] = (kind, raw, dims[0])
                tensors.append((name, dims, TYPE_IDS[kind], raw))
            else:
                tensors.append((name, dims, 0, array))
        return checkpoint, tensors, known

    def test_every_type_keeps_its_values(self):
        kinds = list(self.BECOMES)
        checkpoint, tensors, known = self.mixed(kinds)
        self.assertEqual({kind for kind, _, _ in known.values()}, set(kinds))
        source = self.path("mixed.gguf")
        write_gguf(source, checkpoint.gguf_keys(), tensors)
        model, output = self.convert(source)
        orb = OrbFile(model)
        types = ["F32", "F16", "BF16", "Q4_0", "Q8_0", "Q4_K", "Q5_K", "Q6_K"]
        for name, (kind, raw, cols) in known.items():
            stored = orb.entries[name]
            self.assertEqual(types[stored[0]], self.BECOMES[kind], name)
            expected = decode(kind, raw, cols)
            error = np.abs(orb.matrix(name) - expected).max() / np.abs(expected).max()
            self.assertLessEqual(error, self.LOSS.get(kind, 0), (name, kind))
            if types[stored[0]] == kind:
                begin = orb.sections[5][0] + stored[2]
                self.assertEqual(orb.data[begin:begin + stored[3]].tobytes(), raw.tobytes(), name)
        self.assertIn("Q3_K to Q6_K: ", output)

    def test_f16_becomes_bf16_on_request(self):
        checkpoint, tensors, known = self.mixed(["F16"])
        source = self.path("f16.gguf")
        write_gguf(source, checkpoint.gguf_keys(), tensors)
        orb = OrbFile(self.convert(source, "out.orb", "--f16", "bf16")[0])
        for name, (_, raw, cols) in known.items():
            self.assertEqual(orb.entries[name][0], 2)
            expected = decode("F16", raw, cols)
            self.assertTrue((np.abs(orb.matrix(name) - expected) <= np.abs(expected) * 2 ** -8).all())

    def test_strict_refuses_what_loses_precision(self):
        for kind in ("Q4_1", "Q5_1", "Q2_K", "IQ4_XS"):
            checkpoint, tensors, known = self.mixed([kind])
            source = self.path("lossy.gguf")
            write_gguf(source, checkpoint.gguf_keys(), tensors)
            line = self.refused(source, "--strict")
            self.assertIn("token_embd.weight: expected a type that converts without loss, found "
                          + kind, line)

    def test_strict_takes_what_keeps_it(self):
        checkpoint, tensors, _ = self.mixed(["Q4_0", "Q5_0", "IQ4_NL", "Q3_K", "Q6_K", "F16"])
        source = self.path("exact.gguf")
        write_gguf(source, checkpoint.gguf_keys(), tensors)
        self.convert(source, "out.orb", "--strict")

    def test_a_type_for_all_matrices(self):
        checkpoint, tensors, known = self.mixed(["Q8_0", "BF16"])
        source = self.path("large.gguf")
        write_gguf(source, checkpoint.gguf_keys(), tensors)
        orb = OrbFile(self.convert(source, "out.orb", "--type", "q4_k")[0])
        for name, (kind, raw, cols) in known.items():
            suffix = name.split(".", 2)[2] if name.startswith("blk") else name
            better = {"token_embd.weight": 7, "attn_v.weight": 7, "ffn_down.weight": 7,
                      "attn_qkv.weight": 6, "ssm_alpha.weight": 4, "ssm_beta.weight": 4}
            self.assertEqual(orb.entries[name][0], better.get(suffix, 5), name)
            expected = decode(kind, raw, cols)
            error = np.linalg.norm(orb.matrix(name) - expected) / np.linalg.norm(expected)
            self.assertLess(error, 0.12, name)

    def test_versions_and_alignments(self):
        checkpoint = self.small()
        for version, alignment in ((2, 32), (3, 64), (3, 1)):
            source = self.path("aligned.gguf")
            checkpoint.write_gguf(source, version=version, alignment=alignment)
            orb = OrbFile(self.convert(source, "out.orb", "--force")[0])
            embedding = checkpoint.tensors["token_embd.weight"]
            self.assertTrue((orb.matrix("token_embd.weight") == embedding).all())

    def test_prediction_blocks_at_the_end_are_left_out(self):
        checkpoint = self.small()
        keys = [(k, t, 3 if k == "qwen35.block_count" else v) for k, t, v in checkpoint.gguf_keys()]
        keys.append(("qwen35.nextn_predict_layers", 4, 1))
        tensors = checkpoint.gguf_tensors()
        tensors.append(("blk.2.nextn.eh_proj.weight", [64, 32], 16, bytes(66 * 64)))
        source = self.path("mtp.gguf")
        write_gguf(source, keys, tensors)
        model, output = self.convert(source)
        self.assertIn("1 tensors that the runtime has no use for", output)
        self.assertEqual(OrbFile(model).meta["qwen35.block_count"], 2)

    def test_an_output_matrix_that_is_the_embedding_is_left_out(self):
        checkpoint = self.small()
        tensors = checkpoint.gguf_tensors()
        embedding = checkpoint.tensors["token_embd.weight"]
        dims = [checkpoint.hidden, checkpoint.vocabulary]
        source = self.path("tied.gguf")
        write_gguf(source, checkpoint.gguf_keys(), tensors + [("output.weight", dims, 0, embedding)])
        self.assertNotIn("output.weight", OrbFile(self.convert(source)[0]).entries)
        other = embedding.copy()
        other[-1, -1] += 1
        write_gguf(source, checkpoint.gguf_keys(), tensors + [("output.weight", dims, 0, other)])
        self.assertIn("output.weight: expected no output matrix of its own", self.refused(source))


class Originals(ConvertCase):
    """Safetensors folders."""

    def values(self, checkpoint, dtype, tolerance, *options, **folder):
        source = self.path("checkpoint")
        checkpoint.write_folder(source, dtype=dtype, **folder)
        orb = OrbFile(self.convert(source, "out.orb", "--force", *options)[0])
        for name, expected in checkpoint.tensors.items():
            got = orb.matrix(name).reshape(-1)[:expected.size].reshape(expected.shape)
            error = np.abs(got - expected).max()
            self.assertLessEqual(error, tolerance * max(1, np.abs(expected).max()), name)
        return orb

    def test_values_heads_and_norms_are_put_into_our_form(self):
        for heads in (16, 32):
            self.values(self.small(value_heads=heads), "F32", 1e-6, "--type", "f32")

    def test_sixteen_bit_sources(self):
        for dtype, tolerance in (("BF16", 2 ** -7), ("F16", 2 ** -10)):
            self.values(self.small(), dtype, tolerance, "--type", "f32")

    def test_shards_pairs_and_text_only_names(self):
        self.values(self.small(), "F32", 1e-6, "--type", "f32", shards=3, pairs=True,
                    prefix="model.")

    def test_types_of_matrices(self):
        checkpoint = Checkpoint.random(kinds="lf", query_heads=4, value_heads=32)
        for kind, number, tolerance in (("q4_k", 5, 0.1), ("q5_k", 6, 0.05), ("q6_k", 7, 0.03),
                                        ("q8_0", 4, 0.01), ("bf16", 2, 0.004)):
            orb = self.values(checkpoint, "F32", tolerance, "--type", kind)
            self.assertEqual(orb.entries["blk.0.ssm_out.weight"][0], number)
            self.assertEqual(orb.entries["blk.1.attn_q.weight"][0], number)
            self.assertEqual(orb.entries["blk.0.ssm_a"][0], 0)

    def test_the_default_is_a_mix_around_q4_k(self):
        checkpoint = Checkpoint.random(kinds="lf", query_heads=4, value_heads=32)
        orb = self.values(checkpoint, "BF16", 0.1)
        for name, number in (("blk.0.ffn_up.weight", 5), ("blk.0.attn_qkv.weight", 6),
                             ("blk.1.attn_v.weight", 7), ("blk.1.ffn_down.weight", 7),
                             ("token_embd.weight", 7), ("blk.0.ssm_alpha.weight", 4)):
            self.assertEqual(orb.entries[name][0], number, name)

    def test_metadata_and_template(self):
        checkpoint = self.small()
        checkpoint.template = "{% for message in messages %}…{% endfor %}"
        for source in ("checkpoint", "model.gguf"):
            if source == "checkpoint":
                checkpoint.write_folder(self.path(source))
            else:
                checkpoint.write_gguf(self.path(source))
            orb = OrbFile(self.convert(self.path(source), "out.orb", "--force")[0])
            meta = orb.meta
            self.assertEqual(meta["general.architecture"], "qwen35")
            self.assertEqual(meta["general.source.file"], source)
            self.assertEqual(meta["qwen35.context_length"], 262144)
            self.assertEqual(meta["qwen35.block_count"], 2)
            self.assertEqual(meta["qwen35.ssm.time_step_rank"], 16)
            self.assertRegex(meta["general.converter"], r"\Aorb \d+\.\d+\.\d+\Z")
            self.assertEqual(orb.section(3).decode(), checkpoint.template)

    def test_strange_values_are_named(self):
        checkpoint = self.small()
        checkpoint.tensors["blk.0.ffn_up.weight"][3, 5] = np.nan
        checkpoint.tensors["blk.1.attn_q.weight"][0, 0] = 1e30
        for source in ("checkpoint", "model.gguf"):
            if source == "checkpoint":
                checkpoint.write_folder(self.path(source))
            else:
                checkpoint.write_gguf(self.path(source))
            _, output = self.convert(self.path(source), "out.orb", "--force", "--type", "f32")
            self.assertIn("blk.0.ffn_up.weight: 1 values are infinite or not numbers", output)
            self.assertIn("blk.1.attn_q.weight: values of up to 1e+30", output)
            self.assertEqual(output.count("warning"), 2)


class Padding(ConvertCase):
    """Models of fewer blocks and heads than the runtime's."""

    def test_blocks_that_do_nothing_fill_up_and_share_bytes(self):
        checkpoint = Checkpoint.random(kinds="lllf" * 6, hidden=64, ffn=64, query_heads=8,
                                       value_heads=16)
        source = self.path("model.gguf")
        checkpoint.write_gguf(source)
        model, output = self.convert(source)
        self.assertIn("8 that do nothing fill the model up to 32", output)
        self.assertLess(os.path.getsize(model) - os.path.getsize(source), 1000000)
        orb = OrbFile(model)
        for block in range(24, 32):
            for name in ("attn_norm.weight", "post_attention_norm.weight"):
                self.assertFalse(orb.vector(f"blk.{block}.{name}").any())
            self.assertEqual(orb.entries[f"blk.{block}.ssm_conv1d.weight"],
                             orb.entries["blk.24.ssm_conv1d.weight"])
        for name, size in (("ssm_conv1d.weight", 8192 * 4), ("ssm_dt.bias", 32), ("ssm_a", 32)):
            vector = orb.vector("blk.0." + name)
            known = checkpoint.tensors["blk.0." + name].size
            self.assertEqual(vector.size, size)
            self.assertTrue(vector[:known].any())
            self.assertFalse(vector[known:].any())

    def test_the_result_runs_as_the_blocks_alone_would(self):
        """Against numpy, with the blocks that do nothing taken out of its model."""
        checkpoint = Checkpoint.random(kinds="llf", hidden=64, ffn=64, query_heads=8,
                                       value_heads=16)
        source = self.path("model.gguf")
        checkpoint.write_gguf(source)
        model, _ = self.convert(source)
        dump = self.path("hidden.bin")
        tokens = (5, 77, 200)
        subprocess.run(shlex.split(os.environ["MODEL_RUNNER"]) +
                       ["run", model, ",".join(map(str, tokens)), dump, "1", "scalar", "1"],
                       check=True, capture_output=True)
        reference = Model(model)
        del reference.blocks[3:]
        expected = []
        for token in tokens:
            reference.step(token, lambda _, name, x: name == "result_norm" and expected.append(x))
        error = np.linalg.norm(read_hidden(dump) - expected, axis=1)
        self.assertLess((error / np.linalg.norm(expected, axis=1)).max(), 1e-4)


class Quantize(ConvertCase):
    """`orb quantize` and `orb eval`."""

    def synth(self, name="synth.orb", *options):
        path = self.path(name)
        self.orb("synth", path, "--type", "f32", "--query-heads", "4", "--value-heads", "16",
                 *options)
        return path

    def test_types_errors_and_shared_bytes(self):
        source, target = self.synth(), self.path("small.orb")
        out, err = self.orb("quantize", source, target, "--type", "q5_k")
        self.assertEqual(err, "")
        self.orb("info", target, "--check")
        before, after = OrbFile(source), OrbFile(target)
        self.assertEqual(before.entries.keys(), after.entries.keys())
        self.assertEqual(before.section(2), after.section(2))
        self.assertEqual(after.meta["synth.pattern"], "lllf")
        numbers = {"F32": 0, "Q8_0": 4, "Q5_K": 6, "Q6_K": 7}
        lines = [line.split() for line in out.splitlines() if " F32 " in line]
        self.assertEqual(len(lines), 16)  # matrices of one linear and one full block, the embedding
        for name, _, kind, size, error in lines:
            exact, stored = before.matrix(name), after.matrix(name)
            expected = np.linalg.norm(stored - exact) / np.linalg.norm(exact)
            self.assertEqual(after.entries[name][0], numbers[kind])
            self.assertEqual(after.entries[name][3], int(size))
            self.assertAlmostEqual(float(error), expected, delta=1e-5 + expected * 1e-3)
            self.assertLess(expected, 0.05)
        for name in ("blk.0.attn_norm.weight", "blk.3.attn_q_norm.weight", "blk.0.ssm_a"):
            self.assertTrue((before.vector(name) == after.vector(name)).all())
        self.assertEqual(after.entries["blk.30.ssm_out.weight"], after.entries["blk.0.ssm_out.weight"])

    def test_the_same_file_and_existing_ones_are_refused(self):
        source, target = self.synth(), self.synth("other.orb")
        _, err = self.orb("quantize", source, source, "--force", code=1)
        self.assertIn("expected another file than the source", err)
        _, err = self.orb("quantize", source, target, code=1)
        self.assertIn("already exists", err)
        with open(self.path("none.orb"), "wb") as file:
            file.write(b"ORB2" + bytes(100))
        _, err = self.orb("quantize", self.path("none.orb"), self.path("x.orb"), code=1)
        self.assertIn("ORB2: unsupported version", err)
        self.assertFalse(os.path.exists(self.path("x.orb")))

    def text(self):
        path = self.path("text.txt")
        with open(path, "w", encoding="utf-8") as file:
            file.write("The words and the others are in a row\nhere, and there as well.")
        return path

    def test_perplexity_is_that_of_the_reference(self):
        model = self.synth("eval.orb", "--hidden", "32", "--ffn", "32")
        out, _ = self.orb("eval", model, self.text(), "--window", "9")
        reference = Model(model)
        with open(self.text(), encoding="utf-8") as file:
            ids = reference.tokenizer.encode(file.read())
        loss = 0
        for i, (token, following) in enumerate(zip(ids, ids[1:])):
            if i % 8 == 0:
                reference.reset()
            logits = reference.logits(reference.step(token))
            loss += np.log(np.exp(logits - logits.max()).sum()) + logits.max() - logits[following]
        self.assertIn(f"tokens      {len(ids) - 1}, ", out)
        found = float(out.split("(")[1].split()[0])
        self.assertAlmostEqual(found, loss / (len(ids) - 1), delta=1e-4)

    def test_comparison_of_two_models(self):
        source = self.synth()
        out, _ = self.orb("eval", source, self.text(), "--against", source)
        self.assertIn("mean KL divergence 0.000000 nats, same first choice 100.00 %", out)
        out, _ = self.orb("quantize", source, self.path("q.orb"), "--type", "q4_k", "--compare",
                          self.text())
        self.assertGreater(float(out.split("divergence ")[1].split()[0]), 0)
        other = self.synth("other.orb", "--vocab", "400")
        _, err = self.orb("eval", source, self.text(), "--against", other, code=1)
        self.assertIn("expected two models of one vocabulary, found 512 and 400 tokens", err)

    def test_what_cannot_be_evaluated(self):
        model = self.synth("eval.orb", "--hidden", "32", "--ffn", "32")
        _, err = self.orb("eval", model, self.path("none.txt"), code=1)
        self.assertIn("none.txt: expected a file", err)
        with open(self.path("short.txt"), "w", encoding="utf-8") as file:
            file.write("a")
        _, err = self.orb("eval", model, self.path("short.txt"), code=1)
        self.assertIn("expected a text of at least two tokens", err)
        _, err = self.orb("eval", self.path("none.orb"), self.text(), code=1)
        self.assertIn("none.orb: ORB2: cannot open file", err)


class Safety(ConvertCase):
    """What happens to files."""

    def test_an_existing_file_is_kept_without_force(self):
        source, target = self.path("model.gguf"), self.path("out.orb")
        self.small().write_gguf(source)
        with open(target, "wb") as file:
            file.write(b"mine")
        _, err = self.orb("convert", source, target, code=1)
        self.assertIn("already exists", err)
        with open(target, "rb") as file:
            self.assertEqual(file.read(), b"mine")
        self.convert(source, "out.orb", "--force")

    def test_the_source_is_never_the_destination(self):
        source = self.path("model.gguf")
        self.small().write_gguf(source)
        before = os.path.getsize(source)
        os.symlink(source, self.path("other.orb"))
        os.link(source, self.path("link.orb"))
        for target in (source, self.path("other.orb"), self.path("link.orb")):
            _, err = self.orb("convert", source, target, "--force", code=1)
            self.assertIn("expected another file than the source", err)
        self.assertEqual(os.path.getsize(source), before)
        folder = self.path("checkpoint")
        self.small().write_folder(folder)
        _, err = self.orb("convert", folder, os.path.join(folder, "model.safetensors"), "--force",
                          code=1)
        self.assertIn("expected another file than the source", err)

    @unittest.skipIf(WINDOWS, "there are no limits on sizes of files")
    def test_a_full_disk_leaves_nothing(self):
        source = self.path("model.gguf")
        self.small().write_gguf(source)
        line = self.refused(source, preexec_fn=limit_file_size(1 << 20), restore_signals=False)
        self.assertIn("cannot write", line)

    def test_an_interrupt_leaves_nothing(self):
        source = self.path("model.gguf")
        Checkpoint.random(vocabulary=400000).write_gguf(source)
        folder = self.path("out")
        os.mkdir(folder)
        process = subprocess.Popen(
            COMMAND + ["convert", source, os.path.join(folder, "x.orb"), "--type", "q4_k",
                       "--threads", "1"], stdout=subprocess.PIPE, stderr=subprocess.PIPE)
        for _ in range(1000):
            if os.listdir(folder):
                break
            time.sleep(0.005)
        process.send_signal(signal.SIGINT)
        out, err = process.communicate(timeout=60)
        self.assertEqual((process.returncode, out), (1, b""), err)
        self.assertIn(b"stopped; nothing was written", err)
        self.assertEqual(os.listdir(folder), [])

    def test_progress_is_for_terminals(self):
        source = self.path("model.gguf")
        self.small().write_gguf(source)
        _, err = self.orb("convert", source, self.path("out.orb"))
        self.assertEqual(err, "")


class LargeFiles(ConvertCase):
    """Files of 2 GiB and more, sparse on the disk."""

    def test_orb_opens_them_and_says_how(self):
        model = self.path("large.orb")
        self.orb("synth", model, "--hidden", "32", "--ffn", "32", "--vocab", "160", "--type", "f32",
                 "--query-heads", "1", "--value-heads", "1")
        expected, _ = self.orb("run", model, "-p", "a b", "--max-tokens", "8")
        os.truncate(model, (2 << 30) + 4096)
        for arguments in (["run", model, "-p", "a b", "--max-tokens", "8"],
                          ["info", model, "--check"], ["bench", model, "--gen-tokens", "2"]):
            out, err = self.orb(*arguments)
            self.assertIn("2.15 GB, opened with QWEN35_LARGE_FILES=1", err)
            if arguments[0] == "run":
                self.assertEqual(out, expected)

    def test_a_source_beyond_two_and_four_gib(self):
        checkpoint = self.small()
        source = self.path("large.gguf")
        for size in (5 << 30, 2 << 30):
            checkpoint.write_gguf(source)
            os.truncate(source, size)
            orb = OrbFile(self.convert(source, "out.orb", "--force")[0])
            self.assertEqual(orb.meta["general.source.bytes"], size)


if __name__ == "__main__":
    unittest.main()
