// What anybody may send: property lists, and the messages in them. What can be read as service objects is
// written so that it reads back the same.
#include "Fuzzing.h"

#include <VellDevice/Coder.h>
#include <VellDevice/Wire.h>

#include <string_view>

using namespace VellService;

namespace {

void readAsObjects(std::string_view bytes) {
    const Base::PropertyListPtr root = Base::parsePropertyList(bytes);
    if (!root)
        return;
    const Ref<Object> object = objectOfNode(root.get());
    if (!object)
        return;
    const auto written = propertyListOf(object.get());
    if (!written)
        return;
    const Base::PropertyListPtr again = Base::parseBinaryPropertyList(*written);
    fuzzing::require(again != nullptr, "what was written can be read");
    const Ref<Object> second = objectOfNode(again.get());
    fuzzing::require(second && propertyListOf(second.get()) == written, "what was read writes as it was");
}

void readAsMessage(std::string_view bytes) {
    const Message message(bytes);
    Sender stranger;
    stranger.connection = 1;
    stranger.processIdentifier = 1;
    switch (message.type()) {
    case MessageType::command:
        if (const auto command = commandOf(message, stranger)) {
            const auto* const source = command->argument("source");
            fuzzing::require(!source || textOf(source->value.get()) != "hardware",
                             "only the plug-in speaks for its button");
            fuzzing::require(commandFrame(*command) != nullptr, "a command that came can go on");
        }
        break;
    case MessageType::response:
        if (const auto response = responseOf(message, answeredCommandOf(message)))
            responseFrame(*response);
        break;
    case MessageType::status:
        if (const auto record = recordOf(message))
            statusFrame(*record);
        break;
    default:
        break;
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
    const std::string_view text(reinterpret_cast<const char*>(bytes), size);
    readAsObjects(text);
    readAsMessage(text);
    return 0;
}
