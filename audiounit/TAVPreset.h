// The plug-in's preset record (patch → groups → parameters), its dictionary form, and its file
// form: an XML property list with the extension ".aupreset". The same record is the saved
// state a host keeps and the content of factory and user preset files.
// Dictionaries and files come from outside (hosts, users, other programs), so every one is
// checked whole before anything of it is used: a wrong kind, a missing key, an unknown address
// or a value outside its parameter's range refuses it with a log line, and nothing of it is
// applied.
// Threading: never on the render thread (allocates, reads and writes files).
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "platform/AUParameterTree.h"
#include "platform/AudioComponent.h"
#include "platform/PrintQueue.h"
#include "platform/PropertyList.h"

class TAVPreset;
class PresetGroup;

// Told of every parameter a preset reads, in the order it reads them.
class TAVPresetDelegate {
public:
    virtual ~TAVPresetDelegate() = default;
    virtual void onFoundParameter(NSInteger group, const std::string& identifier,
                                  std::uint64_t address, float value) = 0;
};

class PresetParam {
public:
    PresetGroup* group = nullptr; // the owning group
    std::uint64_t address = 0;
    std::string identifier;
    float value = 0.0f;

    sr::PropertyList toDictionary() const;
    // Expects a dictionary PresetPatch::validate accepted. Reports the parameter to `owner`.
    void fromDictionary(const sr::PropertyList& dict, const TAVPreset* owner);
};

class PresetGroup {
public:
    NSInteger id = 0; // the number after the identifier's last blank
    std::string identifier;
    std::vector<std::unique_ptr<PresetParam>> params;

    NSInteger count() const { return NSInteger(params.size()); }
    void append(std::unique_ptr<PresetParam> param);
    sr::PropertyList toDictionary() const;
    void fromDictionary(const sr::PropertyList& dict, const TAVPreset* owner);
};

// The integer after the last blank of a text; 0 when there is none.
NSInteger findNumber(const std::string& text);

class PresetPatch {
public:
    explicit PresetPatch(TAVPreset* parent) : parent(parent) {}

    TAVPreset* parent;
    NSInteger version = 1;
    std::uint32_t type = 0;
    std::uint32_t manufacturer = fourCharCode("QXRT");
    std::uint32_t subtype = 0;
    NSInteger number = 0;
    std::string name = "Preset";
    std::vector<std::uint8_t> data;
    std::vector<std::unique_ptr<PresetGroup>> groups;
    std::string link;

    sr::PropertyList toDictionary() const;
    // Checks the whole dictionary first; a refused one is logged and leaves the patch as it was.
    bool fromDictionary(const sr::PropertyList& dict);
    // Why a dictionary cannot be a patch, or nullopt when it can.
    static std::optional<std::string> validate(const sr::PropertyList& dict);

    bool saveToFile(const std::string& path) const;
    bool loadFromFile(const std::string& path);

    // Why the last load or save failed, in words a user can read; empty after success.
    mutable std::string failure;
    // False for a look at a file the user has not asked to load: failures are not logged.
    bool logs = true;
};

class TAVPreset {
public:
    // File and format problems are logged on the channel, which must outlive this object.
    explicit TAVPreset(sr::LogChannel& log = sr::standardLog());
    TAVPreset(const TAVPreset&) = delete;
    TAVPreset& operator=(const TAVPreset&) = delete;

    AudioComponentDescription componentDescription{};
    std::unique_ptr<PresetPatch> patch;
    // Per container rather than class-wide, so that plug-in instances in one process never
    // receive each other's parameters.
    TAVPresetDelegate* delegate = nullptr;

    void setDescription(const AudioComponentDescription& description, NSInteger version,
                        const std::string& name);
    // Same manufacturer, type and subtype; any version of the same component is accepted.
    bool checkDescription(const AudioComponentDescription& description, NSInteger version) const;
    void makeFrom(const AUParameterGroup& tree);
    // False when the dictionary was refused; an absent one does nothing.
    bool makeFrom(const std::optional<sr::PropertyList>& state);
    sr::PropertyList getDictionary() const;
    bool save(const std::string& path) const;
    bool load(const std::string& path);

    void foundParameter(NSInteger group, const std::string& identifier, std::uint64_t address,
                        float value) const;
    // Tells the delegate every parameter the patch holds, in its order.
    void reportParameters() const;

    void log(const std::string& text) const;

private:
    sr::LogChannel* logChannel;
};
