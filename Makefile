# The one door to the project: `make help` lists what is behind it. CMake and its presets do the work.

JOBS ?= $(shell nproc)
FUZZ_SECONDS ?= 60
CONFIGURE ?=
PREFIX ?= /usr/local
PACKAGES := packaging/install-packages.sh

# What is shipped, without what tests it: quicker to build, and it needs fewer packages.
define BUILD_PRODUCT
cmake --preset release -B build/product -DDISKSTREAM_BUILD_TESTS=OFF -DDISKSTREAM_BUILD_BENCH=OFF
cmake --build build/product -j $(JOBS)
endef

.PHONY: help demo test bench asan windows test-windows x86 coverage fuzz format format-check lint install clean
.DEFAULT_GOAL := help

help: ## This list
	@awk -F ':.*## ' '/^[a-z0-9-]+:.*## / { printf "  make %-13s %s\n", $$1, $$2 }' Makefile

demo: ## Build the command and show what it does
	@$(PACKAGES) build demo
	$(BUILD_PRODUCT)
	packaging/demo.sh build/product/tool/diskstream

test: ## Build and run all tests
	@$(PACKAGES) build test
	cmake --preset dev $(CONFIGURE)
	cmake --build --preset dev -j $(JOBS)
	ctest --preset dev -j $(JOBS) --output-junit ctest.xml

asan: ## Run all tests under AddressSanitizer and UndefinedBehaviorSanitizer
	@$(PACKAGES) build test
	cmake --preset asan $(CONFIGURE)
	cmake --build --preset asan -j $(JOBS)
	ctest --preset asan -j $(JOBS) --output-junit ctest.xml

x86: ## Run the core's tests as a 32-bit program
	@$(PACKAGES) x86
	cmake --preset x86
	cmake --build --preset x86 -j $(JOBS)
	ctest --preset x86 -j $(JOBS) --output-junit ctest.xml

windows: ## Cross-build the core and its tests for Windows
	@$(PACKAGES) windows
	cmake --preset windows $(CONFIGURE)
	cmake --build --preset windows -j $(JOBS)

test-windows: windows ## Run the core's tests for Windows under Wine, where it can be installed
	@rm -rf build/windows/gtest
	@if $(PACKAGES) wine; then \
		tests/wine/with-wine.sh "$(CURDIR)/build/wine" ctest --preset windows -j $(JOBS) --output-junit ctest.xml; \
		result=$$?; .ci/count-tests build/windows; exit $$result; \
	else \
		echo "The tests for Windows are skipped: Wine can't be installed on this machine."; \
	fi

bench: ## Measure, and compare with programs that do the same
	@$(PACKAGES) build test bench
	cmake --preset release
	cmake --build --preset release -j $(JOBS) --target core_bench --target make_dynamic_disks --target diskstream_tool \
		--target metadata_bench --target counting_treestore
	build/release/bench/core_bench
	bench/compare.sh build/release/tool/diskstream
	bench/compare-reads.sh build/release/tool/diskstream build/release/bench/make_dynamic_disks
	bench/compare-files.sh build/release/tool/diskstream
	bench/compare-catalog.sh build/release
	bench/compare-nbd.sh build/release/tool/diskstream

fuzz: ## Run each fuzz target for FUZZ_SECONDS (60)
	@$(PACKAGES) build fuzz
	cmake --preset fuzz $(CONFIGURE)
	cmake --build --preset fuzz -j $(JOBS)
	fuzz/run.sh build/fuzz $(FUZZ_SECONDS) $(JOBS)

coverage: ## Say which lines the tests reach
	@$(PACKAGES) build test coverage
	cmake --preset coverage
	cmake --build --preset coverage -j $(JOBS)
	ctest --preset coverage -j $(JOBS)
	gcovr -r . build/coverage -e 'tests/' -e 'fuzz/' --print-summary

format: ## Lay out the sources
	@$(PACKAGES) lint
	.ci/check-format --fix

format-check: ## Say which sources are not laid out
	@$(PACKAGES) lint
	.ci/check-format

lint: ## Check includes, wording and what clang-tidy sees; LINT=quick without its analyzer
	@$(PACKAGES) build test lint
	.ci/check-includes
	.ci/check-words
	cmake --preset dev -B build/lint -DCMAKE_DISABLE_PRECOMPILE_HEADERS=ON -DDISKSTREAM_UNITE=ON -DDISKSTREAM_UNITE_TESTS=OFF
	.ci/check-tidy build/lint $(JOBS) $(LINT)

install: ## Install below PREFIX (/usr/local)
	@$(PACKAGES) build
	$(BUILD_PRODUCT)
	cmake --install build/product --prefix $(PREFIX)

clean: ## Remove everything built
	rm -rf build
