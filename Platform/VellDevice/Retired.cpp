#include "Retired.h"

namespace VellService {

Retired& Retired::shared() {
    // Never destroyed: threads may outlive the static objects.
    static Retired& instance = *new Retired;
    return instance;
}

void Retired::add(Ref<Object> value) {
    const Base::Lock lock(mMutex);
    mValues.push_back(std::move(value));
}

void Retired::freeAll() {
    std::vector<Ref<Object>> values;
    const Base::Lock lock(mMutex);
    values.swap(mValues);
}

} // namespace VellService
