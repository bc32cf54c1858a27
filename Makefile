# Thin wrapper over the CMake presets. `make test` is the one command that
# builds everything and runs every test; `make demo` builds only the library,
# tvreg and the examples, then runs the example server; `make install` builds
# only what it installs.
JOBS ?= $(shell nproc)
PROGRAMS = tvreg tvdemo first_program

.PHONY: all dev release asan tsan fuzz test test-asan test-tsan bench demo install mutate format clean

all: dev

dev release asan tsan fuzz:
	cmake --preset $@ >/dev/null
	cmake --build --preset $@ -j $(JOBS)

test: dev
	ctest --preset dev -j $(JOBS)

test-asan: asan
	ctest --preset asan -j $(JOBS)

test-tsan: tsan
	ctest --preset tsan -j $(JOBS)

bench: release
	@for b in build/release/bench/bench_*; do echo "== $$b"; $$b; done

# Plants each fault of cmake/mutants.txt in turn, rebuilds and runs the tests
# that should notice it, then restores the source; prints "killed K of N".
# Not part of `make test`: it takes about a minute per fault.
mutate: dev
	python3 cmake/mutate.py --build build/dev

# The dev build directory, so that a later `make test` reuses these objects.
demo:
	cmake --preset dev >/dev/null
	cmake --build --preset dev -j $(JOBS) --target $(PROGRAMS)
	@bash examples/run_demo.sh build/dev

# A build directory of its own without tests or benchmarks, so an install
# compiles the library, tvreg and the examples and nothing else.
install:
	cmake -S . -B build/install -G Ninja -DCMAKE_BUILD_TYPE=Release \
	  -DTV_BUILD_TESTS=OFF -DTV_BUILD_BENCH=OFF >/dev/null
	cmake --build build/install -j $(JOBS)
	cmake --install build/install --prefix $(or $(PREFIX),/usr/local)

format:
	git ls-files '*.cpp' '*.h' | xargs clang-format -i

clean:
	rm -rf build
