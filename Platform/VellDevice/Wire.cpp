#include "Wire.h"

#include "Coder.h"
#include "PropertyListWriter.h"

#include <Base/Utf8.h>

#include <algorithm>
#include <cstdlib>
#include <limits>

namespace VellService {
namespace {

using Base::arrayIn;
using Base::dataIn;
using Base::dictionaryIn;
using Base::forEachElement;
using Base::forEachEntry;
using Base::integerIn;
using Base::stringIn;
using Base::stringOf;

// More entries than any message of ours has: a sender who goes beyond is not worth the time.
constexpr std::uint32_t kMaximumEntries = 4096;

Frame frameOf(const std::string& payload, const char* what) {
    if (payload.size() > kMaximumPayload) {
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

// A dictionary of a message that is being written, and the writer it goes into.
class DictionaryBuilder {
public:
    explicit DictionaryBuilder(PropertyListWriter& writer) : mWriter(writer) {}

    void add(const char* key, PropertyListWriter::Value value) {
        mEntries.emplace_back(mWriter.text(key), value);
    }
    void addText(const char* key, const __VellString* string) { add(key, mWriter.text(textOf(string))); }
    void addFlag(const char* key, bool value) { add(key, mWriter.flag(value)); }
    PropertyListWriter::Value finish() { return mWriter.dictionary(mEntries); }

private:
    PropertyListWriter& mWriter;
    std::vector<PropertyListWriter::Entry> mEntries;
};

// A message as a whole.
class MessageBuilder {
public:
    explicit MessageBuilder(const char* type) : root(writer) { root.add("Type", writer.text(type)); }

    Frame frame(const char* what) {
        const PropertyListWriter::Value outermost = root.finish();
        return frameOf(writer.finish(outermost), what);
    }

    PropertyListWriter writer;
    DictionaryBuilder root;
};

// Dictionaries of strings and lists of strings, the common shapes of all messages.
template <typename Entries>
PropertyListWriter::Value writeEntries(PropertyListWriter& writer, const Entries& entries) {
    std::vector<PropertyListWriter::Entry> written;
    written.reserve(entries.size());
    for (const auto& entry : entries)
        written.emplace_back(writer.text(entry.key->text), writer.text(entry.value->text));
    return writer.dictionary(written);
}

template <typename Strings>
PropertyListWriter::Value writeStrings(PropertyListWriter& writer, const Strings& strings) {
    std::vector<PropertyListWriter::Value> written;
    written.reserve(strings.size());
    for (const auto& string : strings)
        written.push_back(writer.text(string->text));
    return writer.array(written);
}

PropertyListWriter::Value writeColor(PropertyListWriter& writer, const __VellMeasurementColor& color) {
    DictionaryBuilder dictionary(writer);
    dictionary.addText("ColorSpace", color.colorSpace.get());
    dictionary.add("Values", writeStrings(writer, color.values));
    dictionary.add("Attributes", writeEntries(writer, color.attributes));
    return dictionary.finish();
}

PropertyListWriter::Value writeSet(PropertyListWriter& writer, const __VellMeasurementSet& set) {
    std::vector<PropertyListWriter::Value> measurements;
    measurements.reserve(set.measurements.size());
    for (const auto& measurement : set.measurements) {
        std::vector<PropertyListWriter::Value> colors;
        for (const auto& color : measurement->colors)
            colors.push_back(writeColor(writer, *color));
        DictionaryBuilder dictionary(writer);
        dictionary.addText("Mode", measurement->mode.get());
        dictionary.add("Colors", writer.array(colors));
        measurements.push_back(dictionary.finish());
    }
    return writer.array(measurements);
}

PropertyListWriter::Value writeModes(PropertyListWriter& writer, const __VellArray* modes) {
    std::vector<PropertyListWriter::Value> written;
    for (std::size_t i = 0; modes && i < modes->values.size(); ++i) {
        if (const auto* string = as<__VellString>(modes->values[i].get()))
            written.push_back(writer.text(string->text));
    }
    return writer.array(written);
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
            function(makeString(Base::validUtf8(key)), makeString(std::move(*text)));
    });
}

Ref<__VellMeasurementColor> colorOf(plist_t node) {
    auto color = Ref<__VellMeasurementColor>::adopt(new __VellMeasurementColor);
    color->colorSpace = stringObjectIn(node, "ColorSpace");
    forEachElement(arrayIn(node, "Values"), [&](plist_t value) {
        if (auto text = stringOf(value))
            color->values.push_back(makeString(std::move(*text)));
    });
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
        forEachElement(arrayIn(entry, "Colors"), [&](plist_t color) {
            if (isDictionary(color))
                measurement->colors.push_back(colorOf(color));
        });
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
    MessageBuilder message("Command");
    message.root.addText("Name", command.name.get());
    message.root.addText("Ticket", command.receipt ? command.receipt->ticket.get() : nullptr);
    message.root.addText("Device", command.deviceName.get());
    message.root.addText("DevicePath", command.devicePath.get());
    message.root.add("Arguments", writeEntries(message.writer, command.arguments));
    if (command.data)
        message.root.add("Data", message.writer.data(command.data->bytes));
    return message.frame("command");
}

Frame responseFrame(const __VellDeviceCommandResponse& response) {
    MessageBuilder message("Response");
    const __VellDeviceCommand* command = response.command.get();
    message.root.addText("Ticket", command && command->receipt ? command->receipt->ticket.get() : nullptr);
    message.root.addText("Name", command ? command->name.get() : nullptr);
    message.root.addText("Device", command ? command->deviceName.get() : nullptr);
    message.root.addText("DevicePath", command ? command->devicePath.get() : nullptr);
    message.root.add("Code", message.writer.integer(response.code));
    message.root.addText("Message", response.message.get());
    if (response.data)
        message.root.add("Data", message.writer.data(response.data->bytes));
    if (response.measurementSet)
        message.root.add("MeasurementSet", writeSet(message.writer, *response.measurementSet));
    return message.frame("response");
}

Frame statusFrame(const RecordFields& fields) {
    MessageBuilder message("Status");
    DictionaryBuilder record(message.writer);
    record.addText("Name", fields.name.get());
    record.addText("DisplayName", fields.displayNameOrAttribute());
    record.addText("Path", fields.pathOrAttribute());
    record.addText("SerialNumber", fields.serialNumber.get());
    record.addText("ServiceVersion", fields.serviceVersion.get());
    record.add("Modes", writeModes(message.writer, fields.modes.get()));
    record.addText("Mode", fields.mode.get());
    record.add("Attributes", writeEntries(message.writer, fields.attributes));
    record.add("CalibrationStatus", message.writer.integer(fields.calibrationStatus));
    record.addText("LockHolder", fields.lockHolder.get());
    record.addFlag("Enabled", fields.enabled);
    record.addFlag("Available", fields.available);
    record.addFlag("Connected", fields.connected);
    record.addFlag("SoftwareMeasurementAvailable", fields.softwareMeasurementAvailable);
    record.addFlag("Locked", !textOf(fields.lockHolder.get()).empty());
    record.addFlag("Proxy", fields.proxy);
    message.root.add("Record", record.finish());
    return message.frame("status");
}

Frame closeFrame(const __VellString* devicePath) {
    MessageBuilder message("Close");
    message.root.addText("DevicePath", devicePath);
    return message.frame("close");
}

Frame messageFrame(const __VellString* first, const __VellString* second) {
    MessageBuilder message("Message");
    message.root.addText("First", first);
    message.root.addText("Second", second);
    return message.frame("message");
}

Message::Message(std::string_view payload) : mRoot(Base::parseBinaryPropertyList(payload)) {
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
    forEachElement(arrayIn(record, "Modes"), [&](plist_t mode) {
        if (auto text = stringOf(mode))
            fields.modes->values.push_back(Ref<Object>::adopt(new __VellString(std::move(*text))));
    });
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
