# Thin wrapper around CMake for the everyday commands.
JOBS ?= 2
BUILD ?= build
EXAMPLE ?= examples/scene.zeltha

.PHONY: all build run test test-asan fuzz bench clean

all: build

build:
	cmake -S . -B $(BUILD) -DCMAKE_BUILD_TYPE=Release
	cmake --build $(BUILD) -j$(JOBS)

run: build
	./$(BUILD)/ostrevik-server --root examples $(EXAMPLE)

test: build
	cd $(BUILD) && ctest --output-on-failure -j$(JOBS)

test-asan:
	cmake -S . -B build-asan -DCMAKE_BUILD_TYPE=RelWithDebInfo -DOSTREVIK_SANITIZE=ON
	cmake --build build-asan -j$(JOBS)
	cd build-asan && ASAN_OPTIONS=detect_leaks=1 UBSAN_OPTIONS=print_stacktrace=1 ctest --output-on-failure -j$(JOBS)

fuzz:
	CC=clang CXX=clang++ cmake -S . -B build-fuzz -DCMAKE_BUILD_TYPE=RelWithDebInfo \
	  -DOSTREVIK_SANITIZE=ON -DOSTREVIK_BUILD_FUZZ=ON -DOSTREVIK_BUILD_TESTS=OFF \
	  -DCMAKE_CXX_FLAGS=-fsanitize=fuzzer-no-link
	cmake --build build-fuzz -j$(JOBS)

bench:
	cmake -S . -B build-bench -DCMAKE_BUILD_TYPE=Release -DOSTREVIK_BUILD_BENCH=ON -DOSTREVIK_BUILD_TESTS=OFF
	cmake --build build-bench -j$(JOBS)

clean:
	rm -rf build build-asan build-fuzz build-bench
