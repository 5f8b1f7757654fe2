// What anybody may send: property lists, and the messages in them. What can be read as service objects is
// written so that it reads back the same.
#include "Fuzzing.h"

#include <Base/BinaryPropertyList.h>
#include <Base/Utf8.h>
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

// The view of messages and the property-list library must see the same in the same bytes.
using Node = Base::BinaryPropertyList::Node;

void requireEqual(const Node& seen, plist_t node) {
    fuzzing::require(static_cast<bool>(seen), "every node is seen");
    fuzzing::require(seen.isArray() == (plist_get_node_type(node) == PLIST_ARRAY) &&
                         seen.isDictionary() == (plist_get_node_type(node) == PLIST_DICT) &&
                         seen.isText() == (plist_get_node_type(node) == PLIST_STRING),
                     "nodes have one kind");
    fuzzing::require(seen.text() == Base::stringOf(node), "texts are the same");
    fuzzing::require(seen.integer() == Base::integerOf(node), "numbers are the same");
    fuzzing::require(seen.data() == Base::dataOf(node), "data is the same");
    std::uint64_t index = 0;
    Base::forEachElement(node, [&](plist_t element) { requireEqual(seen.element(index++), element); });
    Base::forEachEntry(node, [&](const char* key, plist_t value) {
        fuzzing::require(seen.key(index).text() == Base::validUtf8(key), "keys are the same");
        requireEqual(seen.value(index++), value);
    });
    fuzzing::require(index == seen.count(), "containers have one size");
}

void compareReaders(std::string_view bytes) {
    const Base::BinaryPropertyList list(bytes);
    if (const Base::PropertyListPtr root = Base::parseBinaryPropertyList(bytes))
        requireEqual(list.root(), root.get());
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
    compareReaders(text);
    readAsMessage(text);
    return 0;
}
