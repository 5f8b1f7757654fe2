#include "HardwareDevice.h"

#include <Base/File.h>
#include <Base/PropertyList.h>

#include <algorithm>

namespace VellService {
namespace {

using Base::arrayIn;
using Base::integerIn;
using Base::stringIn;

constexpr std::size_t kMaximumFile = 1 << 20; // bytes

std::optional<HardwareDescription::Identifier> identifierIn(plist_t dictionary) {
    const auto vendor = integerIn(dictionary, "VendorID");
    const auto product = integerIn(dictionary, "ProductID");
    if (!vendor || !product)
        return std::nullopt;
    return HardwareDescription::Identifier{*vendor, *product};
}

} // namespace

std::optional<HardwareDescription> HardwareDescription::read(const std::string& file, bool& isMissing) {
    const Base::FileContents contents = Base::readFile(file, kMaximumFile);
    isMissing = contents.isMissing();
    const Base::PropertyListPtr root = contents ? Base::parsePropertyList(contents.bytes) : nullptr;
    HardwareDescription description;
    description.path = stringIn(root.get(), "Path").value_or("");
    if (description.path.empty())
        return std::nullopt;
    description.identifier = identifierIn(root.get());
    description.deviceClass = stringIn(root.get(), "DeviceClass").value_or("");
    Base::forEachElement(arrayIn(root.get(), "Siblings"), [&](plist_t sibling) {
        if (const auto known = identifierIn(sibling))
            description.siblings.push_back(*known);
    });
    return description;
}

bool HardwareDescription::matches(const __VellDictionary& criteria) const {
    const auto* vendor = as<__VellNumber>(criteria.get("VendorID"));
    const auto* product = as<__VellNumber>(criteria.get("ProductID"));
    const auto* wantedClass = as<__VellString>(criteria.get("DeviceClass"));
    return (!vendor || (identifier && identifier->vendor == vendor->integerValue())) &&
           (!product || (identifier && identifier->product == product->integerValue())) &&
           (!wantedClass || deviceClass == wantedClass->text);
}

} // namespace VellService

using namespace VellService;

__VellHardwareDevice::__VellHardwareDevice(std::string file, HardwareDescription description)
    : Object(kTypeName),
      mFile(std::move(file)),
      mPath(std::move(description.path)),
      mSiblings(std::move(description.siblings)) {}

std::string __VellHardwareDevice::description() const {
    return "<hardware " + mPath + ">";
}

bool __VellHardwareDevice::hasSibling(int vendor, int product) {
    bool isMissing = false;
    auto current = HardwareDescription::read(mFile, isMissing);
    const Base::Lock lock(mMutex);
    if (current)
        mSiblings = std::move(current->siblings);
    else if (isMissing)
        mSiblings.clear();
    return std::any_of(mSiblings.begin(), mSiblings.end(),
                       [&](const HardwareDescription::Identifier& sibling) {
                           return sibling.vendor == vendor && sibling.product == product;
                       });
}

VellStringRef VellHardwareDeviceCopyPath(VellHardwareDeviceRef device) {
    return device && !device->path().empty() ? new __VellString(device->path()) : nullptr;
}

VellStringRef VellHardwareDeviceCopyFilePath(VellHardwareDeviceRef device) {
    return device && !device->file().empty() ? new __VellString(device->file()) : nullptr;
}

VellHardwareDeviceRef VellHardwareDeviceCopyFirstSiblingWithInfo(VellHardwareDeviceRef device, int vendorID,
                                                                 int productID) {
    // A sibling has neither a path nor a file of its own.
    return device && device->hasSibling(vendorID, productID)
               ? new __VellHardwareDevice("", HardwareDescription())
               : nullptr;
}
