#pragma once

#include <VellDevice/VellDevice.h>

#include <atomic>
#include <string>
#include <string_view>
#include <utility>

namespace VellService {

// What every Vell...Ref points to: a counted object with a type name. Types derive from it first and alone,
// so that the untyped reference and the object have one address. Counting is for any thread; the rest is as
// the type says.
class Object {
public:
    explicit Object(const char* typeName) : mTypeName(typeName) {}
    Object(const Object&) = delete;
    Object& operator=(const Object&) = delete;
    virtual ~Object() = default;

    void retain() {
        if (!mImmortal)
            mReferences.fetch_add(1, std::memory_order_relaxed);
    }
    // False when the last reference has gone already: for those who know the object without holding it.
    bool tryRetain() {
        long count = mReferences.load(std::memory_order_relaxed);
        while (count > 0) {
            if (mReferences.compare_exchange_weak(count, count + 1, std::memory_order_acq_rel))
                return true;
        }
        return false;
    }
    void release() {
        if (!mImmortal && mReferences.fetch_sub(1, std::memory_order_acq_rel) == 1)
            delete this;
    }
    // From now on it is never released; before the object is shared.
    void makeImmortal() { mImmortal = true; }

    const char* typeName() const { return mTypeName; }
    virtual std::string description() const;
    // Below 0, 0, above 0. `other` has the same type. Objects without contents to compare are ordered by
    // address.
    virtual int compareTo(const Object& other) const;
    // A new object with one reference; the object itself, retained, where there is only one of its kind.
    virtual Object* duplicate();

private:
    const char* const mTypeName;
    bool mImmortal = false;
    std::atomic<long> mReferences{1};
};

inline Object* objectOf(VellObjectRef reference) {
    return static_cast<Object*>(reference);
}
bool isOfType(const Object* object, std::string_view typeName);
// Null-safe; a total order over all objects.
int compareObjects(const Object* left, const Object* right);

// The type's own object, or null when the object is of another type (or null).
template <typename T>
T* as(Object* object) {
    return isOfType(object, T::kTypeName) ? static_cast<T*>(object) : nullptr;
}

// Owns one reference.
template <typename T>
class Ref {
public:
    Ref() = default;
    // Takes over the reference that a create or copy call returned.
    static Ref adopt(T* object) {
        Ref ref;
        ref.mObject = object;
        return ref;
    }
    explicit Ref(T* object) : mObject(object) {
        if (mObject)
            mObject->retain();
    }
    Ref(const Ref& other) : Ref(other.mObject) {}
    Ref(Ref&& other) noexcept : mObject(std::exchange(other.mObject, nullptr)) {}
    Ref& operator=(Ref other) noexcept {
        std::swap(mObject, other.mObject);
        return *this;
    }
    ~Ref() {
        if (mObject)
            mObject->release();
    }

    T* get() const { return mObject; }
    T* operator->() const { return mObject; }
    T& operator*() const { return *mObject; }
    explicit operator bool() const { return mObject != nullptr; }
    bool operator==(const Ref&) const = default; // the same object
    // Gives the reference to the caller.
    T* leak() { return std::exchange(mObject, nullptr); }

private:
    T* mObject = nullptr;
};

template <typename T>
Ref<T> duplicateOf(T* object) {
    return object ? Ref<T>::adopt(static_cast<T*>(object->duplicate())) : Ref<T>();
}

} // namespace VellService
