# SPDX-License-Identifier: GPL-2.0
#
# Human-facing targets. The module's object list lives in Kbuild; this file
# only drives builds, tests and checks. Downloads go to .cache/ (kept by
# "make clean"), build products to build/.
#
#   make module [TARGET=arm64-5.10|arm64-6.1|x86_64-6.1]
#                        build/TARGET/drv_user_cfg.ko, W=1, no warnings
#   make modules         the module for every target
#   make host            the host stage: module sources in user space under
#                        ASan/UBSan, -O2 and TSan, tests and fuzzing
#                        (tests/host/run.sh; logs build/host-*.log)
#   make bench           cost per operation against its floor (tools/bench;
#                        table in build/bench/bench.md)
#   make bench-vm        ioctl round trips per second in the arm64 5.10 VM
#   make tools           ucfg and ucfg-image for use, uninstrumented
#                        (build/tools; make ucfg-image is the same)
#   make lint            checkpatch --strict, sparse, kernel-doc, man pages
#   make dkms-source [DKMS_SOURCE=dir]
#                        assemble the DKMS package source tree (default
#                        /usr/src/drv_user_cfg-VERSION)
#   make deb             the Debian packages in build/deb/: drv-user-cfg-dkms
#                        (all) and ucfg-tools (amd64, arm64)
#   make deb-check       install, check and purge them in a debootstrap'd
#                        throwaway root (logs build/deb/check-*.log)
#   make check [CHECK_STAGES="host modules lint deb vm"]
#                        everything CI runs (scripts/check.sh)
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

# A compiler cache, when ccache is installed (scripts/setup.sh installs it):
# kept in .cache/ccache with the downloads, so that a fresh clone with a warm
# .cache recompiles nothing that did not change. Every build goes through
# it: CMake's (host tests, tools, the packages) by its launcher variables,
# Kbuild's and the VM programs' by UCFG_CCACHE (scripts/build-module.sh,
# tests/vm/lib.sh). Paths are hashed relative to the clone, so a clone
# elsewhere hits the same entries. "make distclean" empties it.
ifneq ($(shell command -v ccache 2>/dev/null),)
export CCACHE_DIR ?= $(CURDIR)/.cache/ccache
export CCACHE_BASEDIR := $(CURDIR)
export CCACHE_NOHASHDIR := 1
export CCACHE_MAXSIZE ?= 2G
export CMAKE_C_COMPILER_LAUNCHER := ccache
export CMAKE_CXX_COMPILER_LAUNCHER := ccache
export UCFG_CCACHE := ccache
endif

# Kbuild's verbosity, passed through when given (make module V=1).
KBUILD_ARGS := $(if $(V),V=$(V))

.DEFAULT_GOAL := module
.PHONY: module modules host bench bench-vm tools ucfg-image tools-arm64 lint vm \
	check setup dkms-source deb deb-check \
	image demo torture figures vm-debug stress \
	clean distclean help \
	$(addprefix module-,$(TARGETS) arm64-5.10-debug)

module: module-$(TARGET)

modules: $(addprefix module-,$(TARGETS))

$(addprefix module-,$(TARGETS) arm64-5.10-debug): module-%:
	scripts/build-module.sh $* $(KBUILD_ARGS)

# The host stage of make check: the module's sources in user space under
# ASan/UBSan (every test, the fuzz targets), optimised (the campaign's fixed
# seeds) and under TSan (the concurrency test); tests/host/run.sh.
FUZZ_SECONDS ?= 10
host:
	tests/host/run.sh $(FUZZ_SECONDS)

# The benchmark, a measuring tool, not part of make check: tools/bench.
bench:
	cmake -S tools/bench -B build/bench -DCMAKE_BUILD_TYPE=Release >/dev/null
	cmake --build build/bench -j$(JOBS)
	build/bench/ucfg_bench build/bench/bench.md

# tools/bench/bench.cpp in the arm64 5.10 VM (build/vm/arm64-5.10/bench.txt).
bench-vm:
	tests/vm/run.sh arm64-5.10 bench

# The tools for use, uninstrumented: ucfg and ucfg-image (build/tools).
# Their tests run in the host stage.
tools ucfg-image:
	cmake -S tools -B build/tools -DUCFG_IMAGE_TOOL=ON -DUCFG_TESTS=OFF >/dev/null
	cmake --build build/tools -j$(JOBS)
	@echo "built build/tools/ucfg and build/tools/ucfg-image"

tools-arm64:
	cmake -S tools -B build/tools-arm64 \
		-DCMAKE_TOOLCHAIN_FILE=cmake/aarch64-linux-gnu.cmake
	cmake --build build/tools-arm64 -j$(JOBS)

lint:
	scripts/lint.sh

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
# debug objects (built once into .cache/, about 3 minutes cold); one boot
# each with the suite, the image round trip and a short stress run, and on
# 5.10 a second boot with a partial device-tree node.
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

# Every stage runs even when an earlier one failed; see scripts/check.sh.
check: setup
	@DRV_USER_CFG_SETUP_DONE=1 scripts/check.sh $(CHECK_STAGES)

demo: setup
	scripts/demo.sh arm64-5.10

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
	@sed -n '3,39s/^# \{0,1\}//p' Makefile
