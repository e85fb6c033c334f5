#include "lv2/UIMessages.h"

#include <cmath>

#include <lv2/atom/forge.h>
#include <lv2/atom/util.h>
#include <lv2/ui/ui.h>

#include "lv2/PluginURIs.h"

namespace sr::lv2 {

UIMessages::UIMessages(LV2_URID_Map* map) {
    if (!map) return;
    auto id = [map](const char* uri) { return map->map(map->handle, uri); };
    eventTransfer_ = id(LV2_ATOM__eventTransfer);
    object = id(LV2_ATOM__Object);
    atomInt = id(LV2_ATOM__Int);
    atomFloat = id(LV2_ATOM__Float);
    parameterValueType = id(kParameterValueURI);
    address = id(kAddressURI);
    value = id(kValueURI);
    requestValuesType = id(kRequestValuesURI);
}

const LV2_Atom* UIMessages::requestValues() {
    if (!available()) return nullptr;
    auto* atom = reinterpret_cast<LV2_Atom_Object*>(buffer.data());
    atom->atom.type = object;
    atom->atom.size = sizeof(LV2_Atom_Object_Body);
    atom->body.id = 0;
    atom->body.otype = requestValuesType;
    return &atom->atom;
}

std::optional<UIMessages::ParameterValue> UIMessages::parameterValue(const void* data,
                                                                     std::uint32_t size) const {
    if (!available() || !data || size < sizeof(LV2_Atom_Object)) return std::nullopt;
    const auto* atom = static_cast<const LV2_Atom_Object*>(data);
    if (atom->atom.type != object || sizeof(LV2_Atom) + atom->atom.size > size ||
        atom->atom.size < sizeof(LV2_Atom_Object_Body) || atom->body.otype != parameterValueType)
        return std::nullopt;
    const LV2_Atom* a = nullptr;
    const LV2_Atom* v = nullptr;
    lv2_atom_object_get(atom, address, &a, value, &v, 0);
    if (!a || !v || a->type != atomInt || a->size < sizeof(std::int32_t) || v->type != atomFloat ||
        v->size < sizeof(float))
        return std::nullopt;
    const std::int32_t addr = reinterpret_cast<const LV2_Atom_Int*>(a)->body;
    const float f = reinterpret_cast<const LV2_Atom_Float*>(v)->body;
    if (addr < 0 || std::uint32_t(addr) >= kParameterCount || !std::isfinite(f))
        return std::nullopt;
    return ParameterValue{std::uint32_t(addr), f};
}

} // namespace sr::lv2
