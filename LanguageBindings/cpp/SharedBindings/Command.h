#pragma once

#include "Data.h"
#include "Receipt.h"

namespace VellDevice {

// What a client asks of a device: a name, string arguments, the device it is for, and the receipt of its
// sender.
class Command : public Object {
public:
    explicit Command(const std::string& name);
    Command(void* command, bool adopt) : Object(command, adopt) {}

    // A duplicate that the service makes, receipt included; the caller deletes the wrapper.
    Command* copy() const;

    const char* name() const;
    void setName(const std::string& name);
    // "" when the command has no such argument.
    const char* argumentForKey(const std::string& key) const;
    void setArgumentForKey(const std::string& value, const std::string& key);
    // The argument "Device", or "DeviceType" where that is missing or empty.
    const char* deviceName() const;
    void setDeviceName(const std::string& name);
    const char* devicePath() const;
    void setDevicePath(const std::string& path);
    void data(Data& out) const;
    void setData(const Data& data);
    void receipt(Receipt& out) const;
};

} // namespace VellDevice
