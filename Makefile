# The two set-up commands are `make demo` and `make test`; both install what
# is missing first (`make deps`).
BUILD_DIR ?= build
ASAN_DIR  ?= build-asan
BENCH_DIR ?= build-bench
FUZZ_DIR  ?= build-fuzz
# How long `make fuzz` runs each fuzz target, in seconds.
FUZZ_SECONDS ?= 60
# How long `make torture` kills and replaces worker processes, in seconds.
TORTURE_SECONDS ?= 120
JOBS      ?= $(shell nproc)
# Tests spend much of their time waiting on other processes: run more of
# them than there are cores.
TEST_JOBS ?= $(shell echo $$(( $$(nproc) * 2 )))

CMAKE_CONFIGURE = cmake -G Ninja -DCMAKE_TOOLCHAIN_FILE=$(CURDIR)/cmake/i386-toolchain.cmake
CTEST = ctest --output-on-failure --timeout 300 -j $(TEST_JOBS)

.PHONY: all deps bench-deps build test demo torture asan bench bench-report fuzz clean

all: build

deps:
	@bash scripts/deps.sh

$(BUILD_DIR)/build.ninja:
	$(CMAKE_CONFIGURE) -S . -B $(BUILD_DIR) -DCMAKE_BUILD_TYPE=RelWithDebInfo

build: deps $(BUILD_DIR)/build.ninja
	cmake --build $(BUILD_DIR) -j $(JOBS)

test: build
	cd $(BUILD_DIR) && $(CTEST)

# The demo and the torture run in a private IPC + mount namespace of their
# own: they never touch this machine's registries.
demo: build
	@mkdir -p $(BUILD_DIR)/demo-logs
	QKLogFilePath=$(abspath $(BUILD_DIR))/demo-logs $(BUILD_DIR)/tools/ambit-demo

torture: build
	$(BUILD_DIR)/tools/ambit-torture --seconds $(TORTURE_SECONDS)

$(ASAN_DIR)/build.ninja:
	$(CMAKE_CONFIGURE) -S . -B $(ASAN_DIR) -DCMAKE_BUILD_TYPE=Debug -DAMBIT_SANITIZE=ON

asan: deps $(ASAN_DIR)/build.ninja
	cmake --build $(ASAN_DIR) -j $(JOBS)
	cd $(ASAN_DIR) && ASAN_OPTIONS=detect_leaks=1:abort_on_error=1 \
	  UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 $(CTEST)

$(BENCH_DIR)/build.ninja: | bench-deps
	$(CMAKE_CONFIGURE) -S . -B $(BENCH_DIR) -DCMAKE_BUILD_TYPE=Release -DAMBIT_BENCH=ON -DAMBIT_TESTS=OFF

bench-deps:
	@bash scripts/deps.sh bench

bench: bench-deps $(BENCH_DIR)/build.ninja
	cmake --build $(BENCH_DIR) -j $(JOBS)
	@for b in $(BENCH_DIR)/bench/ambit_bench_*; do \
	  echo "== $$b"; $$b --benchmark_min_time=0.2 --benchmark_repetitions=5 --benchmark_report_aggregates_only=true || exit 1; \
	done

# The fuzz targets (libFuzzer, clang -m32), in their own build directory,
# each run for FUZZ_SECONDS: the UTF conversions, their SSE2 paths against
# the scalar ones, and the inspector's checks of damaged registry and
# name-map tables; new inputs each finds are kept in a corpus directory of
# its own under $(FUZZ_DIR).
$(FUZZ_DIR)/build.ninja:
	cmake -G Ninja -DCMAKE_TOOLCHAIN_FILE=$(CURDIR)/cmake/i386-clang-toolchain.cmake \
	  -S fuzz -B $(FUZZ_DIR)

fuzz: deps $(FUZZ_DIR)/build.ninja
	cmake --build $(FUZZ_DIR) -j $(JOBS)
	@mkdir -p $(FUZZ_DIR)/corpus
	$(FUZZ_DIR)/ambit_fuzz_utf -max_total_time=$(FUZZ_SECONDS) -max_len=1024 \
	  -print_final_stats=1 -artifact_prefix=$(FUZZ_DIR)/ $(FUZZ_DIR)/corpus fuzz/corpus
	@mkdir -p $(FUZZ_DIR)/corpus-utf-vector
	$(FUZZ_DIR)/ambit_fuzz_utf_vector -max_total_time=$(FUZZ_SECONDS) -max_len=1024 \
	  -print_final_stats=1 -artifact_prefix=$(FUZZ_DIR)/utf-vector- \
	  $(FUZZ_DIR)/corpus-utf-vector fuzz/corpus-utf-vector
	@mkdir -p $(FUZZ_DIR)/corpus-ipcs-tables
	$(FUZZ_DIR)/ambit_fuzz_ipcs_tables -max_total_time=$(FUZZ_SECONDS) -max_len=4096 \
	  -print_final_stats=1 -artifact_prefix=$(FUZZ_DIR)/ipcs-tables- $(FUZZ_DIR)/corpus-ipcs-tables

# One table of every ratio the benchmarks measure, with the goals.
bench-report: bench-deps $(BENCH_DIR)/build.ninja
	cmake --build $(BENCH_DIR) -j $(JOBS)
	python3 scripts/bench_report.py $(BENCH_DIR)/bench bench/RESULTS.md

clean:
	rm -rf $(BUILD_DIR) $(ASAN_DIR) $(BENCH_DIR) $(FUZZ_DIR)
