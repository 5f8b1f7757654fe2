#include "Response.h"

namespace VellDevice {

void Response::command(Command& out) const {
    out = Command(VellDeviceCommandResponseCopyCommand(as<VellDeviceCommandResponseRef>()), true);
}

int Response::code() const {
    return VellDeviceCommandResponseGetCode(as<VellDeviceCommandResponseRef>());
}

const char* Response::message() const {
    return textOf(VellDeviceCommandResponseGetMessage(as<VellDeviceCommandResponseRef>()));
}

void Response::measurementSet(MeasurementSet& out) const {
    out =
        MeasurementSet(VellDeviceCommandResponseCopyMeasurementSet(as<VellDeviceCommandResponseRef>()), true);
}

void Response::data(Data& out) const {
    out = Data(VellDeviceCommandResponseGetData(as<VellDeviceCommandResponseRef>()), false);
}

std::string Response::sourceDeviceName() const {
    Command answered(nullptr, false);
    command(answered);
    return answered.deviceName();
}

MutableResponse::MutableResponse(const Command& command) : Response(false) {
    keep(VellDeviceCommandResponseCreate(static_cast<VellDeviceCommandRef>(command.objectPointer())));
}

void MutableResponse::setCode(int code) {
    VellDeviceCommandResponseSetCode(as<VellDeviceCommandResponseRef>(), code);
}

void MutableResponse::setMessage(const std::string& message) {
    VellDeviceCommandResponseSetMessage(as<VellDeviceCommandResponseRef>(), ServiceString(message));
}

void MutableResponse::setMeasurementSet(const MeasurementSet& set) {
    VellDeviceCommandResponseSetMeasurementSet(as<VellDeviceCommandResponseRef>(),
                                               static_cast<VellMeasurementSetRef>(set.objectPointer()));
}

void MutableResponse::setData(const Data& data) {
    VellDeviceCommandResponseSetData(as<VellDeviceCommandResponseRef>(),
                                     static_cast<VellDataRef>(data.objectPointer()));
}

void MutableResponse::setSourceDeviceName(const std::string&) {}

void MutableResponse::send() {
    VellDeviceCommandResponsePost(as<VellDeviceCommandResponseRef>());
}

} // namespace VellDevice
