#include "Library.h"

#include <unistd.h>

using namespace VellService;

Ref<__VellDictionary> VellService::bundleProperties(const std::string& bundlePath) {
    const Ref<__VellString> path = makeString(bundlePath + "/Contents/Info.plist");
    const auto root = Ref<Object>::adopt(objectOf(VellCoderCopyRootObjectWithContentsAtPath(path.get())));
    if (auto* dictionary = as<__VellDictionary>(root.get()))
        return Ref(dictionary);
    if (access(path->text.c_str(), F_OK) == 0)
        VellLogWarning("[Library] - %s is no property list\n", path->text.c_str());
    return Ref<__VellDictionary>::adopt(new __VellDictionary);
}

VellLibraryRef VellLibraryCreate(VellStringRef bundlePath) {
    return bundlePath ? new __VellLibrary(bundlePath->text) : nullptr;
}

VellObjectRef VellLibraryCopyPropertyForKey(VellLibraryRef library, const char* key) {
    return library && key ? VellRetain(library->properties->get(key)) : nullptr;
}
