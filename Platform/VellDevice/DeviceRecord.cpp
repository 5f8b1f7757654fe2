#include "DeviceRecord.h"

#include "DeviceCenter.h"
#include "Retired.h"

#include <algorithm>

using namespace VellService;

namespace VellService {

const RecordFields::Attribute* RecordFields::attribute(std::string_view key) const {
    const auto found = std::find_if(attributes.begin(), attributes.end(),
                                    [&](const Attribute& candidate) { return candidate.key->text == key; });
    return found != attributes.end() ? &*found : nullptr;
}

__VellString* RecordFields::displayNameOrAttribute() const {
    const Attribute* standIn = displayName ? nullptr : attribute("DisplayName");
    return standIn ? standIn->value.get() : displayName.get();
}

__VellString* RecordFields::pathOrAttribute() const {
    const Attribute* standIn = path ? nullptr : attribute("DevicePath");
    return standIn ? standIn->value.get() : path.get();
}

} // namespace VellService

namespace {

using TextField = Ref<__VellString> RecordFields::*;
using Flag = bool RecordFields::*;

void retire(Ref<Object> value) {
    if (value)
        Retired::shared().add(std::move(value));
}

template <typename T>
void retire(Ref<T> value) {
    retire(Ref<Object>::adopt(value.leak()));
}

void retireAttributes(std::vector<RecordFields::Attribute> attributes) {
    for (auto& attribute : attributes) {
        retire(std::move(attribute.key));
        retire(std::move(attribute.value));
    }
}

VellStringRef getText(VellDeviceRef device, TextField field) {
    return device ? device->read([&](const RecordFields& fields) { return (fields.*field).get(); }) : nullptr;
}

void setText(VellDeviceRef device, TextField field, VellStringRef value) {
    if (!device)
        return;
    Ref<__VellString> replaced;
    device->write([&](RecordFields& fields) {
        Ref<__VellString>& current = fields.*field;
        // A value that stays the same stays the same object: nothing to keep alive.
        if (compareObjects(current.get(), value) == 0)
            return;
        replaced = std::exchange(current, Ref(value));
    });
    retire(std::move(replaced));
}

int getFlag(VellDeviceRef device, Flag flag) {
    return device && device->read([&](const RecordFields& fields) { return fields.*flag; }) ? 1 : 0;
}

void setFlag(VellDeviceRef device, Flag flag, int value) {
    if (device)
        device->write([&](RecordFields& fields) { fields.*flag = value != 0; });
}

VellReceiptRef sendNamed(VellDeviceRef device, const char* name, VellStringRef mode = nullptr) {
    const auto command =
        Ref<__VellDeviceCommand>::adopt(new __VellDeviceCommand(VellConstStringCreateWithCString(name)));
    if (mode)
        command->setArgument(VellConstStringCreateWithCString("Mode"), mode);
    return VellDeviceSendCommand(device, command.get());
}

} // namespace

std::string __VellDevice::description() const {
    return read([](const RecordFields& fields) {
        return "<" + textOf(fields.name.get()) + " at " + textOf(fields.pathOrAttribute()) + ">";
    });
}

Object* __VellDevice::duplicate() {
    auto* copy = new __VellDevice(kind);
    copy->replaceFields(fields());
    copy->link = link.load();
    return copy;
}

RecordFields __VellDevice::fields() const {
    return read([](const RecordFields& fields) { return fields; });
}

void __VellDevice::replaceFields(RecordFields fields) {
    write([&](RecordFields& current) { std::swap(current, fields); });
    for (const auto text :
         {&RecordFields::name, &RecordFields::displayName, &RecordFields::path, &RecordFields::serialNumber,
          &RecordFields::serviceVersion, &RecordFields::mode, &RecordFields::lockHolder})
        retire(std::move(fields.*text));
    retire(std::move(fields.modes));
    retireAttributes(std::move(fields.attributes));
}

VellDeviceRef VellDeviceCreate() {
    return new __VellDevice(__VellDevice::Kind::own);
}

VellStringRef VellDeviceGetName(VellDeviceRef device) {
    return getText(device, &RecordFields::name);
}

VellStringRef VellDeviceGetDisplayName(VellDeviceRef device) {
    return device ? device->read([](const RecordFields& fields) { return fields.displayNameOrAttribute(); })
                  : nullptr;
}

VellStringRef VellDeviceGetPath(VellDeviceRef device) {
    return device ? device->read([](const RecordFields& fields) { return fields.pathOrAttribute(); })
                  : nullptr;
}

VellStringRef VellDeviceGetSerialNumber(VellDeviceRef device) {
    return getText(device, &RecordFields::serialNumber);
}

VellStringRef VellDeviceGetServiceVersion(VellDeviceRef device) {
    return getText(device, &RecordFields::serviceVersion);
}

VellArrayRef VellDeviceGetModes(VellDeviceRef device) {
    return device ? device->read([](const RecordFields& fields) { return fields.modes.get(); }) : nullptr;
}

VellStringRef VellDeviceGetMode(VellDeviceRef device) {
    return getText(device, &RecordFields::mode);
}

int VellDeviceGetCalibrationStatus(VellDeviceRef device) {
    return device ? device->read([](const RecordFields& fields) { return fields.calibrationStatus; }) : 0;
}

int VellDeviceGetSoftwareMeasureAvailable(VellDeviceRef device) {
    return getFlag(device, &RecordFields::softwareMeasurementAvailable);
}

int VellDeviceGetEnabled(VellDeviceRef device) {
    return getFlag(device, &RecordFields::enabled);
}

int VellDeviceGetAvailable(VellDeviceRef device) {
    return getFlag(device, &RecordFields::available);
}

int VellDeviceGetConnected(VellDeviceRef device) {
    return getFlag(device, &RecordFields::connected);
}

int VellDeviceGetIsProxy(VellDeviceRef device) {
    return getFlag(device, &RecordFields::proxy);
}

int VellDeviceGetIsLocked(VellDeviceRef device) {
    return VellStringGetLength(VellDeviceGetLockHolder(device)) > 0;
}

VellStringRef VellDeviceGetLockHolder(VellDeviceRef device) {
    return getText(device, &RecordFields::lockHolder);
}

VellStringRef VellDeviceGetAttributeForKeyAsString(VellDeviceRef device, VellStringRef key) {
    if (!device || !key)
        return nullptr;
    return device->read([&](const RecordFields& fields) -> VellStringRef {
        const auto* attribute = fields.attribute(key->text);
        return attribute ? attribute->value.get() : nullptr;
    });
}

int VellDeviceGetAttributeCount(VellDeviceRef device) {
    return device ? device->read(
                        [](const RecordFields& fields) { return static_cast<int>(fields.attributes.size()); })
                  : 0;
}

VellStringRef VellDeviceGetAttributeNameAtIndex(VellDeviceRef device, int index) {
    if (!device || index < 0)
        return nullptr;
    const auto position = static_cast<std::size_t>(index);
    return device->read([&](const RecordFields& fields) -> VellStringRef {
        return position < fields.attributes.size() ? fields.attributes[position].key.get() : nullptr;
    });
}

void VellDeviceSetName(VellDeviceRef device, VellStringRef name) {
    setText(device, &RecordFields::name, name);
}

void VellDeviceSetSerialNumber(VellDeviceRef device, VellStringRef serialNumber) {
    setText(device, &RecordFields::serialNumber, serialNumber);
}

void VellDeviceSetServiceVersion(VellDeviceRef device, VellStringRef version) {
    setText(device, &RecordFields::serviceVersion, version);
}

void VellDeviceSetModes(VellDeviceRef device, VellArrayRef modes) {
    if (!device)
        return;
    // The caller may go on changing its array.
    Ref<__VellArray> replaced = duplicateOf(modes);
    device->write([&](RecordFields& fields) { std::swap(fields.modes, replaced); });
    retire(std::move(replaced));
}

void VellDeviceSetMode(VellDeviceRef device, VellStringRef mode) {
    setText(device, &RecordFields::mode, mode);
}

void VellDeviceSetCalibrationStatus(VellDeviceRef device, int status) {
    if (device)
        device->write([&](RecordFields& fields) { fields.calibrationStatus = status; });
}

void VellDeviceSetSoftwareMeasurementAvailable(VellDeviceRef device, int available) {
    setFlag(device, &RecordFields::softwareMeasurementAvailable, available);
}

void VellDeviceSetEnabled(VellDeviceRef device, int enabled) {
    setFlag(device, &RecordFields::enabled, enabled);
}

void VellDeviceSetAvailable(VellDeviceRef device, int available) {
    setFlag(device, &RecordFields::available, available);
}

void VellDeviceSetConnected(VellDeviceRef device, int connected) {
    setFlag(device, &RecordFields::connected, connected);
}

void VellDeviceSetIsProxy(VellDeviceRef device, int proxy) {
    setFlag(device, &RecordFields::proxy, proxy);
}

void VellDeviceSetLockHolder(VellDeviceRef device, VellStringRef holder) {
    setText(device, &RecordFields::lockHolder, holder);
}

void VellDeviceSetAttributeForKey(VellDeviceRef device, VellStringRef key, VellStringRef value) {
    if (!device || !key)
        return;
    Ref<__VellString> replaced;
    Ref<__VellString> removedKey;
    device->write([&](RecordFields& fields) {
        const auto found = std::find_if(
            fields.attributes.begin(), fields.attributes.end(),
            [&](const RecordFields::Attribute& candidate) { return candidate.key->text == key->text; });
        if (found == fields.attributes.end()) {
            if (value)
                fields.attributes.push_back({Ref(key), Ref(value)});
        } else if (!value) {
            replaced = std::move(found->value);
            removedKey = std::move(found->key);
            fields.attributes.erase(found);
        } else if (found->value->text != value->text) {
            replaced = std::exchange(found->value, Ref(value));
        }
    });
    retire(std::move(replaced));
    retire(std::move(removedKey));
}

void VellDeviceClearAttributes(VellDeviceRef device) {
    if (!device)
        return;
    std::vector<RecordFields::Attribute> cleared;
    device->write([&](RecordFields& fields) { cleared.swap(fields.attributes); });
    retireAttributes(std::move(cleared));
}

void VellDevicePostStatus(VellDeviceRef device) {
    if (device)
        __VellDeviceCenter::shared().postStatus(*device);
}

void VellDevicePostClose(VellDeviceRef device) {
    if (device)
        __VellDeviceCenter::shared().postClose(*device);
}

VellReceiptRef VellDeviceSendCommand(VellDeviceRef device, VellDeviceCommandRef command) {
    return device && command ? __VellDeviceCenter::shared().sendCommand(*device, *command).leak() : nullptr;
}

VellReceiptRef VellDeviceSendCalibrateCommand(VellDeviceRef device) {
    return sendNamed(device, "Calibrate");
}

VellReceiptRef VellDeviceSendStatusCommand(VellDeviceRef device) {
    return sendNamed(device, "Status");
}

VellReceiptRef VellDeviceSendEnableCommand(VellDeviceRef device, int enable) {
    return sendNamed(device, enable ? "Enable" : "Disable");
}

VellReceiptRef VellDeviceSendMeasureCommand(VellDeviceRef device) {
    return sendNamed(device, "Measure");
}

VellReceiptRef VellDeviceSendSetModeCommand(VellDeviceRef device, VellStringRef mode) {
    return sendNamed(device, "SetMode", mode);
}
