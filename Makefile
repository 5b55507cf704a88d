# Set-up, build and test entry points. Run as root on Debian: missing packages
# are installed with apt-get first, so a fresh machine needs only `make`.

BUILD_DIR ?= build
JOBS ?= $(shell nproc 2>/dev/null || echo 2)
DATA_ROOT ?= var

# Debian packages the build and the tests need.
PACKAGES := g++ cmake make pkg-config libenet-dev libgtest-dev libcli11-dev libsystemd-dev libcpp-httplib-dev libsodium-dev faketime dpkg-dev file python3-yaml

.PHONY: all deps deps-sanitize build build-server run test test-asan fuzz soak install deb clean bench replay-screenshot promtool

FUZZ_SECONDS ?= 30

PREFIX ?= /usr/local

all: build

deps:
	@missing=""; \
	for p in $(PACKAGES); do \
	  dpkg-query -W -f='$${Status}' $$p 2>/dev/null | grep -q "install ok installed" || missing="$$missing $$p"; \
	done; \
	if [ -n "$$missing" ]; then \
	  echo "Installing:$$missing"; \
	  if [ "$$(id -u)" -ne 0 ]; then echo "Run as root to install:$$missing" >&2; exit 1; fi; \
	  DEBIAN_FRONTEND=noninteractive apt-get update -q && \
	  DEBIAN_FRONTEND=noninteractive apt-get install -y -q --no-install-recommends $$missing; \
	fi

build: deps
	cmake -S . -B $(BUILD_DIR) -DCMAKE_BUILD_TYPE=RelWithDebInfo
	cmake --build $(BUILD_DIR) -j $(JOBS)

# A ready data root: the server runs from inside it, so its data root is "./".
# The example configuration is copied once; later edits to it are kept.
$(DATA_ROOT)/server_data:
	mkdir -p $(DATA_ROOT)/server_data/update_data $(DATA_ROOT)/server_data/announcements

# The example configuration and limits (the limits file is all comments
# showing the defaults, so it changes nothing until edited).
$(DATA_ROOT)/settings/%:
	mkdir -p $(DATA_ROOT)/settings
	cp packaging/example/settings/$* $@

# Only the server: the tests, tools and fuzzers are built by `make test`.
build-server: deps
	cmake -S . -B $(BUILD_DIR) -DCMAKE_BUILD_TYPE=RelWithDebInfo
	cmake --build $(BUILD_DIR) -j $(JOBS) --target lockstep-server

run: build-server $(DATA_ROOT)/server_data $(DATA_ROOT)/settings/server.config $(DATA_ROOT)/settings/limits.conf
	@echo "lockstep-server: the port is the first line of $(DATA_ROOT)/settings/server.config; stop with Ctrl+C"
	cd $(DATA_ROOT) && exec ../$(BUILD_DIR)/lockstep-server

test: build promtool
	cd $(BUILD_DIR) && ctest --output-on-failure -j $(JOBS) --timeout 300

# promtool, for the tests of the alert rules in deploy/prometheus, taken out
# of Debian's prometheus package into $(BUILD_DIR)/deploy-tools rather than
# installing the package, which would also start a Prometheus server on the
# machine. When it cannot be had, the rules' test is skipped.
promtool:
	@if command -v promtool >/dev/null 2>&1 || [ -x $(BUILD_DIR)/deploy-tools/promtool ]; then exit 0; fi; \
	mkdir -p $(BUILD_DIR)/deploy-tools/prometheus-deb && cd $(BUILD_DIR)/deploy-tools/prometheus-deb && \
	{ apt-get download -q prometheus >/dev/null 2>&1 || \
	  { [ "$$(id -u)" -eq 0 ] && DEBIAN_FRONTEND=noninteractive apt-get update -q >/dev/null && apt-get download -q prometheus >/dev/null 2>&1; }; } && \
	dpkg-deb --fsys-tarfile prometheus_*.deb | tar -x ./usr/bin/promtool && mv usr/bin/promtool ../promtool && \
	cd .. && rm -rf prometheus-deb || { echo "promtool could not be fetched; the alert rules' test is skipped" >&2; rm -rf $(BUILD_DIR)/deploy-tools/prometheus-deb; }

# The sanitizer builds use clang and its runtimes.
SANITIZE_PACKAGES := clang libclang-rt-14-dev

deps-sanitize: deps
	@$(MAKE) --no-print-directory deps PACKAGES="$(SANITIZE_PACKAGES)"

# Every test under AddressSanitizer and UndefinedBehaviorSanitizer, then the
# log writer's tests under ThreadSanitizer.
test-asan: deps-sanitize
	cmake -S . -B build-asan -DCMAKE_BUILD_TYPE=RelWithDebInfo -DCMAKE_CXX_COMPILER=clang++ -DLOCKSTEP_SANITIZE=ON
	cmake --build build-asan -j $(JOBS)
	cd build-asan && ASAN_OPTIONS=detect_leaks=1:abort_on_error=1 UBSAN_OPTIONS=halt_on_error=1:print_stacktrace=1 \
	  ctest --output-on-failure -j $(JOBS) --timeout 300 -E '^install\.'
	cmake -S . -B build-tsan -DCMAKE_BUILD_TYPE=RelWithDebInfo -DCMAKE_CXX_COMPILER=clang++ -DLOCKSTEP_TSAN_ONLY=ON
	cmake --build build-tsan -j $(JOBS) --target log_tests
	cd build-tsan && TSAN_OPTIONS=halt_on_error=1 ./tests/log_tests

# Every fuzz target under libFuzzer for FUZZ_SECONDS each.
fuzz: deps-sanitize
	cmake -S . -B build-fuzz -DCMAKE_BUILD_TYPE=RelWithDebInfo -DCMAKE_CXX_COMPILER=clang++ -DLOCKSTEP_FUZZ=ON -DLOCKSTEP_TESTS=OFF
	cmake --build build-fuzz -j $(JOBS)
	fuzz/run_fuzz.sh $(CURDIR)/build-fuzz $(FUZZ_SECONDS)

# The churn soak: SOAK_PEERS clients that join, play, leave, disconnect, go
# silent and send junk for SOAK_SECONDS, against the sanitizer build of the
# server (configured as for test-asan). See tools/soak/run_soak.sh.
SOAK_SECONDS ?= 600
SOAK_PEERS ?= 1024
soak: deps-sanitize
	cmake -S . -B build-asan -DCMAKE_BUILD_TYPE=RelWithDebInfo -DCMAKE_CXX_COMPILER=clang++ -DLOCKSTEP_SANITIZE=ON
	cmake --build build-asan -j $(JOBS) --target lockstep-server soak
	tools/soak/run_soak.sh build-asan $(SOAK_SECONDS) $(SOAK_PEERS)

# The server against the bare relay under the same loads (docs/benchmarks.md).
# REPEAT runs each load that often and keeps the least-steal run per side;
# BENCH_ARGS passes further options, for example BENCH_ARGS="--seconds 30".
REPEAT ?= 1
BENCH_ARGS ?=
bench: build
	bench/run_bench.sh --build $(BUILD_DIR) --repeat $(REPEAT) $(BENCH_ARGS)

# The page `lockstep-replay html` writes, as headless Chromium renders it, in
# $(BUILD_DIR)/match.png: the recording FILE, or without one the synthetic
# match of the replay tool's tests. Not part of `make test`; chromium is
# installed for this target only.
FILE ?=
REPLAY_INPUT = $(if $(FILE),$(FILE),$(abspath $(BUILD_DIR))/replay_sample.rec)
replay-screenshot: deps
	@$(MAKE) --no-print-directory deps PACKAGES="chromium"
	cmake -S . -B $(BUILD_DIR) -DCMAKE_BUILD_TYPE=RelWithDebInfo
	cmake --build $(BUILD_DIR) -j $(JOBS) --target replay replay_sample
	$(if $(FILE),,$(BUILD_DIR)/replay_sample $(REPLAY_INPUT))
	$(BUILD_DIR)/lockstep-replay html "$(REPLAY_INPUT)" > $(BUILD_DIR)/match.html || [ $$? -eq 1 ]
	chromium --headless --no-sandbox --disable-gpu --hide-scrollbars --window-size=1100,1400 \
	  --screenshot=$(abspath $(BUILD_DIR))/match.png file://$(abspath $(BUILD_DIR))/match.html
	@echo "replay-screenshot: $(BUILD_DIR)/match.png"

# Honours PREFIX and DESTDIR.
install: build
	DESTDIR=$(DESTDIR) cmake --install $(BUILD_DIR) --prefix $(PREFIX)

# The package's binary is stripped; its debug symbols are kept beside it in
# build/lockstep-server.debug (found by gdb through the build ID).
deb: build
	cd $(BUILD_DIR) && cpack -G DEB
	objcopy --only-keep-debug $(BUILD_DIR)/lockstep-server $(BUILD_DIR)/lockstep-server.debug

clean:
	rm -rf $(BUILD_DIR)
