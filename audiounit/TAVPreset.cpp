#include "audiounit/TAVPreset.h"

#include <charconv>
#include <cmath>
#include <filesystem>
#include <limits>

#include "kernel/ParameterTable.h"
#include "platform/AtomicFile.h"
#include "platform/PrintQueue.h"

using sr::PropertyList;

namespace {

// Keys of the dictionary form.
constexpr const char* kVersion = "version";
constexpr const char* kType = "type";
constexpr const char* kManufacturer = "manufacturer";
constexpr const char* kSubtype = "subtype";
constexpr const char* kNumber = "number";
constexpr const char* kName = "name";
constexpr const char* kData = "data";
constexpr const char* kCount = "count";
constexpr const char* kLink = "link";
constexpr const char* kIdentifier = "identifier";
constexpr const char* kAddress = "address";
constexpr const char* kValue = "value";
constexpr const char* kGroupKey = "group";
constexpr const char* kParamKey = "param";

bool contains(const std::string& key, const char* part) {
    return key.find(part) != std::string::npos;
}

std::int64_t asSigned(const PropertyList::Integer& i) {
    return std::int64_t(i.bits);
}

// ---- checking a dictionary before any of it is used --------------------------------------------

// Each check returns the reason for refusing, or an empty string.
using Reason = std::string;

Reason expectKind(const PropertyList& v, PropertyList::Kind kind, const std::string& where) {
    if (v.is(kind)) return {};
    static constexpr const char* kNames[] = {"a Boolean", "an integer",  "a real number",
                                             "a string",  "data",        "a date",
                                             "an array",  "a dictionary"};
    return where + " is not " + kNames[std::size_t(kind)];
}

Reason expectInteger(const PropertyList& v, std::int64_t min, std::int64_t max,
                     const std::string& where) {
    if (Reason r = expectKind(v, PropertyList::Kind::Integer, where); !r.empty()) return r;
    const std::int64_t i = asSigned(*v.integerValue());
    if (i < min || i > max) return where + " is out of range (" + std::to_string(i) + ")";
    return {};
}

Reason checkParam(const PropertyList& param, const std::string& where) {
    using K = PropertyList::Kind;
    if (Reason r = expectKind(param, K::Dictionary, where); !r.empty()) return r;
    const PropertyList* address = param.find(kAddress);
    const PropertyList* value = param.find(kValue);
    if (!address) return where + " has no 'address'";
    if (!value) return where + " has no 'value'";
    if (const PropertyList* identifier = param.find(kIdentifier))
        if (Reason r = expectKind(*identifier, K::String, "'identifier' of " + where); !r.empty())
            return r;
    if (Reason r = expectKind(*address, K::Integer, "'address' of " + where); !r.empty()) return r;
    const std::uint64_t a = address->integerValue()->bits;
    if (a >= sr::kParameterCount)
        return "'address' of " + where + " is unknown (" + std::to_string(a) + ")";
    if (Reason r = expectKind(*value, K::Real, "'value' of " + where); !r.empty()) return r;
    const double v = *value->real();
    const sr::ParameterInfo& info = sr::kParameterTable[a];
    if (!std::isfinite(v) || v < double(info.minValue) || v > double(info.maxValue))
        return "'value' of " + where + " is outside " + std::string(info.identifier) + "'s range";
    return {};
}

Reason checkGroup(const PropertyList& group, const std::string& where) {
    using K = PropertyList::Kind;
    if (Reason r = expectKind(group, K::Dictionary, where); !r.empty()) return r;
    for (const PropertyList::Entry& e : *group.dictionary()) {
        Reason r;
        if (e.key == kIdentifier)
            r = expectKind(e.value, K::String, "'identifier' of " + where);
        else if (e.key == kCount)
            r = expectKind(e.value, K::Integer, "'count' of " + where);
        else if (contains(e.key, kParamKey))
            r = checkParam(e.value, "'" + e.key + "' of " + where);
        if (!r.empty()) return r;
    }
    return {};
}

} // namespace

NSInteger findNumber(const std::string& text) {
    const std::size_t blank = text.rfind(' ');
    if (blank == std::string::npos) return 0;
    NSInteger number = 0;
    const char* first = text.data() + blank + 1;
    const auto [end, error] = std::from_chars(first, text.data() + text.size(), number);
    return error == std::errc() && end == text.data() + text.size() ? number : 0;
}

// ---- PresetParam -------------------------------------------------------------------------------

PropertyList PresetParam::toDictionary() const {
    PropertyList dict;
    dict.set(kAddress, PropertyList::unsignedInteger(address));
    dict.set(kIdentifier, identifier);
    dict.set(kValue, double(value));
    return dict;
}

void PresetParam::fromDictionary(const PropertyList& dict, const TAVPreset* owner) {
    // The entries checkParam checked: a binary list may repeat a key, and only the first of
    // each is checked and read.
    if (const PropertyList* v = dict.find(kIdentifier)) identifier = *v->string();
    address = dict.find(kAddress)->integerValue()->bits;
    value = float(*dict.find(kValue)->real());
    if (owner) owner->foundParameter(group ? group->id : 0, identifier, address, value);
}

// ---- PresetGroup -------------------------------------------------------------------------------

void PresetGroup::append(std::unique_ptr<PresetParam> param) {
    param->group = this;
    params.push_back(std::move(param));
}

PropertyList PresetGroup::toDictionary() const {
    PropertyList dict;
    dict.set(kIdentifier, identifier);
    dict.set(kCount, PropertyList::integer(count()));
    for (std::size_t k = 0; k < params.size(); ++k)
        dict.set(kParamKey + (" " + std::to_string(k)), params[k]->toDictionary());
    return dict;
}

void PresetGroup::fromDictionary(const PropertyList& dict, const TAVPreset* owner) {
    for (const PropertyList::Entry& e : *dict.dictionary()) {
        if (e.key == kIdentifier) {
            identifier = *e.value.string();
            id = findNumber(identifier);
        } else if (contains(e.key, kParamKey)) {
            auto param = std::make_unique<PresetParam>();
            PresetParam& p = *param;
            append(std::move(param));
            p.fromDictionary(e.value, owner);
        }
    }
}

// ---- PresetPatch -------------------------------------------------------------------------------

PropertyList PresetPatch::toDictionary() const {
    PropertyList dict;
    dict.set(kVersion, PropertyList::integer(version));
    dict.set(kType, PropertyList::unsignedInteger(type));
    dict.set(kManufacturer, PropertyList::unsignedInteger(manufacturer));
    dict.set(kSubtype, PropertyList::unsignedInteger(subtype));
    dict.set(kNumber, PropertyList::integer(number));
    dict.set(kName, name);
    dict.set(kData, PropertyList::Data(data));
    dict.set(kCount, PropertyList::integer(NSInteger(groups.size())));
    dict.set(kLink, link);
    for (std::size_t k = 0; k < groups.size(); ++k)
        dict.set(kGroupKey + (" " + std::to_string(k)), groups[k]->toDictionary());
    return dict;
}

std::optional<std::string> PresetPatch::validate(const PropertyList& dict) {
    using K = PropertyList::Kind;
    if (!dict.is(K::Dictionary)) return "the preset is not a dictionary";
    for (const char* key : {kType, kManufacturer, kSubtype})
        if (!dict.find(key)) return std::string("the preset has no '") + key + "'";
    constexpr std::int64_t kInt32Min = std::numeric_limits<std::int32_t>::min();
    constexpr std::int64_t kInt32Max = std::numeric_limits<std::int32_t>::max();
    constexpr std::int64_t kUInt32Max = std::numeric_limits<std::uint32_t>::max();
    for (const PropertyList::Entry& e : *dict.dictionary()) {
        const std::string where = "'" + e.key + "'";
        Reason r;
        if (e.key == kVersion || e.key == kNumber || e.key == kCount)
            r = expectInteger(e.value, kInt32Min, kInt32Max, where);
        else if (e.key == kType || e.key == kManufacturer || e.key == kSubtype)
            r = expectInteger(e.value, 0, kUInt32Max, where);
        else if (e.key == kName || e.key == kLink)
            r = expectKind(e.value, K::String, where);
        else if (e.key == kData)
            r = expectKind(e.value, K::Data, where);
        else if (contains(e.key, kGroupKey))
            r = checkGroup(e.value, where);
        if (!r.empty()) return r;
    }
    return std::nullopt;
}

bool PresetPatch::fromDictionary(const PropertyList& dict) {
    failure.clear();
    if (auto reason = validate(dict)) {
        if (logs)
            parent->log("PresetPatch::fromDictionary() : ERROR: The preset is refused: " + *reason +
                        ".");
        failure = *reason;
        return false;
    }
    for (const PropertyList::Entry& e : *dict.dictionary()) {
        const PropertyList& v = e.value;
        if (e.key == kVersion)
            version = asSigned(*v.integerValue());
        else if (e.key == kType)
            type = std::uint32_t(v.integerValue()->bits);
        else if (e.key == kManufacturer)
            manufacturer = std::uint32_t(v.integerValue()->bits);
        else if (e.key == kSubtype)
            subtype = std::uint32_t(v.integerValue()->bits);
        else if (e.key == kNumber)
            number = asSigned(*v.integerValue());
        else if (e.key == kName)
            name = *v.string();
        else if (e.key == kData)
            data = *v.data();
        else if (e.key == kLink)
            link = *v.string();
        else if (contains(e.key, kGroupKey)) {
            groups.push_back(std::make_unique<PresetGroup>());
            groups.back()->fromDictionary(v, parent);
        }
    }
    if (parent) {
        parent->componentDescription.componentType = type;
        parent->componentDescription.componentSubType = subtype;
        parent->componentDescription.componentManufacturer = manufacturer;
    }
    return true;
}

bool PresetPatch::saveToFile(const std::string& path) const {
    failure.clear();
    const std::optional<std::string> xml = toDictionary().toXML();
    if (!xml) {
        if (logs) parent->log("TAVPreset::loadFromFile() : ERROR: Could not serialize.");
        failure = "the preset could not be written as a property list";
        return false;
    }
    try {
        sr::writeFileAtomically(path, *xml);
    } catch (const sr::FileError& error) {
        if (logs)
            parent->log("TAVPreset::loadFromFile() : ERROR: Could not save the file '" + path +
                        "'. (" + error.what());
        failure = error.what();
        return false;
    }
    return true;
}

bool PresetPatch::loadFromFile(const std::string& path) {
    failure.clear();
    std::error_code ec;
    if (!std::filesystem::exists(path, ec)) {
        if (logs)
            parent->log("TAVPreset::loadFromFile() : ERROR: The path " + path + " does not exist.");
        failure = "the file does not exist";
        return false;
    }
    const sr::LimitedRead file = sr::readFileLimited(path, PropertyList::kMaxBytes);
    if (!file.bytes) {
        if (logs) parent->log("TAVPreset::loadFromFile() : ERROR: The file is not readable.");
        failure = "the file is not readable";
        return false;
    }
    // A file larger than a property list may be is refused by the parser, by its size.
    const sr::PropertyListParse parsed = PropertyList::parse(*file.bytes);
    if (!parsed.value) {
        if (logs)
            parent->log("TAVPreset::loadFromFile() : ERROR: Could not read the file '" + path +
                        ", Format: " + parsed.format + ", " + parsed.error);
        // The parser's words, unless they only say the same.
        failure = "it is not a property list";
        if (parsed.error.find("property list") == std::string::npos)
            failure += " (" + parsed.error + ")";
        return false;
    }
    return fromDictionary(*parsed.value);
}

// ---- TAVPreset ---------------------------------------------------------------------------------

TAVPreset::TAVPreset(sr::LogChannel& channel)
    : patch(std::make_unique<PresetPatch>(this)), logChannel(&channel) {}

void TAVPreset::log(const std::string& text) const {
    logChannel->debugprint(text + "\n");
}

void TAVPreset::setDescription(const AudioComponentDescription& description, NSInteger version,
                               const std::string& name) {
    componentDescription = description;
    patch->type = description.componentType;
    patch->manufacturer = description.componentManufacturer;
    patch->subtype = description.componentSubType;
    patch->version = version;
    patch->name = name;
}

bool TAVPreset::checkDescription(const AudioComponentDescription& description,
                                 NSInteger /*version*/) const {
    return componentDescription.componentManufacturer == description.componentManufacturer &&
           componentDescription.componentType == description.componentType &&
           componentDescription.componentSubType == description.componentSubType;
}

void TAVPreset::makeFrom(const AUParameterGroup& tree) {
    if (tree.children().empty()) {
        log("TAVPreset::makeFrom() : The parameter group has no children.");
        return;
    }
    for (const std::unique_ptr<AUParameterNode>& child : tree.children()) {
        const auto* group = dynamic_cast<const AUParameterGroup*>(child.get());
        if (!group) continue;
        auto presetGroup = std::make_unique<PresetGroup>();
        presetGroup->identifier = group->identifier();
        presetGroup->id = findNumber(group->identifier());
        for (const AUParameter* parameter : group->allParameters()) {
            auto param = std::make_unique<PresetParam>();
            param->address = parameter->address();
            param->identifier = parameter->identifier();
            param->value = parameter->value();
            presetGroup->append(std::move(param));
        }
        patch->groups.push_back(std::move(presetGroup));
    }
}

bool TAVPreset::makeFrom(const std::optional<PropertyList>& state) {
    return !state || patch->fromDictionary(*state);
}

PropertyList TAVPreset::getDictionary() const {
    return patch->toDictionary();
}

bool TAVPreset::save(const std::string& path) const {
    return patch->saveToFile(path);
}

bool TAVPreset::load(const std::string& path) {
    return patch->loadFromFile(path);
}

void TAVPreset::foundParameter(NSInteger group, const std::string& identifier,
                               std::uint64_t address, float value) const {
    if (delegate) delegate->onFoundParameter(group, identifier, address, value);
}

void TAVPreset::reportParameters() const {
    for (const auto& group : patch->groups)
        for (const auto& param : group->params)
            foundParameter(group->id, param->identifier, param->address, param->value);
}
