# Builds vane_scenarios for the qemu guest: every tests/*/*_scenarios.cc,
# the portable test support (tests/support/portable.txt), the kernel's
# scenario environment and a main that prints one line per test, linked
# statically with GoogleTest built from /usr/src/googletest by the same
# compiler. Objects stay in $(OUT)/obj, so a second run rebuilds only what
# changed.
#
#   make -f tests/qemu/guest.mk ARCH=x86_64|arm64 [OUT=dir]
#
# The program lands in $(OUT)/vane_scenarios.

SHELL := /bin/bash
REPO := $(abspath $(dir $(lastword $(MAKEFILE_LIST)))/../..)
ARCH ?= x86_64
OUT ?= $(REPO)/build/qemu-guest/$(ARCH)
GTEST ?= /usr/src/googletest

# Through ccache where it is installed, as the CMake build.
CCACHE := $(shell command -v ccache)
ifeq ($(ARCH),arm64)
  CXX := $(CCACHE) aarch64-linux-gnu-g++
else ifeq ($(ARCH),x86_64)
  CXX := $(CCACHE) g++
else
  $(error ARCH must be x86_64 or arm64)
endif

SCENARIOS := $(sort $(wildcard $(REPO)/tests/*/*_scenarios.cc))
ifeq ($(SCENARIOS),)
  $(error no tests/*/*_scenarios.cc)
endif
PORTABLE := $(addprefix $(REPO)/tests/support/,$(shell grep -v '^\#' $(REPO)/tests/support/portable.txt))
SOURCES := $(SCENARIOS) $(PORTABLE) $(REPO)/tests/qemu/env_kernel.cc \
	$(REPO)/tests/qemu/scenarios_main.cc
OBJS := $(patsubst $(REPO)/%.cc,$(OUT)/obj/%.o,$(SOURCES))
GTEST_OBJS := $(OUT)/obj/gtest/gtest-all.o $(OUT)/obj/gtest/gmock-all.o

# The warnings of the CMake build, as errors there too. Only the module's
# public headers are reachable: a scenario that needs the core's internals
# does not belong in the guest.
GTEST_FLAGS := -std=gnu++20 -O1 -pthread
CXXFLAGS := $(GTEST_FLAGS) -Wall -Wextra -Wshadow -Wno-missing-field-initializers -Werror
INCLUDES := -I$(REPO)/tests -I$(REPO)/module/include -I$(REPO)/kport/include \
	-isystem $(GTEST)/googletest/include -isystem $(GTEST)/googlemock/include

# GoogleTest can stream results to a host over the network, which the
# guest never asks for; the linker's note that a static resolver needs the
# shared libraries at run time is about that alone.
$(OUT)/vane_scenarios: $(OBJS) $(GTEST_OBJS)
	@set -o pipefail; $(CXX) -static -pthread -o $@ $^ 2>&1 | \
		{ grep -v -e 'in function .*MakeConnection' -e "Using 'getaddrinfo' in statically" || true; }

$(OUT)/obj/%.o: $(REPO)/%.cc $(lastword $(MAKEFILE_LIST))
	@mkdir -p $(dir $@)
	$(CXX) $(CXXFLAGS) $(INCLUDES) -MMD -MP -c -o $@ $<

$(OUT)/obj/gtest/gtest-all.o: $(GTEST)/googletest/src/gtest-all.cc
	@mkdir -p $(dir $@)
	$(CXX) $(GTEST_FLAGS) -I$(GTEST)/googletest -I$(GTEST)/googletest/include -c -o $@ $<

$(OUT)/obj/gtest/gmock-all.o: $(GTEST)/googlemock/src/gmock-all.cc
	@mkdir -p $(dir $@)
	$(CXX) $(GTEST_FLAGS) -I$(GTEST)/googlemock -I$(GTEST)/googlemock/include \
		-I$(GTEST)/googletest/include -c -o $@ $<

-include $(OBJS:.o=.d)
