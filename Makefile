# The two commands that matter: `make run` and `make test`.
BUILD ?= build
BUILD_TYPE ?= RelWithDebInfo
JOBS ?= $(shell nproc)
MODEL ?= gnx234
# A drive past platforms at known positions for the emulator (sim/scenarios/NAME.json), e.g. drive.
SCENARIO ?=

.PHONY: all deps configure build run test test-asan bench fuzz fuzz-long soak screenshot basemap package package-check clean

all: build

deps:
	@scripts/install-deps.sh

configure: deps
	@cmake -S . -B $(BUILD) -DCMAKE_BUILD_TYPE=$(BUILD_TYPE) >/dev/null

build: configure
	@cmake --build $(BUILD) -j $(JOBS)

run: build
	@scripts/run.sh $(BUILD) $(MODEL) $(SCENARIO)

test: build
	@cd $(BUILD) && QT_QPA_PLATFORM=offscreen ctest --output-on-failure -j $(JOBS)

package: build
	@cd $(BUILD) && cpack >/dev/null && ls orvia-gonio-manager_*.deb

package-check: package
	@scripts/package-check.sh $(BUILD)

# The suite under AddressSanitizer and UndefinedBehaviorSanitizer, leaks included, in its own tree.
test-asan: deps
	@cmake -S . -B $(BUILD)-asan -DCMAKE_BUILD_TYPE=Debug -DOGM_SANITIZE=ON -DOGM_WITH_BENCH=OFF >/dev/null
	@cmake --build $(BUILD)-asan -j $(JOBS)
	@cd $(BUILD)-asan && QT_QPA_PLATFORM=offscreen \
		ASAN_OPTIONS=detect_leaks=1:abort_on_error=1 \
		LSAN_OPTIONS=suppressions=$(CURDIR)/scripts/sanitizers.supp:print_suppressions=0 \
		UBSAN_OPTIONS=halt_on_error=1:print_stacktrace=1 \
		ctest --output-on-failure -j $(JOBS) --timeout 600

bench: build
	@scripts/bench.sh $(BUILD)

fuzz: deps
	@scripts/fuzz.sh

# Each fuzz target for a million executions (not in CI: it takes about an hour).
fuzz-long: deps
	@FUZZ_RUNS=1000000 scripts/fuzz.sh

# The core against the emulator, a live report every 10 ms, for SOAK_MIN minutes (not in CI).
SOAK_MIN ?= 10
soak: build
	@$(BUILD)/bin/ogm_soak $(SOAK_MIN)

screenshot: build
	@scripts/screenshot.sh $(BUILD) $(MODEL)

# The Bearings map's world basemap, from Debian's copy of NASA's Blue Marble (docs/bearings.md).
basemap: deps
	@mkdir -p $(BUILD)/Data && scripts/make-basemap.sh $(BUILD)/Data/basemap.mbtiles

clean:
	@rm -rf $(BUILD) $(BUILD)-asan fuzz-build
