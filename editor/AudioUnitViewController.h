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
#include <string>
#include <utility>
#include <vector>

#include "editor/EditorAudioUnit.h"
#include "editor/FileViewControllerPresets.h"
#include "editor/PanelAlert.h"
#include "editor/PanelOverlays.h"
#include "editor/PluginFrameBaseEx.h"
#include "editor/SpectrumAnalyzer.h"
#include "editor/TAVSRChorusView.h"
#include "kernel/ParameterTable.h"
#include "platform/InputTap.h"
#include "platform/MainQueue.h"
#include "platform/PrintQueue.h"

namespace sr::editor {

class AudioUnitViewController : public TAVSRChorusViewDelegate,
                                public FileViewControllerPresetsDelegate,
                                public AlertPresenter {
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
    // Told when the Presets button opens the preset browser.
    std::function<void()> showPresets;

    // ---- paths, the preset browser and its dialogs (AudioUnitViewControllerPresets.cpp) ----

    // The documents folder (where "Presets/" lies) and the resources folder (where the shipped
    // presets lie, in "factory/"), each ending with '/'. Set by the host before the unit; the
    // documents folder is the user's data folder of the plug-in unless the host sets one.
    std::string documentsPath;
    std::string resourcesPath;
    // Where import and export start: the user's home folder unless the host sets one.
    std::string homePath;
    void setPaths();
    // "showPresets" opens the preset browser over the panel.
    void performSegue(const std::string& identifier);
    void dismissPresets();
    bool isShowingPresets() const { return overlays.browserShown; }
    FileViewControllerPresets presetsViewController;
    PanelOverlays overlays{*this};

    // FileViewControllerPresetsDelegate.
    void onPresetFileSelect(std::int64_t index, const std::string& path) override;
    void onPresetFileSave() override;
    void onPresetFileImport() override;
    void onPresetFileExport(const std::string& file) override;

    // AlertPresenter: shown over the panel, one at a time.
    void alert(const std::string& caption, const std::string& message,
               std::function<void()> completion = {}) override;
    void alertQuestion(const std::string& caption, const std::string& question,
                       std::function<void()> completion,
                       std::function<void()> cancelled = {}) override;
    // "New Preset": asks for a name (the field starts as "preset") and saves the settings as
    // "Presets/User/<name>.aupreset"; an existing file is never replaced.
    void alertFileName();
    // The question again after a clash, with the name that clashed.
    void alertFileName2(const std::string& name);
    // True (with a warning logged) when a preset of that name already exists in the user
    // folder, where a save would write it.
    bool testForPresetName(const std::string& name);
    // Import: a list of the home folder in which the user ticks preset files; each is loaded.
    void openFilePicker();
    void documentPicker(const std::vector<std::string>& urls);

    // The host side of presets, through the unit's parameter tree (a mirror's writes reach the
    // host's ports, so its undo, automation and session see them). A file that cannot be read,
    // is malformed or belongs to another plug-in changes nothing; `reason` says why.
    bool loadPresetFile(const std::string& path, std::string* reason = nullptr);
    // Writes the tree's values as a preset file (atomically).
    bool savePresetFile(const std::string& path, std::string* reason = nullptr);
    // "<documents>Presets/User/<name>.aupreset".
    std::string userPresetPath(const std::string& name) const;

    // Told of the file that became the current preset (chosen, imported or saved), for a host
    // that shows it (the standalone app's title).
    std::function<void(const std::string& path)> presetChanged;

    // A line under the browser about the last thing done, and whether it was a failure.
    std::string statusText;
    bool statusIsError = false;

    // ---- display (AudioUnitViewControllerPresets.cpp) ----

    // Steps the panel's contrast (the "Display Contrast" parameter) to the next of
    // kContrastSteps, after the last back to the first.
    static constexpr double kContrastSteps[] = {0.0, 0.15, 0.3, 0.7, 0.85, 1.0};
    void onContrastButton();
    // Brightness of the panel, kMinimumBrightness to 1 (full); a view setting only.
    static constexpr double kMinimumBrightness = 0.3;
    double brightness = 1.0;
    void onBrightnessSlider(double value);
    // Moves the panel inside the window by a distance in window units, and scales it by a
    // factor about a window point, as the pan and pinch gestures did; a double tap (a double
    // click on the background) puts it back.
    static constexpr double kMinimumZoom = 0.5;
    static constexpr double kMaximumZoom = 4.0;
    double zoomScale = 1.0;
    CGPoint panOffset;
    void onPanGesture(CGPoint translation);
    void onPinchGesture(double scale, CGPoint anchor);
    void onDoubleTapGesture();
    void doTranslationTransform(CGPoint translation);
    void doScalingTransform(double scale, CGPoint anchor);
    // Where the panel is drawn in a window of this size, zoom and pan applied.
    CGRect zoomedPanelFrame(const CGRect& bounds) const;
    // The window size of the last drawing.
    CGRect lastBounds{0, 0, 1024, 400};

private:
    void note(std::string_view text) const;
    // The unit's parameter at an address; null, with a log line, when there is none.
    AUParameter* parameter(AUParameterAddress address) const;
    void forwardToPanel(AUParameterAddress address, AUValue value);
    // Sets values as gestures of their own, as a user's change, and shows them at once.
    void applyValues(const std::vector<std::pair<AUParameterAddress, AUValue>>& values);
    void onNewPresetName(std::string name);
    void exportPreset(const std::string& file, const std::string& folder);
    void setStatus(std::string text, bool error);
    // "Presets/" with its folders and the shipped presets, once the browser needs them.
    bool ensurePresetFolders();
    void clampPan();
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
