#include "HardwareManager.h"

#include "RuntimeFolder.h"

#include <dirent.h>

#include <algorithm>
#include <set>

using namespace VellService;

namespace VellService {

// One opening of a manager: the devices it has reported, and the watch over the folder. It works on the loop
// of the thread that opened; an end that comes from another thread is carried out there, too.
class HardwareSearch : public std::enable_shared_from_this<HardwareSearch> {
public:
    HardwareSearch(CFRunLoopRef loop, __VellHardwareManager& manager) : mLoop(loop), mManager(&manager) {
        mLoop->retain();
    }
    ~HardwareSearch() { mLoop->release(); }
    HardwareSearch(const HardwareSearch&) = delete;
    HardwareSearch& operator=(const HardwareSearch&) = delete;

    // The loop's thread.
    void begin();
    // Any thread: ends the watch, on the loop's thread.
    static void end(std::shared_ptr<HardwareSearch> search);

private:
    void look(const std::set<std::string>& gone);
    void lookAt(const std::string& file);
    bool yieldsToAnother(const std::string& file, const std::string& path);
    void remove(const std::string& file);
    void report(const Ref<__VellHardwareDevice>& device, bool isMatch);
    void stopWatching();
    // Null once the search has ended or the manager is being destroyed.
    Ref<__VellHardwareManager> manager();
    void forgetManager();

    const CFRunLoopRef mLoop;
    Base::Mutex mMutex;
    __VellHardwareManager* mManager GUARDED_BY(mMutex); // not held; null once the search has ended
    std::string mFolder;
    std::unique_ptr<FolderWatch> mWatch;
    std::map<std::string, Ref<__VellHardwareDevice>> mDevices; // reported as matching, by file
};

namespace {

// The folder's files in the order of their names, hidden ones and what a writer has not yet put in place left
// out.
std::set<std::string> filesIn(const std::string& folder) {
    std::set<std::string> files;
    const std::unique_ptr<DIR, int (*)(DIR*)> directory(opendir(folder.c_str()), closedir);
    if (!directory)
        return files;
    while (const dirent* entry = readdir(directory.get())) {
        const std::string_view name = entry->d_name;
        const bool isFile = entry->d_type == DT_REG || entry->d_type == DT_LNK || entry->d_type == DT_UNKNOWN;
        if (isFile && !name.starts_with('.') && !name.ends_with('~') && !name.ends_with(".tmp"))
            files.insert(folder + "/" + entry->d_name);
    }
    return files;
}

} // namespace

void HardwareSearch::begin() {
    mFolder = hardwareFolderPath();
    mWatch = std::make_unique<FolderWatch>(
        mLoop, mFolder, [] { return ensureHardwareFolder(); },
        [this](const std::set<std::string>& gone) { look(gone); });
    mWatch->start();
}

Ref<__VellHardwareManager> HardwareSearch::manager() {
    const Base::Lock lock(mMutex);
    return mManager && mManager->tryRetain() ? Ref<__VellHardwareManager>::adopt(mManager)
                                             : Ref<__VellHardwareManager>();
}

void HardwareSearch::forgetManager() {
    const Base::Lock lock(mMutex);
    mManager = nullptr;
}

void HardwareSearch::end(std::shared_ptr<HardwareSearch> search) {
    search->forgetManager();
    const CFRunLoopRef loop = search->mLoop;
    if (loop->isOfThisThread() && !loop->isBusy()) {
        search->stopWatching();
        return;
    }
    // The watch may be on the stack, or belongs to another thread. The loop outlives the event it holds.
    loop->enqueue([search = std::move(search)] { search->stopWatching(); });
}

void HardwareSearch::stopWatching() {
    mWatch.reset();
    mDevices.clear();
}

void HardwareSearch::look(const std::set<std::string>& gone) {
    // A device that was plugged in again before we looked was away all the same: whoever used it must let go.
    for (const std::string& name : gone)
        remove(mFolder + "/" + name);
    const std::set<std::string> files = filesIn(mFolder);
    for (auto device = mDevices.begin(); device != mDevices.end();) {
        const std::string file = (device++)->first;
        if (!files.contains(file))
            remove(file);
    }
    for (const std::string& file : files)
        lookAt(file);
}

void HardwareSearch::lookAt(const std::string& file) {
    bool isMissing = false;
    auto description = HardwareDescription::read(file, isMissing);
    const auto known = mDevices.find(file);
    if (isMissing)
        return remove(file);
    const Ref<__VellHardwareManager> manager = this->manager();
    if (!description || !manager)
        return; // as it was
    if (known != mDevices.end()) {
        if (equalIgnoringCase(known->second->path(), description->path))
            return; // a change in place: the device reads it when it is asked
        remove(file);
    }
    if (!manager->accepts(*description) || yieldsToAnother(file, description->path))
        return;
    const auto device =
        Ref<__VellHardwareDevice>::adopt(new __VellHardwareDevice(file, std::move(*description)));
    mDevices[file] = device;
    report(device, true);
}

// Two files may name one device. The first of them by name is the one that counts, so that all programs agree
// on it, and the next takes its place when it goes.
bool HardwareSearch::yieldsToAnother(const std::string& file, const std::string& path) {
    const auto other = std::find_if(mDevices.begin(), mDevices.end(), [&](const auto& entry) {
        return equalIgnoringCase(entry.second->path(), path);
    });
    if (other == mDevices.end())
        return false;
    if (other->first < file)
        return true;
    remove(std::string(other->first));
    return false;
}

void HardwareSearch::remove(const std::string& file) {
    const auto known = mDevices.find(file);
    if (known == mDevices.end())
        return;
    const Ref<__VellHardwareDevice> device = std::move(known->second);
    mDevices.erase(known);
    report(device, false);
}

void HardwareSearch::report(const Ref<__VellHardwareDevice>& device, bool isMatch) {
    // As an event of its own: never inside the call that opens, nor inside another callback.
    mLoop->enqueue([self = shared_from_this(), device, isMatch] {
        if (const Ref<__VellHardwareManager> manager = self->manager())
            manager->deliver(*self, device, isMatch);
    });
}

} // namespace VellService

__VellHardwareManager::__VellHardwareManager() : Object(kTypeName) {}

__VellHardwareManager::~__VellHardwareManager() {
    close();
}

void __VellHardwareManager::setMatchObserver(Observer observer) {
    const Base::Lock lock(mMutex);
    mMatch = observer;
}

void __VellHardwareManager::setRemovalObserver(Observer observer) {
    const Base::Lock lock(mMutex);
    mRemoval = observer;
}

void __VellHardwareManager::setCriteria(Ref<__VellDictionary> criteria) {
    const Base::Lock lock(mMutex);
    std::swap(mCriteria, criteria);
}

void __VellHardwareManager::open() {
    std::shared_ptr<HardwareSearch> search;
    {
        const Base::Lock lock(mMutex);
        if (mSearch)
            return;
        search = mSearch = std::make_shared<HardwareSearch>(CFRunLoopGetCurrent(), *this);
    }
    search->begin();
}

void __VellHardwareManager::close() {
    std::shared_ptr<HardwareSearch> search;
    {
        const Base::Lock lock(mMutex);
        search.swap(mSearch);
    }
    if (search)
        HardwareSearch::end(std::move(search));
}

void __VellHardwareManager::deliver(const HardwareSearch& search, const Ref<__VellHardwareDevice>& device,
                                    bool isMatch) {
    Observer observer;
    {
        const Base::Lock lock(mMutex);
        if (mSearch.get() != &search)
            return; // closed meanwhile
        observer = isMatch ? mMatch : mRemoval;
    }
    if (observer.callback)
        observer.callback(this, device.get(), observer.context);
}

bool __VellHardwareManager::accepts(const HardwareDescription& description) const {
    const Base::Lock lock(mMutex);
    return !mCriteria || description.matches(*mCriteria);
}

const VellStringRef kVellHardwareVendorID = VellConstStringCreateWithCString("VendorID");
const VellStringRef kVellHardwareProductID = VellConstStringCreateWithCString("ProductID");
const VellStringRef kVellHardwareDeviceClass = VellConstStringCreateWithCString("DeviceClass");

VellHardwareManagerRef VellHardwareManagerCreate() {
    return new __VellHardwareManager;
}

void VellHardwareManagerRegisterMatchCallback(VellHardwareManagerRef manager, VellHardwareCallback callback,
                                              const void* context) {
    if (manager)
        manager->setMatchObserver({callback, context});
}

void VellHardwareManagerRegisterRemovalCallback(VellHardwareManagerRef manager, VellHardwareCallback callback,
                                                const void* context) {
    if (manager)
        manager->setRemovalObserver({callback, context});
}

void VellHardwareManagerSetDeviceMatchingCriteria(VellHardwareManagerRef manager,
                                                  VellDictionaryRef criteria) {
    if (manager)
        manager->setCriteria(duplicateOf(criteria));
}

void VellHardwareManagerOpen(VellHardwareManagerRef manager) {
    if (manager)
        manager->open();
}

void VellHardwareManagerClose(VellHardwareManagerRef manager) {
    if (manager)
        manager->close();
}
