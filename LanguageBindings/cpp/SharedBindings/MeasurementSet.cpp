#include "MeasurementSet.h"

namespace VellDevice {

unsigned int MeasurementSet::numberOfMeasurements() const {
    return VellMeasurementSetGetCount(as<VellMeasurementSetRef>());
}

void MeasurementSet::measurementAtIndex(unsigned int index, Measurement& out) const {
    out = Measurement(VellMeasurementSetGetMeasurementAtIndex(as<VellMeasurementSetRef>(), index), false);
}

MutableMeasurementSet::MutableMeasurementSet() : MeasurementSet(false) {
    keep(VellMeasurementSetCreate());
}

void MutableMeasurementSet::addMeasurement(const Measurement& measurement) {
    VellMeasurementSetAddMeasurement(as<VellMeasurementSetRef>(),
                                     static_cast<VellMeasurementRef>(measurement.objectPointer()));
}

} // namespace VellDevice
