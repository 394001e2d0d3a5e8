// The virtual USB bus.
#include "sim/usb/bus.h"

#include <functional>
#include <stdexcept>
#include <string>

namespace sim {

Bus& Bus::instance()
{
    static Bus& bus = *new Bus;
    return bus;
}

void Bus::replace(std::vector<std::shared_ptr<Bridge>> newChips)
{
    std::for_each(newChips.rbegin(), newChips.rend(), [](const auto& chip) { chip->plug(); });
    {
        const std::scoped_lock lock(mutex);
        chips.swap(newChips);
        chosen = true;
    }
    for (const auto& chip : newChips)
        chip->unplug();
}

bool Bus::hasBench() const
{
    const std::scoped_lock lock(mutex);
    return chosen;
}

std::shared_ptr<Bridge> Bus::bridge(std::size_t position) const
{
    const std::scoped_lock lock(mutex);
    if (position >= chips.size())
        throw std::out_of_range("there is no board " + std::to_string(position) + " on a bench of " +
                                std::to_string(chips.size()));
    return chips[position];
}

std::vector<std::shared_ptr<Bridge>> Bus::bridges() const
{
    const std::scoped_lock lock(mutex);
    return chips;
}

std::vector<Sighting> Bus::sightings() const
{
    std::vector<Sighting> seen;
    for (const auto& chip : bridges())
        if (const auto plugging = chip->plugging())
            seen.push_back({chip, *plugging});
    std::ranges::sort(seen, std::greater{}, &Sighting::plugging);
    return seen;
}

} // namespace sim
