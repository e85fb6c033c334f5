// What the editor needs of an audio unit: its parameter tree, whether it bypasses, and a way to
// bracket the changes of one gesture. The unit may live in another process, in which case the
// host gives the editor a mirror of it (AudioUnitMirror).
#pragma once

#include "platform/AUParameterTree.h"
#include "platform/AudioComponent.h"

namespace sr::editor {

class EditorAudioUnit {
public:
    virtual ~EditorAudioUnit() = default;
    virtual AUParameterTree* parameterTree() = 0;
    virtual bool shouldBypassEffect() const = 0;
    // Around the changes of one drag, so a host records them as one automation gesture.
    virtual void beginParameterGesture(AUParameterAddress) {}
    virtual void endParameterGesture(AUParameterAddress) {}
    // The component the unit is: presets are checked against it and written with it.
    virtual AudioComponentDescription componentDescription() const;
    // The rate the unit renders at; 0 when the editor cannot ask (a mirror of a unit in another
    // process, whose editor learns it from the plug-in's messages or the host).
    virtual double sampleRate() const { return 0.0; }
};

// How a host writes the plug-in's parameters for a mirror: a value, and the begin and end of a
// gesture around several values.
class ParameterWriter {
public:
    virtual ~ParameterWriter() = default;
    virtual void writeParameter(AUParameterAddress address, AUValue value) = 0;
    virtual void beginGesture(AUParameterAddress address) = 0;
    virtual void endGesture(AUParameterAddress address) = 0;
};

// A parameter tree like the plug-in's, built from the same table, standing in for a unit the
// editor cannot reach directly. Values set on it by the editor go to the writer; values the
// plug-in reports come in through receive() and are never written back.
class AudioUnitMirror : public EditorAudioUnit {
public:
    explicit AudioUnitMirror(ParameterWriter* writer = nullptr);

    AUParameterTree* parameterTree() override { return tree.get(); }
    // Any value but exactly 0 bypasses, as the kernel takes it.
    bool shouldBypassEffect() const override;
    void beginParameterGesture(AUParameterAddress address) override;
    void endParameterGesture(AUParameterAddress address) override;

    // A value the plug-in reports. False (and nothing changes) for an unknown address or a
    // non-finite value.
    bool receive(AUParameterAddress address, AUValue value);
    void setWriter(ParameterWriter* w) { writer = w; }

private:
    std::unique_ptr<AUParameterTree> tree;
    ParameterWriter* writer;
};

} // namespace sr::editor
