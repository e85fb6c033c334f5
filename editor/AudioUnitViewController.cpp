#include "editor/AudioUnitViewController.h"

#include <cmath>
#include <limits>

#include "platform/PrintQueue.h"

namespace sr::editor {

namespace {

bool sameValue(float a, float b) {
    return a == b || (std::isnan(a) && std::isnan(b));
}

} // namespace

AudioUnitViewController::AudioUnitViewController(LogChannel* channel)
    : logChannel(channel ? channel : &standardLog()) {
    shown.fill(std::numeric_limits<float>::quiet_NaN());
    pluginView.viewController = this;
    pluginView.delegate = this;
}

AudioUnitViewController::~AudioUnitViewController() {
    queue.discard();
    if (parameterTree && parameterObserverToken)
        parameterTree->removeParameterObserver(parameterObserverToken);
}

void AudioUnitViewController::setAudioUnit(EditorAudioUnit* unit) {
    if (parameterTree && parameterObserverToken)
        parameterTree->removeParameterObserver(parameterObserverToken);
    parameterTree = nullptr;
    parameterObserverToken = 0;
    audioUnit_ = unit;
    note("AU Diagnostics: AUAudioUnit::didSet()");
    queue.async([this] {
        if (!isViewLoaded) {
            note("AU Diagnostics: WARNING: Plugin view is not loaded.");
            return;
        }
        note("AU Diagnostics: We are about to connect the audio unit to its view controller.");
        setPaths();
        connectParameters();
    });
}

void AudioUnitViewController::viewDidLoad() {
    note("viewDidLoad");
    isViewLoaded = true;
    if (!audioUnit_) note("AudioUnitViewController: WARNING: The audio unit plugin is nil (yet?).");
    pluginView.setNeedsDisplay();
}

void AudioUnitViewController::connectParameters() {
    if (!audioUnit_) {
        note("AU Diagnostics: WARNING: The audio unit is nil.");
        return;
    }
    note("AU Diagnostics: Retriving parameters from the audio unit: ");
    AUParameterTree* tree = audioUnit_->parameterTree();
    if (!tree) {
        note("AU Diagnostics: Retriving the parameter tree from the audio unit failed.");
        return;
    }
    note("ExtensionViewController: Extracting at the parameter tree: ");
    for (AUParameter* p : tree->allParameters()) {
        LineBuilder<> line;
        line << "  " << p->keyPath() << " (" << p->displayName() << ") address " << p->address()
             << ", ";
        line.fixed(p->minValue()) << " .. ";
        line.fixed(p->maxValue()) << ", value ";
        line.fixed(p->value()) << "\n";
        log().trace(line.view());
    }
    if (parameterTree && parameterObserverToken)
        parameterTree->removeParameterObserver(parameterObserverToken);
    parameterTree = tree;
    // The observer may be called on any thread: it only hands the change to the main queue.
    parameterObserverToken =
        tree->tokenByAddingParameterObserver([this](AUParameterAddress address, AUValue value) {
            queue.async([this, address, value] { forwardToPanel(address, value); });
        });
    if (!parameterObserverToken) note("ERROR: Could not initialize parameter observer.");
    note("AU Diagnostics: Connected parameters to the plugins interface.");
}

void AudioUnitViewController::forwardToPanel(AUParameterAddress address, AUValue value) {
    // A value under the user's finger is not overwritten mid-drag; onTimer catches up later.
    if (touchesLocked_ || address >= kParameterCount) return;
    shown[address] = value;
    pluginView.setParameter(std::int64_t(address), value);
}

void AudioUnitViewController::onTimer() {
    if (!audioUnit_) {
        note("WARNING: The Audio unit is not initialized.");
        return;
    }
    // A unit in this process says its rate; a mirror's comes with the plug-in's messages.
    if (const double rate = audioUnit_->sampleRate(); rate > 0.0) setSampleRate(rate);
    updateSpectrum(kTimerInterval);
    const bool bypass = audioUnit_->shouldBypassEffect();
    if (touchesLocked_) return;
    AUParameterTree* tree = audioUnit_->parameterTree();
    if (!tree) return;
    for (std::size_t a = 0; a < kParameterCount; ++a) {
        const float value = tree->parameterWithAddress(a)->value();
        if (sameValue(value, shown[a])) continue;
        shown[a] = value;
        pluginView.setParameter(std::int64_t(a), value);
    }
    // The panel shows bypass as the unit does it.
    if (pluginView.baseClass.isBypassActive != bypass) {
        pluginView.baseClass.isBypassActive = bypass;
        pluginView.setNeedsDisplay();
    }
}

void AudioUnitViewController::setSampleRate(double rate) {
    if (!(rate > 0.0) || rate == pluginView.baseClass.sampleRate) return;
    pluginView.baseClass.sampleRate = rate;
    pluginView.baseClass.spectrum.clear();
    analyzer.setSampleRate(rate);
    pluginView.setNeedsDisplay();
}

void AudioUnitViewController::takeInput(const float* samples, std::size_t count, double rate) {
    setSampleRate(rate);
    if (analyzer.sampleRate() != rate) analyzer.setSampleRate(rate);
    analyzer.push(samples, count);
}

void AudioUnitViewController::takeInput(InputTap& tap, double rate) {
    tap.take(InputTap::kCapacity,
             [this, rate](const float* samples, std::uint32_t n) { takeInput(samples, n, rate); });
}

void AudioUnitViewController::updateSpectrum(double seconds) {
    TAVSRChorusViewBase& panel = pluginView.baseClass;
    const bool wasVisible = panel.spectrum.visible();
    if (analyzer.hasNewSamples()) {
        panel.spectrum.update(analyzer.analyse(), analyzer.binHz(), panel.splitAxis(), seconds);
        quiet = 0.0;
    } else if (wasVisible) {
        // The host stopped sending (transport, a closed tap): after a moment, it fades out.
        quiet += seconds;
        if (quiet > 0.2) panel.spectrum.fall(seconds);
    }
    if (wasVisible || panel.spectrum.visible()) pluginView.setNeedsDisplay();
}

void AudioUnitViewController::showSpectrum(const std::vector<float>& binsDb, double binHz) {
    TAVSRChorusViewBase& panel = pluginView.baseClass;
    panel.spectrum.update(binsDb, binHz, panel.splitAxis(), 0.0);
    pluginView.setNeedsDisplay();
}

AUParameter* AudioUnitViewController::parameter(AUParameterAddress address) const {
    AUParameterTree* tree = audioUnit_ ? audioUnit_->parameterTree() : nullptr;
    AUParameter* found = tree ? tree->parameterWithAddress(address) : nullptr;
    if (!found) {
        LineBuilder<> line;
        line << "AudioUnitViewController: ERROR: The parameter address " << address
             << " is unknown.\n";
        log().debugprint(line.view());
    }
    return found;
}

void AudioUnitViewController::setParameter(AUParameterAddress address, AUValue value) {
    // The panel already shows its own change: the controller's observer is not told.
    if (AUParameter* p = parameter(address)) p->setValue(value, parameterObserverToken);
}

AUValue AudioUnitViewController::getParameter(AUParameterAddress address) const {
    const AUParameter* p = parameter(address);
    return p ? p->value() : 0.0f;
}

void AudioUnitViewController::setTouchesLocked(bool locked) {
    touchesLocked_ = locked;
    if (locked || !audioUnit_) return;
    for (std::size_t a = 0; a < kParameterCount; ++a)
        if (gestures.test(a)) audioUnit_->endParameterGesture(a);
    gestures.reset();
}

void AudioUnitViewController::onTAVSRChorusViewParameter(std::int64_t address, float value) {
    // A held control's writes are one gesture per parameter, opened at its first write.
    const bool known = address >= 0 && address < std::int64_t(kParameterCount);
    if (known && touchesLocked_ && audioUnit_ && !gestures.test(std::size_t(address))) {
        gestures.set(std::size_t(address));
        audioUnit_->beginParameterGesture(AUParameterAddress(address));
    }
    setParameter(AUParameterAddress(address), value);
}

void AudioUnitViewController::onTAVSRChorusViewOption(std::int64_t address, float value) {
    if (address == TAVSRChorusView::kOptionContrast) {
        // The frame around the letterboxed panel takes the panel's colour.
        pluginFrame.contrast = value;
        pluginFrame.backgroundColor = UIColor::grey(value);
        pluginView.setNeedsDisplay();
    } else if (address == TAVSRChorusView::kOptionPresets) {
        note("AudioUnitViewController: the Presets button was pressed.");
        performSegue("showPresets");
    }
}

void AudioUnitViewController::note(std::string_view text) const {
    LineBuilder<> line;
    line << text << "\n";
    logChannel->debugprint(line.view());
}

CGRect AudioUnitViewController::panelFrame(const CGRect& bounds) {
    CGSize scale;
    return applyResizing(ResizingBehavior::aspectFit, TAVSRChorusViewBase::kCanvas, bounds, scale);
}

void AudioUnitViewController::draw(cairo_t* cr, const CGRect& bounds) {
    lastBounds = bounds;
    clampPan();
    const CGRect frame = zoomedPanelFrame(bounds);
    // The frame shows only around the panel (and in its rounded corners).
    cairo_save(cr);
    cairo_set_fill_rule(cr, CAIRO_FILL_RULE_EVEN_ODD);
    cairo_rectangle(cr, bounds.minX(), bounds.minY(), bounds.width(), bounds.height());
    const double corner = 8 * frame.width() / TAVSRChorusViewBase::kCanvas.width();
    cairo_rectangle(cr, frame.minX(), frame.minY() + corner, frame.width(),
                    frame.height() - 2 * corner);
    cairo_rectangle(cr, frame.minX() + corner, frame.minY(), frame.width() - 2 * corner, corner);
    cairo_rectangle(cr, frame.minX() + corner, frame.maxY() - corner, frame.width() - 2 * corner,
                    corner);
    cairo_clip(cr);
    pluginFrame.draw(cr, bounds);
    cairo_restore(cr);
    pluginView.frame = frame;
    pluginView.bounds = {0, 0, frame.width(), frame.height()};
    cairo_save(cr);
    cairo_translate(cr, frame.minX(), frame.minY());
    pluginView.draw(cr);
    cairo_restore(cr);
    if (brightness < 1.0) {
        cairo_rectangle(cr, bounds.minX(), bounds.minY(), bounds.width(), bounds.height());
        cairo_set_source_rgba(cr, 0, 0, 0, 1.0 - brightness);
        cairo_fill(cr);
    }
    overlays.draw(cr, bounds);
}

} // namespace sr::editor
