# SPDX-License-Identifier: GPL-2.0
#
# Human-facing targets. The module's object list lives in Kbuild; this file
# only drives builds, tests and checks. Downloads go to .cache/ (kept by
# "make clean"), build products to build/.
#
#   make module [TARGET=arm64-5.10|arm64-6.1|x86_64-6.1]
#                        build/TARGET/drv_user_cfg.ko, W=1, no warnings
#   make modules         the module for every target
#   make host            host test bed (build/host) and its tests
#   make tsan, make fuzz concurrency tests under TSan; the ioctl fuzzer
#   make bench           cost per operation against its floor, uninstrumented
#                        host build (build/bench; table in build/bench/bench.md)
#   make bench-vm        ioctl round trips per second in the arm64 5.10 VM
#   make tools           the ucfg client (build/tools) and its tests
#   make ucfg-image      the offline image tool, uninstrumented (build/image)
#   make lint            checkpatch --strict, sparse, kernel-doc, man pages
#   make dkms            the DKMS package: add, build, install, remove
#                        against the installed amd64 headers (throwaway trees)
#   make dkms-source [DKMS_SOURCE=dir]
#                        assemble the DKMS package source tree (default
#                        /usr/src/drv_user_cfg-VERSION)
#   make deb             the Debian packages in build/deb/: drv-user-cfg-dkms
#                        (all) and ucfg-tools (amd64, arm64)
#   make deb-check       install, check and purge them in a debootstrap'd
#                        throwaway root (logs build/deb/check-*.log)
#   make check           everything CI runs
#   make image [TARGET]  fetch the target's kernel image for the VM
#   make vm              the module in QEMU: arm64 5.10 and 6.1, and 5.10 debug
#   make vm-debug        the VM suite on the debug 5.10 kernel only
#   make stress [TARGET=..] [SEED=n] [STRESS_SECONDS=s]
#                        only the in-VM stress boot
#   make demo            the module at work in the target kernel under QEMU
#   make torture [SEED=n] [DURATION=s]
#                        the long reliability campaign (host and VM stress)
#   make figures         the reliability campaign's figures (fixed seeds)
#   make clean           remove build/; "make distclean" also .cache/

TARGETS := arm64-5.10 arm64-6.1 x86_64-6.1
TARGET ?= arm64-5.10
JOBS ?= 2

# The debug kernel is a target of its own (built from source, see
# scripts/build-debug-kernel.sh); "make modules" leaves it to "make vm".
ifeq ($(filter $(TARGET),$(TARGETS) arm64-5.10-debug),)
$(error unknown TARGET '$(TARGET)'; choose one of: $(TARGETS) arm64-5.10-debug)
endif

# Kbuild's verbosity, passed through when given (make module V=1).
KBUILD_ARGS := $(if $(V),V=$(V))

.DEFAULT_GOAL := module
.PHONY: module modules host tsan fuzz bench bench-vm tools tools-arm64 lint vm \
	check setup dkms dkms-source deb deb-check \
	image demo torture figures vm-debug stress \
	clean distclean help \
	$(addprefix module-,$(TARGETS) arm64-5.10-debug)

module: module-$(TARGET)

modules: $(addprefix module-,$(TARGETS))

$(addprefix module-,$(TARGETS) arm64-5.10-debug): module-%:
	scripts/build-module.sh $* $(KBUILD_ARGS)

host:
	@test -f tests/host/CMakeLists.txt || { \
		echo "make host: tests/host/CMakeLists.txt does not exist" >&2; \
		exit 1; }
	cmake -S tests/host -B build/host
	cmake --build build/host -j$(JOBS)
	cd build/host && ctest --output-on-failure -j$(JOBS)

# The concurrency tests under ThreadSanitizer (build/host-tsan), and the
# ioctl fuzzer under ASan/UBSan for FUZZ_SECONDS (build/host-fuzz).
FUZZ_SECONDS ?= 30
tsan:
	JOBS=$(JOBS) tests/host/run-tsan.sh

fuzz:
	JOBS=$(JOBS) tests/host/run-fuzz.sh $(FUZZ_SECONDS)

# The benchmark: module sources and test bed built with -O2 and no
# sanitizer, run once; not part of "make check".
bench:
	cmake -S tests/host -B build/bench -DUCFG_SANITIZER=none
	cmake --build build/bench -j$(JOBS) --target ucfg_bench
	build/bench/ucfg_bench build/bench/bench.md

bench-vm:
	tests/vm/run.sh arm64-5.10 bench

# The user-space client and its unit tests; tools-arm64 is the static
# binary that runs inside the test VM.
tools:
	cmake -S tools -B build/tools
	cmake --build build/tools -j$(JOBS)
	cd build/tools && ctest --output-on-failure -j$(JOBS)

# The offline image tool for use: the store's sources and the tool built
# with -O2 and no sanitizer (build/image/ucfg-image). Its tests run in the
# host build, under AddressSanitizer.
ucfg-image:
	cmake -S tests/host -B build/image -DUCFG_SANITIZER=none
	cmake --build build/image -j$(JOBS) --target ucfg-image
	@echo "built build/image/ucfg-image"

tools-arm64:
	cmake -S tools -B build/tools-arm64 \
		-DCMAKE_TOOLCHAIN_FILE=cmake/aarch64-linux-gnu.cmake
	cmake --build build/tools-arm64 -j$(JOBS)

lint:
	scripts/lint.sh

# The DKMS package with Debian's dkms: built for the installed amd64 headers
# in throwaway trees, nothing loaded (scripts/dkms-check.sh).
dkms:
	scripts/dkms-check.sh

dkms-source:
	scripts/dkms-source.sh $(DKMS_SOURCE)

# The Debian packages, built with debhelper and dh-dkms from debian/ in a
# copy of the tree (scripts/deb-build.sh), and their check: installed with
# apt into a throwaway bookworm root, the module built there by DKMS,
# purged without a trace (scripts/test_deb_packages.sh).
deb: setup
	scripts/deb-build.sh

deb-check: setup
	scripts/test_deb_packages.sh

# The module in real kernels under QEMU: Debian's arm64 5.10 (the target)
# and 6.1, and the same 5.10 source built with KASAN, kmemleak, lockdep and
# debug objects (built once into .cache/, about 4 minutes cold), each with
# the suite, the stress boot and the stand-in siblings.
vm:
	tests/vm/run.sh arm64-5.10
	tests/vm/run.sh arm64-6.1
	tests/vm/run.sh arm64-5.10-debug

vm-debug:
	tests/vm/run.sh arm64-5.10-debug

STRESS_SECONDS ?= 24
stress:
	tests/vm/run.sh $(TARGET) stress $(or $(SEED),1) $(STRESS_SECONDS)

setup:
	scripts/setup.sh

image:
	scripts/fetch-kernel.sh $(TARGET) image

# Every stage runs even when an earlier one failed, so that one CI run shows
# all that is wrong; the exit status is non-zero if any stage failed. Setup
# has run by then: the stages are told so (see scripts/setup.sh).
CHECK_STAGES := host tsan fuzz tools modules dkms lint vm

check: setup
	@failed=""; \
	for s in $(CHECK_STAGES); do \
		echo "=== make check: $$s ==="; \
		start=$$(date +%s); \
		if DRV_USER_CFG_SETUP_DONE=1 $(MAKE) --no-print-directory $$s; then \
			echo "=== make check: $$s passed ($$(( $$(date +%s) - start )) s) ==="; \
		else \
			echo "=== make check: $$s FAILED ===" >&2; \
			failed="$$failed $$s"; \
		fi; \
	done; \
	if [ -n "$$failed" ]; then \
		echo "make check: FAILED:$$failed" >&2; exit 1; \
	fi; \
	echo "make check: all stages passed ($(CHECK_STAGES))"

demo: setup
	tests/vm/run.sh arm64-5.10 demo

# The reliability campaign (docs/RELIABILITY.md). SEED defaults to the
# time, printed so that a failure can be replayed.
DURATION ?= 600
torture: setup
	scripts/torture.sh "$(SEED)" $(DURATION)

figures:
	scripts/torture.sh figures

clean:
	rm -rf build

distclean: clean
	rm -rf .cache

help:
	@sed -n '3,38s/^# \{0,1\}//p' Makefile
