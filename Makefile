# Two entry points: `make run` and `make test`. Everything they need is
# installed from Debian packages by scripts/install-deps.sh first.
BUILD_DIR ?= build
BUILD_TYPE ?= Release
PORT ?= 8880
# The node listens on loopback unless told otherwise (BIND=0.0.0.0 exposes it;
# see README before doing so).
BIND ?= 127.0.0.1
DATA_DIR ?= $(CURDIR)/var
JOBS ?= $(shell nproc)
# Most tests wait on sockets and timers, so twice as many run at once as there are cores.
TEST_JOBS ?= $(shell echo $$(( $$(nproc) * 2 )))
# Relative paths in ccache's hashes let fresh clones reuse the cache.
export CCACHE_BASEDIR := $(CURDIR)

# Seconds of new inputs per fuzz target for `make fuzz`.
FUZZ_S ?= 60

.PHONY: all deps configure build run test bench sanitize fuzz crash-sweep soak format clean

all: build

deps:
	@bash scripts/install-deps.sh

configure: deps
	@if [ ! -f $(BUILD_DIR)/build.ninja ]; then \
	  cmake -S . -B $(BUILD_DIR) -G Ninja -DCMAKE_BUILD_TYPE=$(BUILD_TYPE); \
	fi

build: configure
	@cmake --build $(BUILD_DIR) -j $(JOBS)

run: build
	@mkdir -p $(DATA_DIR)
	$(BUILD_DIR)/ostrel-ulvo --modules-d=$(CURDIR)/modules.d --data-dir=$(DATA_DIR) \
	  --bind=$(BIND) --port=$(PORT) \
	  --config-set data.embedding_model=ulvo-hash-embed-v1 \
	  --config-set edge.controller_url=http://127.0.0.1:$(PORT) $(RUN_ARGS)

# The suite, then every fuzz target over its committed corpus and a few
# seconds of new inputs (so a crash found once stays a regression case).
test: build
	@cd $(BUILD_DIR) && ctest --output-on-failure -j $(TEST_JOBS) --timeout 300
	@JOBS=$(JOBS) bash scripts/fuzz.sh 3

# Kill -9 sweeps of every store: ROUNDS rounds each (make test runs 2).
ROUNDS ?= 40
crash-sweep: build
	@OSTREL_CRASH_ROUNDS=$(ROUNDS) $(BUILD_DIR)/tests/crash_sweep_tests

# A mixed load at 70% of the measured peak for SOAK_S seconds (not in CI).
SOAK_S ?= 600
soak: build
	@bash scripts/soak.sh $(SOAK_S) $(BUILD_DIR)

# Every fuzz target for FUZZ_S seconds of new inputs (clang, libFuzzer, ASan,
# UBSan; build tree build-fuzz/).
fuzz: deps
	@JOBS=$(JOBS) bash scripts/fuzz.sh $(FUZZ_S)

# Every benchmark, each printing its figure as a ratio to a same-run baseline.
bench: build
	@bash bench/run.sh $(BUILD_DIR)
	@bash bench/inference_overhead.sh $(BUILD_DIR)
	@bash bench/router_overhead.sh $(BUILD_DIR)
	@bash bench/auth_overhead.sh $(BUILD_DIR)
	@bash bench/cluster_convergence.sh $(BUILD_DIR)
	@for b in gateway_bench gguf_bench chunk_store_bench metering_bench vector_search_bench matrix_memory_bench data_bench search_bench audit_bench agent_bench edge_bench auth_metrics_bench; do \
	  $(BUILD_DIR)/bench/$$b; \
	done

# ASan+UBSan (SANITIZE=address) or TSan (SANITIZE=thread) build of the tests.
SANITIZE ?= address
sanitize: deps
	@cmake -S . -B build-$(SANITIZE) -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo \
	  -DOSTREL_SANITIZE=$(SANITIZE) -DOSTREL_BUILD_BENCH=OFF
	@cmake --build build-$(SANITIZE) -j $(JOBS)
	@cd build-$(SANITIZE) && TSAN_OPTIONS="suppressions=$(CURDIR)/tests/tsan.supp $$TSAN_OPTIONS" \
	  ctest --output-on-failure -j $(JOBS) --timeout 600

format:
	@git ls-files '*.cpp' '*.h' | xargs clang-format -i

clean:
	@rm -rf $(BUILD_DIR)
