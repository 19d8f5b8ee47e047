# From a clean checkout of Debian 12 to something to see: each target installs
# what is missing, builds, and acts. One optimized build serves them all.
.DEFAULT_GOAL := test
.PHONY: demo serve test programs

# What a build may be given, for instance CMAKE_OPTIONS=-DTARVIK_WERROR=ON.
CMAKE_OPTIONS ?=
JOBS ?= $(shell nproc)

# Runs behaviors on a host of its own, says what happens, and ends by itself.
demo: programs
	scripts/demo build/release

# The same host, left running, with the address of its page.
serve: programs
	scripts/demo build/release --serve

# All tests, then the page in a browser.
test:
	scripts/install-dependencies
	scripts/build release all -DTARVIK_BUILD_TESTS=ON $(CMAKE_OPTIONS)
	ctest --preset release --parallel $(JOBS)
	cd e2e && npm ci --no-fund --no-audit && TARVIK_BUILD=../build/release npm test

# Command line, host and modules.
programs:
	scripts/install-dependencies build
	scripts/build release programs $(CMAKE_OPTIONS)
