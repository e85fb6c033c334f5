// Saved state and preset files: the dictionary and file forms checked by an independent reader
// and writer (Python's plistlib), round trips, the component check, the preset folders and
// their numbering, and hostile files that must be refused with the sound left as it was.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdio>
#include <cstring>
#include <random>
#include <set>

#include "audiounit/TAVPreset.h"
#include "cli/DemoSignal.h"
#include "tests/AudioUnitHost.h"
#include "tests/TestFiles.h"

namespace {

using sr::PropertyList;
using sr::test::AudioUnitHost;
using sr::test::LogCapture;
using sr::test::Stereo;
using Unit = TAV_SR_Chorus_Extension_AudioUnit;
namespace fs = std::filesystem;

fs::path freshDirectory(const std::string& name) {
    return sr::test::freshDirectory("presets", name);
}

std::vector<float> values(Unit& unit) {
    std::vector<float> v;
    for (const sr::ParameterInfo& info : sr::kParameterTable)
        v.push_back(unit.getParameter(int(info.address)));
    return v;
}

// Values anywhere in every range, exact in a float: on/off for switches, whole controller
// numbers from "none" (-1) to 127.
void setRandomValues(Unit& unit, std::mt19937& rng) {
    for (const sr::ParameterInfo& info : sr::kParameterTable) {
        float v = std::uniform_real_distribution<float>(info.minValue, info.maxValue)(rng);
        if (info.unit == sr::ParameterUnit::Boolean || info.address >= sr::kFirstControllerAddress)
            v = std::round(v);
        unit.setParameter(int(info.address), v);
    }
}

std::string hexOfDouble(double v) {
    std::uint64_t bits;
    std::memcpy(&bits, &v, sizeof bits);
    char text[17];
    std::snprintf(text, sizeof text, "%016llx", static_cast<unsigned long long>(bits));
    return text;
}

// The independent side: Python's plistlib dumps a file as "path<TAB>kind<TAB>value" lines (reals
// as the hex of their bits), or writes a preset as XML and binary from given values.
constexpr const char* kPlistScript = R"PY(
import plistlib, struct, sys
if sys.argv[1] == 'dump':
    with open(sys.argv[2], 'rb') as f:
        root = plistlib.load(f)
    def walk(path, v):
        if isinstance(v, dict):
            print(f'{path}\tdict\t{len(v)}')
            for k, x in v.items():
                walk(path + '/' + k, x)
        elif isinstance(v, bool): print(f'{path}\tbool\t{v}')
        elif isinstance(v, int): print(f'{path}\tint\t{v}')
        elif isinstance(v, float): print(f"{path}\treal\t{struct.pack('>d', v).hex()}")
        elif isinstance(v, str): print(f'{path}\tstring\t{v}')
        elif isinstance(v, bytes): print(f'{path}\tdata\t{v.hex()}')
        else: print(f'{path}\t{type(v).__name__}\t')
    walk('', root)
else:
    xml, binary, aufx, srch, tavs = sys.argv[2], sys.argv[3], *map(int, sys.argv[4:7])
    params = [(i, ident, struct.unpack('>d', bytes.fromhex(h))[0])
              for i, (ident, h) in enumerate(a.split('=') for a in sys.argv[7:])]
    d = {'version': 7, 'type': aufx, 'subtype': srch, 'manufacturer': tavs, 'number': 3,
         'name': 'From Python', 'data': bytes([0, 1, 0xfe, 0xff]), 'count': 3,
         'link': 'https://example.org/?a=1&b=<2>'}
    for g, (ident, lo, hi) in enumerate([('kGlobal', 0, 7), ('kParameters', 7, 17),
                                         ('kControllers', 17, 29)]):
        group = {'identifier': ident, 'count': hi - lo}
        for k, (a, pid, v) in enumerate(params[lo:hi]):
            group[f'param {k}'] = {'address': a, 'identifier': pid, 'value': v}
        d[f'group {g}'] = group
    for path, fmt in ((xml, plistlib.FMT_XML), (binary, plistlib.FMT_BINARY)):
        with open(path, 'wb') as f:
            plistlib.dump(d, f, fmt=fmt)
)PY";

std::string python(const fs::path& dir, std::vector<std::string> args) {
    const fs::path script = sr::test::writeFile(dir / "plist.py", kPlistScript);
    std::string command = "python3 '" + script.string() + "'";
    for (const std::string& a : args) command += " '" + a + "'";
    std::string out;
    FILE* pipe = ::popen(command.c_str(), "r");
    if (!pipe) return out;
    char buffer[4096];
    while (const std::size_t n = std::fread(buffer, 1, sizeof buffer, pipe)) out.append(buffer, n);
    EXPECT_EQ(::pclose(pipe), 0) << command;
    return out;
}

std::vector<std::string> lines(const std::string& text) {
    std::vector<std::string> result;
    for (std::size_t start = 0; start < text.size();) {
        const std::size_t end = text.find('\n', start);
        result.push_back(text.substr(start, end - start));
        start = end == std::string::npos ? text.size() : end + 1;
    }
    return result;
}

// ---- the file form, against an independent reader and writer ------------------------------------

TEST(PresetFiles, AnIndependentReaderSeesEveryKeyKindAndValue) {
    const fs::path dir = freshDirectory("reader");
    AudioUnitHost host;
    std::mt19937 rng(11);
    setRandomValues(host.unit, rng);
    const fs::path file = dir / "ours.aupreset";
    ASSERT_TRUE(host.unit.savePresetFile(file));

    // What the file must hold, built from the table and the unit, not from the writer.
    std::vector<std::string> expected = {
        "\tdict\t12",
        "/version\tint\t1",
        "/type\tint\t" + std::to_string(fourCharCode("aufx")),
        "/manufacturer\tint\t" + std::to_string(fourCharCode("TAVs")),
        "/subtype\tint\t" + std::to_string(fourCharCode("srCh")),
        "/number\tint\t0",
        "/name\tstring\tTAV SR Chorus Preset",
        "/data\tdata\t",
        "/count\tint\t3",
        "/link\tstring\t",
    };
    for (std::size_t g = 0; g < sr::kParameterGroups.size(); ++g) {
        const sr::ParameterGroupInfo& group = sr::kParameterGroups[g];
        const std::string path = "/group " + std::to_string(g);
        const auto count = group.lastAddress - group.firstAddress + 1;
        expected.push_back(path + "\tdict\t" + std::to_string(count + 2));
        expected.push_back(path + "/identifier\tstring\t" + std::string(group.identifier));
        expected.push_back(path + "/count\tint\t" + std::to_string(count));
        for (auto a = group.firstAddress; a <= group.lastAddress; ++a) {
            const std::string param = path + "/param " + std::to_string(a - group.firstAddress);
            expected.push_back(param + "\tdict\t3");
            expected.push_back(param + "/address\tint\t" + std::to_string(a));
            expected.push_back(param + "/identifier\tstring\t" +
                               std::string(sr::kParameterTable[a].identifier));
            expected.push_back(param + "/value\treal\t" +
                               hexOfDouble(host.unit.getParameter(int(a))));
        }
    }
    EXPECT_EQ(lines(python(dir, {"dump", file.string()})), expected);
    // An XML property list 1.0 document.
    const std::string text = sr::test::readFile(file);
    EXPECT_EQ(text.rfind("<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n", 0), 0u);
    EXPECT_NE(text.find("<plist version=\"1.0\">"), std::string::npos);
}

TEST(PresetFiles, FilesFromAnIndependentWriterLoadTheSameInXMLAndBinary) {
    const fs::path dir = freshDirectory("writer");
    std::mt19937 rng(5);
    AudioUnitHost source;
    setRandomValues(source.unit, rng);
    std::vector<std::string> args = {"write",
                                     (dir / "py.aupreset").string(),
                                     (dir / "py-binary.aupreset").string(),
                                     std::to_string(fourCharCode("aufx")),
                                     std::to_string(fourCharCode("srCh")),
                                     std::to_string(fourCharCode("TAVs"))};
    for (const sr::ParameterInfo& info : sr::kParameterTable)
        args.push_back(std::string(info.identifier) + "=" +
                       hexOfDouble(source.unit.getParameter(int(info.address))));
    python(dir, args);

    std::optional<PropertyList> first;
    for (const char* name : {"py.aupreset", "py-binary.aupreset"}) {
        SCOPED_TRACE(name);
        AudioUnitHost host;
        // Version 7 of the same component is accepted.
        ASSERT_TRUE(host.unit.loadPresetFile(dir / name));
        EXPECT_EQ(values(host.unit), values(source.unit));

        TAVPreset preset;
        ASSERT_TRUE(preset.load(dir / name));
        EXPECT_EQ(preset.patch->version, 7);
        EXPECT_EQ(preset.patch->number, 3);
        EXPECT_EQ(preset.patch->name, "From Python");
        EXPECT_EQ(preset.patch->data, (std::vector<std::uint8_t>{0, 1, 0xfe, 0xff}));
        EXPECT_EQ(preset.patch->link, "https://example.org/?a=1&b=<2>");
        // Python sorts keys; the groups come in that order, each with all its parameters.
        ASSERT_EQ(preset.patch->groups.size(), 3u);
        EXPECT_EQ(preset.patch->groups[0]->params.size() + preset.patch->groups[1]->params.size() +
                      preset.patch->groups[2]->params.size(),
                  sr::kParameterCount);
        if (!first)
            first = preset.getDictionary();
        else
            EXPECT_EQ(preset.getDictionary(), *first); // XML and binary agree
    }
}

TEST(PresetFiles, RandomStatesSurviveSaveLoadAndResaveByteForByte) {
    const fs::path dir = freshDirectory("roundtrip");
    std::mt19937 rng(2026);
    for (int round = 0; round < 12; ++round) {
        SCOPED_TRACE(round);
        AudioUnitHost a, b;
        setRandomValues(a.unit, rng);
        ASSERT_TRUE(a.unit.savePresetFile(dir / "a.aupreset"));
        ASSERT_TRUE(b.unit.loadPresetFile(dir / "a.aupreset"));
        EXPECT_EQ(values(b.unit), values(a.unit));
        // The kernel has them too, from the next render call on.
        b.render(Stereo(64), 64);
        for (const sr::ParameterInfo& info : sr::kParameterTable)
            EXPECT_EQ(b.kernelValue(info.address), a.unit.getParameter(int(info.address)));
        ASSERT_TRUE(b.unit.savePresetFile(dir / "b.aupreset"));
        EXPECT_EQ(sr::test::readFile(dir / "b.aupreset"), sr::test::readFile(dir / "a.aupreset"));
        // The host-facing state is the same dictionary.
        EXPECT_EQ(b.unit.fullState(), a.unit.fullState());
    }
    // Opaque data and the link text pass through unchanged, bytes that are not text included.
    TAVPreset edited;
    ASSERT_TRUE(edited.load(dir / "a.aupreset"));
    edited.patch->data = {0, 0xff, '<', '&', 0x80, 0};
    edited.patch->link = "file:///presets/a b&c <d> \"é\"";
    ASSERT_TRUE(edited.save(dir / "c.aupreset"));
    TAVPreset reread;
    ASSERT_TRUE(reread.load(dir / "c.aupreset"));
    EXPECT_EQ(reread.patch->data, edited.patch->data);
    EXPECT_EQ(reread.patch->link, edited.patch->link);
    ASSERT_TRUE(reread.save(dir / "d.aupreset"));
    EXPECT_EQ(sr::test::readFile(dir / "d.aupreset"), sr::test::readFile(dir / "c.aupreset"));
}

// ---- reading dictionaries ---------------------------------------------------------------------

struct RecordingDelegate : TAVPresetDelegate {
    std::vector<std::pair<std::uint64_t, float>> found;
    void onFoundParameter(NSInteger, const std::string&, std::uint64_t address,
                          float value) override {
        found.emplace_back(address, value);
    }
};

PropertyList param(std::uint64_t address, double value) {
    PropertyList p;
    p.set("address", PropertyList::unsignedInteger(address));
    p.set("identifier", std::string(sr::kParameterTable[address].identifier));
    p.set("value", value);
    return p;
}

TEST(PresetDictionary, ReportsEveryParameterInTheDictionarysOrder) {
    // Only "group 1", its parameters stored out of index order.
    PropertyList group;
    group.set("identifier", "TAV group 4");
    group.set("param 2", param(9, 0.25));
    group.set("param 0", param(7, 0.5));
    group.set("param 1", param(8, 0.75));
    PropertyList patch;
    patch.set("type", PropertyList::unsignedInteger(1));
    patch.set("subtype", PropertyList::unsignedInteger(2));
    patch.set("manufacturer", PropertyList::unsignedInteger(3));
    patch.set("group 1", group);

    TAVPreset preset;
    RecordingDelegate delegate;
    preset.delegate = &delegate;
    ASSERT_TRUE(preset.makeFrom(patch));
    EXPECT_EQ(delegate.found,
              (std::vector<std::pair<std::uint64_t, float>>{{9, 0.25f}, {7, 0.5f}, {8, 0.75f}}));
    ASSERT_EQ(preset.patch->groups.size(), 1u);
    EXPECT_EQ(preset.patch->groups[0]->id, 4); // the number after the identifier's last blank
    EXPECT_EQ(preset.componentDescription.componentManufacturer, 3u);

    // A tree without groups leaves the patch as it is; a file that cannot be written is
    // reported with its path.
    LogCapture log;
    AUParameterTree empty({});
    preset.makeFrom(empty);
    EXPECT_EQ(preset.patch->groups.size(), 1u);
    const std::string nowhere = SR_TEST_TMP "/no-such-folder/p.aupreset";
    EXPECT_FALSE(preset.save(nowhere));
    EXPECT_EQ(log.lines(),
              (std::vector<std::string>{
                  "TAVPreset::makeFrom() : The parameter group has no children.",
                  "TAVPreset::loadFromFile() : ERROR: Could not save the file '" + nowhere +
                      "'. (cannot write '" + nowhere + "': No such file or directory"}));
}

TEST(PresetDictionary, TheComponentCheckIgnoresVersionAndFlagsOnly) {
    TAVPreset preset;
    preset.setDescription(kTAVSRChorusComponentDescription, 1, "x");
    AudioComponentDescription other = kTAVSRChorusComponentDescription;
    other.componentFlags = 7;
    other.componentFlagsMask = 7;
    EXPECT_TRUE(preset.checkDescription(other, 99));
    for (std::uint32_t AudioComponentDescription::*field :
         {&AudioComponentDescription::componentManufacturer,
          &AudioComponentDescription::componentType,
          &AudioComponentDescription::componentSubType}) {
        AudioComponentDescription changed = kTAVSRChorusComponentDescription;
        changed.*field ^= 1;
        EXPECT_FALSE(preset.checkDescription(changed, 1));
    }
}

TEST(FullState, AnotherComponentsStateIsRefusedAndAnotherVersionAccepted) {
    AudioUnitHost host;
    std::mt19937 rng(3);
    setRandomValues(host.unit, rng);
    const std::optional<PropertyList> kept = host.unit.fullState();
    const std::vector<float> before = values(host.unit);

    AudioUnitHost other;
    setRandomValues(other.unit, rng);
    PropertyList foreign = *other.unit.fullState();
    foreign.set("manufacturer", PropertyList::unsignedInteger(fourCharCode("QXRT")));
    LogCapture log;
    host.unit.setFullState(foreign);
    EXPECT_EQ(log.matching("TAV_SR_Chorus_Extension_AudioUnit::fullState : ERROR: The component "
                           "description of the patch does not match.")
                  .size(),
              1u);
    EXPECT_EQ(values(host.unit), before);
    EXPECT_EQ(host.unit.fullState(), kept);
    host.unit.setFullState(std::nullopt); // no state at all is no component either
    EXPECT_EQ(values(host.unit), before);

    PropertyList newer = *other.unit.fullState();
    newer.set("version", PropertyList::integer(2));
    host.unit.setFullState(newer);
    EXPECT_EQ(values(host.unit), values(other.unit));
}

// ---- hostile input ------------------------------------------------------------------------------

// A binary property list of the given objects (references and offsets of 4 bytes).
std::string binaryPlist(const std::vector<std::string>& objects) {
    std::string out = "bplist00";
    std::vector<std::uint32_t> offsets;
    for (const std::string& o : objects) {
        offsets.push_back(std::uint32_t(out.size()));
        out += o;
    }
    const auto bigEndian = [](std::uint64_t v, int n) {
        std::string s;
        for (int k = n - 1; k >= 0; --k) s += char((v >> (8 * k)) & 0xFF);
        return s;
    };
    const std::uint64_t table = out.size();
    for (std::uint32_t o : offsets) out += bigEndian(o, 4);
    out += std::string(6, '\0') + char(4) + char(4);
    out += bigEndian(objects.size(), 8) + bigEndian(0, 8) + bigEndian(table, 8);
    return out;
}

std::string ref(std::uint32_t object) {
    return {char(object >> 24), char(object >> 16), char(object >> 8), char(object)};
}

PropertyList& entry(PropertyList& dict, const std::vector<std::string>& keys) {
    PropertyList* at = &dict;
    for (const std::string& key : keys)
        for (PropertyList::Entry& e : *at->dictionary())
            if (e.key == key) {
                at = &e.value;
                break;
            }
    return *at;
}

TEST(PresetFiles, HostileFilesAreRefusedWithTheSoundUnchanged) {
    const fs::path dir = freshDirectory("hostile");
    AudioUnitHost reference, target;
    for (AudioUnitHost* h : {&reference, &target}) {
        h->unit.setParameter(sr::kChorusDepth, 0.8f);
        h->unit.setParameter(sr::kChorusDryWet, 0.7f);
    }
    const PropertyList good = *target.unit.fullState();
    const std::string goodXML = *good.toXML();
    const auto changed = [&](const std::vector<std::string>& keys, std::optional<PropertyList> to) {
        PropertyList d = good;
        if (to) {
            entry(d, keys) = *to;
        } else { // removed
            std::vector<std::string> parent(keys.begin(), keys.end() - 1);
            auto& entries = *entry(d, parent).dictionary();
            std::erase_if(entries, [&](const auto& e) { return e.key == keys.back(); });
        }
        return *d.toXML();
    };
    const std::vector<std::string> lastValue = {"group 1", "param 9", "value"};
    std::string deepXML = "<?xml version=\"1.0\"?><plist version=\"1.0\"><dict><key>deep</key>";
    for (int k = 0; k < 100000; ++k) deepXML += "<array>";
    std::vector<std::string> chain, fanOut, cycle = {"\xA1" + ref(0)};
    for (std::uint32_t k = 0; k < 100000; ++k) chain.push_back("\xA1" + ref(k + 1));
    chain.push_back("\xA0");
    for (std::uint32_t k = 0; k < 20; ++k)
        fanOut.push_back("\xA4" + ref(k + 1) + ref(k + 1) + ref(k + 1) + ref(k + 1));
    fanOut.push_back("\x08"); // false
    // A NUL inside a string, raw in XML or U+0000 in binary, in a value or a key: the library
    // aborts the process when it hands such a string out (or cuts an ASCII one short).
    std::string nulXML = goodXML;
    nulXML.insert(nulXML.find("kChorusDelay"), std::string(1, '\0'));
    const std::string nulUTF16("\x63\0a\0\0\0b", 7);
    std::mt19937 rng(9);
    std::string noise(4096, '\0');
    for (char& c : noise) c = char(rng());

    const std::vector<std::pair<std::string, std::string>> cases = {
        {changed({"group 1", "param 0", "value"}, std::nullopt), "has no 'value'"},
        {changed({"group 1", "param 0", "address"}, std::nullopt), "has no 'address'"},
        {changed({"manufacturer"}, std::nullopt), "has no 'manufacturer'"},
        {changed(lastValue, PropertyList("0.5")), "is not a real number"},
        {changed(lastValue, PropertyList::integer(1)), "is not a real number"},
        {changed({"name"}, PropertyList::integer(1)), "'name' is not a string"},
        {changed({"data"}, PropertyList("text")), "'data' is not data"},
        {changed({"type"}, PropertyList(1.0)), "'type' is not an integer"},
        {changed({"type"}, PropertyList::integer(-1)), "'type' is out of range"},
        {changed({"group 2"}, PropertyList("x")), "'group 2' is not a dictionary"},
        {changed(lastValue, PropertyList(std::nan(""))), "outside kChorusDryWet's range"},
        {changed(lastValue, PropertyList(HUGE_VAL)), "outside kChorusDryWet's range"},
        {changed(lastValue, PropertyList(1.5)), "outside kChorusDryWet's range"},
        {changed({"group 2", "param 0", "value"}, PropertyList(128.0)), "outside"},
        {changed({"group 1", "param 0", "address"}, PropertyList::unsignedInteger(29)),
         "is unknown (29)"},
        {changed({"group 1", "param 0", "address"}, PropertyList::integer(-1)), "is unknown"},
        {*PropertyList(PropertyList::Array{good}).toXML(), "not a dictionary"},
        {goodXML.substr(0, goodXML.size() / 2), "not a valid property list"},
        {binaryPlist({"\xD0"}).substr(0, 30), "truncated"},
        {"hello", "not a property list"},
        {"", "empty"},
        {noise, "Format: unknown"},
        {deepXML, "nesting deeper than 24 levels"},
        {binaryPlist(chain), "nesting deeper than 24 levels"},
        {binaryPlist(fanOut), "expands too far"},
        {binaryPlist(cycle), "cyclic"},
        {nulXML, "Format: XML, a NUL character in XML"},
        {binaryPlist({"\xD1" + ref(1) + ref(2), nulUTF16, "\x52xy"}), "a string holds a NUL"},
        {binaryPlist({"\xD1" + ref(1) + ref(2), "\x51k", nulUTF16}), "a string holds a NUL"},
        {binaryPlist({"\xD1" + ref(1) + ref(2), "\x51k", std::string("\x53x\0y", 4)}),
         "a string holds a NUL"},
    };
    LogCapture log;
    for (std::size_t k = 0; k < cases.size(); ++k) {
        SCOPED_TRACE("case " + std::to_string(k) + ": " + cases[k].second);
        const fs::path file = sr::test::writeFile(dir / "bad.aupreset", cases[k].first);
        log.clear();
        EXPECT_FALSE(target.unit.loadPresetFile(file));
        const std::vector<std::string> logged = log.lines();
        ASSERT_FALSE(logged.empty());
        EXPECT_NE(logged.front().find(cases[k].second), std::string::npos) << logged.front();
        EXPECT_EQ(values(target.unit), values(reference.unit));
    }
    // The same dictionaries handed over as state are refused alike.
    log.clear();
    PropertyList wrongKind = good;
    entry(wrongKind, lastValue) = PropertyList("1");
    target.unit.setFullState(wrongKind);
    EXPECT_EQ(log.matching("PresetPatch::fromDictionary() : ERROR: The preset is refused: 'value' "
                           "of 'param 9' of 'group 1' is not a real number.")
                  .size(),
              1u);

    // A 100 MB file is refused without being read whole; files that are not files too.
    const fs::path huge = dir / "huge.aupreset";
    sr::test::writeFile(huge, goodXML);
    fs::resize_file(huge, 100u << 20);
    log.clear();
    EXPECT_FALSE(target.unit.loadPresetFile(huge));
    EXPECT_EQ(log.matching("Could not read the file '" + huge.string() +
                           ", Format: XML, larger than 1048576 bytes")
                  .size(),
              1u);
    EXPECT_FALSE(target.unit.loadPresetFile(dir));
    EXPECT_EQ(log.matching("TAVPreset::loadFromFile() : ERROR: The file is not readable.").size(),
              1u);
    EXPECT_FALSE(target.unit.loadPresetFile(dir / "missing.aupreset"));
    EXPECT_EQ(log.matching("TAVPreset::loadFromFile() : ERROR: The path " +
                           (dir / "missing.aupreset").string())
                  .size(),
              1u);

    // Same parameters, same sound: both units render the same noise bit for bit.
    const Stereo in = sr::test::noise(8192, 4);
    const Stereo a = reference.render(in, 512), b = target.render(in, 512);
    EXPECT_TRUE(sr::test::bitIdentical(a.left, b.left));
    EXPECT_TRUE(sr::test::bitIdentical(a.right, b.right));
}

TEST(FullState, AParametersRepeatedKeysCountOnceAsChecked) {
    // A binary list may repeat a key in one dictionary, and the parser keeps every entry.
    const sr::PropertyListParse twice = PropertyList::parse(
        binaryPlist({"\xD2" + ref(1) + ref(1) + ref(2) + ref(3), "\x51k", "\x51v", "\x51w"}));
    ASSERT_TRUE(twice.value);
    ASSERT_EQ(twice.value->dictionary()->size(), 2u);
    EXPECT_EQ(twice.value->dictionary()->back().key, "k");

    // A parameter whose 'address', 'value' and 'identifier' come again, of the wrong kinds:
    // the first of each is the one checked and the one applied.
    AudioUnitHost host;
    PropertyList state = *host.unit.fullState();
    PropertyList& dryWet = entry(state, {"group 1", "param 9"});
    dryWet.set("value", 0.25);
    for (const char* key : {"address", "value", "identifier"})
        dryWet.dictionary()->push_back({key, PropertyList::Data{1, 2}});
    EXPECT_TRUE(host.unit.setFullState(state));
    EXPECT_EQ(host.unit.getParameter(sr::kChorusDryWet), 0.25f);
    PropertyList clean = *host.unit.fullState();
    EXPECT_EQ(entry(clean, {"group 1", "param 9"}).dictionary()->size(), 3u);
}

// ---- folders, factory and user presets --------------------------------------------------------

TEST(FactoryPresets, ListingCreatesTheFoldersAndNumbersEveryEntry) {
    const fs::path documents = freshDirectory("listing") / "documents";
    AudioUnitHost host;
    host.unit.setDocumentsDirectory(documents);
    EXPECT_TRUE(host.unit.factoryPresets().empty());
    for (const char* folder : {"Presets", "Presets/Factory", "Presets/User"})
        EXPECT_TRUE(fs::is_directory(documents / folder)) << folder;

    ASSERT_TRUE(host.unit.savePresetFile(documents / "Presets/Beta.aupreset"));
    fs::copy_file(documents / "Presets/Beta.aupreset", documents / "Presets/Alpha.AUPRESET");
    fs::copy_file(documents / "Presets/Beta.aupreset", documents / "Presets/zeta.aupreset");
    sr::test::writeFile(documents / "Presets/a.txt", "not a preset");
    fs::create_symlink(documents / "gone", documents / "Presets/dangling.aupreset");
    fs::create_directory(documents / "Presets/more.aupreset"); // a folder, however named
    // Files in name order, then folders (Factory, User, more); a.txt counts, the dangling link
    // does not.
    EXPECT_EQ(
        host.unit.factoryPresets(),
        (std::vector<AUAudioUnitPreset>{{0, "Alpha"}, {1, "Beta"}, {3, "zeta"}, {6, "more"}}));

    LogCapture log;
    host.unit.setCurrentPreset(AUAudioUnitPreset{5, "Beta"});
    EXPECT_EQ(log.matching("TAV_SR_Chorus_Extension_AudioUnit::currentPreset : ERROR: The preset "
                           "number 5 is invalid.")
                  .size(),
              1u);
    EXPECT_FALSE(host.unit.currentPreset());
    host.unit.setCurrentPreset(AUAudioUnitPreset{1, "Beta"});
    EXPECT_EQ(host.unit.currentPreset(), (AUAudioUnitPreset{1, "Beta"}));
    host.unit.setCurrentPreset(AUAudioUnitPreset{2, "Gone"});
    EXPECT_EQ(log.matching("TAV_SR_Chorus_Extension_AudioUnit::currentPreset : ERROR: The preset "
                           "file 'Gone.aupreset' does not exist.")
                  .size(),
              1u);
    host.unit.setCurrentPreset(std::nullopt);
    EXPECT_FALSE(host.unit.currentPreset());

    // User presets (negative numbers) through their stored state.
    host.unit.setCurrentPreset(AUAudioUnitPreset{-1, "zeta"});
    EXPECT_EQ(host.unit.currentPreset(), (AUAudioUnitPreset{-1, "zeta"}));
    EXPECT_THROW(host.unit.presetState({-2, "nobody"}), AUAudioUnitError);
    host.unit.setCurrentPreset(AUAudioUnitPreset{-2, "nobody"});
    EXPECT_EQ(log.matching("TAV_SR_Chorus_Extension_AudioUnit::presetState() : ERROR: The preset "
                           "file 'nobody.aupreset' does not exist.")
                  .size(),
              2u); // asked directly, then through currentPreset
    EXPECT_EQ(log.matching("TAV_SR_Chorus_Extension_AudioUnit::currentPreset : ERROR: Unable to "
                           "restore set for preset nobody")
                  .size(),
              1u);

    // A documents folder that cannot be made.
    host.unit.setDocumentsDirectory(documents / "Presets/a.txt");
    EXPECT_EQ(host.unit.factoryPresets().size(), 4u); // the list as it was
    EXPECT_EQ(log.matching("Vornex_AudioUnit::factoryPresets : ERROR: Could not create required "
                           "preset folders.")
                  .size(),
              1u);
    EXPECT_FALSE(host.unit.savePreset("x"));
    EXPECT_EQ(log.matching("ERROR: Could not ceate preset directory.").size(), 1u);
}

TEST(FactoryPresets, ShippedPresetsAreInstalledWithoutReplacingTheUsersFiles) {
    const fs::path documents = freshDirectory("install") / "documents";
    fs::create_directories(documents / "Presets");
    std::vector<fs::path> shipped;
    for (const auto& e : fs::directory_iterator(SR_FACTORY_PRESETS)) shipped.push_back(e.path());
    ASSERT_GE(shipped.size(), 8u);
    const fs::path edited = documents / "Presets" / shipped[0].filename();
    sr::test::writeFile(edited, "the user's own");

    AudioUnitHost host;
    host.unit.setDocumentsDirectory(documents);
    host.unit.setFactoryPresetSource(SR_FACTORY_PRESETS);
    EXPECT_EQ(host.unit.factoryPresets().size(), shipped.size());
    EXPECT_EQ(sr::test::readFile(edited), "the user's own");
    for (const fs::path& p : shipped)
        EXPECT_EQ(sr::test::readFile(documents / "Presets/Factory" / p.filename()),
                  sr::test::readFile(p));
}

TEST(UserPresets, SavedAndLoadedByNameInTheUserFolder) {
    const fs::path documents = freshDirectory("user") / "documents";
    AudioUnitHost host;
    host.unit.setDocumentsDirectory(documents);
    std::mt19937 rng(8);
    setRandomValues(host.unit, rng);
    const std::vector<float> saved = values(host.unit);
    ASSERT_TRUE(host.unit.savePreset("My Sound"));
    EXPECT_TRUE(fs::is_regular_file(documents / "Presets/User/My Sound.aupreset"));
    setRandomValues(host.unit, rng);
    ASSERT_TRUE(host.unit.loadPreset("My Sound"));
    EXPECT_EQ(values(host.unit), saved);

    LogCapture log;
    EXPECT_FALSE(host.unit.loadPreset("Nothing"));
    EXPECT_EQ(log.matching("TAV_SR_Chorus_Extension_AudioUnit::updateParameters() : ERROR: The "
                           "preset does not exist.")
                  .size(),
              1u);
    // Names that would lead out of the folder.
    for (const char* name : {"../escape", "", "..", "a/b"}) {
        EXPECT_FALSE(host.unit.savePreset(name)) << name;
        EXPECT_FALSE(host.unit.loadPreset(name)) << name;
    }
    EXPECT_FALSE(fs::exists(documents / "Presets/escape.aupreset"));
}

// ---- the shipped factory presets ----------------------------------------------------------------

TEST(FactoryPresets, EveryShippedPresetLoadsAndSoundsDifferent) {
    const sr::cli::DemoSignal demo = sr::cli::makeDemoSignal();
    const std::size_t frames = 3 * sr::cli::DemoSignal::kSampleRate;
    Stereo in(frames);
    for (std::size_t i = 0; i < frames; ++i) {
        in.left[i] = demo.samples[2 * i];
        in.right[i] = demo.samples[2 * i + 1];
    }
    std::vector<std::pair<std::string, std::vector<float>>> renders;
    for (const auto& e : fs::directory_iterator(SR_FACTORY_PRESETS)) {
        SCOPED_TRACE(e.path().filename().string());
        AudioUnitHost host;
        ASSERT_TRUE(host.unit.loadPresetFile(e.path()));
        TAVPreset file;
        ASSERT_TRUE(file.load(e.path()));
        std::size_t count = 0;
        for (const auto& group : file.patch->groups)
            for (const auto& p : group->params) {
                EXPECT_EQ(host.unit.getParameter(int(p->address)), p->value);
                ++count;
            }
        EXPECT_EQ(count, sr::kParameterCount); // every control is stored
        const Stereo out = host.render(in, 512);
        std::vector<float> both = out.left;
        both.insert(both.end(), out.right.begin(), out.right.end());
        EXPECT_TRUE(sr::test::allFinite(both));
        EXPECT_LE(sr::test::peak(both), 1.0f);
        renders.emplace_back(e.path().stem().string(), std::move(both));
    }
    ASSERT_GE(renders.size(), 8u);
    for (std::size_t i = 0; i < renders.size(); ++i)
        for (std::size_t j = i + 1; j < renders.size(); ++j)
            EXPECT_GT(sr::test::differenceDb(renders[i].second, renders[j].second), -20.0)
                << renders[i].first << " vs " << renders[j].first;
}

// The lower split point is held below the upper one as each arrives, so a preset applied over
// another must still land on both of its own split points, whichever way they move.
TEST(FactoryPresets, SwitchingWhileRunningLandsOnBothSplitPoints) {
    const fs::path low = fs::path(SR_FACTORY_PRESETS) / "Warm Low Mids.aupreset";
    const fs::path high = fs::path(SR_FACTORY_PRESETS) / "Air Sparkle.aupreset";
    for (const auto& [from, to] : {std::pair{low, high}, std::pair{high, low}}) {
        AudioUnitHost host;
        ASSERT_TRUE(host.unit.loadPresetFile(from));
        host.render(Stereo(256), 256);
        ASSERT_TRUE(host.unit.loadPresetFile(to));
        host.render(Stereo(256), 256);
        const BandSplitFilter3& split = host.unit.kernelAdapter().getKernel().getBandSplitter();
        EXPECT_FLOAT_EQ(split.getCutoff1(),
                        std::sqrt(host.unit.getParameter(sr::kFrequencySplitLP)));
        EXPECT_FLOAT_EQ(split.getCutoff2(),
                        std::sqrt(host.unit.getParameter(sr::kFrequencySplitHP)));
    }
}

} // namespace
