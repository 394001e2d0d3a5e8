// A small record that several threads read and write as a whole.
#pragma once

#include "shared/osdepend.h"

namespace HwLatixel {

/// Keeps a copyable value. Safe from any thread: a reader gets one that stood at once.
template <typename T>
class Guarded {
public:
    Guarded() = default;
    explicit Guarded(const T& first) : value(first) {}
    Guarded(const Guarded&) = delete;
    Guarded& operator=(const Guarded&) = delete;

    T get() const
    {
        ThreadLock lock(&sync);
        return value;
    }
    void set(const T& newValue)
    {
        ThreadLock lock(&sync);
        value = newValue;
    }
    /// Runs `change(value)` under the lock: something short that calls nobody.
    template <typename Change>
    void update(Change change)
    {
        ThreadLock lock(&sync);
        change(value);
    }

private:
    mutable ThreadSyncObject sync;
    T value{};
};

} // namespace HwLatixel
