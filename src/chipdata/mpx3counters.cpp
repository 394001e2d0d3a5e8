// The Medipix3 counter code, see mpx3counters.h.
#include "chipdata/mpx3counters.h"

#include "chipdata/registers.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <mutex>
#include <span>

namespace {

void fillTables(const ShiftRegister& counter, unsigned short* count2Pseudo, unsigned short* pseudo2Count)
{
    for (unsigned count = 0, state = 0; count < counter.states; ++count, state = counter.next(state)) {
        count2Pseudo[count] = static_cast<unsigned short>(state);
        pseudo2Count[state] = static_cast<unsigned short>(count);
    }
}

/// True if the cycle from state 0 visits all states once.
constexpr bool fullCycle(const ShiftRegister& counter)
{
    unsigned length = 1;
    for (unsigned state = counter.next(0); state != 0 && length <= counter.states; state = counter.next(state))
        ++length;
    return length == counter.states;
}

static_assert(fullCycle(MPX3_6BIT_REGISTER) && fullCycle(MPX3_12BIT_REGISTER));
static_assert(MPX3_6BIT_REGISTER.states == MPX3_6BIT_STATES && MPX3_12BIT_REGISTER.states == MPX3_12BIT_STATES);

// Zero until first generated, and read only by who has seen the flag behind them.
std::array<unsigned short, MPX3_6BIT_STATES> count2Pseudo6bit;
std::array<unsigned short, MPX3_6BIT_STATES> pseudo2Count6bit;
std::array<unsigned short, MPX3_12BIT_STATES> count2Pseudo12bit;
std::array<unsigned short, MPX3_12BIT_STATES> pseudo2Count12bit;
std::once_flag once6bit;
std::once_flag once12bit;
std::atomic<bool> generated12bit{false};

struct Table {
    const unsigned short* values;
    unsigned size;
};

Table table6bit(bool pseudoToCount)
{
    std::call_once(once6bit, [] { generate6BitMpx3RxTable(count2Pseudo6bit.data(), pseudo2Count6bit.data()); });
    return {pseudoToCount ? pseudo2Count6bit.data() : count2Pseudo6bit.data(), MPX3_6BIT_STATES};
}

/// The 12-bit table, generated if `generate` is set; else all zeros as long as nobody has generated it.
Table table12bit(bool pseudoToCount, bool generate)
{
    static constexpr std::array<unsigned short, MPX3_12BIT_STATES> NOT_GENERATED{};
    if (generate)
        std::call_once(once12bit, [] {
            generate12BitMpx3RxTable(count2Pseudo12bit.data(), pseudo2Count12bit.data());
            generated12bit.store(true, std::memory_order_release);
        });
    if (!generated12bit.load(std::memory_order_acquire))
        return {NOT_GENERATED.data(), MPX3_12BIT_STATES};
    return {pseudoToCount ? pseudo2Count12bit.data() : count2Pseudo12bit.data(), MPX3_12BIT_STATES};
}

/// Replaces every pixel by `convert(pixel)` where `counter(pixel)` is below `limit`, and counts the others.
template <class Counter, class Convert>
int replace(unsigned int* matrix, unsigned long size, unsigned limit, Counter counter, Convert convert)
{
    int failed = 0;
    for (unsigned& pixel : std::span(matrix, size)) {
        // Failing pixels are rare enough for a branch, which waits for nothing.
        if (counter(pixel) < limit) {
            pixel = convert(pixel);
        } else {
            pixel = MPX3_FAILED_PIXEL;
            ++failed;
        }
    }
    return failed;
}

} // namespace

void generate6BitMpx3RxTable(unsigned short* count2Pseudo, unsigned short* pseudo2Count)
{
    fillTables(MPX3_6BIT_REGISTER, count2Pseudo, pseudo2Count);
}

void generate12BitMpx3RxTable(unsigned short* count2Pseudo, unsigned short* pseudo2Count)
{
    fillTables(MPX3_12BIT_REGISTER, count2Pseudo, pseudo2Count);
}

int convertCountsMpx3(unsigned int* matrix, unsigned long size, unsigned char depth, bool lowCounter,
                      bool pseudoToCount)
{
    const bool known = depth == 6 || depth == 12 || depth == 24;
    if (lowCounter && !known)
        return 0;
    const Table table = depth == 6 ? table6bit(pseudoToCount) : table12bit(pseudoToCount, known);
    const unsigned short* values = table.values;
    // No other depth than 24 has more states than its table has entries.
    const unsigned limit = depth == 24 ? 1U << 24 : std::min(1U << std::min<unsigned>(depth, 31), table.size);

    if (depth == 24)
        return replace(
            matrix, size, limit, [](unsigned pixel) { return pixel; },
            [values](unsigned pixel) { return values[pixel & 0xFFF] + (unsigned{values[pixel >> 12]} << 12); });
    if (lowCounter)
        return replace(
            matrix, size, limit, [](unsigned pixel) { return pixel & 0xFFF; },
            [values](unsigned pixel) { return (pixel & ~0xFFFU) | values[pixel & 0xFFF]; });
    return replace(
        matrix, size, limit, [](unsigned pixel) { return pixel >> 16; },
        [values](unsigned pixel) { return (pixel & 0xFFFF) | unsigned{values[pixel >> 16]} << 16; });
}

const unsigned short* mpx3CountTable(unsigned char depth)
{
    return depth == 6 ? table6bit(true).values : table12bit(true, true).values;
}
