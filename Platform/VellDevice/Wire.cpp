#include "Wire.h"

#include "PropertyListWriter.h"

#include <Base/PropertyListGuard.h>

#include <algorithm>
#include <limits>

namespace VellService {
namespace {

// More entries than any message of ours has: a sender who goes beyond is not worth the time.
constexpr std::uint32_t kMaximumEntries = 4096;
constexpr std::size_t kMaximumText = 64 << 10; // bytes of a command's names, and of its arguments together

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
    explicit DictionaryBuilder(PropertyListWriter& writer) : mWriter(writer) {
        mEntries.reserve(kUsualEntries);
    }

    void add(const char* key, PropertyListWriter::Value value) {
        mEntries.emplace_back(mWriter.text(key), value);
    }
    void addText(const char* key, const __VellString* string) { add(key, mWriter.text(textOf(string))); }
    void addFlag(const char* key, bool value) { add(key, mWriter.flag(value)); }
    PropertyListWriter::Value finish() { return mWriter.dictionary(mEntries); }

private:
    static constexpr std::size_t kUsualEntries = 16;

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

// Dictionaries of strings and lists of texts, the common shapes of all messages.
template <typename Entries>
PropertyListWriter::Value writeEntries(PropertyListWriter& writer, const Entries& entries) {
    std::vector<PropertyListWriter::Entry> written;
    written.reserve(entries.size());
    for (const auto& entry : entries)
        written.emplace_back(writer.text(entry.key->text), writer.text(entry.value->text));
    return writer.dictionary(written);
}

PropertyListWriter::Value writeTexts(PropertyListWriter& writer, const TextList& texts) {
    std::vector<PropertyListWriter::Value> written;
    written.reserve(texts.size());
    for (std::size_t i = 0; i < texts.size(); ++i)
        written.push_back(writer.text(texts[i]));
    return writer.array(written);
}

PropertyListWriter::Value writeColor(PropertyListWriter& writer, const __VellMeasurementColor& color) {
    DictionaryBuilder dictionary(writer);
    dictionary.addText("ColorSpace", color.colorSpace.get());
    dictionary.add("Values", writeTexts(writer, color.values));
    dictionary.add("Attributes", writeEntries(writer, color.attributes));
    return dictionary.finish();
}

PropertyListWriter::Value writeSet(PropertyListWriter& writer, const __VellMeasurementSet& set) {
    std::vector<PropertyListWriter::Value> measurements;
    measurements.reserve(set.measurements.size());
    for (const auto& measurement : set.measurements) {
        std::vector<PropertyListWriter::Value> colors;
        colors.reserve(measurement->colors.size());
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

using Node = Message::Node;

bool isTooLarge(const Node& dictionary) {
    return dictionary.count() > kMaximumEntries;
}

// Calls `function(key, value)` with the entries that are strings.
template <typename Function>
void forEachString(const Message& message, const Node& dictionary, Function function) {
    if (!dictionary.isDictionary() || isTooLarge(dictionary))
        return;
    for (std::uint64_t i = 0; i < dictionary.count(); ++i) {
        if (const Ref<__VellString> value = message.string(dictionary.value(i)))
            function(message.string(dictionary.key(i)), value);
    }
}

Ref<__VellString> stringIn(const Message& message, const Node& dictionary, std::string_view key) {
    return message.string(dictionary.in(key));
}

Ref<__VellMeasurementColor> colorOf(const Message& message, const Node& node) {
    constexpr std::uint64_t usualLength = 20;
    auto color = Ref<__VellMeasurementColor>::adopt(new __VellMeasurementColor);
    color->colorSpace = stringIn(message, node, "ColorSpace");
    if (const Node values = node.in("Values"); values.isArray()) {
        color->values.reserve(values.count(), values.count() * usualLength);
        for (std::uint64_t i = 0; i < values.count(); ++i) {
            if (const Node value = values.element(i); value.isText())
                color->values.addWith([&](std::string& bytes) { value.appendText(bytes); });
        }
    }
    forEachString(message, node.in("Attributes"),
                  [&](const Ref<__VellString>& key, const Ref<__VellString>& value) {
                      color->setAttribute(key.get(), value.get());
                  });
    return color;
}

Ref<__VellMeasurementSet> setOf(const Message& message, const Node& array) {
    auto set = Ref<__VellMeasurementSet>::adopt(new __VellMeasurementSet);
    set->measurements.reserve(array.count());
    for (std::uint64_t i = 0; i < array.count(); ++i) {
        const Node entry = array.element(i);
        if (!entry.isDictionary())
            continue;
        auto measurement = Ref<__VellMeasurement>::adopt(new __VellMeasurement);
        measurement->mode = stringIn(message, entry, "Mode");
        const Node colors = entry.in("Colors");
        for (std::uint64_t k = 0; colors.isArray() && k < colors.count(); ++k) {
            if (const Node color = colors.element(k); color.isDictionary())
                measurement->colors.push_back(colorOf(message, color));
        }
        set->measurements.push_back(std::move(measurement));
    }
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
    command.deviceName = stringIn(message, message.root(), "Device");
    command.devicePath = stringIn(message, message.root(), "DevicePath");
}

Ref<__VellData> dataIn(const Message& message) {
    auto data = message.root().in("Data").data();
    return data ? Ref<__VellData>::adopt(new __VellData(std::move(*data))) : Ref<__VellData>();
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

Message::Message(std::string_view payload) : mList(payload) {
    if (!Base::PropertyListGuard::isSafe(mList) || !mList.root().isDictionary())
        return;
    mRoot = mList.root();
    const std::string type = textIn("Type");
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

Ref<__VellString> Message::string(const Node& text) const {
    if (!text.isText())
        return {};
    Known& known = mKnown[text.identity() % mKnown.size()];
    if (!known.string || known.identity != text.identity())
        known = {text.identity(), makeString(*text.text())};
    return known.string;
}

Ref<__VellDeviceCommand> commandOf(const Message& message, const Sender& sender) {
    const Ref<__VellString> name = stringIn(message, message.root(), "Name");
    const Node arguments = message.root().in("Arguments");
    if (!name || (arguments.isDictionary() && isTooLarge(arguments)))
        return {};
    auto command = Ref<__VellDeviceCommand>::adopt(new __VellDeviceCommand(name.get()));
    setCommandFields(message, *command);
    std::size_t size = 0;
    forEachString(message, arguments, [&](const Ref<__VellString>& key, const Ref<__VellString>& value) {
        size += key->text.size() + value->text.size();
        if (size <= kMaximumText)
            command->setArgument(key.get(), value.get());
    });
    const Ref<__VellString> ticket = stringIn(message, message.root(), "Ticket");
    for (const auto* text : {name.get(), command->deviceName.get(), command->devicePath.get(), ticket.get()})
        size = std::max(size, textOf(text).size());
    if (size > kMaximumText)
        return {};
    const auto* source = command->argument("source");
    if (!sender.isThisProcess && source && source->value->text == "hardware")
        command->setArgument(source->key.get(), nullptr);
    command->data = dataIn(message);
    command->receipt = receiptWith(ticket ? ticket : makeString(""), sender.processIdentifier);
    command->connection = sender.connection;
    return command;
}

Ref<__VellDeviceCommand> answeredCommandOf(const Message& message) {
    const Ref<__VellString> name = stringIn(message, message.root(), "Name");
    auto command = Ref<__VellDeviceCommand>::adopt(new __VellDeviceCommand(name.get()));
    setCommandFields(message, *command);
    command->receipt = Ref<__VellReceipt>::adopt(new __VellReceipt);
    command->receipt->ticket = stringIn(message, message.root(), "Ticket");
    return command;
}

Ref<__VellDeviceCommandResponse> responseOf(const Message& message, Ref<__VellDeviceCommand> command) {
    auto response =
        Ref<__VellDeviceCommandResponse>::adopt(new __VellDeviceCommandResponse(std::move(command)));
    response->code = saturatedInt(message.root().in("Code").integer().value_or(0));
    response->message = stringIn(message, message.root(), "Message");
    response->data = dataIn(message);
    if (const Node set = message.root().in("MeasurementSet"); set.isArray())
        response->measurementSet = setOf(message, set);
    return response;
}

std::optional<RecordFields> recordOf(const Message& message) {
    const Node record = message.root().in("Record");
    if (!record.isDictionary())
        return std::nullopt;
    const auto string = [&](std::string_view key) { return stringIn(message, record, key); };
    const auto flag = [&](std::string_view key) { return record.in(key).integer().value_or(0) != 0; };
    RecordFields fields;
    fields.name = string("Name");
    fields.displayName = string("DisplayName");
    fields.path = string("Path");
    fields.serialNumber = string("SerialNumber");
    fields.serviceVersion = string("ServiceVersion");
    fields.mode = string("Mode");
    fields.lockHolder = string("LockHolder");
    fields.modes = Ref<__VellArray>::adopt(new __VellArray);
    const Node modes = record.in("Modes");
    for (std::uint64_t i = 0; modes.isArray() && i < modes.count(); ++i) {
        if (const Ref<__VellString> mode = message.string(modes.element(i)))
            fields.modes->values.emplace_back(mode.get());
    }
    forEachString(message, record.in("Attributes"),
                  [&](const Ref<__VellString>& key, const Ref<__VellString>& value) {
                      fields.attributes.push_back({key, value});
                  });
    fields.calibrationStatus = saturatedInt(record.in("CalibrationStatus").integer().value_or(0));
    fields.enabled = flag("Enabled");
    fields.available = flag("Available");
    fields.connected = flag("Connected");
    fields.proxy = flag("Proxy");
    fields.softwareMeasurementAvailable = flag("SoftwareMeasurementAvailable");
    return fields;
}

} // namespace VellService
