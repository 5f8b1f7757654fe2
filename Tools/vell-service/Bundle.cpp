#include "Bundle.h"

#include <stdexcept>

namespace service {

Bundle::Bundle(const std::filesystem::path& path) : mPath(path), mCriteria(VellDictionaryCreate()) {
    const auto pathText = tools::makeString(path.string());
    const tools::Ref<VellLibraryRef> library(VellLibraryCreate(pathText.get()));
    const auto copyCriterion = [&](const char* property, VellStringRef criterion) {
        const tools::Ref<VellObjectRef> value(VellLibraryCopyPropertyForKey(library.get(), property));
        VellDictionarySetValueForKey(mCriteria.get(), criterion, value.get());
    };
    copyCriterion("VellDevicePluginVendorID", kVellHardwareVendorID);
    copyCriterion("VellDevicePluginProductID", kVellHardwareProductID);
    copyCriterion(sizeof(void*) == 8 ? "VellDevicePluginDeviceClassx64" : "VellDevicePluginDeviceClassx86",
                  kVellHardwareDeviceClass);
    // An empty dictionary would match every device there is.
    if (VellDictionaryGetCount(mCriteria.get()) == 0)
        throw std::runtime_error(path.string() + " is no plug-in bundle");
}

} // namespace service
