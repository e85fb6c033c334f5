#include "kernel/TAV_SR_Chorus_Extension_Parameters.h"

TAV_SR_Chorus_Extension_Parameters::TAV_SR_Chorus_Extension_Parameters(
    TAV_SR_Chorus_ExtensionDSPKernelAdapter& adapter)
    : tree(createParameterTree()) {
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
