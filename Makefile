# The project's commands. Each works from nothing on Debian 12, as root or with sudo: what it needs of
# packaging/debian-packages is installed first.
#
#   make demo      builds, fills a registry from examples/ and shows a whole database configuration
#   make demo-cluster   the same in a cluster of three members on this machine, one of which dies
#   make cluster   builds with the module for registries in an etcd cluster
#   make test      builds and runs the whole test suite
#   make check     the gate: gate-static, test and gate-tests
#   make bench     the benchmarks
#   make bench-picture   measures commands over registries of growing size: docs/scaling.svg and its table
#   make test-page   drives the page of "keyviewctl report" in a browser; docs/report*.png
#   make board-picture   records the board at a terminal: docs/board.cast and its pictures
#   make test-serve   "keyviewctl serve" against its limits of time, and mutated requests for a minute
#   make wheel     the Python package as build/wheel/keyview-*.whl
#   make install   DESTDIR= PREFIX=/usr/local
#   make packages  the Debian packages: build/packages
#   make test-packages   installs, uses and removes them in a Debian of its own; the container of the tool
#   make soak      SECONDS=3600, all operations on both engines; nothing may be held on to (docs/soak.md)
#   make fuzz      SECONDS=60, each target of the guided fuzzer for so long; PLANTED=--planted: each finds a fault
#   make histories   MINUTES=30 ACQUISITIONS=200000 SEED=1: clients of a cluster under faults, their histories
#                  checked; needs root
#   make coverage  what the tests reach of src/, in lines and conditions, against the goals of its rooms
#   make mutation  MUTANTS="--sample 200 --seed 1", else all: the library, the locks and the fencing, changed
#                  in one place at a time; a test must notice
#   make sbom      what the products are built from, as SPDX: build/keyview.spdx
#   make format    formats the sources
#   make docs      writes what docs/ say of fields and operations from the tool and prsr.h

PREFIX ?= /usr/local
DESTDIR ?=
MINUTES ?= 30
ACQUISITIONS ?= 200000
SEED ?= 1
MUTANTS ?=
BUILD := build

.PHONY: docs all demo demo-cluster cluster test check gate-static gate-tests test-page test-serve bench bench-picture board-picture wheel install packages test-packages fuzz histories soak coverage mutation sbom format clean

all:
	@packaging/install-packages build
	@cmake --preset release >/dev/null
	@cmake --build $(BUILD)/release

cluster:
	@packaging/install-packages build cluster
	@cmake --preset release -DKEYVIEW_CLUSTER=ON >/dev/null
	@cmake --build $(BUILD)/release

demo: all
	@examples/demo $(BUILD)/release

demo-cluster: cluster
	@packaging/install-packages members
	@examples/demo-cluster $(BUILD)/release

test:
	@packaging/install-packages build cluster members test
	@cmake --preset release -DKEYVIEW_TESTS=ON -DKEYVIEW_CLUSTER=ON >/dev/null
	@cmake --build $(BUILD)/release
	@ctest --test-dir $(BUILD)/release --output-on-failure -j4

check: gate-static test gate-tests

gate-static:
	@packaging/install-packages build cluster members test check
	@packaging/gate static

gate-tests:
	@packaging/install-packages build cluster members test check
	@packaging/gate tests

test-page:
	@packaging/install-packages build page
	@cmake --preset release >/dev/null
	@cmake --build $(BUILD)/release
	@/usr/bin/python3 tests/ctl/browser_test.py $(BUILD)/release/bin/keyviewctl examples/cluster.json docs/schemas \
		$(BUILD) docs

test-serve:
	@packaging/install-packages build cluster members test
	@cmake --preset release -DKEYVIEW_CLUSTER=ON >/dev/null
	@cmake --build $(BUILD)/release
	@/usr/bin/python3 tests/ctl/serve_test.py $(BUILD)/release/bin/keyviewctl examples/cluster.json docs/schemas --long

bench:
	@packaging/install-packages build cluster members bench
	@cmake --preset release -DKEYVIEW_BENCH=ON -DKEYVIEW_CLUSTER=ON >/dev/null
	@cmake --build $(BUILD)/release
	@status=0; \
	bench/library-cost $(BUILD)/release || status=1; \
	$(BUILD)/release/bin/keyview_bench || status=1; \
	$(BUILD)/release/bin/cluster_bench || status=1; \
	bench/tool-latency $(BUILD)/release || status=1; \
	exit $$status

bench-picture:
	@packaging/install-packages build cluster members bench
	@cmake --preset release -DKEYVIEW_BENCH=ON -DKEYVIEW_CLUSTER=ON >/dev/null
	@cmake --build $(BUILD)/release
	@bench/scaling-picture $(BUILD)/release

board-picture: all
	@packaging/install-packages test
	@docs/record-board $(BUILD)/release/bin/keyviewctl

install:
	@packaging/install-packages build cluster python
	@cmake --preset release -DKEYVIEW_CLUSTER=ON -DKEYVIEW_PYTHON=ON >/dev/null
	@cmake --build $(BUILD)/release
	@DESTDIR=$(DESTDIR) cmake --install $(BUILD)/release --prefix $(PREFIX)

packages:
	@packaging/install-packages build cluster packages
	@packaging/build-packages $(BUILD)/packages

test-packages:
	@packaging/install-packages test-packages
	@packaging/test-packages $(BUILD)/packages

fuzz: SECONDS ?= 60
fuzz:
	@packaging/install-packages build cluster members test check
	@cmake --preset fuzz -DKEYVIEW_CLUSTER=ON >/dev/null
	@cmake --build $(BUILD)/fuzz --target guided
	@packaging/fuzz $(PLANTED) $(BUILD)/fuzz $(SECONDS)

soak: SECONDS ?= 3600
soak:
	@packaging/install-packages build cluster members test
	@cmake --preset release -DKEYVIEW_TESTS=ON -DKEYVIEW_CLUSTER=ON >/dev/null
	@cmake --build $(BUILD)/release --target soak
	@for leak in descriptor thread block file key history lock lease watch; do \
		echo "a planted leak: $$leak"; \
		$(BUILD)/release/bin/soak --plant $$leak 3 || exit 1; \
	done
	@$(BUILD)/release/bin/soak $(SECONDS)

histories:
	@packaging/install-packages build cluster members test
	@cmake --preset release -DKEYVIEW_TESTS=ON -DKEYVIEW_CLUSTER=ON >/dev/null
	@cmake --build $(BUILD)/release --target histories_client histories_changes fencing rivals
	@/usr/bin/python3 fuzz/histories/report.py $(BUILD)/release fuzz/histories/report.md --seed=$(SEED) \
		--seconds=$$(($(MINUTES) * 60)) --acquisitions=$(ACQUISITIONS)

coverage:
	@packaging/install-packages build cluster members test coverage
	@cmake --preset coverage >/dev/null
	@cmake --build $(BUILD)/coverage
	@packaging/coverage $(BUILD)/coverage

mutation:
	@packaging/install-packages build cluster members test
	@fuzz/mutation $(BUILD)/mutation $(MUTANTS)

sbom: cluster
	@packaging/sbom $(BUILD)/release >$(BUILD)/keyview.spdx

wheel:
	@packaging/install-packages python wheel
	@cd python && /usr/bin/python3 -c \
		"from setuptools.build_meta import build_wheel as build; print(build('../$(BUILD)/wheel'))"

docs: all
	@docs/generate $(BUILD)/release/bin/keyviewctl

format:
	@packaging/install-packages check
	@git ls-files -co --exclude-standard '*.cpp' '*.h' '*.hpp' '*.c' | xargs clang-format -i

clean:
	@rm -rf $(BUILD)
