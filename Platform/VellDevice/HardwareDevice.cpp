#include "HardwareDevice.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <memory>

namespace VellService {
namespace {

constexpr std::size_t kMaximumFile = 1 << 20; // bytes

std::optional<std::string> contentsOf(const std::string& path, bool& isMissing) {
    const std::unique_ptr<std::FILE, int (*)(std::FILE*)> file(std::fopen(path.c_str(), "re"), std::fclose);
    isMissing = !file && errno == ENOENT;
    if (!file)
        return std::nullopt;
    // Piece by piece: this is read whenever somebody asks for a sibling, and is seldom more than one piece.
    std::string contents;
    std::array<char, 4096> piece;
    while (contents.size() < kMaximumFile) {
        const std::size_t count = std::fread(piece.data(), 1, piece.size(), file.get());
        if (count == 0)
            break;
        contents.append(piece.data(), count);
    }
    return std::ferror(file.get()) ? std::nullopt : std::optional(std::move(contents));
}

std::optional<HardwareDescription::Identifier> identifierIn(plist_t dictionary) {
    const auto vendor = integerIn(dictionary, "VendorID");
    const auto product = integerIn(dictionary, "ProductID");
    if (!vendor || !product)
        return std::nullopt;
    return HardwareDescription::Identifier{*vendor, *product};
}

} // namespace

std::optional<HardwareDescription> HardwareDescription::read(const std::string& file, bool& isMissing) {
    const auto contents = contentsOf(file, isMissing);
    const PropertyListPtr root = contents ? parsePropertyList(*contents) : nullptr;
    if (!root || plist_get_node_type(root.get()) != PLIST_DICT)
        return std::nullopt;
    HardwareDescription description;
    description.path = stringIn(root.get(), "Path").value_or("");
    if (description.path.empty())
        return std::nullopt;
    description.identifier = identifierIn(root.get());
    description.deviceClass = stringIn(root.get(), "DeviceClass").value_or("");
    if (const plist_t siblings = arrayIn(root.get(), "Siblings")) {
        forEachElement(siblings, [&](plist_t sibling) {
            const bool isDictionary = plist_get_node_type(sibling) == PLIST_DICT;
            if (const auto known = isDictionary ? identifierIn(sibling) : std::nullopt)
                description.siblings.push_back(*known);
        });
    }
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
    const std::lock_guard lock(mMutex);
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
