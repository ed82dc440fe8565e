#!/usr/bin/env python3
"""Fails when an include points the wrong way between layers, or a source outside the kernel tiers
is built for more than the baseline CPU.

    check_layers.py SOURCE_TREE COMPILE_COMMANDS
"""

import json
import os
import pathlib
import re
import sys

# What each layer may include, besides itself.
BELOW = {
    "compat": set(),
    "quant": {"compat"},
    "format": {"quant", "compat"},
    "tokenizer": {"format", "quant", "compat"},
    "model": {"tokenizer", "format", "quant", "compat"},
    "plugin": {"model", "tokenizer", "format", "quant", "compat"},
}
# `format` lends the tokenizer its record only.
TOKENIZER_MAY_INCLUDE_OF_FORMAT = {"format/tokenizer_data.h"}
KERNELS = "src/model/kernels/"

INCLUDE = re.compile(r'^\s*#\s*include\s*(["<])([^">]+)[">]', re.MULTILINE)
TARGET_SWITCH = re.compile(r"#\s*pragma\s+GCC\s+target|__attribute__\s*\(\(\s*(__)?target")


def include_errors(path, text):
    """Errors in the includes of one file of src/; `path` is relative to the source tree."""
    layer = path.split("/")[1]
    errors = []
    for quote, name in INCLUDE.findall(text):
        if quote == "<":
            if name == "immintrin.h" and not path.startswith(KERNELS):
                errors.append(f"{path}: <{name}> belongs into {KERNELS}")
            continue
        if name == "orb_plugin.h":
            if layer != "plugin":
                errors.append(f"{path}: only the plugin layer knows {name}")
            continue
        other = name.split("/")[0]
        if other != layer and other not in BELOW[layer]:
            errors.append(f"{path}: {layer} must not include {name}")
        elif (layer, other) == ("tokenizer", "format"):
            if name not in TOKENIZER_MAY_INCLUDE_OF_FORMAT:
                errors.append(f"{path}: {layer} must not include {name}")
    if not path.startswith(KERNELS) and TARGET_SWITCH.search(text):
        errors.append(f"{path}: function targets belong into {KERNELS}")
    return errors


def command_errors(path, command):
    """Errors in the compile command of one source; `path` is relative to the source tree."""
    words = command.split()
    errors = [f"{path}: built with {word}" for word in words
              if word in ("-ffast-math", "-Ofast", "-funsafe-math-optimizations")]
    if not path.startswith(KERNELS):
        errors += [f"{path}: built with {word}" for word in words
                   if re.match(r"-m[a-z]", word) and word not in ("-m64", "-mwindows", "-mconsole")]
    return errors


def main():
    root = pathlib.Path(sys.argv[1]).resolve()
    errors = []
    files = 0
    for path in sorted((root / "src").glob("*/**/*")):
        if path.suffix in (".h", ".cpp"):
            relative = path.relative_to(root).as_posix()
            errors += include_errors(relative, path.read_text(encoding="utf-8"))
            files += 1
    commands = json.loads(pathlib.Path(sys.argv[2]).read_text(encoding="utf-8"))
    for entry in commands:
        relative = os.path.relpath(os.path.realpath(entry["file"]), root)
        errors += command_errors(relative, entry["command"])
    if files == 0 or not commands:
        errors.append("nothing to check")
    print("\n".join(errors) or f"{files} files, {len(commands)} commands")
    return 1 if errors else 0


if __name__ == "__main__":
    sys.exit(main())
