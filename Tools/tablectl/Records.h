// From the service's objects to plain values and back. Center's thread only.
#pragma once

#include "Device.h"

#include <VellDevice/VellDevice.h>

#include <string>

namespace tablectl {

DeviceStatus statusOf(VellDeviceRef device);
Reply replyOf(VellDeviceCommandResponseRef response);
std::string ticketOf(VellDeviceCommandResponseRef response); // "" when it has none
// The ticket of the command; "" when the device is gone.
std::string sendCommand(VellDeviceRef device, const Command& command);
// A command table as the device encodes it: names and argument names, in its order.
std::vector<std::pair<std::string, std::vector<std::string>>> decodeCommandTable(const std::string& data);

} // namespace tablectl
