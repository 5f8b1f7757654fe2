#include "Data.h"

namespace VellDevice {

Data* Data::createDataWithBytes(void* bytes, int length) {
    const VellDataRef created = VellDataCreateWithBytes(bytes, length);
    return created != nullptr ? new Data(created, true) : nullptr;
}

Data Data::dataWithBytes(void* bytes, int length) {
    return {VellDataCreateWithBytes(bytes, length), true};
}

Data Data::mappedDataWithFilename(const std::string& path) {
    return {VellDataCreateWithMappedFileAtPath(ServiceString(path)), true};
}

Data::Data(const std::string& path) : Object(false) {
    keep(VellDataCreateWithContentsAtPath(ServiceString(path)));
}

void* Data::bytes() {
    return VellDataGetBytes(as<VellDataRef>());
}

int Data::length() {
    return VellDataGetLength(as<VellDataRef>());
}

void Data::appendBytes(const void* bytes, int length) {
    VellDataAppendBytes(as<VellDataRef>(), bytes, length);
}

} // namespace VellDevice
