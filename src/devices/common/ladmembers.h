// The members of a composite: several boards that the host sees as one detector.
#pragma once

#include "devices/common/devicename.h"

#include <algorithm>
#include <atomic>
#include <cstddef>
#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace HwLatixel {

/// The bias type in a device's name, its variant letter; empty for a name that has none.
inline std::string biasTypeOf(const std::string& name)
{
    std::string type;
    std::string ladNumber;
    return parseDeviceName(name, nullptr, nullptr, nullptr, &type, &ladNumber) ? type : "";
}

/// Highest bias in volts by the members' bias types. The order of the names counts: a later "C" wipes out a "B", while
/// an "A" leaves it.
inline double maxBiasOf(const std::vector<std::string>& names)
{
    constexpr double TYPE_A = 100.0;
    constexpr double TYPE_B = 200.0;
    double volts = TYPE_A;
    for (const auto& name : names) {
        const std::string type = biasTypeOf(name);
        if (type == "B")
            volts = TYPE_B;
        else if (type == "C")
            volts = 0.0;
        else if (type == "A" && volts != TYPE_B)
            volts = TYPE_A;
    }
    return volts;
}

/// Members in their order with one chip numbering: from 0 through the members, each one's chips in its own order.
/// Changed by bring-up and closing alone; between them safe from any thread.
template <typename Member>
class LadMembers {
public:
    /// A chip of the composite.
    struct Chip {
        Member* member;
        int index; ///< of the chip within the member
    };

    /// Takes a member over that has come up.
    void add(std::unique_ptr<Member> member)
    {
        firstChips.push_back(chips.size());
        for (int i = 0; i < member->chipCount(); ++i)
            chips.push_back({member.get(), i});
        members.push_back(std::move(member));
        ++count;
    }
    /// From now on there is no member any more. The objects stay until `clear`, for calls that are still among them.
    void retire() { count = 0; }
    void clear()
    {
        retire();
        chips.clear();
        firstChips.clear();
        members.clear();
    }

    std::size_t size() const { return count; }
    bool empty() const { return count == 0; }
    Member& operator[](std::size_t index) const { return *members[index]; }
    int chipCount() const { return empty() ? 0 : static_cast<int>(chips.size()); }
    /// Number of the first chip of member `index`.
    std::size_t firstChip(std::size_t index) const { return firstChips[index]; }
    /// The chip of that number, or null.
    const Chip* findChip(unsigned number) const
    {
        return number < static_cast<unsigned>(chipCount()) ? &chips[number] : nullptr;
    }

private:
    std::atomic<std::size_t> count{0}; ///< of the members that are not retired
    std::vector<std::unique_ptr<Member>> members;
    std::vector<std::size_t> firstChips; ///< by member
    std::vector<Chip> chips;             ///< by number in the composite
};

/// A stretch of the host's array that belongs to one member; as much of it as the array holds.
template <typename T>
struct Slice {
    T* data;
    std::size_t size;
};

/// The elements of `count` chips from `firstChip` on in an array of `size` elements, `perChip` for each chip.
template <typename T>
Slice<T> sliceOf(T* data, std::size_t size, std::size_t firstChip, std::size_t count, std::size_t perChip)
{
    const std::size_t begin = std::min(firstChip * perChip, size);
    return {data + begin, std::min(count * perChip, size - begin)};
}

} // namespace HwLatixel
