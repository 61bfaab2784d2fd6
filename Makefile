# The two commands that matter: `make run` and `make test`.
BUILD ?= build
BUILD_TYPE ?= RelWithDebInfo
JOBS ?= $(shell nproc)
MODEL ?= gnx234

.PHONY: all deps configure build run test bench fuzz screenshot package package-check clean

all: build

deps:
	@scripts/install-deps.sh

configure: deps
	@cmake -S . -B $(BUILD) -DCMAKE_BUILD_TYPE=$(BUILD_TYPE) >/dev/null

build: configure
	@cmake --build $(BUILD) -j $(JOBS)

run: build
	@scripts/run.sh $(BUILD) $(MODEL)

test: build
	@cd $(BUILD) && QT_QPA_PLATFORM=offscreen ctest --output-on-failure -j $(JOBS)

package: build
	@cd $(BUILD) && cpack >/dev/null && ls orvia-gonio-manager_*.deb

package-check: package
	@scripts/package-check.sh $(BUILD)

bench: build
	@scripts/bench.sh $(BUILD)

fuzz: deps
	@scripts/fuzz.sh

screenshot: build
	@scripts/screenshot.sh $(BUILD) $(MODEL)

clean:
	@rm -rf $(BUILD) fuzz-build
