#pragma once

#include "Object.h"

#include <Base/Mutex.h>

#include <vector>

namespace VellService {

// Values that a device record has replaced, kept alive because a getter may have lent them: the center's
// thread frees them between two events of its loop, when nothing is on its stack that could still use one.
// Any thread adds.
class Retired {
public:
    static Retired& shared();

    void add(Ref<Object> value);
    // The center's thread, between two events.
    void freeAll();

private:
    Base::Mutex mMutex; // a leaf: nothing is called while it is held
    std::vector<Ref<Object>> mValues GUARDED_BY(mMutex);
};

} // namespace VellService
