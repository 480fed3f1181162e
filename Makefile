# Thin wrapper around CMake + Ninja. `make demo` runs the demo, `make test` runs every test.
BUILD ?= build
ASAN_BUILD ?= build-asan
JOBS ?= $(shell nproc)

.PHONY: all build demo test sanitize bench format clean

all: build

$(BUILD)/build.ninja:
	cmake -S . -B $(BUILD) -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo

build: $(BUILD)/build.ninja
	cmake --build $(BUILD) -j $(JOBS)

demo: build
	./$(BUILD)/srte --demo

test: build
	ctest --test-dir $(BUILD) --output-on-failure -j $(JOBS)

$(ASAN_BUILD)/build.ninja:
	cmake -S . -B $(ASAN_BUILD) -G Ninja -DCMAKE_BUILD_TYPE=Debug -DSRTE_SANITIZE=ON -DSRTE_BENCH=OFF

sanitize: $(ASAN_BUILD)/build.ninja
	cmake --build $(ASAN_BUILD) -j $(JOBS)
	ctest --test-dir $(ASAN_BUILD) --output-on-failure -j $(JOBS)

bench: build
	./$(BUILD)/platform_bench
	./$(BUILD)/input_bench

format:
	clang-format -i $$(git ls-files '*.h' '*.cpp')

clean:
	rm -rf $(BUILD) $(ASAN_BUILD)
