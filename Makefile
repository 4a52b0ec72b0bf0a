# The project's entry points. Each target first installs whatever Debian packages are missing
# (silent and fast when all are there), then configures and builds what it needs.
BUILD      ?= build
BUILD_ASAN ?= build-asan
BUILD_FUZZ ?= build-fuzz
BUILD_COVERAGE ?= build-coverage
JOBS       ?= $(shell nproc)
FUZZ_SECONDS ?= 60
CMAKE_FLAGS ?= -DCMAKE_BUILD_TYPE=RelWithDebInfo

.PHONY: all deps build demo demo-fleet test test-asan coverage bench fuzz format clean

all: build

deps:
	@bash scripts/install-deps.sh

build: deps
	@cmake -S . -B $(BUILD) $(CMAKE_FLAGS) >/dev/null
	@cmake --build $(BUILD) -j $(JOBS)

demo: build
	@bash scripts/demo.sh $(BUILD)

demo-fleet: build
	@bash scripts/demo-fleet.sh $(BUILD)

test: build
	@cd $(BUILD) && ctest --output-on-failure -j $(JOBS)

test-asan: deps
	@cmake -S . -B $(BUILD_ASAN) -DCMAKE_BUILD_TYPE=Debug -DVORLUND_SANITIZE=ON >/dev/null
	@cmake --build $(BUILD_ASAN) -j $(JOBS)
	@cd $(BUILD_ASAN) && ASAN_OPTIONS=detect_leaks=1:abort_on_error=1 \
	  UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1:suppressions=$(CURDIR)/tests/sanitizers/ubsan.supp ctest --output-on-failure -j $(JOBS)

coverage:
	@bash scripts/install-deps.sh coverage
	@cmake -S . -B $(BUILD_COVERAGE) -DCMAKE_BUILD_TYPE=Debug -DVORLUND_COVERAGE=ON >/dev/null
	@cmake --build $(BUILD_COVERAGE) -j $(JOBS)
	@bash scripts/coverage.sh $(BUILD_COVERAGE) $(JOBS)

bench: deps
	@cmake -S . -B $(BUILD) $(CMAKE_FLAGS) -DVORLUND_BENCH=ON >/dev/null
	@cmake --build $(BUILD) -j $(JOBS)
	@bash scripts/bench.sh $(BUILD)

fuzz:
	@bash scripts/install-deps.sh fuzz
	@CC=clang CXX=clang++ cmake -S . -B $(BUILD_FUZZ) -DCMAKE_BUILD_TYPE=RelWithDebInfo \
	  -DVORLUND_FUZZ=ON -DVORLUND_TESTS=OFF >/dev/null
	@cmake --build $(BUILD_FUZZ) --target vorlund_fuzzers -j $(JOBS)
	@bash scripts/fuzz.sh $(BUILD_FUZZ) $(FUZZ_SECONDS)

format:
	@git ls-files '*.h' '*.cc' | xargs clang-format -i

clean:
	rm -rf $(BUILD) $(BUILD_ASAN) $(BUILD_FUZZ) $(BUILD_COVERAGE)
