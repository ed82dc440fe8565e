# A thin front over CMake presets and scripts/; every recipe can be run by hand.
JOBS ?= $(shell nproc)
export CMAKE_BUILD_PARALLEL_LEVEL = $(JOBS)
export CTEST_PARALLEL_LEVEL = $(JOBS)

.PHONY: help demo test test-native race fuzz coverage soak validate bench windows test-windows dist format clean

help:
	@echo 'make demo     install what is missing, build, talk to the bundled demo model'
	@echo 'make test     every check: format, lint, tests natively, under wine and sanitizers'
	@echo 'make test-native  the same without Windows'
	@echo 'make race     the tests under the thread sanitizer'
	@echo 'make fuzz     the fuzz targets, FUZZ_SECONDS each (60)'
	@echo 'make coverage lines and branches of reader and tokenizer that the tests reach'
	@echo 'make soak     SOAK_TURNS turns (10000) on the demo model; memory must not grow'
	@echo 'make validate the plug-in against the rules of the C interface'
	@echo 'make bench    measure kernels, models, sampler and tokenizer on this machine (8 GB of models)'
	@echo 'make windows  build for 64-bit Windows: dist/orb-qwen35-windows-x64.zip'
	@echo 'make test-windows  the tests of that build under wine'
	@echo 'make dist     the same for this system: dist/orb-qwen35-linux-x64.tar.gz'
	@echo 'make format   format the sources in place'
	@echo 'make clean    remove build/ and dist/'
	@echo
	@echo 'JOBS=n        build and test with n processes (now $(JOBS))'

demo:
	@scripts/demo.sh

test:
	@scripts/test.sh

test-native:
	@scripts/test.sh native

race:
	@scripts/bootstrap.sh all
	cmake --preset tsan >/dev/null && cmake --build --preset tsan && ctest --preset tsan

fuzz:
	@scripts/fuzz.sh

coverage:
	@scripts/coverage.sh

soak:
	@scripts/soak.sh

validate:
	@scripts/bootstrap.sh
	@test -f build/release/build.ninja || \
	  cmake --preset release -DORB_BUILD_TESTS=OFF -DORB_BUILD_BENCHMARKS=OFF >/dev/null
	cmake --build --preset release --target orb
	QWEN35_MAX_CONTEXT=512 build/release/bin/orb validate \
	  build/release/bin/liborb_runtime_qwen35.so models/demo.orb

bench:
	@scripts/bench.sh

windows:
	@scripts/package.sh windows

test-windows:
	@scripts/bootstrap.sh windows
	cmake --preset windows -DORB_BUILD_TESTS=ON >/dev/null && cmake --build --preset windows
	ctest --preset windows
	@scripts/run_windows.sh --stop

dist:
	@scripts/package.sh linux

format:
	@scripts/check_format.sh --fix

clean:
	rm -rf build dist
