#pragma once

#include "FolderWatch.h"
#include "HardwareDevice.h"

#include <map>
#include <memory>
#include <mutex>
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

    mutable std::mutex mMutex; // guards the fields below; not held while a callback runs
    Observer mMatch;
    Observer mRemoval;
    VellService::Ref<__VellDictionary> mCriteria;
    std::shared_ptr<VellService::HardwareSearch> mSearch; // from open to close
};
