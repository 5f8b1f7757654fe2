#include "Wire.h"

#include "Utf8.h"

#include <algorithm>
#include <cstdlib>
#include <limits>

namespace VellService {
namespace {

// More entries than any message of ours has: a sender who goes beyond is not worth the time.
constexpr std::uint32_t kMaximumEntries = 4096;

Frame frameOf(plist_t root, const char* what) {
    const std::string payload = binaryPropertyList(root);
    if (payload.empty() || payload.size() > kMaximumPayload) {
        VellLogError("[Wire] - a %s of %zu bytes does not fit into a frame\n", what, payload.size());
        return nullptr;
    }
    auto frame = std::make_shared<std::string>();
    frame->reserve(kFrameHeaderSize + payload.size());
    for (const int shift : {24, 16, 8, 0})
        *frame += static_cast<char>(payload.size() >> shift & 0xff);
    *frame += payload;
    return frame;
}

PropertyListPtr newMessage(const char* type) {
    PropertyListPtr root(plist_new_dict());
    plist_dict_set_item(root.get(), "Type", plist_new_string(type));
    return root;
}

void setText(plist_t dictionary, const char* key, const __VellString* string) {
    plist_dict_set_item(dictionary, key, newStringNode(textOf(string)));
}

// Dictionaries of strings and lists of strings, the common shapes of all messages.
template <typename Entries>
plist_t nodeOfEntries(const Entries& entries) {
    const plist_t node = plist_new_dict();
    for (const auto& entry : entries)
        setText(node, validUtf8(entry.key->text).c_str(), entry.value.get());
    return node;
}

template <typename Strings>
plist_t nodeOfStrings(const Strings& strings) {
    const plist_t node = plist_new_array();
    for (const auto& string : strings)
        plist_array_append_item(node, newStringNode(string->text));
    return node;
}

plist_t nodeOfColor(const __VellMeasurementColor& color) {
    const plist_t node = plist_new_dict();
    setText(node, "ColorSpace", color.colorSpace.get());
    plist_dict_set_item(node, "Values", nodeOfStrings(color.values));
    plist_dict_set_item(node, "Attributes", nodeOfEntries(color.attributes));
    return node;
}

plist_t nodeOfSet(const __VellMeasurementSet& set) {
    const plist_t node = plist_new_array();
    for (const auto& measurement : set.measurements) {
        const plist_t entry = plist_new_dict();
        setText(entry, "Mode", measurement->mode.get());
        const plist_t colors = plist_new_array();
        for (const auto& color : measurement->colors)
            plist_array_append_item(colors, nodeOfColor(*color));
        plist_dict_set_item(entry, "Colors", colors);
        plist_array_append_item(node, entry);
    }
    return node;
}

bool isDictionary(plist_t node) {
    return node && plist_get_node_type(node) == PLIST_DICT;
}

bool isTooLarge(plist_t dictionary) {
    return dictionary && plist_dict_get_size(dictionary) > kMaximumEntries;
}

// Calls `function(key, value)` with the entries that are strings.
template <typename Function>
void forEachString(plist_t dictionary, Function function) {
    if (!dictionary || isTooLarge(dictionary))
        return;
    forEachEntry(dictionary, [&](const char* key, plist_t value) {
        if (auto text = stringOf(value))
            function(makeString(validUtf8(key)), makeString(std::move(*text)));
    });
}

Ref<__VellMeasurementColor> colorOf(plist_t node) {
    auto color = Ref<__VellMeasurementColor>::adopt(new __VellMeasurementColor);
    color->colorSpace = stringObjectIn(node, "ColorSpace");
    if (const plist_t values = arrayIn(node, "Values")) {
        color->values.reserve(plist_array_get_size(values));
        forEachElement(values, [&](plist_t value) {
            if (auto text = stringOf(value))
                color->values.push_back(makeString(std::move(*text)));
        });
    }
    forEachString(dictionaryIn(node, "Attributes"),
                  [&](const Ref<__VellString>& key, const Ref<__VellString>& value) {
                      color->setAttribute(key.get(), value.get());
                  });
    return color;
}

Ref<__VellMeasurementSet> setOf(plist_t array) {
    auto set = Ref<__VellMeasurementSet>::adopt(new __VellMeasurementSet);
    forEachElement(array, [&](plist_t entry) {
        if (!isDictionary(entry))
            return;
        auto measurement = Ref<__VellMeasurement>::adopt(new __VellMeasurement);
        measurement->mode = stringObjectIn(entry, "Mode");
        if (const plist_t colors = arrayIn(entry, "Colors")) {
            forEachElement(colors, [&](plist_t color) {
                if (isDictionary(color))
                    measurement->colors.push_back(colorOf(color));
            });
        }
        set->measurements.push_back(std::move(measurement));
    });
    return set;
}

Ref<__VellReceipt> receiptWith(Ref<__VellString> ticket, long processIdentifier) {
    auto receipt = Ref<__VellReceipt>::adopt(new __VellReceipt);
    receipt->ticket = std::move(ticket);
    receipt->processIdentifier = makeString(std::to_string(processIdentifier));
    return receipt;
}

int saturatedInt(std::int64_t value) {
    return static_cast<int>(
        std::clamp<std::int64_t>(value, std::numeric_limits<int>::min(), std::numeric_limits<int>::max()));
}

void setCommandFields(const Message& message, __VellDeviceCommand& command) {
    command.deviceName = stringObjectIn(message.root(), "Device");
    command.devicePath = stringObjectIn(message.root(), "DevicePath");
}

} // namespace

Frame commandFrame(const __VellDeviceCommand& command) {
    const PropertyListPtr root = newMessage("Command");
    setText(root.get(), "Name", command.name.get());
    setText(root.get(), "Ticket", command.receipt ? command.receipt->ticket.get() : nullptr);
    setText(root.get(), "Device", command.deviceName.get());
    setText(root.get(), "DevicePath", command.devicePath.get());
    plist_dict_set_item(root.get(), "Arguments", nodeOfEntries(command.arguments));
    if (command.data)
        plist_dict_set_item(root.get(), "Data", newDataNode(command.data->bytes));
    return frameOf(root.get(), "command");
}

Frame responseFrame(const __VellDeviceCommandResponse& response) {
    const PropertyListPtr root = newMessage("Response");
    const __VellDeviceCommand* command = response.command.get();
    setText(root.get(), "Ticket", command && command->receipt ? command->receipt->ticket.get() : nullptr);
    setText(root.get(), "Name", command ? command->name.get() : nullptr);
    setText(root.get(), "Device", command ? command->deviceName.get() : nullptr);
    setText(root.get(), "DevicePath", command ? command->devicePath.get() : nullptr);
    plist_dict_set_item(root.get(), "Code", newIntegerNode(response.code));
    setText(root.get(), "Message", response.message.get());
    if (response.data)
        plist_dict_set_item(root.get(), "Data", newDataNode(response.data->bytes));
    if (response.measurementSet)
        plist_dict_set_item(root.get(), "MeasurementSet", nodeOfSet(*response.measurementSet));
    return frameOf(root.get(), "response");
}

Frame statusFrame(const RecordFields& fields) {
    const plist_t record = plist_new_dict();
    setText(record, "Name", fields.name.get());
    setText(record, "DisplayName", fields.displayNameOrAttribute());
    setText(record, "Path", fields.pathOrAttribute());
    setText(record, "SerialNumber", fields.serialNumber.get());
    setText(record, "ServiceVersion", fields.serviceVersion.get());
    const plist_t modes = plist_new_array();
    if (fields.modes) {
        for (const auto& mode : fields.modes->values) {
            if (const auto* string = as<__VellString>(mode.get()))
                plist_array_append_item(modes, newStringNode(string->text));
        }
    }
    plist_dict_set_item(record, "Modes", modes);
    setText(record, "Mode", fields.mode.get());
    plist_dict_set_item(record, "Attributes", nodeOfEntries(fields.attributes));
    plist_dict_set_item(record, "CalibrationStatus", newIntegerNode(fields.calibrationStatus));
    setText(record, "LockHolder", fields.lockHolder.get());
    setFlag(record, "Enabled", fields.enabled);
    setFlag(record, "Available", fields.available);
    setFlag(record, "Connected", fields.connected);
    setFlag(record, "SoftwareMeasurementAvailable", fields.softwareMeasurementAvailable);
    setFlag(record, "Locked", !textOf(fields.lockHolder.get()).empty());
    setFlag(record, "Proxy", fields.proxy);
    const PropertyListPtr root = newMessage("Status");
    plist_dict_set_item(root.get(), "Record", record);
    return frameOf(root.get(), "status");
}

Frame closeFrame(const __VellString* devicePath) {
    const PropertyListPtr root = newMessage("Close");
    setText(root.get(), "DevicePath", devicePath);
    return frameOf(root.get(), "close");
}

Frame messageFrame(const __VellString* first, const __VellString* second) {
    const PropertyListPtr root = newMessage("Message");
    setText(root.get(), "First", first);
    setText(root.get(), "Second", second);
    return frameOf(root.get(), "message");
}

Message::Message(std::string_view payload) : mRoot(parseBinaryPropertyList(payload)) {
    if (!isDictionary(mRoot.get()))
        return;
    const std::string type = stringIn(mRoot.get(), "Type").value_or("");
    struct Name {
        const char* text;
        MessageType type;
    };
    static constexpr Name names[] = {{"Command", MessageType::command},
                                     {"Response", MessageType::response},
                                     {"Status", MessageType::status},
                                     {"Close", MessageType::close},
                                     {"Message", MessageType::message}};
    const auto found =
        std::find_if(std::begin(names), std::end(names), [&](const Name& name) { return name.text == type; });
    mType = found != std::end(names) ? found->type : MessageType::unknown;
}

Ref<__VellDeviceCommand> commandOf(const Message& message, const Sender& sender) {
    const Ref<__VellString> name = stringObjectIn(message.root(), "Name");
    const plist_t arguments = dictionaryIn(message.root(), "Arguments");
    if (!name || isTooLarge(arguments))
        return {};
    auto command = Ref<__VellDeviceCommand>::adopt(new __VellDeviceCommand(name.get()));
    setCommandFields(message, *command);
    forEachString(arguments, [&](const Ref<__VellString>& key, const Ref<__VellString>& value) {
        command->setArgument(key.get(), value.get());
    });
    const auto* source = command->argument("source");
    if (!sender.isThisProcess && source && source->value->text == "hardware")
        command->setArgument(source->key.get(), nullptr);
    if (auto data = dataIn(message.root(), "Data"))
        command->data = Ref<__VellData>::adopt(new __VellData(std::move(*data)));
    Ref<__VellString> ticket = stringObjectIn(message.root(), "Ticket");
    command->receipt = receiptWith(ticket ? std::move(ticket) : makeString(""), sender.processIdentifier);
    command->connection = sender.connection;
    return command;
}

Ref<__VellDeviceCommand> answeredCommandOf(const Message& message) {
    const Ref<__VellString> name = stringObjectIn(message.root(), "Name");
    auto command = Ref<__VellDeviceCommand>::adopt(new __VellDeviceCommand(name.get()));
    setCommandFields(message, *command);
    command->receipt = Ref<__VellReceipt>::adopt(new __VellReceipt);
    command->receipt->ticket = stringObjectIn(message.root(), "Ticket");
    return command;
}

Ref<__VellDeviceCommandResponse> responseOf(const Message& message, Ref<__VellDeviceCommand> command) {
    auto response =
        Ref<__VellDeviceCommandResponse>::adopt(new __VellDeviceCommandResponse(std::move(command)));
    response->code = saturatedInt(integerIn(message.root(), "Code").value_or(0));
    response->message = stringObjectIn(message.root(), "Message");
    if (auto data = dataIn(message.root(), "Data"))
        response->data = Ref<__VellData>::adopt(new __VellData(std::move(*data)));
    if (const plist_t set = arrayIn(message.root(), "MeasurementSet"))
        response->measurementSet = setOf(set);
    return response;
}

std::optional<RecordFields> recordOf(const Message& message) {
    const plist_t record = dictionaryIn(message.root(), "Record");
    if (!record)
        return std::nullopt;
    const auto flag = [&](const char* key) { return integerIn(record, key).value_or(0) != 0; };
    RecordFields fields;
    fields.name = stringObjectIn(record, "Name");
    fields.displayName = stringObjectIn(record, "DisplayName");
    fields.path = stringObjectIn(record, "Path");
    fields.serialNumber = stringObjectIn(record, "SerialNumber");
    fields.serviceVersion = stringObjectIn(record, "ServiceVersion");
    fields.mode = stringObjectIn(record, "Mode");
    fields.lockHolder = stringObjectIn(record, "LockHolder");
    fields.modes = Ref<__VellArray>::adopt(new __VellArray);
    if (const plist_t modes = arrayIn(record, "Modes")) {
        forEachElement(modes, [&](plist_t mode) {
            if (auto text = stringOf(mode))
                fields.modes->values.push_back(Ref<Object>::adopt(new __VellString(std::move(*text))));
        });
    }
    forEachString(dictionaryIn(record, "Attributes"), [&](Ref<__VellString> key, Ref<__VellString> value) {
        fields.attributes.push_back({std::move(key), std::move(value)});
    });
    fields.calibrationStatus = saturatedInt(integerIn(record, "CalibrationStatus").value_or(0));
    fields.enabled = flag("Enabled");
    fields.available = flag("Available");
    fields.connected = flag("Connected");
    fields.proxy = flag("Proxy");
    fields.softwareMeasurementAvailable = flag("SoftwareMeasurementAvailable");
    return fields;
}

} // namespace VellService
