// The messages between plug-in and client as frames: 4 bytes of length, big-endian, and a binary property
// list.
#pragma once

#include "Command.h"
#include "DeviceRecord.h"

#include <Base/PropertyList.h>

#include <memory>
#include <string>
#include <string_view>

namespace VellService {

// One encoded message, shared by the queues of all who get it; null when the message does not fit into a
// frame.
using Frame = std::shared_ptr<const std::string>;

constexpr std::size_t kFrameHeaderSize = 4;
constexpr std::size_t kMaximumPayload = 16 << 20; // bytes; the least is 1

Frame commandFrame(const __VellDeviceCommand& command);
Frame responseFrame(const __VellDeviceCommandResponse& response);
Frame statusFrame(const RecordFields& record);
Frame closeFrame(const __VellString* devicePath);
Frame messageFrame(const __VellString* first, const __VellString* second);

enum class MessageType { malformed, unknown, command, response, status, close, message };

// A received message, still as the sender wrote it.
class Message {
public:
    explicit Message(std::string_view payload);

    MessageType type() const { return mType; }
    plist_t root() const { return mRoot.get(); }

private:
    Base::PropertyListPtr mRoot;
    MessageType mType = MessageType::malformed;
};

// Who sent a command, as far as the kernel knows it.
struct Sender {
    ConnectionIdentifier connection = kOwnConnection;
    long processIdentifier = 0;
    bool isThisProcess = false;
};

// The command with its receipt. "source" = "hardware" is dropped when the sender is another process: only the
// plug-in speaks for its button. Null when the message names no command.
Ref<__VellDeviceCommand> commandOf(const Message& message, const Sender& sender);
// What the message says of the command it answers, without arguments.
Ref<__VellDeviceCommand> answeredCommandOf(const Message& message);
Ref<__VellDeviceCommandResponse> responseOf(const Message& message, Ref<__VellDeviceCommand> command);
// Nothing when the message holds no record.
std::optional<RecordFields> recordOf(const Message& message);

} // namespace VellService
