# SPDX-License-Identifier: Apache-2.0
# oxelnfsd. `make help` lists what there is; every target installs what it needs and builds first.
SHELL := /bin/bash
.SHELLFLAGS := -eu -o pipefail -c
.DEFAULT_GOAL := help
.PHONY: help deps build run test asan tsan check integrity soak fuzz bench bench-scale dashboard package format clean

DIR ?=
PORT ?=
SECONDS ?= 600
FUZZ_SECONDS = $(if $(filter file,$(origin SECONDS)),1200,$(SECONDS))
TARGETS ?=

help: ## List the targets
	@awk -F':.*## ' '/^[a-z-]+:.*## / {printf "  make %-11s %s\n", $$1, $$2}' $(MAKEFILE_LIST)

deps:
	@scripts/install-packages.sh

build: deps ## Build daemon and oxelctl (build/release/bin)
	@cmake --preset release >build/configure-release.log || { cat build/configure-release.log; exit 1; }
	@cmake --build --preset release --target oxelnfsd oxelctl

run: build ## Serve a directory: make run DIR=/some/directory
	@scripts/run.sh "$(DIR)" "$(PORT)"

test: deps ## Everything: unit, wire and system tests of the release build
	@scripts/install-packages.sh package
	@scripts/test.sh release

asan: deps ## The same tests under the address and undefined-behaviour sanitizers
	@scripts/test.sh asan

tsan: deps ## The same tests under the thread sanitizer
	@scripts/test.sh tsan

check: ## Static checks: clang's thread-safety analysis, clang-tidy, cppcheck, shellcheck, style
	@scripts/check.sh

integrity: deps ## Data integrity for long, with all three builds: make integrity SECONDS=600
	@scripts/integrity.sh "$(SECONDS)"

soak: deps ## Hours of everything, with all three builds: make soak SECONDS=1800
	@scripts/install-packages.sh bench || true
	@scripts/soak.sh "$(SECONDS)"

fuzz: deps ## Fuzz for long, or one of the targets: make fuzz SECONDS=1200 TARGETS="calls control"
	@scripts/install-packages.sh fuzz
	@scripts/fuzz.sh "$(FUZZ_SECONDS)" $(TARGETS)

bench: deps ## Measure beside nfs-ganesha and write docs/benchmarks.md: 15 minutes
	@scripts/bench.sh

bench-scale: deps ## Measure with many connections, files and shares: 10 minutes
	@scripts/bench.sh --scale

dashboard: deps ## Draw the Grafana dashboard with real figures (docs/dashboard.png): 2 minutes
	@scripts/dashboard.sh

package: deps ## Make the Debian package (build/package)
	@scripts/install-packages.sh package
	@scripts/package.sh
	@lintian build/package/oxelnfsd_*.changes

format: ## Format the sources
	@git ls-files '*.h' '*.cpp' | xargs clang-format -i

clean: ## Remove build/
	rm -rf build
