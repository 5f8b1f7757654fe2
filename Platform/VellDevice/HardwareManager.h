#pragma once

#include "FolderWatch.h"
#include "HardwareDevice.h"

#include <Base/Mutex.h>

#include <map>
#include <memory>
#include <string>

namespace VellService {
class HardwareSearch;
}

// Tells its owner which of the attached devices match, as they come and go. Registering, criteria and opening
// belong to one thread, whose loop delivers; closing is for any thread. A device that changes in place is
// updated in its object and not reported. Of several files with one path, in whatever letter case, the first
// by name is the device.
struct __VellHardwareManager final : VellService::Object {
    static constexpr const char* kTypeName = "VellHardwareManagerRef";

    __VellHardwareManager();
    ~__VellHardwareManager() override;

    struct Observer {
        VellHardwareCallback callback = nullptr;
        const void* context = nullptr;
    };

    void setMatchObserver(Observer observer);
    void setRemovalObserver(Observer observer);
    void setCriteria(VellService::Ref<__VellDictionary> criteria);
    void open();
    void close();

private:
    friend class VellService::HardwareSearch;
    void deliver(const VellService::HardwareSearch& search,
                 const VellService::Ref<__VellHardwareDevice>& device, bool isMatch);
    bool accepts(const VellService::HardwareDescription& description) const;

    mutable Base::Mutex mMutex; // not held while a callback runs
    Observer mMatch GUARDED_BY(mMutex);
    Observer mRemoval GUARDED_BY(mMutex);
    VellService::Ref<__VellDictionary> mCriteria GUARDED_BY(mMutex);
    std::shared_ptr<VellService::HardwareSearch> mSearch GUARDED_BY(mMutex); // from open to close
};
