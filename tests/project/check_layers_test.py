#!/usr/bin/env python3
"""Shows that check_layers.py refuses what it is there to refuse."""

import unittest

from check_layers import command_errors, include_errors


class IncludesTest(unittest.TestCase):
    def refused(self, path, text):
        self.assertEqual(len(include_errors(path, text)), 1, text)

    def accepted(self, path, text):
        self.assertEqual(include_errors(path, text), [])

    def test_includes_point_downwards(self):
        self.accepted("src/plugin/session.cpp", '#include "model/model.h"\n#include "orb_plugin.h"')
        self.accepted("src/model/forward.h", '#include "format/loader.h"\n#include <vector>')
        self.refused("src/model/forward.cpp", '#include "plugin/session.h"')
        self.refused("src/format/loader.cpp", '# include "tokenizer/tokenizer.h"')
        self.refused("src/quant/half.h", '#include "format/loader.h"')
        self.refused("src/compat/compat.h", '#include "quant/status.h"')

    def test_tokenizer_sees_the_record_only(self):
        self.accepted("src/tokenizer/tokenizer.h", '#include "format/tokenizer_data.h"')
        self.refused("src/tokenizer/tokenizer.h", '#include "format/loader.h"')

    def test_the_c_abi_belongs_to_the_plugin(self):
        self.refused("src/model/model.h", '#include "orb_plugin.h"')

    def test_wide_instructions_belong_to_the_kernels(self):
        self.accepted("src/model/kernels/avx2.cpp", "#include <immintrin.h>")
        self.refused("src/model/forward.cpp", "#include <immintrin.h>")
        self.refused("src/quant/half.cpp", '__attribute__((target("avx2"))) void f();')
        self.refused("src/quant/half.cpp", '#pragma GCC target("avx2")')


class CommandsTest(unittest.TestCase):
    def test_flags_for_a_cpu_belong_to_the_kernels(self):
        self.assertEqual(command_errors("src/model/kernels/avx2.cpp", "c++ -mavx2 -c x"), [])
        self.assertEqual(command_errors("src/model/forward.cpp", "c++ -O2 -MD -c x"), [])
        self.assertEqual(len(command_errors("src/model/forward.cpp", "c++ -mavx2 -c x")), 1)
        self.assertEqual(len(command_errors("tools/orb/main.cpp", "c++ -march=native -c x")), 1)

    def test_arithmetic_stays_exact(self):
        self.assertEqual(len(command_errors("src/model/kernels/avx2.cpp", "c++ -ffast-math")), 1)


if __name__ == "__main__":
    unittest.main()
