// The host controller's preset browser, its dialogs, and its display controls: what a user does
// with presets from inside the editor, and the host side of it (a preset reaches the plug-in as
// values set on the unit's parameter tree, a user preset is written from the tree's values).
#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <filesystem>
#include <system_error>

#include "audiounit/PresetFolders.h"
#include "audiounit/PresetName.h"
#include "audiounit/TAVPreset.h"
#include "audiounit/TAV_SR_Chorus_Extension_AudioUnit.h"
#include "editor/AudioUnitViewController.h"
#include "platform/AtomicFile.h"
#include "platform/DocumentsDirectory.h"
#include "platform/PrintQueue.h"
#include "platform/PropertyList.h"

namespace fs = std::filesystem;

namespace sr::editor {

namespace {

using Unit = TAV_SR_Chorus_Extension_AudioUnit;
constexpr const char* kUserFolder = "Presets/User/";

std::string withSlash(std::string path) {
    if (!path.empty() && path.back() != '/') path += '/';
    return path;
}

// How a file is named to the user: its name in quotes.
std::string inQuotes(const std::string& path) {
    return "“" + fs::path(path).filename().string() + "”";
}

std::string fourCharText(std::uint32_t code) {
    std::string text;
    for (int shift = 24; shift >= 0; shift -= 8) {
        const char c = char((code >> shift) & 0xFF);
        text += (c >= 0x20 && c < 0x7F) ? c : '?';
    }
    return text;
}

bool somethingAt(const std::string& path) {
    std::error_code ec;
    return fs::exists(fs::symlink_status(path, ec));
}

std::string trimmed(const std::string& text) {
    const std::size_t first = text.find_first_not_of(' ');
    if (first == std::string::npos) return {};
    return text.substr(first, text.find_last_not_of(' ') - first + 1);
}

std::string homeFolder() {
    const char* home = std::getenv("HOME");
    return home && home[0] == '/' ? std::string(home) : std::string();
}

} // namespace

// ---- paths and the browser --------------------------------------------------------------------

void AudioUnitViewController::setPaths() {
    if (!audioUnit_) {
        note("Error: could not set paths, audio unit is nil.");
        return;
    }
    if (documentsPath.empty()) documentsPath = userDataDirectory(Unit::kDocumentsFolderName);
    documentsPath = withSlash(documentsPath);
    resourcesPath = withSlash(resourcesPath);
    if (homePath.empty()) homePath = homeFolder();
    note("Audio Unit's documents path is: " + documentsPath);
    note("Audio Unit's resources path is: " + resourcesPath);
}

bool AudioUnitViewController::ensurePresetFolders() {
    const std::string source = resourcesPath.empty() ? std::string() : resourcesPath + "factory/";
    if (installPresetFolders(documentsPath, source, log())) return true;
    note("AudioUnitViewController::ensurePresetFolders() : ERROR: The preset folders in '" +
         documentsPath + "' could not be created.");
    return false;
}

void AudioUnitViewController::performSegue(const std::string& identifier) {
    if (identifier != "showPresets") {
        note("AudioUnitViewController::performSegue() : ERROR: Unknown segue '" + identifier +
             "'.");
        return;
    }
    ensurePresetFolders();
    presetsViewController.delegate = this;
    presetsViewController.alerts = this;
    presetsViewController.logChannel = &log();
    presetsViewController.viewDidLoad(documentsPath);
    overlays.showBrowser();
    if (showPresets) showPresets();
}

void AudioUnitViewController::dismissPresets() {
    overlays.closeBrowser();
}

void AudioUnitViewController::setStatus(std::string text, bool error) {
    statusText = std::move(text);
    statusIsError = error;
    pluginView.setNeedsDisplay();
}

// ---- alerts ----------------------------------------------------------------------------------

void AudioUnitViewController::alert(const std::string& caption, const std::string& message,
                                    std::function<void()> completion) {
    note("Alert: " + caption + " : " + message);
    PanelAlert a;
    a.title = caption;
    a.message = message;
    a.actions.push_back({"OK", AlertAction::Style::normal,
                         [completion = std::move(completion)](const std::string&) {
                             if (completion) completion();
                         }});
    overlays.showAlert(std::move(a));
}

void AudioUnitViewController::alertQuestion(const std::string& caption, const std::string& question,
                                            std::function<void()> completion,
                                            std::function<void()> cancelled) {
    note("Alert: " + caption + " : " + question);
    PanelAlert a;
    a.title = caption;
    a.message = question;
    a.actions.push_back({"OK", AlertAction::Style::destructive,
                         [completion = std::move(completion)](const std::string&) {
                             if (completion) completion();
                         }});
    a.actions.push_back({"Cancel", AlertAction::Style::cancel,
                         [cancelled = std::move(cancelled)](const std::string&) {
                             if (cancelled) cancelled();
                         }});
    overlays.showAlert(std::move(a));
}

namespace {

PanelAlert nameAlert(const std::string& title, const std::string& message, const std::string& name,
                     std::function<void(const std::string&)> onOK) {
    PanelAlert a;
    a.title = title;
    a.message = message;
    a.textField.emplace(name);
    a.actions.push_back({"OK", AlertAction::Style::normal, std::move(onOK)});
    a.actions.push_back({"Cancel", AlertAction::Style::cancel, {}});
    return a;
}

} // namespace

void AudioUnitViewController::alertFileName() {
    overlays.showAlert(nameAlert("New Preset",
                                 "Please enter the file name for the current file:", "preset",
                                 [this](const std::string& name) { onNewPresetName(name); }));
}

void AudioUnitViewController::alertFileName2(const std::string& name) {
    overlays.showAlert(
        nameAlert("File name", "The file already exists. Please type in another file name: ", name,
                  [this](const std::string& n) { onNewPresetName(n); }));
}

bool AudioUnitViewController::testForPresetName(const std::string& name) {
    if (!somethingAt(userPresetPath(name))) return false;
    note("AudioUnitViewController::testForPresetName() : WARNING: The destination for preset '" +
         name + "' (" + documentsPath + kUserFolder + name + ").aupreset");
    return true;
}

std::string AudioUnitViewController::userPresetPath(const std::string& name) const {
    return documentsPath + kUserFolder + name + Unit::kPresetExtension;
}

void AudioUnitViewController::onNewPresetName(std::string typed) {
    const std::string name = trimmed(typed);
    if (const std::optional<std::string> problem = presetNameProblem(name)) {
        note("AudioUnitViewController::alertFileName() : ERROR: The name '" + typed +
             "' is refused: " + *problem);
        // Back to the question with what was typed, to be corrected.
        alert("New Preset", *problem + " Nothing was saved.", [this, typed] {
            overlays.showAlert(nameAlert("New Preset",
                                         "Please enter the file name for the current file:", typed,
                                         [this](const std::string& n) { onNewPresetName(n); }));
        });
        return;
    }
    if (testForPresetName(name)) {
        alert("FILE EXISTS", "The file already exists, please use another file name.",
              [this, name] { alertFileName2(name); });
        return;
    }
    std::string reason;
    const std::string path = userPresetPath(name);
    if (!ensurePresetFolders()) {
        reason = "the folder " + documentsPath + kUserFolder + " could not be created";
    } else if (savePresetFile(path, &reason)) {
        presetsViewController.currentPath = path;
        if (presetChanged) presetChanged(path);
        if (overlays.browserShown) {
            presetsViewController.showSet(PresetSet::user);
            presetsViewController.tableView.selectPath(path);
            overlays.showBrowser();
        }
        setStatus("Saved " + inQuotes(path) + " in " + FileTableViewPresets::kUserTitle + ".",
                  false);
        return;
    }
    setStatus(inQuotes(path) + " was not saved: " + reason + ".", true);
    alert("Preset Not Saved", inQuotes(path) + " could not be saved: " + reason + ".");
}

// ---- the browser's delegate ------------------------------------------------------------------

void AudioUnitViewController::onPresetFileSelect(std::int64_t index, const std::string& path) {
    note("AudioUnitViewController::onPresetFileSelect() : " + std::to_string(index) + " : " + path);
    std::string reason;
    if (loadPresetFile(path, &reason)) {
        presetsViewController.currentPath = path;
        setStatus("Loaded " + inQuotes(path) + ".", false);
        if (presetChanged) presetChanged(path);
        return;
    }
    setStatus(inQuotes(path) + " was not loaded: " + reason + ".", true);
    alert("Preset Not Loaded", inQuotes(path) + " was not loaded: " + reason +
                                   ".\nThe sound and the panel are as they were.");
}

void AudioUnitViewController::onPresetFileSave() {
    alertFileName();
}

void AudioUnitViewController::onPresetFileImport() {
    openFilePicker();
}

void AudioUnitViewController::openFilePicker() {
    std::error_code ec;
    if (homePath.empty() || !fs::is_directory(homePath, ec)) {
        alert("Import", "Your home folder could not be found, so there is nothing to import from.");
        return;
    }
    FilePicker picker(FilePicker::Mode::openPresets, homePath, "Home");
    picker.title = "IMPORT PRESETS";
    picker.prompt = "Tick one or more .aupreset files in your home folder. Each one is loaded in "
                    "turn; the last one stays.";
    picker.confirmTitle = "Import";
    picker.onConfirm = [this](const FilePicker& p) { documentPicker(p.tickedFiles()); };
    overlays.showPicker(std::move(picker));
}

void AudioUnitViewController::documentPicker(const std::vector<std::string>& urls) {
    std::string failures;
    std::string loaded;
    for (const std::string& url : urls) {
        note("documentPicker: " + url);
        std::string reason;
        if (loadPresetFile(url, &reason)) {
            loaded = url;
        } else {
            failures += "\n" + inQuotes(url) + ": " + reason + ".";
        }
    }
    if (!loaded.empty()) {
        presetsViewController.currentPath = loaded;
        setStatus("Imported and loaded " + inQuotes(loaded) + ".", false);
        if (presetChanged) presetChanged(loaded);
    }
    if (!failures.empty()) {
        setStatus("Import: not every file was loaded.", true);
        alert("Import", "These files were not loaded:" + failures +
                            (loaded.empty() ? "\nThe sound and the panel are as they were." : ""));
    }
}

void AudioUnitViewController::onPresetFileExport(const std::string& file) {
    std::error_code ec;
    if (homePath.empty() || !fs::is_directory(homePath, ec)) {
        alert("Export", "Your home folder could not be found, so there is nowhere to export to.");
        return;
    }
    FilePicker picker(FilePicker::Mode::chooseFolder, homePath, "Home");
    picker.title = "EXPORT PRESET";
    picker.prompt = "Choose the folder to copy " + inQuotes(file) + " into.";
    picker.confirmTitle = "Export";
    picker.onConfirm = [this, file](const FilePicker& p) {
        if (const std::optional<std::string> folder = p.chosenFolder()) exportPreset(file, *folder);
    };
    overlays.showPicker(std::move(picker));
}

void AudioUnitViewController::exportPreset(const std::string& file, const std::string& folder) {
    const std::string destination = (fs::path(folder) / fs::path(file).filename()).string();
    if (somethingAt(destination)) {
        alert("FILE EXISTS", inQuotes(destination) + " already exists in " + folder +
                                 "; nothing was copied. Please choose another folder.");
        return;
    }
    const LimitedRead source = readFileLimited(file, PropertyList::kMaxBytes);
    try {
        if (!source.bytes || source.bytes->size() > PropertyList::kMaxBytes)
            throw FileError("the preset file could not be read");
        // Never over a file that appeared in the meantime.
        writeFileAtomically(destination, *source.bytes, false);
    } catch (const FileError& error) {
        note("AudioUnitViewController::onPresetFileExport() : ERROR: The file '" + file +
             "' could not be copied to '" + destination + "': " + error.what());
        setStatus(inQuotes(file) + " was not exported: " + error.what() + ".", true);
        alert("Export",
              inQuotes(file) + " could not be copied to " + folder + ": " + error.what() + ".");
        return;
    }
    note("AudioUnitViewController::onPresetFileExport() : The file '" + file + "' was copied to '" +
         destination + "'.");
    setStatus("Exported " + inQuotes(file) + " to " + folder + ".", false);
}

// ---- the host side ---------------------------------------------------------------------------

bool AudioUnitViewController::loadPresetFile(const std::string& path, std::string* reason) {
    auto fail = [&](const std::string& why) {
        if (reason) *reason = why;
        return false;
    };
    AUParameterTree* tree = audioUnit_ ? audioUnit_->parameterTree() : nullptr;
    if (!tree) return fail("the editor is not connected to the plug-in");
    // Read without a delegate: nothing of the file reaches the unit before it is known to be
    // whole and of this plug-in.
    TAVPreset preset(log());
    if (!preset.load(path)) return fail(preset.patch->failure);
    if (!preset.checkDescription(audioUnit_->componentDescription(), Unit::kStateVersion)) {
        note("TAV_SR_Chorus_Extension_AudioUnit::loadPresetFile() : ERROR: The component "
             "description of the loaded preset does not match.");
        const AudioComponentDescription& d = preset.componentDescription;
        return fail("it is a preset of another plug-in (" + fourCharText(d.componentType) + " " +
                    fourCharText(d.componentSubType) + " " + fourCharText(d.componentManufacturer) +
                    ")");
    }
    std::vector<std::pair<AUParameterAddress, AUValue>> values;
    for (const auto& group : preset.patch->groups)
        for (const auto& param : group->params) values.emplace_back(param->address, param->value);
    if (values.empty()) return fail("it holds no parameter values");
    applyValues(values);
    note("AudioUnitViewController::loadPresetFile() : The preset '" + path + "' was loaded (" +
         std::to_string(values.size()) + " values).");
    return true;
}

bool AudioUnitViewController::savePresetFile(const std::string& path, std::string* reason) {
    AUParameterTree* tree = audioUnit_ ? audioUnit_->parameterTree() : nullptr;
    if (!tree) {
        if (reason) *reason = "the editor is not connected to the plug-in";
        return false;
    }
    TAVPreset preset(log());
    preset.setDescription(audioUnit_->componentDescription(), Unit::kStateVersion,
                          Unit::kStateName);
    preset.makeFrom(*tree);
    if (preset.save(path)) return true;
    if (reason) *reason = preset.patch->failure;
    return false;
}

void AudioUnitViewController::applyValues(
    const std::vector<std::pair<AUParameterAddress, AUValue>>& values) {
    AUParameterTree* tree = audioUnit_ ? audioUnit_->parameterTree() : nullptr;
    if (!tree) return;
    for (const auto& [address, value] : values) {
        AUParameter* parameter = tree->parameterWithAddress(address);
        if (!parameter) continue;
        audioUnit_->beginParameterGesture(address);
        parameter->setValue(value, parameterObserverToken);
        audioUnit_->endParameterGesture(address);
        forwardToPanel(address, parameter->value());
    }
}

// ---- display ---------------------------------------------------------------------------------

void AudioUnitViewController::onContrastButton() {
    const double current = getParameter(kDisplayContrast);
    double next = kContrastSteps[0];
    for (const double step : kContrastSteps)
        if (step > current + 1e-3) {
            next = step;
            break;
        }
    applyValues({{kDisplayContrast, AUValue(next)}});
}

void AudioUnitViewController::onBrightnessSlider(double value) {
    const double b = std::clamp(std::isfinite(value) ? value : 1.0, kMinimumBrightness, 1.0);
    if (b == brightness) return;
    brightness = b;
    pluginView.setNeedsDisplay();
}

CGRect AudioUnitViewController::zoomedPanelFrame(const CGRect& bounds) const {
    const CGRect fitted = panelFrame(bounds);
    const double w = fitted.width() * zoomScale, h = fitted.height() * zoomScale;
    return {fitted.midX() + panOffset.x - w / 2, fitted.midY() + panOffset.y - h / 2, w, h};
}

void AudioUnitViewController::clampPan() {
    // At least this much of the panel stays in the window, whatever the gestures did.
    constexpr double kKeep = 48;
    const CGRect fitted = panelFrame(lastBounds);
    const double w = fitted.width() * zoomScale, h = fitted.height() * zoomScale;
    const double limitX = std::max(0.0, (lastBounds.width() + w) / 2 - kKeep);
    const double limitY = std::max(0.0, (lastBounds.height() + h) / 2 - kKeep);
    panOffset.x = std::clamp(panOffset.x, -limitX, limitX);
    panOffset.y = std::clamp(panOffset.y, -limitY, limitY);
}

void AudioUnitViewController::doTranslationTransform(CGPoint t) {
    if (!std::isfinite(t.x) || !std::isfinite(t.y)) return;
    panOffset.x += t.x;
    panOffset.y += t.y;
    clampPan();
    pluginView.setNeedsDisplay();
}

void AudioUnitViewController::doScalingTransform(double scale, CGPoint anchor) {
    if (!std::isfinite(scale) || scale <= 0) return;
    const double zoom = std::clamp(zoomScale * scale, kMinimumZoom, kMaximumZoom);
    const double k = zoom / zoomScale;
    // The point under the anchor stays under it.
    const CGRect fitted = panelFrame(lastBounds);
    const double cx = fitted.midX() + panOffset.x, cy = fitted.midY() + panOffset.y;
    panOffset.x += (anchor.x - cx) * (1 - k);
    panOffset.y += (anchor.y - cy) * (1 - k);
    zoomScale = zoom;
    clampPan();
    pluginView.setNeedsDisplay();
}

void AudioUnitViewController::onPanGesture(CGPoint translation) {
    doTranslationTransform(translation);
}

void AudioUnitViewController::onPinchGesture(double scale, CGPoint anchor) {
    doScalingTransform(scale, anchor);
}

void AudioUnitViewController::onDoubleTapGesture() {
    zoomScale = 1.0;
    panOffset = {};
    pluginView.setNeedsDisplay();
}

} // namespace sr::editor
