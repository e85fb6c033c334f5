// The plug-in's parameter tree, built from the parameter table over a kernel adapter: the
// tree's implementor callbacks connect it to the kernel, and every default reaches the kernel
// at construction. Threading: construction and tree access off the render thread.
#pragma once

#include <memory>

#include "kernel/TAV_SR_Chorus_ExtensionDSPKernelAdapter.h"
#include "platform/AUParameterTree.h"

class TAV_SR_Chorus_Extension_Parameters {
public:
    explicit TAV_SR_Chorus_Extension_Parameters(TAV_SR_Chorus_ExtensionDSPKernelAdapter& adapter);

    AUParameterTree& parameterTree() { return *tree; }

    // The tree of the parameter table, every parameter at its default, with no implementor:
    // the plug-in's own tree, and any mirror of it an editor keeps.
    static std::unique_ptr<AUParameterTree> createParameterTree();

    // The string every parameter's value is shown with.
    static constexpr const char* kValueFormat = "%";

private:
    std::unique_ptr<AUParameterTree> tree;
};
