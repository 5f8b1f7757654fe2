#pragma once

#include "Values.h"

#include <Base/Mutex.h>

#include <atomic>
#include <cstdint>

namespace VellService {

// What a record says. Strings that were never set are null.
struct RecordFields {
    struct Attribute {
        Ref<__VellString> key;
        Ref<__VellString> value;

        bool operator==(const Attribute&) const = default;
    };

    // The same objects: then the records say the same, too.
    bool operator==(const RecordFields&) const = default;

    const Attribute* attribute(std::string_view key) const;
    // The fields of these names, with the attribute that stands in where none was set.
    __VellString* displayNameOrAttribute() const;
    __VellString* pathOrAttribute() const;

    Ref<__VellString> name;
    Ref<__VellString> displayName;
    Ref<__VellString> path;
    Ref<__VellString> serialNumber;
    Ref<__VellString> serviceVersion;
    Ref<__VellString> mode;
    Ref<__VellString> lockHolder;
    Ref<__VellArray> modes; // replaced, never changed
    std::vector<Attribute> attributes;
    int calibrationStatus = 0;
    bool enabled = false;
    bool available = false;
    bool connected = false;
    bool proxy = false;
    bool softwareMeasurementAvailable = false;
};

using LinkIdentifier = std::uint64_t;
constexpr LinkIdentifier kNoLink = 0;

} // namespace VellService

// A device record: this process's own, or the mirror of one that a plug-in posts. Any thread may use it; each
// call is atomic. What a getter lends outlives its replacement for a while (see Retired).
struct __VellDevice final : VellService::Object {
    static constexpr const char* kTypeName = "VellDeviceRef";
    enum class Kind { own, mirror };

    explicit __VellDevice(Kind recordKind) : Object(kTypeName), kind(recordKind) {}

    std::string description() const override;
    Object* duplicate() override;

    VellService::RecordFields fields() const;
    void replaceFields(VellService::RecordFields fields);

    // Reads a field under the record's lock.
    template <typename Function>
    auto read(Function function) const {
        const Base::Lock lock(mMutex);
        return function(mFields);
    }
    // Changes fields under the record's lock; what is replaced is to be retired by the caller.
    template <typename Function>
    void write(Function function) {
        const Base::Lock lock(mMutex);
        function(mFields);
    }

    const Kind kind;
    // The connection to the plug-in of a mirror; none while it is away.
    std::atomic<VellService::LinkIdentifier> link{VellService::kNoLink};

private:
    mutable Base::Mutex mMutex;
    VellService::RecordFields mFields GUARDED_BY(mMutex);
};
