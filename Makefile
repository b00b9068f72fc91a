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
