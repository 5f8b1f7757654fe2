// A plug-in without a device: publishes a record and answers every command, "Rows" with three responses, and
// ends on "Die". Arguments: the record's name and path.
#include "FrameClient.h"

#include <unistd.h>

#include <string_view>

using VellTest::constant;
using VellTest::Owned;

namespace {

VellDeviceRef record = nullptr;

// One measurement with one colour of one value.
Owned measurementSet() {
    Owned set(VellMeasurementSetCreate());
    const Owned measurement(VellMeasurementCreate());
    const Owned color(VellMeasurementColorCreate());
    const Owned values(VellArrayCreate());
    const Owned value(VellStringCreateWithDouble(0.1));
    const auto colorReference = static_cast<VellMeasurementColorRef>(color.get());
    VellArrayAppendValue(static_cast<VellArrayRef>(values.get()), value.get());
    VellMeasurementColorSetColorSpace(colorReference, constant("Lab"));
    VellMeasurementColorSetValues(colorReference, static_cast<VellArrayRef>(values.get()));
    VellMeasurementColorSetAttribute(colorReference, constant("Row"), constant("7"));
    VellMeasurementAddColor(static_cast<VellMeasurementRef>(measurement.get()), colorReference);
    VellMeasurementSetAddMeasurement(static_cast<VellMeasurementSetRef>(set.get()),
                                     static_cast<VellMeasurementRef>(measurement.get()));
    return set;
}

void answer(VellDeviceCommandRef command, int code) {
    const Owned response(VellDeviceCommandResponseCreate(command));
    const auto reference = static_cast<VellDeviceCommandResponseRef>(response.get());
    const Owned set = measurementSet();
    VellDeviceCommandResponseSetCode(reference, code);
    VellDeviceCommandResponseSetMeasurementSet(reference, static_cast<VellMeasurementSetRef>(set.get()));
    VellDeviceCommandResponsePost(reference);
}

void receive(void*, VellDeviceCommandRef command) {
    const VellStringRef name = VellDeviceCommandGetCommandName(command);
    const std::string_view text = VellStringGetCString(name);
    if (text == "Die")
        _exit(0);
    VellDeviceSetMode(record, name);
    VellDevicePostStatus(record);
    for (int i = 0; i < (text == "Rows" ? 3 : 1); ++i)
        answer(command, i);
}

} // namespace

int main(int argc, char** argv) {
    if (argc != 3)
        return 2;
    const VellDeviceCenterRef center = VellDeviceCenterGetDistributedCenter();
    record = VellDeviceCreate();
    VellDeviceSetName(record, constant(argv[1]));
    VellDeviceSetAvailable(record, 1);
    VellDeviceSetAttributeForKey(record, constant("DevicePath"), constant(argv[2]));
    VellDeviceCenterRegisterSourceNameAsServer(center, constant(argv[2]));
    VellDeviceCenterRegisterCommandObserver(center, nullptr, nullptr, receive, 1);
    VellDevicePostStatus(record);
    VellDeviceCenterRunLoop(center);
    return 0;
}
