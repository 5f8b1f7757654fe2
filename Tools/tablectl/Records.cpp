#include "Records.h"

#include <support/Ref.h>

namespace tablectl {

using tools::makeString;
using tools::Ref;
using tools::textOf;

namespace {

std::vector<std::string> textsOf(VellArrayRef array) {
    std::vector<std::string> result;
    for (int index = 0; index < VellArrayGetCount(array); ++index) {
        VellObjectRef value = VellCheckedCast(VellArrayGetValueAtIndex(array, index), "VellStringRef");
        result.push_back(textOf(static_cast<VellStringRef>(value)));
    }
    return result;
}

ColorValues colorOf(VellMeasurementColorRef color) {
    ColorValues result;
    result.colorSpace = textOf(VellMeasurementColorGetColorSpace(color));
    const Ref<VellArrayRef> values(VellMeasurementColorCopyValues(color));
    for (int index = 0; index < VellArrayGetCount(values.get()); ++index) {
        VellObjectRef value = VellArrayGetValueAtIndex(values.get(), index);
        result.values.push_back(VellStringGetDoubleValue(static_cast<VellStringRef>(value)));
    }
    for (unsigned index = 0; index < VellMeasurementColorGetAttributeCount(color); ++index) {
        VellStringRef key = VellMeasurementColorGetAttributeNameAtIndex(color, index);
        result.attributes.emplace_back(textOf(key), textOf(VellMeasurementColorGetAttribute(color, key)));
    }
    return result;
}

Measurement measurementOf(VellMeasurementRef measurement) {
    Measurement result;
    result.mode = textOf(VellMeasurementGetMode(measurement));
    for (unsigned index = 0; index < VellMeasurementGetColorCount(measurement); ++index)
        result.colors.push_back(colorOf(VellMeasurementGetColorAtIndex(measurement, index)));
    return result;
}

} // namespace

DeviceStatus statusOf(VellDeviceRef device) {
    DeviceStatus status;
    status.name = textOf(VellDeviceGetName(device));
    status.displayName = textOf(VellDeviceGetDisplayName(device));
    status.path = textOf(VellDeviceGetPath(device));
    status.serialNumber = textOf(VellDeviceGetSerialNumber(device));
    status.serviceVersion = textOf(VellDeviceGetServiceVersion(device));
    status.modes = textsOf(VellDeviceGetModes(device));
    status.mode = textOf(VellDeviceGetMode(device));
    status.calibrationStatus = VellDeviceGetCalibrationStatus(device);
    status.lockHolder = textOf(VellDeviceGetLockHolder(device));
    status.enabled = VellDeviceGetEnabled(device) == 1;
    status.available = VellDeviceGetAvailable(device) == 1;
    status.connected = VellDeviceGetConnected(device) == 1;
    status.softwareMeasurementAvailable = VellDeviceGetSoftwareMeasureAvailable(device) == 1;
    for (int index = 0; index < VellDeviceGetAttributeCount(device); ++index) {
        VellStringRef key = VellDeviceGetAttributeNameAtIndex(device, index);
        status.attributes.emplace_back(textOf(key),
                                       textOf(VellDeviceGetAttributeForKeyAsString(device, key)));
    }
    return status;
}

Reply replyOf(VellDeviceCommandResponseRef response) {
    Reply reply;
    reply.code = VellDeviceCommandResponseGetCode(response);
    reply.message = textOf(VellDeviceCommandResponseGetMessage(response));
    if (VellDataRef data = VellDeviceCommandResponseGetData(response)) {
        reply.data.assign(static_cast<const char*>(VellDataGetBytes(data)),
                          static_cast<std::size_t>(VellDataGetLength(data)));
    }
    const Ref<VellMeasurementSetRef> set(VellDeviceCommandResponseCopyMeasurementSet(response));
    for (unsigned index = 0; index < VellMeasurementSetGetCount(set.get()); ++index)
        reply.measurements.push_back(
            measurementOf(VellMeasurementSetGetMeasurementAtIndex(set.get(), index)));
    return reply;
}

std::string ticketOf(VellDeviceCommandResponseRef response) {
    const Ref<VellDeviceCommandRef> command(VellDeviceCommandResponseCopyCommand(response));
    return textOf(VellReceiptGetTicket(VellDeviceCommandGetReceipt(command.get())));
}

std::string sendCommand(VellDeviceRef device, const Command& command) {
    const auto name = makeString(command.name);
    const Ref<VellDeviceCommandRef> message(VellDeviceCommandCreate(name.get()));
    VellDeviceCommandSetDeviceName(message.get(), VellDeviceGetName(device));
    VellDeviceCommandSetDevicePath(message.get(), VellDeviceGetPath(device));
    for (const auto& [key, value] : command.arguments) {
        const auto keyText = makeString(key);
        const auto valueText = makeString(value);
        VellDeviceCommandSetArgument(message.get(), keyText.get(), valueText.get());
    }
    const Ref<VellReceiptRef> receipt(VellDeviceSendCommand(device, message.get()));
    return textOf(VellReceiptGetTicket(receipt.get()));
}

std::vector<std::pair<std::string, std::vector<std::string>>> decodeCommandTable(const std::string& data) {
    const Ref<VellDataRef> encoded(VellDataCreateWithBytes(data.data(), static_cast<int>(data.size())));
    const Ref<VellObjectRef> root(VellCoderCopyRootObjectWithEncodedData(encoded.get()));
    const auto table = static_cast<VellDictionaryRef>(VellCheckedCast(root.get(), "VellDictionaryRef"));
    std::vector<std::pair<std::string, std::vector<std::string>>> result;
    for (int index = 0; index < VellDictionaryGetCount(table); ++index) {
        VellStringRef name = VellDictionaryGetKeyAtIndex(table, index);
        VellObjectRef arguments = VellCheckedCast(VellDictionaryGetValueForKey(table, name), "VellArrayRef");
        result.emplace_back(textOf(name), textsOf(static_cast<VellArrayRef>(arguments)));
    }
    return result;
}

} // namespace tablectl
