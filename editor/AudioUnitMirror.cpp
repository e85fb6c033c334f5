#include "editor/EditorAudioUnit.h"

#include <cmath>

#include "audiounit/TAV_SR_Chorus_Extension_AudioUnit.h"
#include "kernel/ParameterTable.h"
#include "kernel/TAV_SR_Chorus_Extension_Parameters.h"

namespace sr::editor {

AudioComponentDescription EditorAudioUnit::componentDescription() const {
    return kTAVSRChorusComponentDescription;
}

AudioUnitMirror::AudioUnitMirror(ParameterWriter* w)
    : tree(TAV_SR_Chorus_Extension_Parameters::createParameterTree()), writer(w) {
    // Installed after the defaults are set, so building the mirror writes nothing.
    tree->implementorValueObserver = [this](AUParameter* parameter, AUValue value) {
        if (writer) writer->writeParameter(parameter->address(), value);
    };
}

bool AudioUnitMirror::shouldBypassEffect() const {
    return tree->parameterWithAddress(kBypass)->value() != 0.0f;
}

void AudioUnitMirror::beginParameterGesture(AUParameterAddress address) {
    if (writer) writer->beginGesture(address);
}

void AudioUnitMirror::endParameterGesture(AUParameterAddress address) {
    if (writer) writer->endGesture(address);
}

bool AudioUnitMirror::receive(AUParameterAddress address, AUValue value) {
    AUParameter* parameter = tree->parameterWithAddress(address);
    if (!parameter || !std::isfinite(value)) return false;
    return parameter->setValueFromImplementor(value);
}

} // namespace sr::editor
