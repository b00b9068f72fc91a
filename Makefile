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
	@if [ -x build/$(PRESET)/bin/kestrel-demo ]; then build/$(PRESET)/bin/kestrel-demo; \
	else echo "the demo program is not part of this build yet"; fi

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

# ---- benchmarks: kestrel against Boost.Asio, POCO and the standard library ----
# `make bench` installs what is missing, builds the library and bench/ in
# Release under build/bench, runs every workload with interleaved repetitions
# (raw JSON: build/bench/results.json) and prints one table per workload
# (also kept in build/bench/report.txt). See docs/performance.md.
BENCH_DIR := build/bench
BENCH_REPETITIONS ?= 9
BENCH_FLAGS ?=

.PHONY: bench bench-build
bench-build:
	@scripts/install-deps bench
	@cmake -S . -B $(BENCH_DIR) -DCMAKE_BUILD_TYPE=Release -DKESTREL_BUILD_BENCH=ON \
		-DKESTREL_BUILD_TESTS=OFF -DKESTREL_BUILD_EXAMPLES=OFF >/dev/null
	@cmake --build $(BENCH_DIR) -j $(JOBS) --target kestrel-bench

bench: bench-build
	@echo "bench: $(BENCH_REPETITIONS) interleaved repetitions of every workload (a few minutes; load average now: $$(cut -d' ' -f1 /proc/loadavg))"
	@$(BENCH_DIR)/bin/kestrel-bench --benchmark_repetitions=$(BENCH_REPETITIONS) \
		--benchmark_enable_random_interleaving=true \
		--benchmark_out=$(BENCH_DIR)/results.json --benchmark_out_format=json \
		$(BENCH_FLAGS) > $(BENCH_DIR)/console.txt
	@python3 bench/report.py $(BENCH_DIR)/results.json | tee $(BENCH_DIR)/report.txt
