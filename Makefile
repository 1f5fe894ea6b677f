# The two commands a newcomer needs: `make run` and `make test`. Everything else is optional.
PRESET ?= default
BUILD := build/$(PRESET)
HOST_ARGS ?=

.PHONY: run test build setup asan tsan fuzz bench clean

setup:
	@./scripts/setup.sh

build: setup
	@cmake --preset $(PRESET) >/dev/null
	@cmake --build --preset $(PRESET)

# Runs the host: with a window where there is a display, headless otherwise.
run: build
	$(BUILD)/apps/corvane-host/corvane-host $(HOST_ARGS)

test: build
	ctest --preset $(PRESET)

asan:
	@$(MAKE) --no-print-directory test PRESET=asan

tsan:
	@$(MAKE) --no-print-directory test PRESET=tsan

# libFuzzer targets for a bounded time each: make fuzz SECONDS=60
fuzz: setup
	./scripts/fuzz.sh $(SECONDS)

bench: setup
	./scripts/bench.sh

clean:
	rm -rf build
