# Kestrix: top-level entry points. `make demo` and `make test` set up everything they need.
BUILD ?= build
JOBS ?= $(shell nproc)
BUILD_TYPE ?= Release

.PHONY: all deps configure build demo test bench clean

all: build

deps:
	@bash scripts/install-deps.sh

configure: deps
	@cmake -S . -B $(BUILD) -DCMAKE_BUILD_TYPE=$(BUILD_TYPE) >/dev/null

build: configure
	@cmake --build $(BUILD) -j $(JOBS)

# Runs the bundled example application in a scratch copy of examples/demo.
demo: build
	@rm -rf $(BUILD)/demo-run && cp -r examples/demo $(BUILD)/demo-run
	@cd $(BUILD)/demo-run && ../kestrix demo; status=$$?; \
	  echo "kestrix exit status: $$status (1 = good cycle, 0 = failed or stopped)"; \
	  echo "report page: $(BUILD)/demo-run/demo_report.html"

test: build
	@cd $(BUILD) && ctest --output-on-failure -j $(JOBS) --timeout 600

bench: build
	@for b in $(BUILD)/bench/bench_*; do [ -x $$b ] && $$b; done

clean:
	@rm -rf $(BUILD)
