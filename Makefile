# The two commands of a fresh machine:
#   make demo   installs what is missing, builds, restores the bundled example
#   make test   installs what is missing, builds, runs every test (also under
#               the sanitizers, and the fuzzers)
BUILD ?= build
JOBS ?= 2

.PHONY: setup build demo test check sanitize fuzz bench package clean

setup:
	@bash scripts/setup.sh

build: setup
	@cmake -S . -B $(BUILD) -DCMAKE_BUILD_TYPE=Release >/dev/null
	@cmake --build $(BUILD) -j $(JOBS)

# Only what the demo runs is built.
demo: setup
	@cmake -S . -B $(BUILD) -DCMAKE_BUILD_TYPE=Release >/dev/null
	@cmake --build $(BUILD) -j $(JOBS) --target deconv
	@$(BUILD)/deconv examples/astronaut_blurred.png examples/motion_psf.png $(BUILD)/astronaut_restored.png 2
	@echo "Restored picture: $(BUILD)/astronaut_restored.png"

# Every test: the suite, the suite again under the sanitizers, and the fuzzers.
test: check sanitize fuzz

check: build
	@cd $(BUILD) && ctest --output-on-failure -j $(JOBS)

# AddressSanitizer with UndefinedBehaviorSanitizer over the unit tests and
# the runs of the commands they make (not the batch, the package or the
# estimation's evaluation, which add time and no code of their own, nor the
# long shakes' shapes, which clang's arithmetic estimates otherwise); the pool
# and the concurrent paths under ThreadSanitizer. Each build has a folder of
# its own; the fuzzers share the AddressSanitizer build (clang).
ASAN_CONFIGURE = CC=clang CXX=clang++ cmake -S . -B $(BUILD)-asan -DCMAKE_BUILD_TYPE=RelWithDebInfo \
	-DDECONV_SANITIZE=address -DDECONV_FUZZ=ON >/dev/null
UNIT_TESTS = spectral_tests engine_tests fast_tests tool_tests psf_tests strength_tests library_tests checks_tests restore_tests \
	estimate_tests command_tests light_tests

sanitize: setup
	@$(ASAN_CONFIGURE)
	@cmake --build $(BUILD)-asan -j $(JOBS) --target $(UNIT_TESTS)
	@cd $(BUILD)-asan && ctest --output-on-failure -j $(JOBS) -E '^(batch|packaging|python)\.|fuzzer|^Evaluation\.|^Kernels\.ALongShake'
	@cmake -S . -B $(BUILD)-tsan -DCMAKE_BUILD_TYPE=RelWithDebInfo -DDECONV_SANITIZE=thread >/dev/null
	@cmake --build $(BUILD)-tsan -j $(JOBS) --target deconv spectral_tests engine_tests fast_tests tool_tests library_tests
	@cd $(BUILD)-tsan && ctest --output-on-failure -j $(JOBS) -R '^(Fft|RealFft|Engine|Engines|RichardsonLucy|Runs|PinnedResults|Library)[./]'

# libFuzzer (clang) over deconv's native readers, the commands' picture reader
# (OpenImageIO's formats, PNM and FITS) and the PSF's preparation, a
# bounded number of inputs each, under AddressSanitizer and
# UndefinedBehaviorSanitizer; any report fails.
fuzz: setup
	@$(ASAN_CONFIGURE)
	@cmake --build $(BUILD)-asan -j $(JOBS) --target load_fuzzer psf_fuzzer picture_fuzzer
	@cd $(BUILD)-asan && ctest --output-on-failure -R fuzzer

bench:
	@bash scripts/setup.sh bench
	@cmake -S . -B $(BUILD)-bench -DCMAKE_BUILD_TYPE=Release -DDECONV_TESTS=OFF -DDECONV_BENCHMARKS=ON >/dev/null
	@cmake --build $(BUILD)-bench -j $(JOBS)
	@for b in $(BUILD)-bench/bench/bench_*; do [ $${b##*/} = bench_estimate ] || $$b; done
	@bench/estimate_bench.sh $(BUILD)-bench
	@bench/batch_bench.sh $(BUILD)-bench
	@bench/restore_bench.sh $(BUILD)-bench
	@PYTHONPATH=$(BUILD)-bench/python /usr/bin/python3 bench/camera_bench.py --csv $(BUILD)-bench/camera_bench.csv

# The Debian package, from the Release build: build/deconv_<version>_amd64.deb.
package: build
	@cd $(BUILD) && cpack

clean:
	rm -rf $(BUILD) $(BUILD)-bench $(BUILD)-asan $(BUILD)-tsan
