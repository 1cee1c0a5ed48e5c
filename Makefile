# The two commands of a fresh machine:
#   make demo   installs what is missing, builds, restores the bundled example
#   make test   installs what is missing, builds, runs every test
BUILD ?= build
JOBS ?= 2

.PHONY: setup build demo test sanitize bench clean

setup:
	@bash scripts/setup.sh

build: setup
	@cmake -S . -B $(BUILD) -DCMAKE_BUILD_TYPE=Release >/dev/null
	@cmake --build $(BUILD) -j $(JOBS)

demo: build
	@$(BUILD)/deconv examples/astronaut_blurred.png examples/motion_psf.png $(BUILD)/astronaut_restored.png 2
	@echo "Restored picture: $(BUILD)/astronaut_restored.png"

test: build
	@cd $(BUILD) && ctest --output-on-failure -j $(JOBS)

# The tests again, built with UndefinedBehaviorSanitizer.
sanitize: setup
	@cmake -S . -B $(BUILD)-ubsan -DCMAKE_BUILD_TYPE=RelWithDebInfo -DDECONV_SANITIZE=ON >/dev/null
	@cmake --build $(BUILD)-ubsan -j $(JOBS)
	@cd $(BUILD)-ubsan && ctest --output-on-failure

bench: setup
	@cmake -S . -B $(BUILD)-bench -DCMAKE_BUILD_TYPE=Release -DDECONV_TESTS=OFF -DDECONV_BENCHMARKS=ON >/dev/null
	@cmake --build $(BUILD)-bench -j $(JOBS)
	@for b in $(BUILD)-bench/bench/bench_*; do $$b; done

clean:
	rm -rf $(BUILD) $(BUILD)-bench $(BUILD)-ubsan
