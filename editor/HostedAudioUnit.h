// The editor's view of an audio unit in its own process (the standalone app): the unit's own
// parameter tree, so the editor's writes, presets included, reach the kernel through the same
// path as any other change of the tree.
// Threading: the thread that owns the editor (the app's main thread).
#pragma once

#include "audiounit/TAV_SR_Chorus_Extension_AudioUnit.h"
#include "editor/EditorAudioUnit.h"
#include "kernel/ParameterTable.h"

namespace sr::editor {

class HostedAudioUnit : public EditorAudioUnit {
public:
    explicit HostedAudioUnit(TAV_SR_Chorus_Extension_AudioUnit& unit) : unit(unit) {}

    AUParameterTree* parameterTree() override { return unit.parameterTree(); }
    // As the kernel takes the Bypass parameter: any value but exactly 0.
    bool shouldBypassEffect() const override {
        const AUParameterTree* tree = unit.parameterTree();
        const AUParameter* bypass = tree ? tree->parameterWithAddress(kBypass) : nullptr;
        return bypass && bypass->value() != 0.0f;
    }
    AudioComponentDescription componentDescription() const override {
        return unit.componentDescription();
    }
    // The rate its busses are set to, which the unit renders at.
    double sampleRate() const override { return unit.outputBusses()[0].format().sampleRate(); }

private:
    TAV_SR_Chorus_Extension_AudioUnit& unit;
};

} // namespace sr::editor
