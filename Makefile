# Entry points; CMake does the building.
BUILD ?= build
JOBS ?= $(shell nproc)
CMAKE_FLAGS ?= -DCMAKE_BUILD_TYPE=RelWithDebInfo -DSR_WERROR=ON
DEMO_DIR ?= demo-out
VALIDATE = $(BUILD)/validate/sr-chorus-validate --fuzz-replay build-fuzz/fuzz/sr-fuzz-presets \
	--crashers fuzz/crashers --tsan-stress build-tsan/validate/tsan/sr-tsan-stress \
	--log $(BUILD)/validate.log $(BUILD)/lv2/tav-sr-chorus.lv2

.PHONY: all deps configure build test validate demo bench bench-lv2 format clean install-user \
	docs-panel

all: build

deps:
	@scripts/install-deps.sh

configure: deps
	@cmake -S . -B $(BUILD) $(CMAKE_FLAGS) >/dev/null

build: configure
	@cmake --build $(BUILD) -j $(JOBS) -- --no-print-directory

test: build sanitizer-builds
	@cd $(BUILD) && ctest --output-on-failure -j $(JOBS)
	@$(VALIDATE) --quick

# The bundle's validator, every check at full strength.
validate: build sanitizer-builds
	@$(VALIDATE) --full

demo: build
	@$(BUILD)/cli/sr-chorus-render --demo $(DEMO_DIR)

# The README's pictures of the editor panel, both pages, with a factory preset loaded and the
# demo signal's spectrum behind the split bar (the demo is rendered to draw it), and of the
# preset browser and its New Preset dialog over it (the shipped presets in a documents folder
# of the build tree).
DOCS_PRESET = presets/Vocal Shimmer.aupreset
DOCS_DATA = $(abspath $(BUILD))/docs-data
docs-panel: build
	@$(BUILD)/cli/sr-chorus-render --demo $(BUILD)/docs-demo --preset "$(DOCS_PRESET)" \
		--panel docs/panel.png >/dev/null
	@$(BUILD)/cli/sr-chorus-render --demo $(BUILD)/docs-demo --preset "$(DOCS_PRESET)" \
		--panel docs/panel-lfo.png --page lfo >/dev/null
	@rm -rf "$(DOCS_DATA)" && mkdir -p "$(DOCS_DATA)/tav-sr-chorus/Presets/Factory"
	@cp presets/*.aupreset "$(DOCS_DATA)/tav-sr-chorus/Presets/Factory/"
	@XDG_DATA_HOME="$(DOCS_DATA)" $(BUILD)/cli/sr-chorus-render --preset "$(DOCS_PRESET)" \
		--panel docs/browser.png --overlay browser >/dev/null
	@XDG_DATA_HOME="$(DOCS_DATA)" $(BUILD)/cli/sr-chorus-render --preset "$(DOCS_PRESET)" \
		--panel docs/new-preset.png --overlay new-preset >/dev/null
	@echo "docs/panel.png docs/panel-lfo.png docs/browser.png docs/new-preset.png"

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

# Sanitizer builds, each in its own folder, with clang, building nothing but their targets:
# the preset fuzzer (address and undefined behaviour), and the thread stress and the app
# (ThreadSanitizer; the app's tests run it as app.tsan).
# A folder configured otherwise (another sanitizer or compiler) is started anew.
comma := ,
SAN_CMAKE_FLAGS = -DCMAKE_BUILD_TYPE=RelWithDebInfo -DCMAKE_CXX_COMPILER=clang++ \
	-DSR_BUILD_TESTS=OFF -DSR_BUILD_BENCH=OFF
FUZZ_SANITIZE = address$(comma)undefined
FUZZ_SECONDS ?= 60

# $(1) folder, $(2) sanitizers, $(3) more cache settings, $(4) targets.
define sanitizer_build
	@{ grep -qsx 'SR_SANITIZE:STRING=$(2)' $(1)/CMakeCache.txt && \
	   grep -qs '^CMAKE_CXX_COMPILER:.*clang++$$' $(1)/CMakeCache.txt; } || rm -rf $(1)
	@cmake -S . -B $(1) $(SAN_CMAKE_FLAGS) -DSR_SANITIZE=$(2) $(3) >/dev/null
	@cmake --build $(1) -j $(JOBS) --target $(4) -- --no-print-directory
endef

.PHONY: sanitizer-builds fuzz

sanitizer-builds: deps
	$(call sanitizer_build,build-fuzz,$(FUZZ_SANITIZE),-DSR_FUZZ=ON,sr-fuzz-presets)
	$(call sanitizer_build,build-tsan,thread,-DSR_FUZZ=OFF,sr-tsan-stress sr-chorus)

# Fuzzes the preset and state reader for FUZZ_SECONDS on one core. New inputs collect in
# build-fuzz/corpus; the presets, fuzz/seeds and the fixed crashers seed it. A finding is
# written to build-fuzz/ and fails the target.
fuzz: deps
	$(call sanitizer_build,build-fuzz,$(FUZZ_SANITIZE),-DSR_FUZZ=ON,sr-fuzz-presets)
	@mkdir -p build-fuzz/corpus
	@build-fuzz/fuzz/sr-fuzz-presets build-fuzz/corpus presets fuzz/seeds fuzz/crashers \
		-dict=fuzz/plist.dict -max_total_time=$(FUZZ_SECONDS) -timeout=10 \
		-artifact_prefix=build-fuzz/ -print_final_stats=1
