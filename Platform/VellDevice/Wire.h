// The messages between plug-in and client as frames: 4 bytes of length, big-endian, and a binary property
// list.
#pragma once

#include "Command.h"
#include "DeviceRecord.h"

#include <Base/BinaryPropertyList.h>

#include <array>
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

// A received message, still as the sender wrote it: a view of the payload, which must outlive it. One thread.
class Message {
public:
    using Node = Base::BinaryPropertyList::Node;

    explicit Message(std::string_view payload);
    Message(const Message&) = delete;
    Message& operator=(const Message&) = delete;

    MessageType type() const { return mType; }
    Node root() const { return mRoot; } // a dictionary; none in a malformed message
    std::string textIn(std::string_view key) const { return mRoot.in(key).text().value_or(""); }
    // A text as a string; null when it is none. Texts that come again and again, as labels do, share one.
    Ref<__VellString> string(const Node& text) const;

private:
    struct Known {
        std::uint64_t identity = 0;
        Ref<__VellString> string; // null when the place is free
    };

    const Base::BinaryPropertyList mList;
    Node mRoot;
    MessageType mType = MessageType::malformed;
    mutable std::array<Known, 64> mKnown; // by identity, as far as there is room
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
