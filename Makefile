# Entry points: `make demo`, `make test`, `make bench`, `make fuzz`.
# Every target sets the machine up first (idempotent) and builds out of tree.
BUILD     ?= build
JOBS      ?= $(shell nproc)
FUZZ_SECONDS ?= 60
PREFIX    ?= /usr/local

RELEASE := $(BUILD)/release
SANITIZE := $(BUILD)/asan
THREAD := $(BUILD)/tsan
CMAKE_COMMON := -DCMAKE_BUILD_TYPE=Release

.PHONY: all setup build test test-release test-sanitize test-thread test-arm64 test-arm64-build test-static package ci demo bench bench-peers fuzz install format clean

all: build

# Each target installs only what it uses (scripts/setup.sh JOB...).
setup:
	bash scripts/setup.sh test

# Everything the suite needs in the release tree: library, tool, Python
# module, tests and benchmarks (options given explicitly, so a tree first
# configured by `make demo` gets them).
FULL_TREE := -DVEMOPROC_BUILD_TESTS=ON -DVEMOPROC_BUILD_BENCH=ON -DVEMOPROC_BUILD_TOOLS=ON \
  -DVEMOPROC_BUILD_PYTHON=ON
build: setup
	cmake -S . -B $(RELEASE) $(CMAKE_COMMON) $(FULL_TREE) >/dev/null
	cmake --build $(RELEASE) -j$(JOBS)

# The whole suite twice: optimised, then under AddressSanitizer and
# UndefinedBehaviorSanitizer (any report fails the run).
test: test-release test-sanitize

test-release: build
	ctest --test-dir $(RELEASE) --output-on-failure -j$(JOBS)

test-sanitize: setup
	cmake -S . -B $(SANITIZE) $(CMAKE_COMMON) -DVEMOPROC_SANITIZE=address,undefined \
	  -DVEMOPROC_BUILD_BENCH=OFF >/dev/null
	cmake --build $(SANITIZE) -j$(JOBS)
	ASAN_OPTIONS=detect_leaks=1:halt_on_error=1:abort_on_error=1 \
	UBSAN_OPTIONS=halt_on_error=1:print_stacktrace=1 \
	  ctest --test-dir $(SANITIZE) --output-on-failure -j$(JOBS)

# The suite under ThreadSanitizer; the concurrency tests call every family from
# 8 threads at once. This build also caps decoded images at 8192 pixels a side
# so the cap's own test runs.
test-thread: setup
	cmake -S . -B $(THREAD) $(CMAKE_COMMON) -DVEMOPROC_SANITIZE=thread \
	  -DVEMOPROC_MAX_IMAGE_DIMENSION=8192 -DVEMOPROC_BUILD_BENCH=OFF >/dev/null
	cmake --build $(THREAD) -j$(JOBS)
	TSAN_OPTIONS=halt_on_error=1 ctest --test-dir $(THREAD) --output-on-failure -j$(JOBS)

# The suite cross-built for 64-bit ARM (release) and run under qemu's
# user-mode emulator: GoogleTest is built for arm64 from Debian's source
# package first, then the library, the tool and the tests. Benchmarks, fuzzers
# and the installed-package checks (host programs) are left out.
ARM64 := $(BUILD)/arm64
ARM64_TOOLCHAIN := $(CURDIR)/cmake/toolchain-aarch64.cmake
test-arm64-build:
	bash scripts/setup.sh arm64
	@if [ ! -f $(ARM64)/gtest/prefix/.done ]; then \
	  cmake -S /usr/src/googletest -B $(ARM64)/gtest/build -DCMAKE_BUILD_TYPE=Release \
	    -DCMAKE_TOOLCHAIN_FILE=$(ARM64_TOOLCHAIN) -DCMAKE_INSTALL_PREFIX=$(CURDIR)/$(ARM64)/gtest/prefix >/dev/null && \
	  cmake --build $(ARM64)/gtest/build -j$(JOBS) && \
	  cmake --install $(ARM64)/gtest/build >/dev/null && touch $(ARM64)/gtest/prefix/.done; fi
	cmake -S . -B $(ARM64)/release $(CMAKE_COMMON) -DCMAKE_TOOLCHAIN_FILE=$(ARM64_TOOLCHAIN) \
	  -DCMAKE_PREFIX_PATH=$(CURDIR)/$(ARM64)/gtest/prefix -DVEMOPROC_BUILD_BENCH=OFF >/dev/null
	cmake --build $(ARM64)/release -j$(JOBS)

test-arm64: test-arm64-build
	ctest --test-dir $(ARM64)/release --output-on-failure -j$(JOBS)

# The library as a static archive: its installed CMake package and
# pkg-config file (with the archive's private dependencies) build and run the
# consumer program. Only the library is built.
STATIC := $(BUILD)/static
test-static: setup
	cmake -S . -B $(STATIC) $(CMAKE_COMMON) -DBUILD_SHARED_LIBS=OFF -DVEMOPROC_BUILD_TESTS=ON -DVEMOPROC_BUILD_BENCH=OFF \
	  -DVEMOPROC_BUILD_TOOLS=OFF -DVEMOPROC_BUILD_PYTHON=OFF >/dev/null
	cmake --build $(STATIC) -j$(JOBS) --target vemoproc
	ctest --test-dir $(STATIC) --output-on-failure -R '^installed_package_consumer$$'

# Debian packages (library, headers, CMake package, pkg-config file, tool):
# one for the host architecture from the release build and one for arm64
# from the cross build, copied into $(BUILD)/packages.
package: build test-arm64-build
	cd $(RELEASE) && cpack >/dev/null
	cd $(ARM64)/release && cpack >/dev/null
	mkdir -p $(BUILD)/packages
	cp $(RELEASE)/*.deb $(ARM64)/release/*.deb $(BUILD)/packages/
	@ls $(BUILD)/packages

# What CI runs: the test command, the ThreadSanitizer suite, a short fuzz
# smoke run of every harness, the aarch64 suite under qemu, the static
# library's consumer check and the packages.
ci: test test-thread
	bash fuzz/run.sh $(BUILD)/fuzz 20
	$(MAKE) test-arm64 test-static package

# The demo needs only the library and the tool: no test or benchmark
# packages, and nothing else is built.
demo:
	bash scripts/setup.sh demo
	cmake -S . -B $(RELEASE) $(CMAKE_COMMON) -DVEMOPROC_BUILD_TESTS=OFF -DVEMOPROC_BUILD_BENCH=OFF \
	  -DVEMOPROC_BUILD_PYTHON=OFF -DVEMOPROC_BUILD_TOOLS=ON >/dev/null
	cmake --build $(RELEASE) -j$(JOBS) --target vemoproc_cli
	$(RELEASE)/tools/vemoproc demo

bench: build
	@for b in yolo_bench vision_bench dia_bench streamer_bench; do \
	  echo "== $$b"; $(RELEASE)/bench/$$b --benchmark_counters_tabular=true || exit 1; done

# The same work with this library and with OpenCV, in one process, and each
# stage's ratio. Installs OpenCV on first use; not part of test or ci.
PEERS := $(BUILD)/peers
bench-peers: setup
	bash scripts/setup_peers.sh
	cmake -S . -B $(PEERS) $(CMAKE_COMMON) -DVEMOPROC_BUILD_PEER_BENCH=ON \
	  -DVEMOPROC_BUILD_TESTS=OFF -DVEMOPROC_BUILD_TOOLS=OFF >/dev/null
	cmake --build $(PEERS) -j$(JOBS) --target peers_bench
	$(PEERS)/bench/peers/peers_bench --benchmark_repetitions=5 --benchmark_report_aggregates_only=true

fuzz:
	bash fuzz/run.sh $(BUILD)/fuzz $(FUZZ_SECONDS) $(FUZZ_ONLY)

install: build
	cmake --install $(RELEASE) --prefix $(PREFIX)

format:
	clang-format -i $$(git ls-files '*.cpp' '*.hpp')

clean:
	rm -rf $(BUILD)
