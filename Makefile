# Thin wrapper over the CMake presets. `make test` is the one command that
# builds everything and runs every test; `make demo` runs the example server.
JOBS ?= $(shell nproc)

.PHONY: all dev release asan tsan fuzz test test-asan test-tsan bench demo install format clean

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

demo: dev
	@bash examples/run_demo.sh build/dev

install: release
	cmake --install build/release --prefix $(or $(PREFIX),/usr/local)

format:
	git ls-files '*.cpp' '*.h' | xargs clang-format -i

clean:
	rm -rf build
