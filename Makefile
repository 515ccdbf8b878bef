# Thin wrapper around CMake for the everyday commands.
JOBS ?= 2
BUILD ?= build
EXAMPLE ?= examples/scene.zeltha
# CI sets WERROR=ON: a warning anywhere fails the build there.
WERROR ?= OFF
# Seconds each fuzz target runs in `make fuzz-smoke`.
FUZZ_SECONDS ?= 30

.PHONY: all build run test test-asan test-tsan fuzz fuzz-smoke bench clean

all: build

build:
	cmake -S . -B $(BUILD) -DCMAKE_BUILD_TYPE=Release -DOSTREVIK_WERROR=$(WERROR)
	cmake --build $(BUILD) -j$(JOBS)

run: build
	./$(BUILD)/ostrevik-server --root examples $(EXAMPLE)

test: build
	cd $(BUILD) && ctest --output-on-failure -j$(JOBS)

test-asan:
	cmake -S . -B build-asan -DCMAKE_BUILD_TYPE=RelWithDebInfo -DOSTREVIK_SANITIZE=ON -DOSTREVIK_WERROR=$(WERROR)
	cmake --build build-asan -j$(JOBS)
	cd build-asan && ASAN_OPTIONS=detect_leaks=1 UBSAN_OPTIONS=print_stacktrace=1 ctest --output-on-failure -j$(JOBS)

# The server's threads (HTTP transport, dispatch lock) under ThreadSanitizer.
test-tsan:
	cmake -S . -B build-tsan -DCMAKE_BUILD_TYPE=RelWithDebInfo -DOSTREVIK_TSAN=ON -DOSTREVIK_WERROR=$(WERROR)
	cmake --build build-tsan -j$(JOBS) --target server_tests ostrevik-server
	cd build-tsan/tests && TSAN_OPTIONS=halt_on_error=1 ./server_tests

fuzz:
	CC=clang CXX=clang++ cmake -S . -B build-fuzz -DCMAKE_BUILD_TYPE=RelWithDebInfo \
	  -DOSTREVIK_SANITIZE=ON -DOSTREVIK_BUILD_FUZZ=ON -DOSTREVIK_BUILD_TESTS=OFF \
	  -DOSTREVIK_WERROR=$(WERROR) -DCMAKE_CXX_FLAGS=-fsanitize=fuzzer-no-link
	cmake --build build-fuzz -j$(JOBS)

# Every fuzz target for a short while over its committed seeds; new finds go to a scratch corpus.
fuzz-smoke: fuzz
	sh fuzz/smoke.sh build-fuzz/fuzz fuzz/corpus $(FUZZ_SECONDS)

bench:
	cmake -S . -B build-bench -DCMAKE_BUILD_TYPE=Release -DOSTREVIK_BUILD_BENCH=ON -DOSTREVIK_BUILD_TESTS=OFF \
	  -DOSTREVIK_WERROR=$(WERROR)
	cmake --build build-bench -j$(JOBS)

clean:
	rm -rf build build-asan build-tsan build-fuzz build-bench
