# make test   install what is missing, build, run every test under Wine
# make demo   run the plug-in on planted autorun registrations in a fresh prefix
# make bench  build and run the benchmark (figures only, no assertions)
# make scan   scan a Wine prefix (WINEPREFIX, else the demo prefix) with the default rules
# make fuzz   build and run a full fuzz pass (fixed seeds, bounded inputs)
BUILD_DIR ?= build
JOBS ?= $(shell nproc)

.PHONY: all bootstrap configure build test demo bench scan fuzz clean

all: build

bootstrap:
	@bash scripts/bootstrap

configure: bootstrap
	@cmake -S . -B $(BUILD_DIR) -DCMAKE_TOOLCHAIN_FILE=cmake/mingw-i686.cmake >/dev/null

build: configure
	@cmake --build $(BUILD_DIR) -j $(JOBS)

test: build
	@bash scripts/run-tests $(BUILD_DIR)

demo: build
	@bash scripts/demo $(BUILD_DIR)

bench: build
	@bash scripts/bench $(BUILD_DIR)

scan: build
	@bash scripts/scan $(BUILD_DIR)

fuzz: build
	@bash scripts/fuzz $(BUILD_DIR)

clean:
	rm -rf $(BUILD_DIR)
