#pragma once

#include "Command.h"
#include "MeasurementSet.h"

namespace VellDevice {

// What a device answered to a command: a code (0 is success), a message, and whatever the command asked for.
class Response : public Object {
public:
    Response(void* response, bool adopt) : Object(response, adopt) {}

    // A wrapper of null where the response has none.
    void command(Command& out) const;
    int code() const;
    const char* message() const;
    void measurementSet(MeasurementSet& out) const;
    void data(Data& out) const;
    std::string sourceDeviceName() const;

protected:
    explicit Response(bool adopt) : Object(adopt) {}
};

// A response that the plug-in builds.
class MutableResponse : public Response {
public:
    explicit MutableResponse(const Command& command);

    void setCode(int code);
    void setMessage(const std::string& message);
    void setMeasurementSet(const MeasurementSet& set);
    void setData(const Data& data);
    // No effect: the source is the command's device.
    void setSourceDeviceName(const std::string& name);
    // Delivers the response to the client that sent the command; a second call of one response does nothing.
    void send();
};

} // namespace VellDevice
