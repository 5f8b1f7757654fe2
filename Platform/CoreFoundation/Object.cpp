#include "Object.h"

#include <unistd.h>

using CoreFoundation::Object;

namespace {

Object* objectOf(CFTypeRef reference) {
    return static_cast<Object*>(const_cast<void*>(reference));
}

} // namespace

const CFAllocatorRef kCFAllocatorDefault = nullptr;
// Never released by us, so it lives as long as the process does.
const CFStringRef kCFRunLoopDefaultMode = new __CFString("kCFRunLoopDefaultMode");

CFTypeRef CFRetain(CFTypeRef object) {
    if (object)
        objectOf(object)->retain();
    return object;
}

void CFRelease(CFTypeRef object) {
    if (object)
        objectOf(object)->release();
}

CFStringRef CFStringCreateWithCString(CFAllocatorRef, const char* text, CFStringEncoding) {
    return text ? new __CFString(text) : nullptr;
}

CFURLRef CFURLCreateWithFileSystemPath(CFAllocatorRef, CFStringRef path, CFURLPathStyle, Boolean) {
    return path ? new __CFURL(path->text) : nullptr;
}

CFBundleRef CFBundleCreate(CFAllocatorRef, CFURLRef url) {
    if (!url || access((url->path + "/Contents/Info.plist").c_str(), R_OK) != 0)
        return nullptr;
    return new __CFBundle(url->path);
}
