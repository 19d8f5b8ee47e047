# From a clean checkout of Debian 12 to something to see: each target installs
# what is missing, builds, and acts.
.DEFAULT_GOAL := test
.PHONY: demo serve test dependencies release

# What a build may be given, for instance CMAKE_OPTIONS=-DTARVIK_WERROR=ON.
CMAKE_OPTIONS ?=
JOBS ?= $(shell nproc)
launcher := $(if $(shell command -v ccache),-DCMAKE_CXX_COMPILER_LAUNCHER=ccache)
export CCACHE_NOHASHDIR := 1
export CCACHE_BASEDIR := $(CURDIR)

# Runs behaviors on a host of its own, says what happens, and ends by itself.
demo: release
	scripts/demo build/release

# The same host, left running, with the address of its page.
serve: release
	scripts/demo build/release --serve

# All tests, then the page in a browser.
test: dependencies
	cmake --preset dev -DTARVIK_BUILD_TESTS=ON -DCMAKE_CXX_FLAGS_DEBUG=-g1 $(launcher) $(CMAKE_OPTIONS)
	cmake --build --preset dev --parallel $(JOBS)
	cd e2e && npm ci --no-fund --no-audit
	ctest --preset dev --parallel $(JOBS)
	cd e2e && TARVIK_BUILD=../build/dev npm test

release: dependencies
	cmake --preset release $(launcher) $(CMAKE_OPTIONS)
	cmake --build --preset release --parallel $(JOBS)

dependencies:
	scripts/install-dependencies
