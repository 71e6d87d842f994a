# Thin front end over CMake. `make demo` and `make test` are all a new machine needs.
JOBS     ?= $(shell nproc)
PREFIX   ?= /usr/local
FUZZ_SECONDS ?= 30
CMAKE_FLAGS ?=
BUILD_TYPE ?= RelWithDebInfo

configure = cmake -S . -B $(1) -DCMAKE_BUILD_TYPE=$(2) -DQUIB_WERROR=ON $(CMAKE_FLAGS)

.PHONY: all build demo test bench asan tsan fuzz install format clean

all: build

build:
	@scripts/bootstrap
	$(call configure,build,$(BUILD_TYPE)) >/dev/null
	cmake --build build -j $(JOBS)

demo: build
	./build/tools/quib demo

test: build
	ctest --test-dir build --output-on-failure -j $(JOBS)

bench:
	@scripts/bootstrap bench
	$(call configure,build-bench,Release) -DQUIB_BUILD_TESTS=OFF -DQUIB_BENCH_PEERS=ON >/dev/null
	cmake --build build-bench -j $(JOBS)
	scripts/run-benchmarks build-bench

asan:
	@scripts/bootstrap
	$(call configure,build-asan,Debug) -DQUIB_SANITIZE=address,undefined -DQUIB_BUILD_BENCH=OFF >/dev/null
	cmake --build build-asan -j $(JOBS)
	ASAN_OPTIONS=detect_leaks=1 UBSAN_OPTIONS=print_stacktrace=1 \
	  ctest --test-dir build-asan --output-on-failure -j $(JOBS)

tsan:
	@scripts/bootstrap
	$(call configure,build-tsan,RelWithDebInfo) -DQUIB_SANITIZE=thread -DQUIB_BUILD_BENCH=OFF \
	  -DQUIB_BUILD_EXAMPLES=OFF -DQUIB_BUILD_TOOLS=OFF >/dev/null
	cmake --build build-tsan -j $(JOBS) --target quib_tsan_tests
	ctest --test-dir build-tsan --output-on-failure -j $(JOBS) -L tsan

fuzz:
	@scripts/bootstrap fuzz
	CXX=clang++ CC=clang $(call configure,build-fuzz,RelWithDebInfo) -DQUIB_BUILD_FUZZ=ON \
	  -DQUIB_BUILD_TESTS=OFF -DQUIB_BUILD_BENCH=OFF -DQUIB_BUILD_EXAMPLES=OFF -DQUIB_BUILD_TOOLS=OFF >/dev/null
	cmake --build build-fuzz -j $(JOBS)
	scripts/run-fuzzers build-fuzz $(FUZZ_SECONDS)

install: build
	cmake --install build --prefix $(PREFIX)

format:
	@scripts/bootstrap
	git ls-files -- include src tests tools examples bench fuzz | grep -E '\.(cpp|hpp)$$' | xargs clang-format -i

clean:
	rm -rf build build-bench build-asan build-tsan build-fuzz
