#include "lv2/UIMessages.h"

#include <cmath>

#include <lv2/atom/util.h>
#include <lv2/patch/patch.h>

#include "lv2/PluginURIs.h"

namespace sr::lv2 {

UIMessages::UIMessages(LV2_URID_Map* map) {
    if (!map) return;
    auto id = [map](const char* uri) { return map->map(map->handle, uri); };
    eventTransfer_ = id(LV2_ATOM__eventTransfer);
    object = id(LV2_ATOM__Object);
    atomURID = id(LV2_ATOM__URID);
    atomFloat = id(LV2_ATOM__Float);
    atomDouble = id(LV2_ATOM__Double);
    atomInt = id(LV2_ATOM__Int);
    patchGet = id(LV2_PATCH__Get);
    patchSet = id(LV2_PATCH__Set);
    patchProperty = id(LV2_PATCH__property);
    patchValue = id(LV2_PATCH__value);
    atomVector = id(LV2_ATOM__Vector);
    uiOn = id(kUiOnURI);
    uiOff = id(kUiOffURI);
    samplesMessage = id(kInputSamplesURI);
    sampleRateKey = id(kSampleRateURI);
    samplesKey = id(kSamplesURI);
    for (const ParameterInfo& p : kParameterTable)
        properties[p.address] = id(parameterPropertyURI(p.identifier).c_str());
}

const LV2_Atom* UIMessages::objectOf(LV2_URID otype) {
    if (!available()) return nullptr;
    auto* atom = reinterpret_cast<LV2_Atom_Object*>(buffer.data());
    atom->atom.type = object;
    atom->atom.size = sizeof(LV2_Atom_Object_Body);
    atom->body.id = 0;
    atom->body.otype = otype;
    return &atom->atom;
}

const LV2_Atom_Object* UIMessages::objectIn(const void* data, std::uint32_t size,
                                            LV2_URID otype) const {
    if (!available() || !data || size < sizeof(LV2_Atom_Object)) return nullptr;
    const auto* atom = static_cast<const LV2_Atom_Object*>(data);
    if (atom->atom.type != object || sizeof(LV2_Atom) + atom->atom.size > size ||
        atom->atom.size < sizeof(LV2_Atom_Object_Body) || atom->body.otype != otype)
        return nullptr;
    return atom;
}

const LV2_Atom* UIMessages::requestValues() {
    // [ a patch:Get ]: no property, so every value.
    return objectOf(patchGet);
}

std::optional<UIMessages::InputSamples> UIMessages::inputSamples(const void* data,
                                                                 std::uint32_t size) const {
    const LV2_Atom_Object* atom = objectIn(data, size, samplesMessage);
    if (!atom) return std::nullopt;
    const LV2_Atom* rate = nullptr;
    const LV2_Atom* samples = nullptr;
    lv2_atom_object_get(atom, sampleRateKey, &rate, samplesKey, &samples, 0);
    if (!rate || rate->type != atomFloat || rate->size < sizeof(float) || !samples ||
        samples->type != atomVector || samples->size < sizeof(LV2_Atom_Vector_Body))
        return std::nullopt;
    const auto* vector = reinterpret_cast<const LV2_Atom_Vector*>(samples);
    if (vector->body.child_type != atomFloat || vector->body.child_size != sizeof(float))
        return std::nullopt;
    const double sampleRate = reinterpret_cast<const LV2_Atom_Float*>(rate)->body;
    if (!(sampleRate >= 1000.0 && sampleRate <= 1.0e6)) return std::nullopt;
    const std::uint32_t count =
        (samples->size - std::uint32_t(sizeof(LV2_Atom_Vector_Body))) / sizeof(float);
    return InputSamples{sampleRate, reinterpret_cast<const float*>(vector + 1), count};
}

std::optional<UIMessages::ParameterValue> UIMessages::parameterValue(const void* data,
                                                                     std::uint32_t size) const {
    const LV2_Atom_Object* atom = objectIn(data, size, patchSet);
    if (!atom) return std::nullopt;
    const LV2_Atom* property = nullptr;
    const LV2_Atom* value = nullptr;
    lv2_atom_object_get(atom, patchProperty, &property, patchValue, &value, 0);
    if (!property || !value || property->type != atomURID || property->size < sizeof(LV2_URID))
        return std::nullopt;
    const LV2_URID key = reinterpret_cast<const LV2_Atom_URID*>(property)->body;
    std::optional<std::uint32_t> address;
    for (std::uint32_t a = 0; a < kParameterCount; ++a)
        if (properties[a] == key) address = a;
    if (!address) return std::nullopt;
    double v = NAN;
    if (value->type == atomFloat && value->size >= sizeof(float))
        v = reinterpret_cast<const LV2_Atom_Float*>(value)->body;
    else if (value->type == atomDouble && value->size >= sizeof(double))
        v = reinterpret_cast<const LV2_Atom_Double*>(value)->body;
    else if (value->type == atomInt && value->size >= sizeof(std::int32_t))
        v = reinterpret_cast<const LV2_Atom_Int*>(value)->body;
    if (!std::isfinite(v)) return std::nullopt;
    return ParameterValue{*address, float(v)};
}

} // namespace sr::lv2
