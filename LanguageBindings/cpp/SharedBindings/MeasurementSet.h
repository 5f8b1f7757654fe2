#pragma once

#include "Measurement.h"

namespace VellDevice {

// What one response brings: measurements, in the order in which they were added.
class MeasurementSet : public Object {
public:
    // An empty wrapper, to be filled by Response::measurementSet.
    explicit MeasurementSet(bool adopt) : Object(adopt) {}
    MeasurementSet(void* set, bool adopt) : Object(set, adopt) {}

    unsigned int numberOfMeasurements() const;
    // A wrapper of null where there is none.
    void measurementAtIndex(unsigned int index, Measurement& out) const;
};

// A set that the plug-in builds.
class MutableMeasurementSet : public MeasurementSet {
public:
    MutableMeasurementSet();

    void addMeasurement(const Measurement& measurement);
};

} // namespace VellDevice
