#pragma once

#include "Values.h"

#include <Base/Mutex.h>

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace VellService {

// What a hardware file says of its device.
struct HardwareDescription {
    struct Identifier {
        std::int64_t vendor = 0;
        std::int64_t product = 0;
    };

    // Nothing when the file is missing, is being written or does not describe a device; `isMissing` tells the
    // first.
    static std::optional<HardwareDescription> read(const std::string& file, bool& isMissing);
    // What is missing in the criteria matches everything.
    bool matches(const __VellDictionary& criteria) const;

    std::string path;
    std::optional<Identifier> identifier;
    std::string deviceClass;
    std::vector<Identifier> siblings;
};

} // namespace VellService

// An attached device, or a sibling on the same connection. Any thread.
struct __VellHardwareDevice final : VellService::Object {
    static constexpr const char* kTypeName = "VellHardwareDeviceRef";

    __VellHardwareDevice(std::string file, VellService::HardwareDescription description);

    std::string description() const override;

    const std::string& file() const { return mFile; }
    const std::string& path() const { return mPath; }
    // As the file says now; as it last said while it cannot be read whole.
    bool hasSibling(int vendor, int product);

private:
    const std::string mFile;
    const std::string mPath;
    Base::Mutex mMutex;
    std::vector<VellService::HardwareDescription::Identifier> mSiblings GUARDED_BY(mMutex);
};
