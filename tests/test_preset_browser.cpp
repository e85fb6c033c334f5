// The preset browser and the editor's dialogs without a display: the browser's model (listing,
// folders, info.txt, unsupported files, both kinds in any letter case, rows past the end,
// deleting after the question, factory files kept, its log lines), the New Preset dialog (typed
// names written atomically, FILE EXISTS, refused names, nothing outside the user folder), the
// host side (a preset reaches the host as port writes inside gestures; a malformed or foreign
// file changes nothing and says why), import, export, keys, zoom and pan.
#include <gtest/gtest.h>

#include <sys/stat.h>

#include <cmath>
#include <cstdio>
#include <filesystem>
#include <map>
#include <set>

#include "AudioUnitHost.h"
#include "EditorHarness.h"
#include "TestFiles.h"
#include "audiounit/PresetName.h"
#include "audiounit/TAVPreset.h"
#include "audiounit/TAV_SR_Chorus_Extension_AudioUnit.h"
#include "editor/FileTableViewPresets.h"
#include "editor/FileViewControllerPresets.h"
#include "editor/HostedAudioUnit.h"
#include "editor/PanelInput.h"
#include "editor/TextField.h"

namespace {

namespace fs = std::filesystem;
using namespace sr;
using namespace sr::editor;
using sr::test::EditorHarness;
using sr::test::freshDirectory;
using sr::test::LogCapture;
using sr::test::readFile;
using sr::test::writeFile;

// Every file below a folder with its bytes, to prove that nothing else was written.
std::map<std::string, std::string> snapshot(const fs::path& root) {
    std::map<std::string, std::string> files;
    for (const auto& e : fs::recursive_directory_iterator(root))
        files[e.path().string()] = e.is_regular_file() ? readFile(e.path()) : "<folder>";
    return files;
}

// A preset file of this plug-in (or of another manufacturer) with the values of `values`.
void writePreset(
    const fs::path& path, const std::array<float, kParameterCount>& values,
    std::uint32_t manufacturer = kTAVSRChorusComponentDescription.componentManufacturer) {
    AudioUnitMirror mirror;
    for (std::size_t a = 0; a < kParameterCount; ++a) mirror.receive(a, values[a]);
    AudioComponentDescription d = kTAVSRChorusComponentDescription;
    d.componentManufacturer = manufacturer;
    TAVPreset preset;
    preset.setDescription(d, 1, "Test");
    preset.makeFrom(*mirror.parameterTree());
    ASSERT_TRUE(preset.save(path.string()));
}

// Values unlike the defaults at every address.
std::array<float, kParameterCount> distinctValues(float shift) {
    std::array<float, kParameterCount> v{};
    for (std::size_t a = 0; a < kParameterCount; ++a) {
        const ParameterInfo& p = kParameterTable[a];
        if (a == kBypass || a == kFinalLimit)
            v[a] = p.defaultValue == 0 ? 1.0f : 0.0f;
        else if (a >= kFirstControllerAddress)
            v[a] = float(40 + a) + shift;
        else
            v[a] = p.minValue + (p.maxValue - p.minValue) * (0.1f + 0.02f * float(a) + shift / 100);
    }
    return v;
}

// The values a preset file holds, read by Python's plistlib: "address value" per parameter and
// the component codes, independent of our reader.
std::map<std::string, double> readWithPython(const fs::path& file) {
    const std::string command =
        "python3 -c \"import plistlib,sys\n"
        "d=plistlib.load(open(sys.argv[1],'rb'))\n"
        "print('type', d['type']); print('subtype', d['subtype']);"
        "print('manufacturer', d['manufacturer'])\n"
        "for k,g in d.items():\n"
        "  if k.startswith('group'):\n"
        "    for q,p in g.items():\n"
        "      if q.startswith('param'): print(p['address'], repr(p['value']))\n\" '" +
        file.string() + "'";
    std::map<std::string, double> result;
    FILE* pipe = ::popen(command.c_str(), "r");
    if (!pipe) return result;
    char key[64];
    double value;
    while (std::fscanf(pipe, "%63s %lf", key, &value) == 2) result[key] = value;
    EXPECT_EQ(::pclose(pipe), 0);
    return result;
}

std::vector<float> mirrorValues(EditorHarness& h) {
    std::vector<float> v;
    for (std::size_t a = 0; a < kParameterCount; ++a)
        v.push_back(h.mirror.parameterTree()->parameterWithAddress(a)->value());
    return v;
}

PanelKeyEvent keyOf(PanelKey key, bool shift = false) {
    PanelKeyEvent e;
    e.key = key;
    e.shift = shift;
    return e;
}

PanelKeyEvent typed(const std::string& text) {
    PanelKeyEvent e;
    e.key = PanelKey::text;
    e.text = text;
    return e;
}

void typeText(EditorHarness& h, const std::string& text) {
    h.controller.overlays.key(typed(text));
}

// A harness whose documents and home folders are fresh ones of this test.
struct BrowserHarness : EditorHarness {
    explicit BrowserHarness(const std::string& name)
        : root(freshDirectory("browser", name)), documents(root / "documents"),
          home(root / "home") {
        fs::create_directories(documents / "Presets/Factory");
        fs::create_directories(documents / "Presets/User");
        fs::create_directories(home);
        controller.documentsPath = documents.string() + "/";
        controller.homePath = home.string();
    }
    fs::path factory() const { return documents / "Presets/Factory"; }
    fs::path user() const { return documents / "Presets/User"; }
    FileTableViewPresets& table() { return controller.presetsViewController.tableView; }
    PanelOverlays& overlays() { return controller.overlays; }
    PanelAlert& topAlert() { return controller.overlays.alerts.back(); }
    // Clicks an overlay's region by id (press and release on it).
    void click(const std::string& id) {
        const std::optional<CGPoint> p = overlays().windowPointOf(id);
        ASSERT_TRUE(p) << id;
        overlays().press(*p);
        overlays().release(*p);
    }
    void clickRow(std::size_t row) {
        const std::optional<CGPoint> p = overlays().windowPointOfRow(row);
        ASSERT_TRUE(p) << row;
        overlays().press(*p);
        overlays().release(*p);
    }
    std::vector<std::string> titles() {
        std::vector<std::string> t;
        for (const FileItem& i : table().items()) t.push_back(i.title());
        return t;
    }

    fs::path root, documents, home;
};

// ---- the browser's model ----------------------------------------------------------------------

TEST(PresetBrowser, ListsFoldersFirstWithInfoThenFilesOfBothKindsInAnyCase) {
    BrowserHarness h("listing");
    const auto v = distinctValues(0);
    writePreset(h.factory() / "b.aupreset", v);
    writePreset(h.factory() / "A.AUPRESET", v);
    writePreset(h.factory() / "c.FullState", v);
    writeFile(h.factory() / "readme.md", "notes");
    writeFile(h.factory() / "info.txt", "The factory set");
    writeFile(h.factory() / ".b.aupreset.x1Y2z3", "a write in progress");
    fs::create_directories(h.factory() / "Pads");
    writeFile(h.factory() / "Pads/info.txt", "Slow pads\n\tfor  strings\r\n");
    writePreset(h.factory() / "Pads/Pad 10.aupreset", v);
    writePreset(h.factory() / "Pads/Pad 2.aupreset", v);

    LogCapture log;
    h.controller.performSegue("showPresets");
    ASSERT_TRUE(h.controller.isShowingPresets());
    EXPECT_STREQ(h.table().sectionTitle(), "Factory Files");
    EXPECT_EQ(h.titles(),
              (std::vector<std::string>{"Pads", "A", "b", "c", "Unsupported File ( 'readme.md"}));
    const auto& items = h.table().items();
    EXPECT_EQ(items[0].info, "Slow pads for strings");
    EXPECT_EQ(items[1].kind, FileKind::preset);
    EXPECT_EQ(items[3].kind, FileKind::fullState);
    EXPECT_EQ(items[4].kind, FileKind::unsupported);
    for (const FileItem& i : items) EXPECT_FALSE(i.isDeleteble) << i.name;

    // A folder opens in place, its entries in number order, and closes again.
    h.table().didSelectRowAt(0);
    EXPECT_EQ(h.titles(), (std::vector<std::string>{"Pads", "Pad 2", "Pad 10", "A", "b", "c",
                                                    "Unsupported File ( 'readme.md"}));
    EXPECT_EQ(h.table().items()[1].depth, 1);
    h.table().didSelectRowAt(0);
    EXPECT_EQ(h.table().count(), 5u);
    const auto lines = log.lines();
    auto has = [&](const std::string& line) {
        return std::find(lines.begin(), lines.end(), line) != lines.end();
    };
    EXPECT_TRUE(has("row: 0"));
    EXPECT_TRUE(has("count: 5"));
    EXPECT_TRUE(has("new count: 7"));
    EXPECT_TRUE(has("count: 7"));
    EXPECT_TRUE(has("new count: 5"));

    // The user set: the same listing, every item deletable.
    h.controller.presetsViewController.showSet(PresetSet::user);
    EXPECT_STREQ(h.table().sectionTitle(), "User Files");
    EXPECT_TRUE(h.table().items().empty());
    writePreset(h.user() / "Mine.aupreset", v);
    h.controller.presetsViewController.refresh();
    ASSERT_EQ(h.table().count(), 1u);
    EXPECT_TRUE(h.table().items()[0].isDeleteble);
}

TEST(PresetBrowser, ChoosingRowsLoadsPresetsWarnsAndRefusesRowsPastTheEnd) {
    BrowserHarness h("choosing");
    const auto v = distinctValues(0);
    writePreset(h.factory() / "One.aupreset", v);
    writePreset(h.factory() / "Two.FULLSTATE", distinctValues(5));
    writeFile(h.factory() / "three.txt", "x");
    writePreset(h.factory() / "Four.aupreset", v);
    h.controller.performSegue("showPresets");
    ASSERT_EQ(h.titles(),
              (std::vector<std::string>{"Four", "One", "Unsupported File ( 'three.txt", "Two"}));

    LogCapture log;
    h.table().didSelectRowAt(2);
    EXPECT_EQ(log.matching("FileTableViewPresets::didSelectRowAt : WARNING: The file format is not "
                           "supported.")
                  .size(),
              1u);
    EXPECT_TRUE(h.writer.writes().empty());

    // A full state file loads like a preset.
    h.table().didSelectRowAt(3);
    EXPECT_EQ(h.writer.writes().size(), kParameterCount);
    EXPECT_EQ(h.controller.presetsViewController.currentPath,
              (h.factory() / "Two.FULLSTATE").string());

    // The list shrinks behind the drawn rows: a row past the end changes nothing.
    fs::remove(h.factory() / "One.aupreset");
    fs::remove(h.factory() / "Two.FULLSTATE");
    h.controller.presetsViewController.refresh();
    ASSERT_EQ(h.table().count(), 2u);
    h.writer.calls.clear();
    log.clear();
    h.table().didSelectRowAt(3);
    EXPECT_EQ(log.lines(), (std::vector<std::string>{
                               "row: 3", "count: 2",
                               "FileTableViewPresets::didSelectRowAt : Error: The row exceeds the "
                               "count of items."}));
    EXPECT_TRUE(h.writer.calls.empty());
    EXPECT_EQ(h.table().count(), 2u);

    // A file that went without the list knowing.
    fs::remove(h.factory() / "Four.aupreset");
    log.clear();
    h.table().didSelectRowAt(0);
    EXPECT_EQ(log.matching("FileTableViewPresets::didSelectRowAt : ERROR: The file '" +
                           (h.factory() / "Four.aupreset").string() + "' does not exist.")
                  .size(),
              1u);
    EXPECT_TRUE(h.writer.calls.empty());
}

TEST(PresetBrowser, DeletesAUserFileAfterOKKeepsItAfterCancelAndNeverAFactoryFile) {
    BrowserHarness h("delete");
    writePreset(h.factory() / "Factory One.aupreset", distinctValues(0));
    writePreset(h.user() / "Keep.aupreset", distinctValues(0));
    writePreset(h.user() / "Remove.aupreset", distinctValues(0));
    h.controller.performSegue("showPresets");

    // Factory: refused with the alert, no question, nothing removed.
    LogCapture log;
    h.table().selectedRow = 0;
    h.controller.presetsViewController.onDeleteButton();
    ASSERT_EQ(h.overlays().alerts.size(), 1u);
    EXPECT_EQ(h.topAlert().title, "Delete Files");
    EXPECT_EQ(h.topAlert().message, "Factory content cannot be deleted.");
    EXPECT_EQ(h.topAlert().actions.size(), 1u);
    h.click("action:0");
    EXPECT_TRUE(fs::exists(h.factory() / "Factory One.aupreset"));
    // Even when asked directly.
    EXPECT_FALSE(h.table().deleteFile());
    EXPECT_TRUE(fs::exists(h.factory() / "Factory One.aupreset"));

    h.click("user");
    ASSERT_EQ(h.titles(), (std::vector<std::string>{"Keep", "Remove"}));
    // Cancel keeps the file.
    log.clear();
    h.table().selectedRow = 0;
    h.overlays().key(keyOf(PanelKey::deleteForward));
    ASSERT_EQ(h.overlays().alerts.size(), 1u);
    EXPECT_EQ(h.topAlert().title, "Delete Files");
    EXPECT_EQ(h.topAlert().message,
              "Do You really want to delete the file (or folder)? \nThis cannot be undone!");
    EXPECT_EQ(h.topAlert().actions[0].title, "OK");
    EXPECT_EQ(h.topAlert().actions[1].title, "Cancel");
    h.overlays().key(keyOf(PanelKey::escape));
    EXPECT_TRUE(h.overlays().alerts.empty());
    EXPECT_TRUE(fs::exists(h.user() / "Keep.aupreset"));
    EXPECT_EQ(log.lines(),
              (std::vector<std::string>{
                  "Alert: Delete Files : Do You really want to delete the file (or folder)? ",
                  "This cannot be undone!",
                  "FileViewControllerPresets::alertFileDelete() : Delete action was canceled."}));

    // OK removes it, with the lines of each step.
    log.clear();
    const std::string path = (h.user() / "Remove.aupreset").string();
    h.table().selectedRow = 1;
    h.click("delete");
    h.click("action:0");
    EXPECT_FALSE(fs::exists(path));
    EXPECT_TRUE(fs::exists(h.user() / "Keep.aupreset"));
    EXPECT_EQ(h.titles(), (std::vector<std::string>{"Keep"}));
    EXPECT_EQ(
        log.lines(),
        (std::vector<std::string>{
            "Alert: Delete Files : Do You really want to delete the file (or folder)? ",
            "This cannot be undone!",
            "FileViewControllerPresets::alertFileDelete() : Delete action was permitted.",
            "FileTableViewPresets::deleteFile() : The file '" + path + "' is asked to be removed.",
            "FileTableViewPresets::deleteFile() : The file was removed."}));
}

TEST(PresetBrowser, FolderErrorsAreLoggedWithTheirTexts) {
    LogCapture log;
    FileTableViewPresets table;
    EXPECT_FALSE(table.loadFactorySet());
    EXPECT_FALSE(table.loadUserSet());
    EXPECT_EQ(log.lines(),
              (std::vector<std::string>{
                  "FileTableViewPresets::loadFactorySet() : ERROR: Documents directory is nil.",
                  "FileTableViewPresets::loadUserSet() : ERROR: Documents directory is nil."}));

    // A file where the folders should be.
    const fs::path dir = freshDirectory("browser", "blocked");
    writeFile(dir / "Presets", "not a folder");
    table.documentsDirectory = dir.string() + "/";
    log.clear();
    EXPECT_FALSE(table.loadFactorySet());
    EXPECT_FALSE(table.loadUserSet());
    const auto lines = log.lines();
    ASSERT_EQ(lines.size(), 4u);
    EXPECT_EQ(lines[0].rfind("Quillon_AudioUnit::ensureDirectoryExists() : ERROR: Creating "
                             "required directory '" +
                                 dir.string() + "/Presets/Factory/' failed: ",
                             0),
              0u);
    EXPECT_EQ(lines[1], "FileTableViewPresets::loadUserSet() : ERROR: The factory preset directory "
                        "could not be created.");
    EXPECT_EQ(lines[3], "FileTableViewPresets::loadUserSet() : ERROR: The user preset directory "
                        "could not be created.");

    // A file that is gone when it is deleted.
    const fs::path docs = freshDirectory("browser", "gone");
    fs::create_directories(docs / "Presets/User");
    writeFile(docs / "Presets/User/x.aupreset", "x");
    table.documentsDirectory = docs.string() + "/";
    ASSERT_TRUE(table.loadUserSet());
    table.selectedRow = 0;
    fs::remove(docs / "Presets/User/x.aupreset");
    log.clear();
    EXPECT_FALSE(table.deleteFile());
    EXPECT_EQ(log.matching("FileTableViewPresets::deleteFile() : ERROR: The file for deletion (" +
                           (docs / "Presets/User/x.aupreset").string())
                  .size(),
              1u);
}

// ---- loading through the host ------------------------------------------------------------------

TEST(PresetBrowser, ChoosingAPresetWritesEveryValueToTheHostInsideGestures) {
    BrowserHarness h("host");
    const auto v = distinctValues(0);
    writePreset(h.factory() / "All.aupreset", v);
    h.controller.performSegue("showPresets");
    h.clickRow(0);
    const auto writes = h.writer.writes();
    ASSERT_EQ(writes.size(), kParameterCount);
    std::set<AUParameterAddress> seen;
    for (const auto& w : writes) {
        seen.insert(w.address);
        EXPECT_EQ(w.value, v[w.address]) << w.address;
    }
    EXPECT_EQ(seen.size(), kParameterCount);
    // Each value is a gesture of its own: begin, write, end.
    ASSERT_EQ(h.writer.calls.size(), 3 * kParameterCount);
    for (std::size_t i = 0; i < h.writer.calls.size(); i += 3) {
        EXPECT_EQ(h.writer.calls[i].kind, 'b');
        EXPECT_EQ(h.writer.calls[i + 1].kind, 'w');
        EXPECT_EQ(h.writer.calls[i + 2].kind, 'e');
    }
    // The panel shows them at once, and marks the row.
    EXPECT_DOUBLE_EQ(h.base().valueDepth, double(v[kChorusDepth]));
    EXPECT_EQ(h.base().controllerDryWet, int(v[kChorusDryWetController]));
    EXPECT_EQ(h.controller.presetsViewController.currentPath,
              (h.factory() / "All.aupreset").string());
    EXPECT_EQ(h.controller.statusText, "Loaded “All.aupreset”.");
}

TEST(PresetBrowser, MalformedOrForeignPresetsChangeNothingAndSayWhy) {
    BrowserHarness h("malformed");
    writeFile(h.user() / "Broken.aupreset", "<?xml version=\"1.0\"?><plist><dict><key>");
    writePreset(h.user() / "Foreign.aupreset", distinctValues(0), fourCharCode("QXRT"));
    // Of this plug-in, but a value beyond its parameter's range.
    writePreset(h.user() / "Range.aupreset", distinctValues(0));
    std::string text = readFile(h.user() / "Range.aupreset");
    const std::size_t at = text.find("<real>", text.find("kChorusDepth"));
    text.replace(at, text.find("</real>", at) - at, "<real>7.5");
    writeFile(h.user() / "Range.aupreset", text);
    writeFile(h.home / "import.aupreset", "not a property list at all");

    h.hostSends(kChorusDepth, 0.61f);
    const std::vector<float> before = mirrorValues(h);
    const double depthShown = h.base().valueDepth;
    h.controller.performSegue("showPresets");
    h.click("user");
    ASSERT_EQ(h.titles(), (std::vector<std::string>{"Broken", "Foreign", "Range"}));
    struct Case {
        std::size_t row;
        const char* reason;
    };
    for (const Case& c :
         {Case{0, "is not a property list"}, Case{1, "another plug-in"}, Case{2, "kChorusDepth"}}) {
        h.clickRow(c.row);
        EXPECT_TRUE(h.writer.calls.empty()) << c.row;
        EXPECT_EQ(mirrorValues(h), before);
        EXPECT_EQ(h.base().valueDepth, depthShown);
        ASSERT_EQ(h.overlays().alerts.size(), 1u);
        EXPECT_EQ(h.topAlert().title, "Preset Not Loaded");
        EXPECT_NE(h.topAlert().message.find(c.reason), std::string::npos) << h.topAlert().message;
        EXPECT_NE(h.topAlert().message.find("The sound and the panel are as they were."),
                  std::string::npos);
        EXPECT_TRUE(h.controller.statusIsError);
        h.overlays().key(keyOf(PanelKey::enter));
        EXPECT_TRUE(h.overlays().alerts.empty());
        EXPECT_TRUE(h.controller.presetsViewController.currentPath.empty());
    }

    // Imported, the same.
    LogCapture log;
    h.controller.documentPicker({(h.home / "import.aupreset").string()});
    EXPECT_TRUE(h.writer.calls.empty());
    EXPECT_EQ(mirrorValues(h), before);
    EXPECT_EQ(log.matching("documentPicker: " + (h.home / "import.aupreset").string()).size(), 1u);
    ASSERT_EQ(h.overlays().alerts.size(), 1u);
    EXPECT_EQ(h.topAlert().title, "Import");
    EXPECT_NE(h.topAlert().message.find("“import.aupreset”: it is not a property list"),
              std::string::npos)
        << h.topAlert().message;
}

TEST(PresetBrowser, TheSameControllerLoadsAndSavesWithAUnitInItsOwnProcess) {
    // As the standalone app has it: the editor on the unit's own tree.
    const fs::path dir = freshDirectory("browser", "hosted");
    fs::create_directories(dir / "Presets/User");
    const auto v = distinctValues(2);
    writePreset(dir / "In.aupreset", v);
    sr::test::AudioUnitHost host;
    HostedAudioUnit hosted(host.unit);
    AudioUnitViewController controller;
    controller.documentsPath = dir.string() + "/";
    controller.viewDidLoad();
    controller.setAudioUnit(&hosted);
    controller.mainQueue().drain();
    std::vector<std::string> told;
    controller.presetChanged = [&](const std::string& path) { told.push_back(path); };

    controller.onPresetFileSelect(0, (dir / "In.aupreset").string());
    for (std::size_t a = 0; a < kParameterCount; ++a)
        EXPECT_EQ(host.unit.getParameter(std::int32_t(a)), v[a]) << a;
    EXPECT_TRUE(hosted.shouldBypassEffect()); // the values bypass, as the kernel reads them
    EXPECT_EQ(told, (std::vector<std::string>{(dir / "In.aupreset").string()}));

    // Saved from the unit's tree, the file reads back as the same values.
    controller.alertFileName();
    controller.overlays.key(typed("Out"));
    controller.overlays.key(keyOf(PanelKey::enter));
    const fs::path out = dir / "Presets/User/Out.aupreset";
    ASSERT_TRUE(fs::is_regular_file(out));
    EXPECT_EQ(told.back(), out.string());
    const std::map<std::string, double> read = readWithPython(out);
    for (std::size_t a = 0; a < kParameterCount; ++a)
        EXPECT_EQ(float(read.at(std::to_string(a))), v[a]) << a;
}

// ---- saving under a new name ------------------------------------------------------------------

TEST(NewPresetDialog, ATypedNameIsWrittenAtomicallyFromTheParameterValues) {
    BrowserHarness h("save");
    const auto v = distinctValues(3);
    for (std::size_t a = 0; a < kParameterCount; ++a) h.hostSends(a, v[a]);
    h.controller.performSegue("showPresets");
    h.click("save");
    ASSERT_EQ(h.overlays().alerts.size(), 1u);
    PanelAlert& dialog = h.topAlert();
    EXPECT_EQ(dialog.title, "New Preset");
    EXPECT_EQ(dialog.message, "Please enter the file name for the current file:");
    ASSERT_TRUE(dialog.textField);
    EXPECT_EQ(dialog.textField->text(), "preset");
    EXPECT_EQ(dialog.actions[0].title, "OK");
    EXPECT_EQ(dialog.actions[1].title, "Cancel");

    // "preset" is selected: typing replaces it; then editing keys.
    typeText(h, "Chorus");
    h.overlays().key(keyOf(PanelKey::home));
    typeText(h, "Mein ");
    h.overlays().key(keyOf(PanelKey::end));
    typeText(h, " été ☀x");
    h.overlays().key(keyOf(PanelKey::backspace));
    h.overlays().key(keyOf(PanelKey::left));
    h.overlays().key(keyOf(PanelKey::left));
    h.overlays().key(keyOf(PanelKey::deleteForward)); // the space before the sun
    EXPECT_EQ(h.topAlert().textField->text(), "Mein Chorus été☀");
    const std::map<std::string, std::string> before = snapshot(h.root);
    h.overlays().key(keyOf(PanelKey::enter));
    EXPECT_TRUE(h.overlays().alerts.empty());

    const fs::path file = h.user() / "Mein Chorus été☀.aupreset";
    ASSERT_TRUE(fs::is_regular_file(file));
    // Exactly one new file: nothing beside it, no temporary left.
    std::map<std::string, std::string> after = snapshot(h.root);
    after.erase(file.string());
    EXPECT_EQ(after, before);
    struct stat st {};
    ASSERT_EQ(::stat(file.c_str(), &st), 0);
    const mode_t mask = ::umask(0);
    ::umask(mask);
    EXPECT_EQ(st.st_mode & 0777, 0666 & ~mask);

    // Python reads what the mirror held, with the plug-in's codes.
    const std::map<std::string, double> read = readWithPython(file);
    EXPECT_EQ(read.at("type"), double(kTAVSRChorusComponentDescription.componentType));
    EXPECT_EQ(read.at("subtype"), double(kTAVSRChorusComponentDescription.componentSubType));
    EXPECT_EQ(read.at("manufacturer"),
              double(kTAVSRChorusComponentDescription.componentManufacturer));
    for (std::size_t a = 0; a < kParameterCount; ++a)
        EXPECT_EQ(float(read.at(std::to_string(a))), v[a]) << a;

    // Listed in the user set, selected and marked as the current preset.
    EXPECT_EQ(h.table().set(), PresetSet::user);
    ASSERT_NE(h.table().selectedItem(), nullptr);
    EXPECT_EQ(h.table().selectedItem()->path, file.string());
    EXPECT_EQ(h.controller.presetsViewController.currentPath, file.string());

    // Loaded back after a change, it restores every value.
    h.hostSends(kChorusDepth, 0.99f);
    h.writer.calls.clear();
    h.table().didSelectRowAt(*h.table().selectedRow);
    EXPECT_EQ(h.writer.writes().size(), kParameterCount);
    EXPECT_EQ(h.mirror.parameterTree()->parameterWithAddress(kChorusDepth)->value(),
              v[kChorusDepth]);
}

TEST(NewPresetDialog, AnExistingNameShowsFileExistsWritesNothingAndAsksAgain) {
    BrowserHarness h("exists");
    writePreset(h.user() / "Taken.aupreset", distinctValues(0));
    const std::string old = readFile(h.user() / "Taken.aupreset");
    h.hostSends(kChorusDepth, 0.2f);
    const std::map<std::string, std::string> before = snapshot(h.root);

    LogCapture log;
    h.controller.alertFileName();
    typeText(h, "Taken");
    h.click("action:0");
    ASSERT_EQ(h.overlays().alerts.size(), 1u);
    EXPECT_EQ(h.topAlert().title, "FILE EXISTS");
    EXPECT_EQ(h.topAlert().message, "The file already exists, please use another file name.");
    ASSERT_EQ(h.topAlert().actions.size(), 1u);
    EXPECT_EQ(h.topAlert().actions[0].title, "OK");
    EXPECT_EQ(snapshot(h.root), before);
    EXPECT_EQ(readFile(h.user() / "Taken.aupreset"), old);
    EXPECT_EQ(log.matching("AudioUnitViewController::testForPresetName() : WARNING: The "
                           "destination for preset 'Taken' (" +
                           h.controller.documentsPath + "Presets/User/Taken).aupreset")
                  .size(),
              1u);

    // OK asks again, with the name that clashed.
    h.overlays().key(keyOf(PanelKey::enter));
    ASSERT_EQ(h.overlays().alerts.size(), 1u);
    EXPECT_EQ(h.topAlert().title, "File name");
    EXPECT_EQ(h.topAlert().message, "The file already exists. Please type in another file name: ");
    EXPECT_EQ(h.topAlert().textField->text(), "Taken");
    h.overlays().key(keyOf(PanelKey::end));
    typeText(h, " 2");
    h.overlays().key(keyOf(PanelKey::enter));
    EXPECT_TRUE(fs::is_regular_file(h.user() / "Taken 2.aupreset"));
    EXPECT_EQ(readFile(h.user() / "Taken.aupreset"), old);
    // The check looks where the save writes: a factory file of the name is no clash.
    writePreset(h.factory() / "Elsewhere.aupreset", distinctValues(0));
    writePreset(h.documents / "Presets/Elsewhere.aupreset", distinctValues(0));
    EXPECT_FALSE(h.controller.testForPresetName("Elsewhere"));
    EXPECT_TRUE(h.controller.testForPresetName("Taken 2"));
}

TEST(NewPresetDialog, RefusedNamesSayWhyInThePanelAndWriteNothingAnywhere) {
    BrowserHarness h("refused");
    h.controller.performSegue("showPresets");
    // The documents folder (and so the user folder's surroundings) and the home folder.
    const std::map<std::string, std::string> before = snapshot(h.root);
    struct Case {
        std::string name;
        const char* reason;
    };
    const Case cases[] = {
        {"a/b", "cannot contain \"/\""},
        {"../../escape", "cannot contain \"/\""},
        {"..", "cannot contain \"..\""},
        {"x..y", "cannot contain \"..\""},
        {"tab\there", "control characters"},
        {"bell\x07", "control characters"},
        {"c1\xC2\x85", "control characters"},
        {".hidden", "cannot begin with a dot"},
        {std::string(201, 'n'), "too long: 201 bytes, at most 200"},
        {"", "Please type a name"},
        {"   ", "Please type a name"},
        {"bad\xFFutf8", "not valid UTF-8"},
    };
    for (const Case& c : cases) {
        h.controller.alertFileName();
        // What OK hands over, whatever the field let through.
        const auto ok = h.topAlert().actions[0].handler;
        h.overlays().alerts.pop_back();
        ok(c.name);
        ASSERT_EQ(h.overlays().alerts.size(), 1u) << c.name;
        EXPECT_EQ(h.topAlert().title, "New Preset");
        EXPECT_NE(h.topAlert().message.find(c.reason), std::string::npos)
            << c.name << ": " << h.topAlert().message;
        EXPECT_NE(h.topAlert().message.find("Nothing was saved."), std::string::npos);
        // OK goes back to the question with the text as it was, to be corrected.
        h.overlays().key(keyOf(PanelKey::enter));
        ASSERT_EQ(h.overlays().alerts.size(), 1u);
        ASSERT_TRUE(h.topAlert().textField);
        h.overlays().key(keyOf(PanelKey::escape));
        EXPECT_TRUE(h.overlays().alerts.empty());
    }
    EXPECT_EQ(snapshot(h.root), before);
    // Exactly 200 bytes is a name.
    EXPECT_FALSE(presetNameProblem(std::string(200, 'n')));
    EXPECT_FALSE(presetNameProblem("Mein Chorus été ☀"));
}

TEST(NewPresetDialog, TheTextFieldEditsWholeCharactersAndDropsControls) {
    TextField field("preset");
    EXPECT_TRUE(field.hasSelection());
    field.insert("ä€😀");
    EXPECT_EQ(field.text(), "ä€😀");
    field.left();
    EXPECT_EQ(field.caret(), std::string("ä€").size());
    field.backspace();
    EXPECT_EQ(field.text(), "ä😀");
    field.deleteForward();
    EXPECT_EQ(field.text(), "ä");
    field.home();
    field.insert("a\tb\x01\xC2\x85\xFF");
    EXPECT_EQ(field.text(), "abä");
    field.end(true);
    EXPECT_EQ(field.selectionStart(), 2u);
    field.insert("c");
    EXPECT_EQ(field.text(), "abc");
    field.home();
    field.right(true);
    field.right(true);
    field.backspace();
    EXPECT_EQ(field.text(), "c");
    field.setCaret(1);
    field.insert(std::string(2000, 'z'));
    EXPECT_EQ(field.text().size(), TextField::kMaxBytes);
}

// ---- import and export ------------------------------------------------------------------------

TEST(PresetBrowser, ImportLoadsEachTickedFileInTurnAndExportCopiesIntoAChosenFolder) {
    BrowserHarness h("import");
    fs::create_directories(h.home / "Sounds/Old");
    fs::create_directories(h.home / ".cache");
    writePreset(h.home / "Sounds/first.aupreset", distinctValues(1));
    writePreset(h.home / "Sounds/Old/second.AUPRESET", distinctValues(2));
    writeFile(h.home / "Sounds/notes.txt", "skip me");
    writePreset(h.home / ".cache/hidden.aupreset", distinctValues(0));
    h.controller.performSegue("showPresets");
    h.click("import");
    ASSERT_TRUE(h.overlays().picker);
    FilePicker& picker = *h.overlays().picker;
    auto names = [&] {
        std::vector<std::string> n;
        for (const FileItem& i : picker.rows()) n.push_back(std::string(i.depth, '>') + i.title());
        return n;
    };
    EXPECT_EQ(names(), (std::vector<std::string>{"Home", ">Sounds"}));
    h.clickRow(1);
    h.clickRow(2); // Old
    EXPECT_EQ(names(),
              (std::vector<std::string>{"Home", ">Sounds", ">>Old", ">>>second", ">>first"}));
    h.clickRow(4);
    h.clickRow(3);
    EXPECT_EQ(picker.tickedFiles().size(), 2u);
    LogCapture log;
    h.click("confirm");
    EXPECT_FALSE(h.overlays().picker);
    EXPECT_EQ(log.matching("documentPicker: ").size(), 2u);
    EXPECT_EQ(h.writer.writes().size(), 2 * kParameterCount);
    EXPECT_EQ(h.mirror.parameterTree()->parameterWithAddress(kChorusDepth)->value(),
              distinctValues(2)[kChorusDepth]);
    EXPECT_TRUE(h.overlays().alerts.empty());

    // Export the selected user preset into Sounds.
    writePreset(h.user() / "Out.aupreset", distinctValues(4));
    h.click("user");
    h.table().selectedRow = 0;
    h.click("export");
    ASSERT_TRUE(h.overlays().picker);
    EXPECT_EQ(h.overlays().picker->mode(), FilePicker::Mode::chooseFolder);
    h.clickRow(1); // Sounds
    h.click("confirm");
    EXPECT_EQ(readFile(h.home / "Sounds/Out.aupreset"), readFile(h.user() / "Out.aupreset"));
    // Never over a file that is there.
    writeFile(h.home / "Out.aupreset", "mine");
    h.click("export");
    h.click("confirm"); // Home is selected at first
    EXPECT_EQ(readFile(h.home / "Out.aupreset"), "mine");
    ASSERT_EQ(h.overlays().alerts.size(), 1u);
    EXPECT_EQ(h.topAlert().title, "FILE EXISTS");
}

// ---- keys, zoom, pan, display -----------------------------------------------------------------

TEST(PresetBrowser, KeysMoveThroughTheListLoadAskAndClose) {
    BrowserHarness h("keys");
    for (int i = 0; i < 30; ++i) {
        char name[32];
        std::snprintf(name, sizeof name, "Preset %02d.aupreset", i);
        writePreset(h.factory() / name, distinctValues(float(i % 5)));
    }
    h.controller.performSegue("showPresets");
    PanelOverlays& o = h.overlays();
    o.key(keyOf(PanelKey::down));
    EXPECT_EQ(h.table().selectedRow, 0u);
    o.key(keyOf(PanelKey::down));
    o.key(keyOf(PanelKey::down));
    EXPECT_EQ(h.table().selectedRow, 2u);
    o.key(keyOf(PanelKey::pageDown));
    EXPECT_GT(*h.table().selectedRow, 8u);
    o.key(keyOf(PanelKey::end));
    EXPECT_EQ(h.table().selectedRow, 29u);
    // The list scrolled so the row is in sight.
    EXPECT_TRUE(o.windowPointOfRow(29));
    EXPECT_FALSE(o.windowPointOfRow(0));
    o.key(keyOf(PanelKey::home));
    EXPECT_EQ(o.scrollOffset(), 0.0);
    o.key(keyOf(PanelKey::up));
    EXPECT_EQ(h.table().selectedRow, 0u);
    EXPECT_TRUE(h.writer.calls.empty()); // moving loads nothing
    o.key(keyOf(PanelKey::enter));
    EXPECT_EQ(h.writer.writes().size(), kParameterCount);
    EXPECT_EQ(h.controller.presetsViewController.currentPath,
              (h.factory() / "Preset 00.aupreset").string());
    // The wheel scrolls three rows a notch.
    o.wheel(*o.windowPointOfRow(0), -1);
    EXPECT_EQ(o.scrollOffset(), 3.0);
    o.key(keyOf(PanelKey::tab));
    EXPECT_EQ(h.table().set(), PresetSet::user);
    o.key(keyOf(PanelKey::escape));
    EXPECT_FALSE(h.controller.isShowingPresets());
    EXPECT_FALSE(o.key(keyOf(PanelKey::down))); // closed: keys go by
}

TEST(PanelInput, PresetsButtonOpensTheBrowserWhichTakesThePointerUntilClosed) {
    BrowserHarness h("input");
    PanelInput input(h.controller);
    EXPECT_FALSE(input.wantsKeyboard());
    const CGPoint presets = h.windowPoint(h.base().hotspotButtonPresetsPath);
    input.press(presets, PanelInput::left, 0, 1.0);
    input.release(presets, PanelInput::left);
    EXPECT_TRUE(h.controller.isShowingPresets());
    EXPECT_TRUE(input.wantsKeyboard());
    EXPECT_FALSE(h.base().isButtonPresetsActive);
    // A press on a knob's place now reaches the browser, not the knob.
    const CGPoint depth = h.windowPoint(h.base().hotspotKnobDepthPath);
    input.press(depth, PanelInput::left, 0, 2.0);
    input.motion({depth.x, depth.y - 50});
    input.release({depth.x, depth.y - 50}, PanelInput::left);
    EXPECT_TRUE(h.writer.calls.empty());
    // Beside the card it closes.
    input.press({4, 4}, PanelInput::left, 0, 3.0);
    input.release({4, 4}, PanelInput::left);
    EXPECT_FALSE(h.controller.isShowingPresets());
    EXPECT_FALSE(input.wantsKeyboard());
}

TEST(PanelInput, CtrlWheelZoomsAboutThePointerMiddleDragPansDoubleClickResets) {
    EditorHarness h(1024, 400);
    PanelInput input(h.controller);
    const CGPoint anchor{300, 150};
    // The canvas point under the pointer stays there.
    auto canvasAt = [&](CGPoint w) {
        const CGRect f = h.controller.zoomedPanelFrame(h.controller.lastBounds);
        return CGPoint{(w.x - f.minX()) * 1024 / f.width(), (w.y - f.minY()) * 400 / f.height()};
    };
    const CGPoint under = canvasAt(anchor);
    input.wheel(anchor, 3, kModifierControl);
    EXPECT_NEAR(h.controller.zoomScale, std::pow(1.1, 3), 1e-9);
    EXPECT_NEAR(canvasAt(anchor).x, under.x, 1e-9);
    EXPECT_NEAR(canvasAt(anchor).y, under.y, 1e-9);
    EXPECT_TRUE(h.writer.calls.empty());
    input.wheel(anchor, 100, kModifierControl);
    EXPECT_EQ(h.controller.zoomScale, AudioUnitViewController::kMaximumZoom);
    input.wheel(anchor, -100, kModifierControl);
    EXPECT_EQ(h.controller.zoomScale, AudioUnitViewController::kMinimumZoom);
    input.wheel(anchor, 7, kModifierControl);
    const double zoom = h.controller.zoomScale;

    // The middle button drags the panel.
    const CGPoint before = h.controller.panOffset;
    input.press({500, 200}, PanelInput::middle, 0, 1.0);
    input.motion({530, 190});
    input.motion({560, 180});
    input.release({560, 180}, PanelInput::middle);
    EXPECT_DOUBLE_EQ(h.controller.panOffset.x, before.x + 60);
    EXPECT_DOUBLE_EQ(h.controller.panOffset.y, before.y - 20);
    // Never out of the window.
    input.press({500, 200}, PanelInput::middle, 0, 2.0);
    input.motion({50000, 200});
    input.release({50000, 200}, PanelInput::middle);
    const CGRect f = h.controller.zoomedPanelFrame(h.controller.lastBounds);
    EXPECT_LE(f.minX(), 1024 - 48 + 1e-9);

    // The panel draws at the new place, and its controls follow it.
    h.resize(1024, 400);
    EXPECT_NEAR(h.base().viewScale.width, zoom, 1e-9);
    // A double click beside the controls puts it back.
    const CGPoint blank{2, 398};
    input.press(blank, PanelInput::left, 0, 5.0);
    input.release(blank, PanelInput::left);
    input.press(blank, PanelInput::left, 0, 5.2);
    input.release(blank, PanelInput::left);
    EXPECT_EQ(h.controller.zoomScale, 1.0);
    EXPECT_EQ(h.controller.panOffset, CGPoint{});
    EXPECT_TRUE(h.writer.calls.empty());
}

TEST(PresetBrowser, ContrastStepsThroughItsValuesAndBrightnessStaysInRange) {
    EditorHarness h;
    std::vector<float> seen;
    for (int i = 0; i < 7; ++i) {
        h.controller.onContrastButton();
        seen.push_back(h.mirror.parameterTree()->parameterWithAddress(kDisplayContrast)->value());
    }
    EXPECT_EQ(seen, (std::vector<float>{0.3f, 0.7f, 0.85f, 1.0f, 0.0f, 0.15f, 0.3f}));
    EXPECT_EQ(h.base().colorMain, UIColor::grey(double(0.3f)));
    h.controller.onBrightnessSlider(0.0);
    EXPECT_EQ(h.controller.brightness, AudioUnitViewController::kMinimumBrightness);
    h.controller.onBrightnessSlider(NAN);
    EXPECT_EQ(h.controller.brightness, 1.0);
}

TEST(PresetBrowser, DrawnOverThePanelWithTheCurrentRowMarked) {
    BrowserHarness h("drawing");
    writePreset(h.factory() / "First.aupreset", distinctValues(0));
    writePreset(h.factory() / "Second.aupreset", distinctValues(1));
    h.controller.performSegue("showPresets");
    h.clickRow(1);
    cairo_surface_t* s = drawPanelImage(h.controller, 1024, 400);
    ASSERT_NE(s, nullptr);
    const unsigned char* data = cairo_image_surface_get_data(s);
    const int stride = cairo_image_surface_get_stride(s);
    auto rgb = [&](CGPoint p) {
        const auto* px =
            reinterpret_cast<const std::uint32_t*>(data + int(p.y) * stride) + int(p.x);
        return std::array<int, 3>{int((*px >> 16) & 0xFF), int((*px >> 8) & 0xFF), int(*px & 0xFF)};
    };
    // The mark of the loaded row is the accent colour; the first row's ring is not filled.
    const CGPoint second = *h.overlays().windowPointOfRow(1);
    const CGPoint first = *h.overlays().windowPointOfRow(0);
    const double markX = 80 + 2 + 2 + 12 + 5; // list, rows' inset, row's inset, indent, ring
    const auto mark = rgb({markX, second.y});
    EXPECT_GT(mark[0], 180);
    EXPECT_LT(mark[2], 100);
    const auto ring = rgb({markX, first.y});
    EXPECT_LT(std::abs(ring[0] - ring[2]), 20);
    cairo_surface_destroy(s);
}

} // namespace
