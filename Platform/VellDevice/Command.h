// Commands, their receipts, and responses.
#pragma once

#include "Measurement.h"
#include "Values.h"

#include <atomic>
#include <cstdint>

namespace VellService {

// Names one client's connection for as long as the process lives; descriptors are reused, these are not.
using ConnectionIdentifier = std::uint64_t;
constexpr ConnectionIdentifier kOwnConnection = 0; // this process itself

} // namespace VellService

// Immutable once made. Null fields read as "".
struct __VellReceipt final : VellService::Object {
    static constexpr const char* kTypeName = "VellReceiptRef";

    __VellReceipt() : Object(kTypeName) {}

    std::string description() const override;
    int compareTo(const Object& other) const override;
    Object* duplicate() override;

    VellService::Ref<__VellString> context;
    VellService::Ref<__VellString> source;
    VellService::Ref<__VellString> ticket;
    VellService::Ref<__VellString> processIdentifier;
};

struct __VellDeviceCommand final : VellService::Object {
    static constexpr const char* kTypeName = "VellDeviceCommandRef";
    struct Argument {
        VellService::Ref<__VellString> key;
        VellService::Ref<__VellString> value;
    };

    explicit __VellDeviceCommand(__VellString* commandName) : Object(kTypeName), name(commandName) {}

    // Keys are matched without regard to letter case.
    const Argument* argument(std::string_view key) const;
    void setArgument(__VellString* key, __VellString* value); // null value: takes the argument out

    std::string description() const override;
    int compareTo(const Object& other) const override;
    Object* duplicate() override; // keeps the receipt and the connection

    VellService::Ref<__VellString> name;
    VellService::Ref<__VellString> deviceName;
    VellService::Ref<__VellString> devicePath;
    std::vector<Argument> arguments;
    VellService::Ref<__VellData> data;
    VellService::Ref<__VellReceipt> receipt; // null before the command was sent
    VellService::ConnectionIdentifier connection = VellService::kOwnConnection; // where it came from
};

struct __VellDeviceCommandResponse final : VellService::Object {
    static constexpr const char* kTypeName = "VellDeviceCommandResponseRef";

    explicit __VellDeviceCommandResponse(VellService::Ref<__VellDeviceCommand> answered)
        : Object(kTypeName), command(std::move(answered)) {}

    std::string description() const override;
    int compareTo(const Object& other) const override;
    Object* duplicate() override; // one that has not been posted

    const VellService::Ref<__VellDeviceCommand> command; // may be null
    int code = 0;
    VellService::Ref<__VellString> message;
    VellService::Ref<__VellMeasurementSet> measurementSet;
    VellService::Ref<__VellData> data;
    std::atomic<bool> posted{false};
};
