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

.PHONY: all setup build test test-release test-sanitize test-thread ci demo bench bench-peers fuzz install format clean

all: build

setup:
	bash scripts/setup.sh

build: setup
	cmake -S . -B $(RELEASE) $(CMAKE_COMMON) >/dev/null
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

# What CI runs: the test command, the ThreadSanitizer suite and a short fuzz
# smoke run of every harness.
ci: test test-thread
	bash fuzz/run.sh $(BUILD)/fuzz 20

demo: build
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

fuzz: setup
	bash fuzz/run.sh $(BUILD)/fuzz $(FUZZ_SECONDS) $(FUZZ_ONLY)

install: build
	cmake --install $(RELEASE) --prefix $(PREFIX)

format:
	clang-format -i $$(git ls-files '*.cpp' '*.hpp')

clean:
	rm -rf $(BUILD)
