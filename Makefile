# The two commands a newcomer needs:
#   make demo   bootstrap, build, and walk through what Brivet does
#   make test   bootstrap, build with GCC (warnings are errors) and run every test
# Also: make test-asan (Clang, AddressSanitizer + UndefinedBehaviorSanitizer),
#       make test-tsan (Clang, ThreadSanitizer), make bench (all benchmarks),
#       make test-libcxx (Clang, libc++, no exceptions, no RTTI: the whole project and every test),
#       make test-m32 (GCC, 32-bit x86: the libraries, their tests and the small app of both models),
#       make size (what linking Brivet adds to a small app; scripts/size_report.sh),
#       make fuzz (every libFuzzer target for FUZZ_SECONDS each, after replaying its corpus).
BUILD ?= build
JOBS  ?= $(shell nproc)
FUZZ_SECONDS ?= 60
CTEST  = ctest --output-on-failure --no-tests=error -j $(JOBS) --test-dir

.PHONY: all bootstrap build test test-asan test-tsan test-libcxx test-m32 size bench fuzz demo clean

all: build

bootstrap:
	@./scripts/bootstrap.sh

build: bootstrap
	@cmake -S . -B $(BUILD) -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DBRIVET_WERROR=ON >/dev/null
	@cmake --build $(BUILD)

demo: build
	@./$(BUILD)/tools/brivet demo --trace $(BUILD)/brivet-demo-trace.json

test: build
	@$(CTEST) $(BUILD)

test-asan: bootstrap
	@cmake -S . -B build-asan -G Ninja -DCMAKE_CXX_COMPILER=clang++ -DCMAKE_BUILD_TYPE=RelWithDebInfo \
	  -DBRIVET_WERROR=ON -DBRIVET_SANITIZE=address,undefined -DBRIVET_BUILD_BENCHMARKS=OFF >/dev/null
	@cmake --build build-asan
	@$(CTEST) build-asan

test-tsan: bootstrap
	@cmake -S . -B build-tsan -G Ninja -DCMAKE_CXX_COMPILER=clang++ -DCMAKE_BUILD_TYPE=RelWithDebInfo \
	  -DBRIVET_WERROR=ON -DBRIVET_SANITIZE=thread -DBRIVET_BUILD_BENCHMARKS=OFF -DBRIVET_BUILD_TOOLS=OFF >/dev/null
	@cmake --build build-tsan
	@$(CTEST) build-tsan -L tsan

# The toolchain apps build with: libc++, -fno-exceptions, -fno-rtti. googletest is compiled from Debian's source
# package against libc++; the benchmarks (Debian's Google Benchmark is built against libstdc++) are left out.
test-libcxx: bootstrap
	@cmake -S . -B build-libcxx -G Ninja -DCMAKE_CXX_COMPILER=clang++ -DCMAKE_BUILD_TYPE=RelWithDebInfo \
	  -DCMAKE_CXX_FLAGS="-stdlib=libc++ -fno-exceptions -fno-rtti" -DBRIVET_GTEST_SOURCE_DIR=/usr/src/googletest \
	  -DBRIVET_WERROR=ON -DBRIVET_BUILD_BENCHMARKS=OFF >/dev/null
	@cmake --build build-libcxx
	@$(CTEST) build-libcxx

# 32-bit x86 through GCC's multilib: no 32-bit libcurl here, so no adapters or tools. Doubles in SSE registers,
# as on every 32-bit target apps ship (ARM, and x86 Android): the x87 unit's 80-bit intermediates would round
# some decimal numbers twice.
test-m32: bootstrap
	@cmake -S . -B build-m32 -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DCMAKE_CXX_FLAGS="-m32 -msse2 -mfpmath=sse" \
	  -DBRIVET_GTEST_SOURCE_DIR=/usr/src/googletest -DBRIVET_WERROR=ON -DBRIVET_BUILD_BENCHMARKS=OFF \
	  -DBRIVET_BUILD_TOOLS=OFF >/dev/null
	@cmake --build build-m32
	@$(CTEST) build-m32

size: bootstrap
	@./scripts/size_report.sh

bench: bootstrap
	@cmake -S . -B build-release -G Ninja -DCMAKE_BUILD_TYPE=Release -DBRIVET_BUILD_TESTS=OFF >/dev/null
	@cmake --build build-release --target brivet_benchmarks
	@./build-release/brivet_benchmarks $(BENCH_ARGS)

fuzz: bootstrap
	@FUZZ_SECONDS=$(FUZZ_SECONDS) ./scripts/fuzz.sh

clean:
	rm -rf $(BUILD) build-asan build-tsan build-libcxx build-m32 build-size build-release build-fuzz
