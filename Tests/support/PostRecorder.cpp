#include "PostRecorder.h"

#include <dlfcn.h>

#include <algorithm>
#include <memory>
#include <mutex>
#include <thread>

namespace {

std::mutex gLock; // guards everything below
std::vector<test::Post> gPosts;
std::vector<VellDeviceCommandResponseRef> gResponses; // retained, so that no address comes twice
int gStatusPosts = 0;
std::thread::id gMainThread;

std::string text(VellStringRef string) {
    return string != nullptr ? VellStringGetCString(string) : "";
}

std::map<std::string, std::string> attributesOf(VellMeasurementColorRef color) {
    std::map<std::string, std::string> attributes;
    for (unsigned index = 0; index < VellMeasurementColorGetAttributeCount(color); ++index) {
        const VellStringRef name = VellMeasurementColorGetAttributeNameAtIndex(color, index);
        attributes[text(name)] = text(VellMeasurementColorGetAttribute(color, name));
    }
    return attributes;
}

std::vector<double> valuesOf(VellMeasurementColorRef color) {
    std::vector<double> values;
    const VellArrayRef strings = VellMeasurementColorCopyValues(color);
    for (int index = 0; index < VellArrayGetCount(strings); ++index)
        values.push_back(
            VellStringGetDoubleValue(static_cast<VellStringRef>(VellArrayGetValueAtIndex(strings, index))));
    VellRelease(strings);
    return values;
}

std::vector<test::Patch> patchesOf(VellMeasurementSetRef set) {
    std::vector<test::Patch> patches;
    for (unsigned index = 0; index < VellMeasurementSetGetCount(set); ++index) {
        const VellMeasurementRef measurement = VellMeasurementSetGetMeasurementAtIndex(set, index);
        for (unsigned color = 0; color + 1 < VellMeasurementGetColorCount(measurement); color += 2) {
            const VellMeasurementColorRef spectral = VellMeasurementGetColorAtIndex(measurement, color);
            const VellMeasurementColorRef lab = VellMeasurementGetColorAtIndex(measurement, color + 1);
            patches.push_back({attributesOf(spectral), attributesOf(lab), valuesOf(spectral), valuesOf(lab)});
        }
    }
    return patches;
}

template <typename Function>
Function* next(const char* name) {
    return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

} // namespace

extern "C" void VellDeviceCommandResponsePost(VellDeviceCommandResponseRef response) {
    {
        const std::lock_guard lock(gLock);
        if (std::find(gResponses.begin(), gResponses.end(), response) == gResponses.end()) {
            VellRetain(response);
            gResponses.push_back(response);
            const VellDeviceCommandRef command = VellDeviceCommandResponseCopyCommand(response);
            const VellStringRef key = VellConstStringCreateWithCString("ticket");
            const VellMeasurementSetRef set = VellDeviceCommandResponseCopyMeasurementSet(response);
            gPosts.push_back({text(VellDeviceCommandGetCommandName(command)),
                              text(VellDeviceCommandGetArgument(command, key)),
                              VellDeviceCommandResponseGetCode(response),
                              text(VellDeviceCommandResponseGetMessage(response)), set != nullptr,
                              patchesOf(set), std::this_thread::get_id() == gMainThread, gStatusPosts});
            VellRelease(set);
            VellRelease(command);
        }
    }
    static auto* const real = next<decltype(VellDeviceCommandResponsePost)>("VellDeviceCommandResponsePost");
    real(response);
}

extern "C" void VellDevicePostStatus(VellDeviceRef device) {
    {
        const std::lock_guard lock(gLock);
        ++gStatusPosts;
    }
    static auto* const real = next<decltype(VellDevicePostStatus)>("VellDevicePostStatus");
    real(device);
}

namespace test {

std::vector<Post> posts() {
    const std::lock_guard lock(gLock);
    return gPosts;
}

std::vector<Post> postsFor(const std::string& command) {
    std::vector<Post> found = posts();
    std::erase_if(found, [&](const Post& post) { return post.command != command; });
    return found;
}

int statusPosts() {
    const std::lock_guard lock(gLock);
    return gStatusPosts;
}

CommandTable postedCommandTable() {
    const std::lock_guard lock(gLock);
    CommandTable table;
    if (gResponses.empty())
        return table;
    const VellObjectRef decoded =
        VellCoderCopyRootObjectWithEncodedData(VellDeviceCommandResponseGetData(gResponses.back()));
    const auto commands = static_cast<VellDictionaryRef>(VellCheckedCast(decoded, "VellDictionaryRef"));
    for (int index = 0; index < VellDictionaryGetCount(commands); ++index) {
        const VellStringRef name = VellDictionaryGetKeyAtIndex(commands, index);
        const auto arguments = static_cast<VellArrayRef>(VellDictionaryGetValueForKey(commands, name));
        std::vector<std::string> names;
        for (int argument = 0; argument < VellArrayGetCount(arguments); ++argument)
            names.push_back(text(static_cast<VellStringRef>(VellArrayGetValueAtIndex(arguments, argument))));
        table.emplace_back(text(name), names);
    }
    VellRelease(decoded);
    return table;
}

void clearPosts() {
    const std::lock_guard lock(gLock);
    for (const VellDeviceCommandResponseRef response : gResponses)
        VellRelease(response);
    gResponses.clear();
    gPosts.clear();
    gStatusPosts = 0;
    gMainThread = std::this_thread::get_id();
}

} // namespace test
