#include "Command.h"

#include "DeviceCenter.h"

#include <algorithm>

using namespace VellService;

namespace {

template <typename T>
T* rawOf(const Ref<T>& ref) {
    return ref.get();
}

// The first comparison that is not equal decides.
int firstDifference(std::initializer_list<int> comparisons) {
    const auto found =
        std::find_if(comparisons.begin(), comparisons.end(), [](int result) { return result != 0; });
    return found != comparisons.end() ? *found : 0;
}

template <typename T>
int compare(const Ref<T>& left, const Ref<T>& right) {
    return compareObjects(rawOf(left), rawOf(right));
}

std::string describe(const Object* object) {
    return object ? object->description() : "(null)";
}

// An empty string where the receipt has none: a receipt's getters answer text.
VellStringRef orEmpty(const Ref<__VellString>& string) {
    return string ? string.get() : VellConstStringCreateWithCString("");
}

} // namespace

// --- Receipts

std::string __VellReceipt::description() const {
    return "{source = " + textOf(source.get()) + ", ticket = " + textOf(ticket.get()) +
           ", process = " + textOf(processIdentifier.get()) + "}";
}

int __VellReceipt::compareTo(const Object& other) const {
    const auto& receipt = static_cast<const __VellReceipt&>(other);
    return firstDifference({compare(ticket, receipt.ticket),
                            compare(processIdentifier, receipt.processIdentifier),
                            compare(source, receipt.source), compare(context, receipt.context)});
}

Object* __VellReceipt::duplicate() {
    auto* copy = new __VellReceipt;
    copy->context = context;
    copy->source = source;
    copy->ticket = ticket;
    copy->processIdentifier = processIdentifier;
    return copy;
}

VellReceiptRef VellReceiptCreate(VellStringRef context) {
    auto* receipt = new __VellReceipt;
    receipt->context = Ref(context);
    return receipt;
}

VellStringRef VellReceiptGetContext(VellReceiptRef receipt) {
    return receipt ? orEmpty(receipt->context) : nullptr;
}

VellStringRef VellReceiptGetSource(VellReceiptRef receipt) {
    return receipt ? orEmpty(receipt->source) : nullptr;
}

VellStringRef VellReceiptGetTicket(VellReceiptRef receipt) {
    return receipt ? orEmpty(receipt->ticket) : nullptr;
}

VellStringRef VellReceiptGetProcessIdentifier(VellReceiptRef receipt) {
    return receipt ? orEmpty(receipt->processIdentifier) : nullptr;
}

// --- Commands

const __VellDeviceCommand::Argument* __VellDeviceCommand::argument(std::string_view key) const {
    const auto found = std::find_if(arguments.begin(), arguments.end(), [&](const Argument& candidate) {
        return equalIgnoringCase(candidate.key->text, key);
    });
    return found != arguments.end() ? &*found : nullptr;
}

void __VellDeviceCommand::setArgument(__VellString* key, __VellString* value) {
    const auto found = std::find_if(arguments.begin(), arguments.end(), [&](const Argument& candidate) {
        return equalIgnoringCase(candidate.key->text, key->text);
    });
    if (found == arguments.end()) {
        if (value)
            arguments.push_back({Ref(key), Ref(value)});
    } else if (value) {
        found->value = Ref(value);
    } else {
        arguments.erase(found);
    }
}

std::string __VellDeviceCommand::description() const {
    std::string text = textOf(name.get()) + " {";
    for (const Argument& entry : arguments)
        text += (text.back() != '{' ? ", " : "") + entry.key->text + " = " + entry.value->text;
    return text + "}";
}

int __VellDeviceCommand::compareTo(const Object& other) const {
    const auto& command = static_cast<const __VellDeviceCommand&>(other);
    const int fields = firstDifference({compare(name, command.name), compare(deviceName, command.deviceName),
                                        compare(devicePath, command.devicePath), compare(data, command.data),
                                        compare(receipt, command.receipt)});
    if (fields != 0)
        return fields;
    for (std::size_t i = 0; i < std::min(arguments.size(), command.arguments.size()); ++i) {
        const int result = firstDifference({compare(arguments[i].key, command.arguments[i].key),
                                            compare(arguments[i].value, command.arguments[i].value)});
        if (result != 0)
            return result;
    }
    return (arguments.size() > command.arguments.size()) - (arguments.size() < command.arguments.size());
}

Object* __VellDeviceCommand::duplicate() {
    auto* copy = new __VellDeviceCommand(name.get());
    copy->deviceName = deviceName;
    copy->devicePath = devicePath;
    copy->arguments = arguments;
    copy->data = duplicateOf(data.get());
    copy->receipt = receipt;
    copy->connection = connection;
    return copy;
}

VellDeviceCommandRef VellDeviceCommandCreate(VellStringRef name) {
    return new __VellDeviceCommand(name);
}

VellStringRef VellDeviceCommandGetCommandName(VellDeviceCommandRef command) {
    return command ? command->name.get() : nullptr;
}

void VellDeviceCommandSetCommandName(VellDeviceCommandRef command, VellStringRef name) {
    if (command)
        command->name = Ref(name);
}

VellStringRef VellDeviceCommandGetArgument(VellDeviceCommandRef command, VellStringRef key) {
    const auto* argument = command && key ? command->argument(key->text) : nullptr;
    return argument ? argument->value.get() : nullptr;
}

void VellDeviceCommandSetArgument(VellDeviceCommandRef command, VellStringRef key, VellStringRef value) {
    if (command && key)
        command->setArgument(key, value);
}

VellStringRef VellDeviceCommandGetDeviceName(VellDeviceCommandRef command) {
    return command ? command->deviceName.get() : nullptr;
}

void VellDeviceCommandSetDeviceName(VellDeviceCommandRef command, VellStringRef name) {
    if (command)
        command->deviceName = Ref(name);
}

VellStringRef VellDeviceCommandGetDevicePath(VellDeviceCommandRef command) {
    return command ? command->devicePath.get() : nullptr;
}

void VellDeviceCommandSetDevicePath(VellDeviceCommandRef command, VellStringRef path) {
    if (command)
        command->devicePath = Ref(path);
}

VellDataRef VellDeviceCommandGetData(VellDeviceCommandRef command) {
    return command ? command->data.get() : nullptr;
}

void VellDeviceCommandSetData(VellDeviceCommandRef command, VellDataRef data) {
    if (command)
        command->data = Ref(data);
}

VellReceiptRef VellDeviceCommandGetReceipt(VellDeviceCommandRef command) {
    return command ? command->receipt.get() : nullptr;
}

// --- Responses

std::string __VellDeviceCommandResponse::description() const {
    return describe(command.get()) + ": " + std::to_string(code) + " " + textOf(message.get());
}

int __VellDeviceCommandResponse::compareTo(const Object& other) const {
    const auto& response = static_cast<const __VellDeviceCommandResponse&>(other);
    return firstDifference({(code > response.code) - (code < response.code),
                            compare(message, response.message), compare(command, response.command),
                            compare(data, response.data), compare(measurementSet, response.measurementSet)});
}

Object* __VellDeviceCommandResponse::duplicate() {
    auto* copy = new __VellDeviceCommandResponse(duplicateOf(command.get()));
    copy->code = code;
    copy->message = message;
    copy->measurementSet = duplicateOf(measurementSet.get());
    copy->data = duplicateOf(data.get());
    return copy;
}

VellDeviceCommandResponseRef VellDeviceCommandResponseCreate(VellDeviceCommandRef command) {
    // A copy: what the sender of the response does to the command afterwards does not change what it answers.
    return new __VellDeviceCommandResponse(duplicateOf(command));
}

VellDeviceCommandRef VellDeviceCommandResponseCopyCommand(VellDeviceCommandResponseRef response) {
    return response ? duplicateOf(response->command.get()).leak() : nullptr;
}

int VellDeviceCommandResponseGetCode(VellDeviceCommandResponseRef response) {
    return response ? response->code : 0;
}

void VellDeviceCommandResponseSetCode(VellDeviceCommandResponseRef response, int code) {
    if (response)
        response->code = code;
}

VellStringRef VellDeviceCommandResponseGetMessage(VellDeviceCommandResponseRef response) {
    return response ? response->message.get() : nullptr;
}

void VellDeviceCommandResponseSetMessage(VellDeviceCommandResponseRef response, VellStringRef message) {
    if (response)
        response->message = Ref(message);
}

VellMeasurementSetRef VellDeviceCommandResponseCopyMeasurementSet(VellDeviceCommandResponseRef response) {
    return response ? duplicateOf(response->measurementSet.get()).leak() : nullptr;
}

void VellDeviceCommandResponseSetMeasurementSet(VellDeviceCommandResponseRef response,
                                                VellMeasurementSetRef set) {
    if (response)
        response->measurementSet = Ref(set);
}

VellDataRef VellDeviceCommandResponseGetData(VellDeviceCommandResponseRef response) {
    return response ? response->data.get() : nullptr;
}

void VellDeviceCommandResponseSetData(VellDeviceCommandResponseRef response, VellDataRef data) {
    if (response)
        response->data = Ref(data);
}

void VellDeviceCommandResponsePost(VellDeviceCommandResponseRef response) {
    if (response && !response->posted.exchange(true))
        __VellDeviceCenter::shared().postResponse(*response);
}
