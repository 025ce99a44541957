# The front door. Each verb installs what it needs, as root or with sudo.
#
#   make demo    build, feed the helper a moving picture, watch and record it (INPUT=file or camera)
#   make test    every test, also under AddressSanitizer + UBSan and under ThreadSanitizer
#   make bench   measure conversion and the movie writer beside their physical limits
#   make lint    formatting and static analysis

JOBS ?= $(shell nproc)
OUT ?= out
SECONDS_FED ?= 10

.PHONY: demo test bench lint format dependencies clean

dependencies:
	@scripts/install_dependencies.sh

demo: dependencies
	cmake --preset release >/dev/null
	cmake --build --preset release -j $(JOBS) -t lumora-video lumora-demo lumora-tap
	build/release/tools/lumora-demo build/release/src/lumora-video $(OUT) $(SECONDS_FED)

test: dependencies
	scripts/test.sh $(JOBS)

bench: dependencies
	cmake --preset release >/dev/null
	cmake --build --preset release -j $(JOBS) -t lumora-micro
	mkdir -p $(OUT)
	build/release/bench/lumora-micro --benchmark_out=$(OUT)/micro.json

lint: dependencies
	scripts/lint.sh $(JOBS)

format:
	git ls-files '*.cpp' '*.h' | xargs clang-format -i

clean:
	rm -rf build out
