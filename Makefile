# Front door: `make demo` and `make test` on a fresh Debian 12 machine.
.PHONY: all deps build demo test test-asan test-tsan fuzz fuzz-smoke bench format clean soak interop

JOBS ?= 2
DEMO_DIR ?= $(CURDIR)/out/demo

all: build

deps:
	@scripts/setup-deps.sh

build: deps
	cmake --preset release >/dev/null
	cmake --build --preset release -j $(JOBS)

demo: build
	@scripts/demo.sh build/release/tools/vaporix/vaporix "$(DEMO_DIR)"

# All tests, built with AddressSanitizer and UBSan.
test: deps
	cmake --preset ci >/dev/null
	cmake --build --preset ci -j $(JOBS)
	ctest --preset ci
	$(MAKE) --no-print-directory fuzz-smoke

test-tsan: deps
	cmake --preset tsan >/dev/null
	cmake --build --preset tsan -j $(JOBS)
	ctest --preset tsan

fuzz: deps
	cmake --preset fuzz >/dev/null
	cmake --build --preset fuzz -j $(JOBS)

# A short run of each libFuzzer target from its seeds (part of `make test`).
FUZZ_SECONDS ?= 10
fuzz-smoke: deps
	cmake --preset fuzz >/dev/null
	cmake --build --preset fuzz -j $(JOBS) --target fuzz_all
	scripts/fuzz-smoke.sh build/fuzz $(FUZZ_SECONDS)

# Two threads sharing frames for a few minutes, under TSan and then under ASan (not in `make test`).
SOAK_SECONDS ?= 120
soak: deps
	cmake --preset tsan >/dev/null
	cmake --build --preset tsan -j $(JOBS) --target vaporix_soak
	build/tsan/tests/soak/vaporix_soak $(SOAK_SECONDS)
	cmake --preset ci >/dev/null
	cmake --build --preset ci -j $(JOBS) --target vaporix_soak
	build/ci/tests/soak/vaporix_soak $(SOAK_SECONDS)

# Benchmarks: setup-deps.sh --bench adds what only they compare against.
bench:
	@scripts/setup-deps.sh --bench
	cmake --preset release >/dev/null
	cmake --build --preset release -j $(JOBS)
	@for b in build/release/bench/vaporix_*_bench; do [ -x "$$b" ] && "$$b"; done; true

# A converted .vdb imported and rendered by Debian's blender (installs it; not part of `make test`).
interop: build
	tests/interop/blender_interop.sh build/release/tools/vaporix/vaporix

format:
	git ls-files '*.h' '*.cpp' | xargs clang-format -i

clean:
	rm -rf build out
