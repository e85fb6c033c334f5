// The audio unit's wrapper around the system peak limiter: owns the limiter unit and exposes the
// three settings the audio unit configures.
#pragma once

#include <memory>

#include "platform/PeakLimiterUnit.h"

class AUPeakLimiter {
public:
    AUPeakLimiter() : unit(std::make_unique<PeakLimiterUnit>()) {}

    // The limiter's own audio unit.
    PeakLimiterUnit& audioUnit() { return *unit; }

    double attackTime() const { return unit->attackTime(); }
    void setAttackTime(double seconds) { unit->setAttackTime(seconds); }
    double decayTime() const { return unit->decayTime(); }
    void setDecayTime(double seconds) { unit->setDecayTime(seconds); }
    double preGain() const { return unit->preGain(); }
    void setPreGain(double decibels) { unit->setPreGain(decibels); }

    // The bus whose rendered buffers the limiter post-processes.
    void run(AUAudioUnitBus& bus) { workBus = &bus; }
    AUAudioUnitBus* bus() const { return workBus; }

private:
    std::unique_ptr<PeakLimiterUnit> unit;
    AUAudioUnitBus* workBus = nullptr;
};
