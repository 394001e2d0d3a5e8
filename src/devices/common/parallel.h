// The same work on several links at once.
#pragma once

#include "shared/contained.h"
#include "shared/osdepend.h"

#include <atomic>
#include <cstddef>
#include <vector>

namespace HwLatixel {

/// Runs `work(i)` for each i below `count`, each on a thread of its own but for the first, which the calling thread
/// does, as it does those for which the system has no thread to give. Returns when all are done. An exception ends the
/// one work alone.
template <typename Work>
void inParallel(std::size_t count, Work work)
{
    struct Share {
        Work* work;
        std::size_t index;
        std::atomic<std::size_t>* left;
        Event* allDone;

        void run()
        {
            contained([this] { (*work)(index); });
            // Behind the last one the waiting thread may go on and take the event away.
            Event* done = allDone;
            if (--*left == 0)
                done->set();
        }
        static void entry(void* share) { static_cast<Share*>(share)->run(); }
    };
    if (count == 0)
        return;
    Event allDone(false, false, "parallelWorkDone");
    std::atomic<std::size_t> left{count};
    std::vector<Share> shares;
    for (std::size_t i = 0; i < count; ++i)
        shares.push_back({&work, i, &left, &allDone});
    for (std::size_t i = 1; i < count; ++i)
        if (createThread(&Share::entry, &shares[i]) == 0)
            shares[i].run();
    shares[0].run();
    while (!allDone.wait(WAIT_FOREVER)) {
    }
}

} // namespace HwLatixel
