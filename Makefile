# Thin wrapper around CMake + Ninja. `make demo` runs the demo, `make test` runs every test.
BUILD ?= build
ASAN_BUILD ?= build-asan
RELEASE_BUILD ?= build-release
FUZZ_BUILD ?= build-fuzz
FUZZ_SECONDS ?= 300
FUZZ_CI_SECONDS ?= 25
JOBS ?= $(shell nproc)

.PHONY: all deps build demo test sanitize release bench converge fuzz fuzz-build fuzz-ci format clean

# Debian packages the build needs; installed when missing (a fresh machine needs nothing by hand).
# clang and libclang-rt-14-dev (the libFuzzer runtime) are for the fuzz targets; liblmdb-dev is
# for the benchmark that weighs LMDB against our shared-memory tables. gobgpd is the BGP speaker
# the bgp adapter and its tests talk to; its API protos come with the -dev package and are
# compiled with protoc and the gRPC plugin.
DEB_PACKAGES := cmake ninja-build g++ libgtest-dev libbenchmark-dev libabsl-dev libedit-dev \
                clang libclang-rt-14-dev liblmdb-dev \
                gobgpd golang-github-osrg-gobgp-dev libgrpc++-dev protobuf-compiler-grpc \
                libprotobuf-dev protobuf-compiler

all: build

deps:
	@missing=$$(for p in $(DEB_PACKAGES); do dpkg -s $$p >/dev/null 2>&1 || echo $$p; done); \
	if [ -n "$$missing" ]; then \
	   echo "installing:" $$missing; \
	   SUDO=$$( [ "$$(id -u)" = 0 ] || echo sudo ); \
	   $$SUDO apt-get update -qq && DEBIAN_FRONTEND=noninteractive $$SUDO apt-get install -y -qq $$missing; \
	fi

$(BUILD)/build.ninja: | deps
	cmake -S . -B $(BUILD) -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo

build: $(BUILD)/build.ninja
	cmake --build $(BUILD) -j $(JOBS)

demo: build
	./$(BUILD)/srte --demo

test: build
	ctest --test-dir $(BUILD) --output-on-failure -j $(JOBS)

$(ASAN_BUILD)/build.ninja: | deps
	cmake -S . -B $(ASAN_BUILD) -G Ninja -DCMAKE_BUILD_TYPE=Debug -DSRTE_SANITIZE=ON -DSRTE_BENCH=OFF

sanitize: $(ASAN_BUILD)/build.ninja
	cmake --build $(ASAN_BUILD) -j $(JOBS)
	ctest --test-dir $(ASAN_BUILD) --output-on-failure -j $(JOBS)

# A packager's build: Release, the library and srte only; installed into a staging prefix, then
# used through its CMake package by a program outside the tree.
release: | deps
	cmake -S . -B $(RELEASE_BUILD) -G Ninja -DCMAKE_BUILD_TYPE=Release -DSRTE_TESTS=OFF -DSRTE_BENCH=OFF
	cmake --build $(RELEASE_BUILD) -j $(JOBS)
	rm -rf $(RELEASE_BUILD)/stage
	cmake --install $(RELEASE_BUILD) --prefix $(CURDIR)/$(RELEASE_BUILD)/stage
	cmake -S tests/package -B $(RELEASE_BUILD)/consumer -G Ninja -DCMAKE_PREFIX_PATH=$(CURDIR)/$(RELEASE_BUILD)/stage
	cmake --build $(RELEASE_BUILD)/consumer
	./$(RELEASE_BUILD)/consumer/consumer
	echo 'show mpls json' | ./$(RELEASE_BUILD)/stage/bin/srte - > /dev/null

# `make bench BENCH_PATHS=1000000` runs the end-to-end benchmark at a million candidate paths.
BENCH_PATHS ?= 100000
bench: build
	./$(BUILD)/platform_bench
	./$(BUILD)/input_bench
	./$(BUILD)/selection_bench
	./$(BUILD)/resolution_bench 10000
	./$(BUILD)/pipeline_bench $(BENCH_PATHS)
	./$(BUILD)/shared_table_bench $(BENCH_PATHS)

# libFuzzer targets under ASan + UBSan (clang): `make fuzz` runs each for FUZZ_SECONDS, `make
# fuzz-ci` for FUZZ_CI_SECONDS; both run every regression input and seed first (tests/fuzz/run.sh).
$(FUZZ_BUILD)/build.ninja: | deps
	cmake -S . -B $(FUZZ_BUILD) -G Ninja -DCMAKE_BUILD_TYPE=Debug -DCMAKE_CXX_COMPILER=clang++ -DSRTE_FUZZ=ON

fuzz-build: $(FUZZ_BUILD)/build.ninja
	cmake --build $(FUZZ_BUILD) -j $(JOBS)

fuzz: fuzz-build
	tests/fuzz/run.sh $(FUZZ_BUILD) $(FUZZ_SECONDS)

fuzz-ci: fuzz-build
	tests/fuzz/run.sh $(FUZZ_BUILD) $(FUZZ_CI_SECONDS)

# The differential convergence check over more seeds than the test suite runs.
converge: build
	./$(BUILD)/converge --seeds 5000 --quiet

format:
	clang-format -i $$(git ls-files '*.h' '*.cpp')

clean:
	rm -rf $(BUILD) $(ASAN_BUILD) $(RELEASE_BUILD) $(FUZZ_BUILD)
