#include "kernel/TAV_SR_Chorus_Extension_Parameters.h"

#include "kernel/ParameterTable.h"

TAV_SR_Chorus_Extension_Parameters::TAV_SR_Chorus_Extension_Parameters(
    TAV_SR_Chorus_ExtensionDSPKernelAdapter& adapter) {
    constexpr std::uint32_t flags =
        kAudioUnitParameterFlag_IsReadable | kAudioUnitParameterFlag_IsWritable;

    std::vector<std::unique_ptr<AUParameterNode>> groups;
    for (const sr::ParameterGroupInfo& g : sr::kParameterGroups) {
        std::vector<std::unique_ptr<AUParameterNode>> children;
        for (std::uint64_t a = g.firstAddress; a <= g.lastAddress; ++a) {
            const sr::ParameterInfo& p = sr::kParameterTable[a];
            auto parameter = AUParameterTree::createParameterWithIdentifier(
                std::string(p.identifier), std::string(p.name), p.address, p.minValue, p.maxValue,
                AudioUnitParameterUnit(p.unit), "", flags, {}, {});
            parameter->setValue(p.defaultValue);
            children.push_back(std::move(parameter));
        }
        groups.push_back(AUParameterTree::createGroupWithIdentifier(
            std::string(g.identifier), std::string(g.name), std::move(children)));
    }
    tree = AUParameterTree::createTreeWithChildren(std::move(groups));
    tree->log = &adapter.log();

    tree->implementorValueObserver = [&adapter](AUParameter* param, AUValue value) {
        adapter.setParameter(param, value);
    };
    tree->implementorValueProvider = [&adapter](AUParameter* param) {
        return adapter.valueForParameter(param);
    };
    tree->implementorStringFromValueCallback = [](AUParameter* param, const AUValue* value) {
        return formatParameterValue(kValueFormat, value ? *value : param->value());
    };

    for (AUParameter* param : tree->allParameters()) adapter.setParameter(param, param->value());
}
