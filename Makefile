# The README's commands. Each installs what is missing, then builds.
BUILD ?= build
JOBS ?= $(shell nproc)

.PHONY: deps build test test-sanitize test-asan test-tsan fuzz package format clean

deps:
	@./scripts/install-deps.sh

build: deps
	cmake -S . -B $(BUILD) -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
	cmake --build $(BUILD) -j $(JOBS)

test: build
	cd $(BUILD) && ctest --output-on-failure -j $(JOBS)

# The update image and the Debian package, in $(BUILD)/packages.
package: build
	./scripts/package.sh "$(BUILD)" "$(BUILD)/packages"

# The same tests built with AddressSanitizer + UBSan, then ThreadSanitizer.
test-sanitize: test-asan test-tsan

test-asan: deps
	cmake -S . -B build-asan -DQOR_SANITIZE=address -DCMAKE_BUILD_TYPE=Debug >/dev/null
	cmake --build build-asan -j $(JOBS)
	cd build-asan && ctest --output-on-failure -j $(JOBS) -L sanitize

test-tsan: deps
	cmake -S . -B build-tsan -DQOR_SANITIZE=thread -DCMAKE_BUILD_TYPE=Debug >/dev/null
	cmake --build build-tsan -j $(JOBS)
	cd build-tsan && ctest --output-on-failure -j $(JOBS) -L sanitize

# Every parser of outside input (or those named in QOR_FUZZ_TARGETS) fuzzed
# with libFuzzer for QOR_FUZZ_SECONDS each, built with clang in build-fuzz;
# see scripts/fuzz.sh.
QOR_FUZZ_SECONDS ?= 60
QOR_FUZZ_TARGETS ?=
fuzz: deps
	QOR_FUZZ_SECONDS=$(QOR_FUZZ_SECONDS) JOBS=$(JOBS) ./scripts/fuzz.sh $(QOR_FUZZ_TARGETS)

format:
	clang-format -i $$(git ls-files '*.cpp' '*.h')

clean:
	rm -rf $(BUILD) build-asan build-tsan build-fuzz

# Builds, stages the bundle at $(BUILD)/bundle/QOR Velmora and runs it; without
# a display it uses a virtual one and saves a screenshot (see scripts/run.sh).
.PHONY: run
run: build
	@./scripts/run.sh "$(BUILD)"

# Measures the shell against what people would use instead (chromium --app,
# surf, the system's tools) on this machine and prints one markdown table; see
# bench/run_bench.py.
.PHONY: bench
bench: build
	@./scripts/install-deps.sh --bench
	cmake --build $(BUILD) -j $(JOBS) --target qor_bench
	/usr/bin/python3 bench/run_bench.py "$(BUILD)"
