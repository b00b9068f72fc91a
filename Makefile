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

# Windows: cross-built with mingw-w64 and run under Wine (scripts/test-windows).
# The first run on a machine also builds Boost for Windows into a cache
# outside the work tree (~/.cache/kestrel); later runs reuse it.
.PHONY: test-windows
test-windows:
	@scripts/install-deps windows
	JOBS=$(JOBS) scripts/test-windows $(CTEST_ARGS)
