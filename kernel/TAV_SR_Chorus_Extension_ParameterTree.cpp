// The tree alone, in its own file: an editor's mirror links it without the kernel.
#include "kernel/ParameterTable.h"
#include "kernel/TAV_SR_Chorus_Extension_Parameters.h"

std::unique_ptr<AUParameterTree> TAV_SR_Chorus_Extension_Parameters::createParameterTree() {
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
    return AUParameterTree::createTreeWithChildren(std::move(groups));
}
