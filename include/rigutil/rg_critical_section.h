#pragma once
#include <mutex>

#include "rigutil/export.h"

namespace rigutil {

// A recursive lock: the thread that holds it may enter it again, and must leave it as often as it
// entered.
class RIGUTIL_API RGCriticalSection {
public:
    RGCriticalSection();
    ~RGCriticalSection();
    RGCriticalSection(const RGCriticalSection&) = delete;
    RGCriticalSection& operator=(const RGCriticalSection&) = delete;

    void enter();
    void leave();
    // Enters when the lock is free or already held by this thread; false otherwise.
    bool tryEnter();

private:
    std::recursive_mutex mutex_;
};

// Holds a critical section for the lifetime of a scope.
class RIGUTIL_API RGAutoCriticalSection {
public:
    explicit RGAutoCriticalSection(RGCriticalSection& section) : section_(section) { section_.enter(); }
    ~RGAutoCriticalSection() { section_.leave(); }
    RGAutoCriticalSection(const RGAutoCriticalSection&) = delete;
    RGAutoCriticalSection& operator=(const RGAutoCriticalSection&) = delete;

private:
    RGCriticalSection& section_;
};

}  // namespace rigutil
