# Short commands for people; CMake presets do the work.
#   make demo        install what is missing, build, run the demo
#   make test        install what is missing, build and run the tests (host)
#   make test-asan   the tests under AddressSanitizer + UndefinedBehaviorSanitizer
#   make test-tsan   the threaded tests under ThreadSanitizer
#   make test-armhf  cross build for the camera, tests under qemu-arm-static
#   make bench       the benchmarks (optimised build)
#   make fuzz        build the fuzz targets and run each briefly (FUZZ_SECONDS)

JOBS ?= $(shell nproc)
FUZZ_SECONDS ?= 20
DEPS = scripts/install-deps

.PHONY: all deps demo test test-asan test-tsan test-armhf bench fuzz release clean

all: release

deps:
	@$(DEPS)

define build
	cmake --preset $(1) >/dev/null
	cmake --build --preset $(1) -j $(JOBS)
endef

release: deps
	$(call build,release)

demo: deps
	$(call build,release)
	@scripts/demo build/release

test: deps
	$(call build,dev)
	ctest --preset dev -j $(JOBS)

test-asan: deps
	$(call build,asan)
	ctest --preset asan -j $(JOBS)

test-tsan: deps
	$(call build,tsan)
	ctest --preset tsan -j $(JOBS)

test-armhf: deps
	$(call build,armhf)
	ctest --preset armhf -j $(JOBS)

bench: deps
	$(call build,bench)
	@scripts/run-benchmarks build/bench

fuzz: deps
	$(call build,fuzz)
	@scripts/run-fuzzers build/fuzz $(FUZZ_SECONDS)

clean:
	rm -rf build
