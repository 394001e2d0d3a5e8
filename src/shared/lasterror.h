// The text of the last failure, for objects that several threads use.
#pragma once

#include "shared/osdepend.h"

#include <array>
#include <cstddef>
#include <string>
#include <utility>

/// Keeps the latest failure texts, so that a thread that reads one is not left with freed memory while another thread
/// fails as well. Safe from any thread.
class LastError {
public:
    /// A text stays valid while this many minus one further failures are told.
    static constexpr std::size_t KEPT = 8;

    void set(std::string text)
    {
        ThreadLock lock(&sync);
        newest = (newest + 1) % KEPT;
        texts[newest] = std::move(text);
    }
    /// The text set last; empty at first.
    const char* get() const
    {
        ThreadLock lock(&sync);
        return texts[newest].c_str();
    }

private:
    mutable ThreadSyncObject sync;
    std::array<std::string, KEPT> texts; ///< guarded by sync
    std::size_t newest = 0;              ///< guarded by sync
};
