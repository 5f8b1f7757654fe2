#pragma once

#include <support/Ref.h>

#include <filesystem>

namespace service {

// A plug-in bundle, as far as the service needs it: which hardware it is for.
class Bundle {
public:
    // Throws std::runtime_error when there is no bundle at the path or it does not say what hardware it is
    // for.
    explicit Bundle(const std::filesystem::path& path);

    const std::filesystem::path& path() const { return mPath; }
    VellDictionaryRef criteria() const { return mCriteria.get(); } // for the hardware manager

private:
    std::filesystem::path mPath;
    tools::Ref<VellDictionaryRef> mCriteria;
};

} // namespace service
