# Front door: `make demo` and `make test` on a fresh Debian 12 machine.
.PHONY: all deps build demo test test-asan test-tsan fuzz fuzz-smoke bench format clean

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
FUZZ_SECONDS ?= 20
fuzz-smoke: deps
	cmake --preset fuzz >/dev/null
	cmake --build --preset fuzz -j $(JOBS) --target fuzz_sg_decoder fuzz_vxg_reader fuzz_frame_list fuzz_blend
	scripts/fuzz-smoke.sh build/fuzz $(FUZZ_SECONDS)

# Benchmarks also install what they compare against (OpenVDB); build and test never need it.
bench:
	@scripts/setup-deps.sh --bench
	cmake --preset release >/dev/null
	cmake --build --preset release -j $(JOBS)
	@for b in build/release/bench/vaporix_*_bench; do [ -x "$$b" ] && "$$b"; done; true

format:
	git ls-files '*.h' '*.cpp' | xargs clang-format -i

clean:
	rm -rf build out
