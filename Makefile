# The main commands. Each installs its dependencies, as root or with sudo.
#
#   make demo           build, feed a moving picture, watch and record it (INPUT=file or camera; FRAMES=pipe)
#   make view           show the same picture live in a browser, with a button to record
#   make test           run every test; the C++ ones also under AddressSanitizer + UBSan and ThreadSanitizer
#   make bench          compare the helper with other tools and with its encoders alone, write
#                       $(OUT)/bench.json and draw two charts (50 minutes, or 20 with ROUNDS=1)
#   make fuzz           run the fuzzers (MINUTES for each)
#   make soak           start and end takes and clients at random for MINUTES, and feed frames at
#                       full speed
#   make losses         show how much of a take is lost by kills, power cuts, bad disks and
#                       other faults (6 minutes)
#   make long-take      show what grows in a take of two hours. The helper's clock runs SPEED times
#                       as fast as the real one (12 minutes with SPEED=10, the default)
#   make sound-sync     show how far sound is from the picture in takes of MINUTES (at least 2),
#                       for sound devices with right and wrong clocks. The helper's clock runs SPEED
#                       times as fast as the real one (half an hour with MINUTES=120 SPEED=20)
#   make lint           check formatting, includes and the list of errors in
#                       docs/troubleshooting.md, run static analysis
#   make package        build Debian packages into build/release/packages, check them with lintian
#   make package-test   build and test the packages in new minimal Debian systems (root)
#   make arm64          build for 64-bit Arm, test in an emulator, build packages (root)
#   make portable       build the program as one file that needs only glibc, into build/portable
#   make portable-test  test that file in a new minimal Debian system (root)
#   make fresh          run demo and test in a new minimal Debian system (root; half an hour)
#
# SUITE=trixie works with fresh, package-test and portable-test. The default is bookworm.

JOBS ?= $(shell nproc)
OUT ?= out
SECONDS_FED ?= 10
ROUNDS ?= 3
SPEED ?= 10
SUITE ?= bookworm

.PHONY: demo view test bench fuzz soak losses long-take sound-sync lint package package-test fresh arm64 portable portable-test format dependencies clean

dependencies:
	@scripts/install_dependencies.sh

demo: dependencies
	cmake --preset release >/dev/null
	cmake --build --preset release -j $(JOBS) -t lumora-video lumora-demo lumora-tap
	build/release/tools/lumora-demo build/release/src/lumora-video $(OUT) $(SECONDS_FED)
	@echo '  To watch it live in a browser: make view'

view: dependencies
	cmake --preset release >/dev/null
	cmake --build --preset release -j $(JOBS) -t lumora-video lumora-recover lumora-view
	@build/release/tools/lumora-view --demo --helper build/release/src/lumora-video --folder $(OUT)

test: dependencies
	scripts/test.sh $(JOBS)

BENCH = build/release/bench
HELPER = build/release/src/lumora-video

bench: dependencies
	scripts/install_dependencies.sh gstreamer1.0-tools gstreamer1.0-plugins-base \
	  gstreamer1.0-plugins-good gstreamer1.0-plugins-bad gstreamer1.0-plugins-ugly gnuplot-nox jq
	cmake --preset release >/dev/null
	cmake --build --preset release -j $(JOBS) -t lumora-video lumora-micro lumora-paced lumora-compare
	mkdir -p $(OUT)
	@echo "1 of 4, a minute: conversion of pictures. The whole needs $$(( 8 + 13 * $(ROUNDS) )) minutes"
	$(BENCH)/lumora-micro
	@echo "2 of 4, $$(( 12 * $(ROUNDS) )) seconds: takes that start and end"
	$(BENCH)/lumora-paced $(HELPER) takes $$(( 3 * $(ROUNDS) ))
	@echo "3 of 4, $$(( 2 + $(ROUNDS) )) minutes: how cost grows with size, rate, takes and clients"
	$(BENCH)/lumora-paced $(HELPER) growth $(ROUNDS)
	@echo "4 of 4: the helper beside others"
	$(BENCH)/lumora-compare $(HELPER) $(OUT) $(ROUNDS)
	bench/charts.sh $(OUT)

fuzz: dependencies
	scripts/fuzz.sh $(JOBS) $(or $(MINUTES),1)

soak: dependencies
	cmake --preset release >/dev/null
	cmake --build --preset release -j $(JOBS) -t lumora-video lumora-soak
	build/release/tools/lumora-soak $(HELPER) $(OUT)/soak $(or $(MINUTES),1)

losses: dependencies
	command -v node >/dev/null || scripts/install_dependencies.sh nodejs
	cmake --preset release >/dev/null
	cmake --build --preset release -j $(JOBS) -t lumora-video lumora-recover lumora-faults
	unshare --map-root-user --mount node bench/losses.mjs $(HELPER) build/release/tests/liblumora-faults.so

long-take: dependencies
	command -v node >/dev/null || scripts/install_dependencies.sh nodejs
	cmake --preset release >/dev/null
	cmake --build --preset release -j $(JOBS) -t lumora-video lumora-faults
	node bench/long_take.mjs $(HELPER) build/release/tests/liblumora-faults.so $(SPEED)

sound-sync: dependencies
	command -v node >/dev/null || scripts/install_dependencies.sh nodejs
	cmake --preset release >/dev/null
	cmake --build --preset release -j $(JOBS) -t lumora-video lumora-faults
	node bench/sound_sync.mjs $(HELPER) build/release/tests/liblumora-faults.so $(SPEED) $(or $(MINUTES),2)

lint: dependencies
	scripts/lint.sh $(JOBS)

package: dependencies
	scripts/package.sh $(JOBS)

package-test:
	SUITE=$(SUITE) scripts/package_test.sh

fresh:
	SUITE=$(SUITE) scripts/fresh.sh

arm64:
	scripts/arm64.sh

portable: dependencies
	scripts/portable.sh $(JOBS)

portable-test:
	SUITE=$(SUITE) scripts/portable_test.sh $(JOBS)

format:
	git ls-files '*.cpp' '*.h' | xargs clang-format -i

clean:
	rm -rf build out
