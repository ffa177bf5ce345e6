# The two commands of the README, plus bench and install. Every target first installs
# whatever Debian packages are missing, so a fresh machine needs nothing but make.

BUILD      ?= build
BUILD_SAN  ?= build-sanitize
BUILD_REL  ?= build-release
BUILD_TSAN ?= build-tsan
BUILD_FUZZ ?= build-fuzz
FUZZ_SECONDS ?= 600
FUZZ_TARGETS := $(patsubst tests/fuzz/%.cpp,%,$(wildcard tests/fuzz/*_fuzz.cpp))
JOBS       ?= $(shell nproc)
PREFIX     ?= /usr/local
CMAKE_ARGS ?=

PACKAGES := g++ cmake make pkg-config python3 binutils \
            googletest libgtest-dev libbenchmark-dev \
            zlib1g-dev libbz2-dev libbrotli-dev libzstd-dev libavro-dev libjansson-dev python3-avro \
            libcli11-dev nlohmann-json3-dev libfmt-dev \
            bzip2 brotli zstd pigz time \
            python3-dev python3-pybind11 python3-numpy python3-xarray python3-pytest \
            python3-dask python3-distributed

SUDO := $(shell [ "$$(id -u)" -eq 0 ] || echo sudo)

.PHONY: all deps build build-sanitize build-release test test-threads fuzz demo bench install clean

all: build

deps:
	@missing=""; for p in $(PACKAGES); do \
	  dpkg -s $$p >/dev/null 2>&1 || missing="$$missing $$p"; \
	done; \
	if [ -n "$$missing" ]; then \
	  echo "Installing:$$missing"; \
	  $(SUDO) apt-get update -qq && \
	  DEBIAN_FRONTEND=noninteractive $(SUDO) apt-get install -y -qq --no-install-recommends $$missing; \
	fi

# The developer builds treat warnings as errors; a plain `cmake` configure does not.
$(BUILD)/CMakeCache.txt: | deps
	cmake -S . -B $(BUILD) -DCMAKE_BUILD_TYPE=RelWithDebInfo -DNVBDLL_WERROR=ON -DNVBDLL_BUILD_PYTHON=ON $(CMAKE_ARGS)

$(BUILD_SAN)/CMakeCache.txt: | deps
	cmake -S . -B $(BUILD_SAN) -DCMAKE_BUILD_TYPE=Debug -DNVBDLL_SANITIZE=ON -DNVBDLL_WERROR=ON \
	  -DNVBDLL_BUILD_BENCH=OFF $(CMAKE_ARGS)

$(BUILD_REL)/CMakeCache.txt: | deps
	cmake -S . -B $(BUILD_REL) -DCMAKE_BUILD_TYPE=Release -DNVBDLL_WERROR=ON -DNVBDLL_BUILD_PYTHON=ON \
	  -DNVBDLL_BUILD_BENCH=OFF $(CMAKE_ARGS)

build: deps $(BUILD)/CMakeCache.txt
	cmake --build $(BUILD) -j $(JOBS)

build-sanitize: deps $(BUILD_SAN)/CMakeCache.txt
	cmake --build $(BUILD_SAN) -j $(JOBS)

build-release: deps $(BUILD_REL)/CMakeCache.txt
	cmake --build $(BUILD_REL) -j $(JOBS)

# The whole suite three times: a normal build, one under ASan and UBSan, and the
# optimised Release build a packager makes.
test: build build-sanitize build-release
	ctest --test-dir $(BUILD) --output-on-failure -j $(JOBS)
	ASAN_OPTIONS=detect_leaks=1:abort_on_error=1 UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 \
	  ctest --test-dir $(BUILD_SAN) --output-on-failure -j $(JOBS)
	ctest --test-dir $(BUILD_REL) --output-on-failure -j $(JOBS)

# Writers and readers in parallel threads, under ThreadSanitizer.
test-threads: deps
	cmake -S . -B $(BUILD_TSAN) -DCMAKE_BUILD_TYPE=Debug -DNVBDLL_TSAN=ON -DNVBDLL_BUILD_BENCH=OFF \
	  -DNVBDLL_BUILD_TOOLS=OFF $(CMAKE_ARGS)
	cmake --build $(BUILD_TSAN) -j $(JOBS) --target nvbdll_tests
	TSAN_OPTIONS=halt_on_error=1 ctest --test-dir $(BUILD_TSAN) --output-on-failure -R '^Threads\.'

# Each libFuzzer target for FUZZ_SECONDS from its saved corpus, with the library itself
# instrumented; clang and its runtimes come from Debian.
fuzz: deps
	@$(MAKE) --no-print-directory deps PACKAGES="clang libclang-rt-14-dev"
	cmake -S . -B $(BUILD_FUZZ) -DCMAKE_BUILD_TYPE=RelWithDebInfo -DCMAKE_C_COMPILER=clang \
	  -DCMAKE_CXX_COMPILER=clang++ -DNVBDLL_FUZZ=ON -DNVBDLL_BUILD_BENCH=OFF -DNVBDLL_BUILD_TOOLS=OFF $(CMAKE_ARGS)
	cmake --build $(BUILD_FUZZ) -j $(JOBS) --target $(FUZZ_TARGETS)
	./scripts/fuzz.sh $(BUILD_FUZZ) $(FUZZ_SECONDS)

demo: build
	./scripts/demo.sh $(BUILD)

bench: build
	./scripts/bench.sh $(BUILD)

install: build
	cmake --install $(BUILD) --prefix $(PREFIX)

clean:
	rm -rf $(BUILD) $(BUILD_SAN) $(BUILD_REL) $(BUILD_TSAN) $(BUILD_FUZZ)
