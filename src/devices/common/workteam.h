// The same work on several links at once, again and again.
#pragma once

#include "shared/contained.h"
#include "shared/osdepend.h"

#include <atomic>
#include <cstddef>
#include <functional>
#include <memory>
#include <vector>

namespace HwLatixel {

/// Threads that live as long as the object, one for each share of the work but the first, which the calling thread
/// does, as it does those for which the system has no thread to give. Belongs to one thread; its destructor waits for
/// all others.
class WorkTeam {
public:
    explicit WorkTeam(std::size_t shares)
    {
        for (std::size_t i = 0; i < shares; ++i)
            hands.push_back(std::make_unique<Hand>(*this, i));
        for (std::size_t i = 1; i < shares; ++i)
            hands[i]->threaded = createThread(&Hand::entry, hands[i].get()) != 0;
    }
    ~WorkTeam()
    {
        work = nullptr;
        order();
    }
    WorkTeam(const WorkTeam&) = delete;
    WorkTeam& operator=(const WorkTeam&) = delete;

    /// Runs `share(i)` for each i below the number of shares. Returns when all are done. An exception ends the one
    /// share alone.
    void run(const std::function<void(std::size_t)>& share)
    {
        work = &share;
        order();
    }

private:
    struct Hand {
        Hand(WorkTeam& itsTeam, std::size_t itsShare) : team(itsTeam), share(itsShare) {}

        static void entry(void* hand)
        {
            auto* self = static_cast<Hand*>(hand);
            for (bool stays = true; stays;) {
                while (!self->begin.wait(WAIT_FOREVER)) {
                }
                stays = self->team.work != nullptr;
                self->team.doShare(self->share);
            }
        }

        WorkTeam& team;
        const std::size_t share;
        bool threaded = false; ///< the team's owner
        Event begin{false, false, "teamWork"};
    };

    /// Lets each hand do its share of the work; without work the threads leave.
    void order()
    {
        // The owner's own part counts as one, so that nobody else ends the wait before it has come to that.
        left = 1;
        for (const auto& hand : hands)
            left += hand->threaded ? 1 : 0;
        for (const auto& hand : hands)
            if (hand->threaded)
                hand->begin.set();
        for (const auto& hand : hands)
            if (!hand->threaded && work != nullptr)
                contained([&] { (*work)(hand->share); });
        if (--left == 0)
            return;
        while (!allDone.wait(WAIT_FOREVER)) {
        }
    }
    /// Behind the last one the owner may go on and take the team away.
    void doShare(std::size_t share)
    {
        if (work != nullptr)
            contained([&] { (*work)(share); });
        if (--left == 0)
            allDone.set();
    }

    std::vector<std::unique_ptr<Hand>> hands;
    const std::function<void(std::size_t)>* work = nullptr; ///< handed over by `begin`
    std::atomic<std::size_t> left{0};                       ///< parts of the work that are not done
    Event allDone{false, false, "teamDone"};
};

} // namespace HwLatixel
