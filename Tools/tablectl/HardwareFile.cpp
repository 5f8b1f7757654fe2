#include "HardwareFile.h"

#include "Errors.h"

#include <VellDevice/RuntimeFolder.h>

#include <support/ChildProcess.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <fstream>
#include <system_error>
#include <utility>

namespace tablectl {

using tools::makeString;
using tools::Ref;

namespace {

constexpr std::int64_t kSpectrophotometerVendor = 0x971;
constexpr std::int64_t kSpectrophotometerProduct = 0x2000;

VellStringRef keyString(const char* key) {
    return VellConstStringCreateWithCString(key);
}

VellObjectRef valueOf(VellDictionaryRef dictionary, const char* key, const char* type) {
    return VellCheckedCast(VellDictionaryGetValueForKey(dictionary, keyString(key)), type);
}

void setObject(VellDictionaryRef dictionary, const char* key, Ref<VellObjectRef> value) {
    VellDictionarySetValueForKey(dictionary, keyString(key), value.get());
}

} // namespace

HardwareFile::HardwareFile(std::filesystem::path file) : mFile(std::move(file)) {}

HardwareFile HardwareFile::read(const std::filesystem::path& file) {
    HardwareFile result(file);
    const auto path = makeString(file.string());
    Ref<VellObjectRef> root(VellCoderCopyRootObjectWithContentsAtPath(path.get()));
    if (!VellCheckedCast(root.get(), "VellDictionaryRef"))
        throw DeviceFailure(file.string() + ": not a hardware file");
    result.mRoot.reset(static_cast<VellDictionaryRef>(root.release()));
    return result;
}

HardwareFile HardwareFile::make(const std::filesystem::path& file, const std::string& devicePath) {
    HardwareFile result(file);
    result.mRoot.reset(VellDictionaryCreate());
    const auto bundle = makeString(tools::ownBundle().string());
    const Ref<VellLibraryRef> library(VellLibraryCreate(bundle.get()));
    const auto copyProperty = [&](const char* property, VellStringRef key) {
        const Ref<VellObjectRef> value(VellLibraryCopyPropertyForKey(library.get(), property));
        VellDictionarySetValueForKey(result.mRoot.get(), key, value.get());
    };
    setObject(result.mRoot.get(), "Path", makeString(devicePath));
    copyProperty("VellDevicePluginVendorID", kVellHardwareVendorID);
    copyProperty("VellDevicePluginProductID", kVellHardwareProductID);
    copyProperty("VellDevicePluginDeviceClassx64", kVellHardwareDeviceClass);
    result.setSpectrophotometer(true);
    return result;
}

std::vector<HardwareFile> HardwareFile::all() {
    std::vector<HardwareFile> result;
    std::error_code error;
    for (const auto& entry : std::filesystem::directory_iterator(VellService::hardwareFolderPath(), error)) {
        const std::string name = entry.path().filename().string();
        if (name.starts_with("."))
            continue;
        try {
            result.push_back(read(entry.path()));
        } catch (const Failure&) {
        }
    }
    return result;
}

std::string HardwareFile::devicePath() const {
    return tools::textOf(static_cast<VellStringRef>(valueOf(mRoot.get(), "Path", "VellStringRef")));
}

std::string HardwareFile::serialNumber() const {
    return tools::textOf(static_cast<VellStringRef>(valueOf(simulation(), "SerialNumber", "VellStringRef")));
}

VellDictionaryRef HardwareFile::simulation() const {
    return static_cast<VellDictionaryRef>(valueOf(mRoot.get(), "Simulation", "VellDictionaryRef"));
}

void HardwareFile::setValue(const char* key, Ref<VellObjectRef> value) {
    if (!simulation())
        setObject(mRoot.get(), "Simulation", Ref<VellObjectRef>(VellDictionaryCreate()));
    setObject(simulation(), key, std::move(value));
}

void HardwareFile::set(const char* key, const std::string& text) {
    setValue(key, makeString(text));
}

void HardwareFile::set(const char* key, double number) {
    setValue(key, Ref<VellObjectRef>(VellNumberCreateWithDouble(number)));
}

void HardwareFile::set(const char* key, long number) {
    setValue(key, Ref<VellObjectRef>(VellNumberCreateWithInteger(number)));
}

void HardwareFile::set(const char* key, bool flag) {
    setValue(key, Ref<VellObjectRef>(VellNumberCreateWithBool(flag)));
}

void HardwareFile::setSpectrophotometer(bool onTable) {
    const Ref<VellArrayRef> siblings(VellArrayCreate());
    if (onTable) {
        const Ref<VellDictionaryRef> sibling(VellDictionaryCreate());
        setObject(sibling.get(), "VendorID",
                  Ref<VellObjectRef>(VellNumberCreateWithInteger(kSpectrophotometerVendor)));
        setObject(sibling.get(), "ProductID",
                  Ref<VellObjectRef>(VellNumberCreateWithInteger(kSpectrophotometerProduct)));
        VellArrayAppendValue(siblings.get(), sibling.get());
    }
    VellDictionarySetValueForKey(mRoot.get(), keyString("Siblings"), siblings.get());
}

bool HardwareFile::hasSpectrophotometer() const {
    return VellArrayGetCount(static_cast<VellArrayRef>(valueOf(mRoot.get(), "Siblings", "VellArrayRef"))) > 0;
}

void HardwareFile::save() const {
    // Names that begin with a point are nobody's device.
    const std::filesystem::path unfinished =
        mFile.parent_path() / ("." + mFile.filename().string() + "." + std::to_string(getpid()));
    const Ref<VellDataRef> data(VellCoderCopyEncodedDataWithRootObject(mRoot.get()));
    std::ofstream stream(unfinished, std::ios::binary);
    stream.write(static_cast<const char*>(VellDataGetBytes(data.get())), VellDataGetLength(data.get()));
    stream.close();
    std::error_code error;
    if (stream)
        std::filesystem::rename(unfinished, mFile, error);
    if (!stream || error) {
        const std::string reason = error ? error.message() : std::strerror(errno);
        std::filesystem::remove(unfinished, error);
        throw DeviceFailure("cannot write " + mFile.string() + ": " + reason);
    }
}

void setTimeScale(const std::string& devicePath, double timeScale) {
    for (HardwareFile& file : HardwareFile::all()) {
        if (file.devicePath() == devicePath) {
            file.set("TimeScale", timeScale);
            file.save();
            return;
        }
    }
    throw DeviceFailure("--time-scale: " + devicePath + " is no virtual instrument");
}

} // namespace tablectl
