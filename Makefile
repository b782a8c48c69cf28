# The two commands that do everything on a fresh Debian machine: `make run` and `make test`.

BUILD      ?= build
ASAN_BUILD ?= build-asan
JOBS       ?= $(shell nproc)
CMAKE      := cmake -G Ninja -DMKA_WERROR=ON

.PHONY: all deps build build-asan test run bench format format-check clean

all: build

deps:
	@scripts/install-deps.sh

build: deps
	@$(CMAKE) -S . -B $(BUILD) -DCMAKE_BUILD_TYPE=RelWithDebInfo > /dev/null
	@cmake --build $(BUILD) -j $(JOBS)

build-asan: deps
	@$(CMAKE) -S . -B $(ASAN_BUILD) -DCMAKE_BUILD_TYPE=Debug -DMKA_SANITIZE=ON > /dev/null
	@cmake --build $(ASAN_BUILD) -j $(JOBS)

test: format-check build build-asan
	ctest --test-dir $(BUILD) --output-on-failure -j $(JOBS)
	ctest --test-dir $(ASAN_BUILD) --output-on-failure -j $(JOBS)

run: build
	$(BUILD)/mka-runtime-demo

bench: build
	$(BUILD)/mka_bench

SOURCES = $(shell git ls-files '*.h' '*.cpp' 2>/dev/null || find platform model mkpdu mka config hw tests bench tools -name '*.h' -o -name '*.cpp')

format: deps
	@clang-format -i $(SOURCES)

format-check: deps
	@clang-format --dry-run --Werror $(SOURCES)

clean:
	rm -rf $(BUILD) $(ASAN_BUILD)
