# Thin wrapper over CMake. Each job installs the Debian packages it needs first
# (tools/install-deps.sh), so both commands below work on a fresh machine:
#   make demo   builds only the library and kvrs, then runs the demo
#   make test   builds and runs the whole suite for x86_64 and, when the 32-bit
#               toolchain is present, for i386
# KV_REQUIRE_M32=1 turns a missing 32-bit toolchain into an error (CI sets it).
# Build output goes to BUILD_DIR/build.log; only a failure shows it.
JOBS ?= $(shell nproc)
CMAKE_FLAGS ?=
BUILD := build
QUIET_BUILD = tools/quiet-build.sh

.PHONY: all build test test64 test32 asan demo bench install-check deps-demo deps-test clean

all: build

deps-demo:
	@tools/install-deps.sh demo

deps-test:
	@tools/install-deps.sh test

build: deps-test
	@$(QUIET_BUILD) $(BUILD)/x64 "$(JOBS)" -DCMAKE_BUILD_TYPE=RelWithDebInfo $(CMAKE_FLAGS)

test: test64 test32

test64: build
	cd $(BUILD)/x64 && ctest --output-on-failure -j $(JOBS)

test32: deps-test
	@if echo 'int main(){return 0;}' | $(CXX) -m32 -x c++ - -o /tmp/kv-m32-probe 2>/dev/null; then \
	  $(QUIET_BUILD) $(BUILD)/x86 "$(JOBS)" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DKV_M32=ON $(CMAKE_FLAGS) && \
	  cd $(BUILD)/x86 && ctest --output-on-failure -j $(JOBS); \
	elif [ "$(KV_REQUIRE_M32)" = "1" ]; then \
	  echo "i386 build required but no 32-bit toolchain (apt-get install g++-multilib)"; exit 1; \
	else \
	  echo "SKIPPED the i386 build: no 32-bit toolchain (apt-get install g++-multilib)"; \
	fi

asan: deps-test
	@$(QUIET_BUILD) $(BUILD)/asan "$(JOBS)" -DCMAKE_BUILD_TYPE=Debug -DKV_SANITIZE=ON $(CMAKE_FLAGS)
	cd $(BUILD)/asan && ASAN_OPTIONS=handle_segv=0:handle_sigbus=0:handle_sigfpe=0:handle_sigill=0:detect_leaks=1 \
	  UBSAN_OPTIONS=print_stacktrace=1 ctest --output-on-failure -j $(JOBS)

# The library and the tool only: no tests, benchmarks or fuzzers.
demo: deps-demo
	@$(QUIET_BUILD) $(BUILD)/x64 "$(JOBS)" -DCMAKE_BUILD_TYPE=RelWithDebInfo $(CMAKE_FLAGS) -- --target KvRfrSvr kvrs
	@$(BUILD)/x64/tools/kvrs/kvrs demo

bench: deps-test
	@$(QUIET_BUILD) $(BUILD)/release "$(JOBS)" -DCMAKE_BUILD_TYPE=Release $(CMAKE_FLAGS)
	@if [ -x bench/run.sh ]; then bench/run.sh $(BUILD)/release; else echo "no benchmarks yet"; fi

# Installs into a temporary prefix and builds a consumer against the package.
install-check: deps-test
	tests/install/check_install.sh $(BUILD)/install-check

clean:
	rm -rf $(BUILD)
