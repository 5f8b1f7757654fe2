// The two functions through which the service uses the bundle.

#include "TaviIO.h"

using namespace VellDevice;

extern "C" {

// argv: device path, bundle path, and optionally "-norunloop". The exit code of the run; 1 for fewer
// arguments.
int DevicePluginEntry(int argc, const char** argv) {
    if (argc < 2)
        return 1;
    const VellStringRef devicePath = VellStringCreateWithCString(argv[0]);
    const VellStringRef bundlePath = VellStringCreateWithCString(argv[1]);
    auto* const device = new TaviIO(devicePath, bundlePath); // lives as long as the process
    VellRelease(devicePath);
    VellRelease(bundlePath);
    const int code = __InternalDevicePluginRunWithInstance(device, argc, argv);
    VellLogInfo("[DevicePluginEntry] - Exiting with code %d\n", code);
    return code;
}

// Static information about the device, without touching the outside world; the caller releases it.
VellDictionaryRef DevicePluginCopyDeviceInfo() {
    auto* const device = new TaviIO(nullptr, nullptr);
    const VellObjectRef info = VellCheckedCast(VellCopy(device->deviceInfo()), "VellDictionaryRef");
    delete device;
    return static_cast<VellDictionaryRef>(info);
}
}
