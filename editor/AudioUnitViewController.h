// The controller that hosts the panel: connects it to the audio unit's parameter tree (or a
// mirror of it), forwards the unit's changes to the panel unless a control is held, writes the
// panel's changes as gestures, and refreshes the panel from the unit 25 times a second.
// Threading: one thread (the host's UI thread), which also drains mainQueue() and calls
// onTimer(); observer callbacks may come from any thread and only queue work.
#pragma once

#include <array>
#include <bitset>
#include <cairo.h>
#include <functional>

#include "editor/EditorAudioUnit.h"
#include "editor/PluginFrameBaseEx.h"
#include "editor/SpectrumAnalyzer.h"
#include "editor/TAVSRChorusView.h"
#include "kernel/ParameterTable.h"
#include "platform/InputTap.h"
#include "platform/MainQueue.h"
#include "platform/PrintQueue.h"

namespace sr::editor {

class AudioUnitViewController : public TAVSRChorusViewDelegate {
public:
    // The poll's period: 25 calls a second.
    static constexpr double kTimerInterval = 0.04;

    // Log lines go to `channel` (the host's log), or to standard output without one.
    explicit AudioUnitViewController(LogChannel* channel = nullptr);
    ~AudioUnitViewController() override;
    AudioUnitViewController(const AudioUnitViewController&) = delete;
    AudioUnitViewController& operator=(const AudioUnitViewController&) = delete;

    EditorAudioUnit* audioUnit() const { return audioUnit_; }
    LogChannel& log() const { return *logChannel; }
    // "did set": logs, and queues the connection to the panel on the main queue.
    void setAudioUnit(EditorAudioUnit* unit);
    // Shows the panel; the host then calls onTimer() every kTimerInterval seconds.
    void viewDidLoad();
    void connectParameters();
    // Refreshes the panel from the unit, and the spectrum from the input that came since.
    void onTimer();

    // The host's sample rate: the split points' frequencies and the spectrum follow it.
    void setSampleRate(double rate);
    // Samples of the plug-in's input (the mean of left and right), oldest first, at `rate`;
    // the spectrum behind the split bar shows them from the next onTimer() on.
    void takeInput(const float* samples, std::size_t count, double rate);
    // In-process hosts: what the audio cycles copied into `tap` since the last call (the host
    // opens the tap while the panel shows and calls this on its UI thread).
    void takeInput(InputTap& tap, double rate);
    // For a still picture: a spectrum (dB per bin of `binHz`) shown as it is, without easing.
    void showSpectrum(const std::vector<float>& binsDb, double binHz);

    void setParameter(AUParameterAddress address, AUValue value);
    AUValue getParameter(AUParameterAddress address) const;

    bool touchesLocked() const { return touchesLocked_; }
    // Set by the panel while a control is held; unlocking ends the gestures the hold began.
    void setTouchesLocked(bool locked);

    // TAVSRChorusViewDelegate.
    void onTAVSRChorusViewParameter(std::int64_t address, float value) override;
    void onTAVSRChorusViewOption(std::int64_t address, float value) override;

    // The host's main queue for this controller: drain it on the UI thread.
    DrainedMainQueue& mainQueue() { return queue; }
    // The frame fills `bounds` (the window); the panel view is laid out over it at the largest
    // size of the panel's proportions, centred, and drawn there.
    void draw(cairo_t* cr, const CGRect& bounds);
    // The panel view's place for a window of this size.
    static CGRect panelFrame(const CGRect& bounds);

    TAVSRChorusView pluginView;
    PluginFrameEx pluginFrame;
    bool isViewLoaded = false;
    // The Presets button; the preset browser is the host's to show.
    std::function<void()> showPresets;

private:
    void note(std::string_view text) const;
    // The unit's parameter at an address; null, with a log line, when there is none.
    AUParameter* parameter(AUParameterAddress address) const;
    void forwardToPanel(AUParameterAddress address, AUValue value);
    void updateSpectrum(double seconds);

    LogChannel* logChannel;
    EditorAudioUnit* audioUnit_ = nullptr;
    AUParameterTree* parameterTree = nullptr;
    AUParameterObserverToken parameterObserverToken = 0;
    DrainedMainQueue queue;
    bool touchesLocked_ = false;
    // Addresses with a gesture open during the current hold.
    std::bitset<kParameterCount> gestures;
    // What the panel was last given of each parameter (NaN: nothing yet).
    std::array<float, kParameterCount> shown{};
    SpectrumAnalyzer analyzer;
    // Seconds since input last came, while the spectrum still shows.
    double quiet = 0.0;
};

} // namespace sr::editor
