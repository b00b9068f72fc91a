# Entry points for people and CI. Each target installs what it needs first.
PRESET ?= dev
JOBS ?= 2
CTEST_ARGS ?=

.PHONY: all deps build test demo asan tsan clang format format-check clean

all: build

deps:
	@scripts/install-deps

build: deps
	@cmake --preset $(PRESET) >/dev/null
	@cmake --build --preset $(PRESET) -j $(JOBS)

test: build
	ctest --preset $(PRESET) --output-on-failure $(CTEST_ARGS)

demo: build
	@if [ ! -x build/$(PRESET)/bin/kestrel-demo ]; then \
		echo "make demo: build/$(PRESET)/bin/kestrel-demo was not built (examples switched off?)" >&2; \
		exit 1; \
	fi
	@build/$(PRESET)/bin/kestrel-demo

asan:
	$(MAKE) test PRESET=asan

tsan:
	$(MAKE) test PRESET=tsan

clang:
	$(MAKE) test PRESET=clang

format:
	@git ls-files '*.h' '*.cpp' | xargs clang-format -i

format-check:
	@git ls-files '*.h' '*.cpp' | xargs clang-format --dry-run -Werror

clean:
	rm -rf build

.PHONY: docs
docs:
	@scripts/install-deps docs
	@mkdir -p build/docs
	doxygen docs/Doxyfile
	@echo "API documentation: build/docs/html/index.html"

# ---- Reliability: sanitizers, fuzzing, memcheck --------------------------
# check: the unit tests as built for development, then built with Clang
# (whose lock annotations -Wthread-safety checks), then under ASan+UBSan
# (leaks detected) and TSan, then every fuzz target for FUZZ_SECONDS, then
# every benchmark once at a token size (bench-smoke).
# memcheck: the development build's tests under valgrind memcheck, except
# the installation test (it runs CMake) and the stress tests (valgrind runs
# one thread at a time, so they would starve; asan and tsan cover them).
.PHONY: check fuzz memcheck
FUZZ_SECONDS ?= 20
# Each fuzz target with its largest input in bytes (room for pieces beyond
# the 2047-character formatting limit where that limit matters).
FUZZERS ?= exception_fuzz:8192 format_text_fuzz:2048 preprocess_path_fuzz:512 strings_fuzz:512 \
	elf_dependencies_fuzz:4096 plugin_path_fuzz:512
# No suppressions: the suite runs clean under valgrind as it stands.
MEMCHECK_OPTIONS ?= --error-exitcode=1 --leak-check=full --errors-for-leak-kinds=definite \
	--gen-suppressions=all

check:
	@scripts/install-deps check
	$(MAKE) test PRESET=dev
	$(MAKE) test PRESET=clang
	$(MAKE) test PRESET=asan
	$(MAKE) test PRESET=tsan
	$(MAKE) fuzz
	$(MAKE) bench-smoke

# Runs on a copy of the seed corpus in build/fuzz/corpus (it grows there from
# run to run); crash inputs land in build/fuzz/artifacts.
fuzz:
	@scripts/install-deps check
	@cmake --preset fuzz >/dev/null
	@cmake --build --preset fuzz -j $(JOBS)
	@set -e; for entry in $(FUZZERS); do \
	    name=$${entry%%:*}; corpus=build/fuzz/corpus/$$name; \
	    mkdir -p $$corpus build/fuzz/artifacts; \
	    for seeds in tests/fuzz/corpus/$$name build/fuzz/fuzz/seeds/$$name; do \
	        if [ -d $$seeds ]; then cp -n $$seeds/* $$corpus/; fi; \
	    done; \
	    echo "fuzz: $$name for $(FUZZ_SECONDS) s"; \
	    build/fuzz/fuzz/$$name $$corpus -max_total_time=$(FUZZ_SECONDS) \
	        -max_len=$${entry##*:} -timeout=10 -print_final_stats=1 \
	        -artifact_prefix=build/fuzz/artifacts/$$name- 2>build/fuzz/$$name.log \
	        || { tail -n 40 build/fuzz/$$name.log; exit 1; }; \
	    grep -E '^(stat::number_of_executed_units|stat::new_units_added)' build/fuzz/$$name.log; \
	done

memcheck:
	@scripts/install-deps check
	$(MAKE) build PRESET=dev
	ctest --test-dir build/dev -T memcheck -j $(JOBS) --output-on-failure -E '^install\.|Stress' \
	    $(CTEST_ARGS) --overwrite MemoryCheckCommand=$$(command -v valgrind) \
	    --overwrite "MemoryCheckCommandOptions=$(MEMCHECK_OPTIONS)"

# Windows: cross-built with mingw-w64 and run under Wine (scripts/test-windows).
# The first run on a machine also builds Boost for Windows into a cache
# outside the work tree (~/.cache/kestrel); later runs reuse it.
.PHONY: test-windows
test-windows:
	@scripts/install-deps windows
	JOBS=$(JOBS) scripts/test-windows $(CTEST_ARGS)

# ---- benchmarks: kestrel against Boost.Asio, POCO and the standard library ----
# `make bench` installs what is missing, builds the library and bench/ in
# Release under build/bench, runs every workload with interleaved repetitions
# (raw JSON: build/bench/results.json) and prints one table per workload
# (also kept in build/bench/report.txt). See docs/performance.md.
BENCH_DIR := build/bench
BENCH_REPETITIONS ?= 9
BENCH_FLAGS ?=

.PHONY: bench bench-build bench-smoke
bench-build:
	@scripts/install-deps bench
	@cmake -S . -B $(BENCH_DIR) -DCMAKE_BUILD_TYPE=Release -DKESTREL_BUILD_BENCH=ON \
		-DKESTREL_BUILD_TESTS=OFF -DKESTREL_BUILD_EXAMPLES=OFF >/dev/null
	@cmake --build $(BENCH_DIR) -j $(JOBS) --target kestrel-bench

# Every benchmark once at a token size: proves the benchmarks build and run
# (part of `make check`), measures nothing.
bench-smoke: bench-build
	@$(BENCH_DIR)/bin/kestrel-bench --smoke > $(BENCH_DIR)/smoke.txt 2>&1 \
	    || { tail -n 40 $(BENCH_DIR)/smoke.txt; exit 1; }
	@echo "bench-smoke: $$(grep -c '/' $(BENCH_DIR)/smoke.txt) benchmark lines, all ran"

bench: bench-build
	@echo "bench: $(BENCH_REPETITIONS) interleaved repetitions of every workload (a few minutes; load average now: $$(cut -d' ' -f1 /proc/loadavg))"
	@$(BENCH_DIR)/bin/kestrel-bench --benchmark_repetitions=$(BENCH_REPETITIONS) \
		--benchmark_enable_random_interleaving=true \
		--benchmark_out=$(BENCH_DIR)/results.json --benchmark_out_format=json \
		$(BENCH_FLAGS) > $(BENCH_DIR)/console.txt
	@python3 bench/report.py $(BENCH_DIR)/results.json | tee $(BENCH_DIR)/report.txt
