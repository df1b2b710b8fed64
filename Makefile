# Short commands for people; CMake presets do the work. Each target installs
# only the dependency group it needs (scripts/install-deps GROUP).
#   make demo        install what is missing, build the library, tools and examples, run the demo
#   make test        install what is missing, build and run the tests (host)
#   make test-asan   the tests under AddressSanitizer + UndefinedBehaviorSanitizer
#   make test-tsan   the threaded tests under ThreadSanitizer
#   make test-armhf  cross build for the camera, tests under qemu-arm-static
#   make bench       the benchmarks (optimised build); with the armhf chain
#                    installed also MD5's and start-up's instructions under qemu
#   make fuzz        build the fuzz targets and run each briefly (FUZZ_SECONDS)
#   make style       fail on code that clang-format would change or clang-tidy flags
#   make lint-locks  build the library, tools and examples with clang's lock analysis as errors
#   make deb         Debian packages for amd64 and armhf under build/deb/<arch>/

JOBS ?= $(shell nproc)
FUZZ_SECONDS ?= 20
DEPS = scripts/install-deps
MAKEFLAGS += --no-print-directory

.PHONY: all deps demo test test-asan test-tsan test-armhf bench fuzz release deb style lint-locks clean

all: release

deps:
	@$(DEPS)

define build
	cmake --preset $(1) >/dev/null
	cmake --build --preset $(1) -j $(JOBS)
endef

release:
	@$(DEPS) test
	$(call build,release)

demo:
	@$(DEPS) demo
	@KELO_JOBS=$(JOBS) scripts/demo --build

test:
	@$(DEPS) test
	$(call build,dev)
	ctest --preset dev -j $(JOBS)

style:
	@$(DEPS) test
	cmake --preset dev >/dev/null
	@scripts/check-style build/dev

# What each lock guards and the registry-before-queue order, checked by
# clang's -Wthread-safety (and -beta, for the order) with -Werror.
lint-locks:
	@$(DEPS) test
	$(call build,lint-locks)

test-asan:
	@$(DEPS) test
	$(call build,asan)
	ctest --preset asan -j $(JOBS)

test-tsan:
	@$(DEPS) test
	$(call build,tsan)
	ctest --preset tsan -j $(JOBS)

test-armhf:
	@$(DEPS) test armhf
	$(call build,armhf)
	ctest --preset armhf -j $(JOBS)

# The armhf counts (MD5's instructions per byte, start-up's instructions to
# the first loop iteration in startup_bench) need the cross tool chain, qemu
# and the armhf OpenSSL (scripts/install-deps bench-armhf, tried once and
# allowed to fail); make bench skips them when one is missing.
ARMHF_READY = command -v arm-linux-gnueabihf-g++ >/dev/null && command -v qemu-arm-static >/dev/null && \
  test -e /usr/lib/arm-linux-gnueabihf/libcrypto.a

bench:
	@$(DEPS) bench
	@$(DEPS) bench-armhf || echo "bench: the armhf OpenSSL could not be installed"
	$(call build,bench)
	@if $(ARMHF_READY); then \
	  cmake --preset bench-armhf >/dev/null && cmake --build --preset bench-armhf -j $(JOBS); \
	else echo "bench: armhf instruction counts skipped (scripts/install-deps bench-armhf installs what they need)"; fi
	@scripts/run-benchmarks build/bench
	@if $(ARMHF_READY); then scripts/arm-insns build/bench-armhf; fi

fuzz:
	@$(DEPS) fuzz
	$(call build,fuzz)
	@scripts/run-fuzzers build/fuzz $(FUZZ_SECONDS)

# Each architecture builds from its own copy of the tree, so the packages
# land in build/deb/<arch>/ and the two builds never share an obj- directory.
# The native build runs the tests; the cross build cannot (nocheck).
DEB_ARCHES ?= amd64 armhf
DEB_NATIVE := $(shell dpkg --print-architecture 2>/dev/null)
deb:
	@scripts/install-deps --packaging
	@set -e; for arch in $(DEB_ARCHES); do \
	  dir=build/deb/$$arch; rm -rf $$dir; mkdir -p $$dir/kelo-util; \
	  tar --exclude=./build --exclude=./.git --exclude='./obj-*' -cf - . | tar -xf - -C $$dir/kelo-util; \
	  if [ "$$arch" = "$(DEB_NATIVE)" ]; then \
	    (cd $$dir/kelo-util && dpkg-buildpackage -us -uc -b -j$(JOBS)); \
	  else \
	    profiles=cross,nocheck; \
	    if ! dpkg-query -W -f='$${Status}' libedit-dev:$$arch 2>/dev/null | grep -q 'ok installed'; then \
	      echo "deb: libedit-dev:$$arch is not installed: kelo-agent for $$arch without line editing (see debian/control)"; \
	      profiles=$$profiles,pkg.kelo-util.noedit; \
	    fi; \
	    (cd $$dir/kelo-util && DEB_BUILD_OPTIONS=nocheck dpkg-buildpackage -us -uc -b -j$(JOBS) \
	       -a$$arch -P$$profiles); \
	  fi; \
	  lintian --fail-on error $$dir/*.changes; \
	  rm -rf $$dir/kelo-util; ls -l $$dir/*.deb; \
	done

clean:
	rm -rf build
