# The two commands a newcomer needs:
#   make demo   bootstrap, build, and walk through what Brivet does
#   make test   bootstrap, build with GCC (warnings are errors) and run every test
# Also: make test-asan (Clang, AddressSanitizer + UndefinedBehaviorSanitizer),
#       make test-tsan (Clang, ThreadSanitizer), make bench (all benchmarks),
#       make fuzz (every libFuzzer target for FUZZ_SECONDS each, after replaying its corpus).
BUILD ?= build
JOBS  ?= $(shell nproc)
FUZZ_SECONDS ?= 60
CTEST  = ctest --output-on-failure --no-tests=error -j $(JOBS) --test-dir

.PHONY: all bootstrap build test test-asan test-tsan bench fuzz demo clean

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

bench: bootstrap
	@cmake -S . -B build-release -G Ninja -DCMAKE_BUILD_TYPE=Release -DBRIVET_BUILD_TESTS=OFF >/dev/null
	@cmake --build build-release --target brivet_benchmarks
	@./build-release/brivet_benchmarks $(BENCH_ARGS)

fuzz: bootstrap
	@FUZZ_SECONDS=$(FUZZ_SECONDS) ./scripts/fuzz.sh

clean:
	rm -rf $(BUILD) build-asan build-tsan build-release build-fuzz
