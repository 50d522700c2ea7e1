# Thin wrapper over CMake. `make test` builds and runs the whole suite for x86_64
# and, when the 32-bit toolchain is present, for i386. `make demo` runs the demo.
# KV_REQUIRE_M32=1 turns a missing 32-bit toolchain into an error (CI sets it).
JOBS ?= $(shell nproc)
CMAKE_FLAGS ?=
BUILD := build

.PHONY: all build test test64 test32 asan demo bench install-check clean

all: build

build:
	cmake -S . -B $(BUILD)/x64 -DCMAKE_BUILD_TYPE=RelWithDebInfo $(CMAKE_FLAGS)
	cmake --build $(BUILD)/x64 -j $(JOBS)

test: test64 test32

test64: build
	cd $(BUILD)/x64 && ctest --output-on-failure -j $(JOBS)

test32:
	@if echo 'int main(){return 0;}' | $(CXX) -m32 -x c++ - -o /tmp/kv-m32-probe 2>/dev/null; then \
	  cmake -S . -B $(BUILD)/x86 -DCMAKE_BUILD_TYPE=RelWithDebInfo -DKV_M32=ON $(CMAKE_FLAGS) && \
	  cmake --build $(BUILD)/x86 -j $(JOBS) && \
	  cd $(BUILD)/x86 && ctest --output-on-failure -j $(JOBS); \
	elif [ "$(KV_REQUIRE_M32)" = "1" ]; then \
	  echo "i386 build required but no 32-bit toolchain (apt-get install g++-multilib)"; exit 1; \
	else \
	  echo "SKIPPED the i386 build: no 32-bit toolchain (apt-get install g++-multilib)"; \
	fi

asan:
	cmake -S . -B $(BUILD)/asan -DCMAKE_BUILD_TYPE=Debug -DKV_SANITIZE=ON $(CMAKE_FLAGS)
	cmake --build $(BUILD)/asan -j $(JOBS)
	cd $(BUILD)/asan && ASAN_OPTIONS=handle_segv=0:handle_sigbus=0:handle_sigfpe=0:handle_sigill=0:detect_leaks=1 \
	  UBSAN_OPTIONS=print_stacktrace=1 ctest --output-on-failure -j $(JOBS)

demo: build
	$(BUILD)/x64/tools/kvrs/kvrs demo

bench:
	cmake -S . -B $(BUILD)/release -DCMAKE_BUILD_TYPE=Release $(CMAKE_FLAGS)
	cmake --build $(BUILD)/release -j $(JOBS)
	@if [ -x bench/run.sh ]; then bench/run.sh $(BUILD)/release; else echo "no benchmarks yet"; fi

# Installs into a temporary prefix and builds a consumer against the package.
install-check:
	tests/install/check_install.sh $(BUILD)/install-check

clean:
	rm -rf $(BUILD)
