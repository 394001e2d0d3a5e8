// The trigger wires between boards.
#include "sim/world/triggerline.h"

#include <algorithm>

namespace sim {

std::shared_ptr<TriggerLine> TriggerLine::named(const std::string& name)
{
    static std::mutex registryMutex;
    static std::map<std::string, std::weak_ptr<TriggerLine>> registry;
    const std::scoped_lock lock(registryMutex);
    auto line = registry[name].lock();
    if (!line)
        registry[name] = line = std::make_shared<TriggerLine>();
    return line;
}

void TriggerLine::join(const void* board)
{
    const std::scoped_lock lock(mutex);
    boards[board];
}

void TriggerLine::leave(const void* board)
{
    const std::scoped_lock lock(mutex);
    boards.erase(board);
}

std::optional<Time> TriggerLine::await(const void* board, Time since)
{
    const std::scoped_lock lock(mutex);
    const auto first = std::ranges::lower_bound(firings, since);
    if (first != firings.end())
        return *first;
    boards[board] = since;
    return std::nullopt;
}

void TriggerLine::disarm(const void* board)
{
    const std::scoped_lock lock(mutex);
    boards[board].reset();
}

std::optional<Time> TriggerLine::othersReady(const void* driver) const
{
    const std::scoped_lock lock(mutex);
    Time last{};
    for (const auto& [board, armed] : boards) {
        if (board == driver)
            continue;
        if (!armed)
            return std::nullopt;
        last = std::max(last, *armed);
    }
    return last;
}

void TriggerLine::fire(Time at)
{
    constexpr std::size_t REMEMBERED = 4096;
    const std::scoped_lock lock(mutex);
    firings.push_back(at);
    if (firings.size() > REMEMBERED)
        firings.pop_front();
    for (auto& [board, armed] : boards)
        armed.reset();
}

} // namespace sim
