# Entry points; CMake does the building.
BUILD ?= build
JOBS ?= $(shell nproc)
CMAKE_FLAGS ?= -DCMAKE_BUILD_TYPE=RelWithDebInfo -DSR_WERROR=ON
DEMO_DIR ?= demo-out

.PHONY: all deps configure build test demo bench bench-lv2 format clean install-user

all: build

deps:
	@scripts/install-deps.sh

configure: deps
	@cmake -S . -B $(BUILD) $(CMAKE_FLAGS) >/dev/null

build: configure
	@cmake --build $(BUILD) -j $(JOBS) -- --no-print-directory

test: build
	@cd $(BUILD) && ctest --output-on-failure -j $(JOBS)

demo: build
	@$(BUILD)/cli/sr-chorus-render --demo $(DEMO_DIR)

bench: build
	@$(BUILD)/bench/sr-chorus-bench

# The plug-in against the chorus plug-ins installed from Debian (calf, guitarix, swh), by lv2bench.
bench-lv2: build
	@bench/lv2bench.sh $(BUILD)

# The plug-in for this user's LV2 hosts; `cmake --install $(BUILD) --prefix DIR` installs it
# system-wide under DIR/lib/lv2.
install-user: build
	@mkdir -p $(HOME)/.lv2
	@rm -rf $(HOME)/.lv2/tav-sr-chorus.lv2
	@cp -r $(BUILD)/lv2/tav-sr-chorus.lv2 $(HOME)/.lv2/
	@echo "Installed $(HOME)/.lv2/tav-sr-chorus.lv2"

format:
	@git ls-files '*.cpp' '*.h' | xargs clang-format -i

clean:
	@rm -rf $(BUILD) $(DEMO_DIR)
