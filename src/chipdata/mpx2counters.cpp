// The Medipix2 counter code, see mpx2counters.h.
#include "chipdata/mpx2counters.h"

#include "chipdata/registers.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstring>
#include <span>

namespace {

constexpr unsigned STATES = MPX2_REGISTER.states;
constexpr unsigned FIRST_STATE = STATES - 1; // of a cleared counter

/// What each value is converted to. The last entry stands for all values that have more than 14 bits.
using Table = std::array<unsigned short, STATES + 1>;

struct Tables {
    Table pseudoToCount;
    Table countToPseudo;
    bool closed; ///< the counter is back in its first state after MPX2_COUNTS steps and not before
};

// Evaluated by the compiler, so that no thread ever sees half a table.
constexpr Tables TABLES = [] {
    Tables tables{};
    tables.pseudoToCount.fill(MPX2_UNKNOWN_COUNT);
    tables.countToPseudo.fill(MPX2_UNKNOWN_COUNT);
    tables.closed = true;
    unsigned state = FIRST_STATE;
    for (unsigned count = 0; count < MPX2_COUNTS; ++count, state = MPX2_REGISTER.next(state)) {
        tables.closed = tables.closed && (state == FIRST_STATE) == (count == 0);
        tables.pseudoToCount[state] = static_cast<unsigned short>(count);
        tables.countToPseudo[count] = static_cast<unsigned short>(state);
    }
    tables.closed = tables.closed && state == FIRST_STATE;
    tables.countToPseudo[FIRST_STATE] = 0;
    return tables;
}();

static_assert(TABLES.closed, "each count has a state of its own");
static_assert(TABLES.pseudoToCount[FIRST_STATE] == 0 && TABLES.countToPseudo[1] == FIRST_STATE - 1);
// An entry of 0 would be an unknown value: no count but 0, and no state at all, may be 0.
static_assert(TABLES.pseudoToCount[0] == MPX2_UNKNOWN_COUNT);

/// Converts values of any size, and returns the number of those out of range.
int convertChecked(const Table& table, std::span<unsigned short> values)
{
    int errors = 0;
    for (unsigned short& value : values) {
        errors += value >= STATES;
        value = table[std::min<unsigned>(value, STATES)];
    }
    return errors;
}

} // namespace

int convertCountsMpx2(unsigned short* matrix, unsigned long size, bool pseudoToCount)
{
    const Table& table = pseudoToCount ? TABLES.pseudoToCount : TABLES.countToPseudo;
    // One test for four values that are all in range, which those of a chip are.
    constexpr unsigned long GROUP = 4;
    constexpr std::uint64_t TOO_HIGH = 0xC000C000C000C000;
    const unsigned long whole = size / GROUP * GROUP;
    int errors = 0;
    for (unsigned long i = 0; i < whole; i += GROUP) {
        std::uint64_t group;
        std::memcpy(&group, matrix + i, sizeof(group));
        if ((group & TOO_HIGH) != 0) {
            errors += convertChecked(table, {matrix + i, GROUP});
            continue;
        }
        for (unsigned long k = i; k < i + GROUP; ++k)
            matrix[k] = table[matrix[k]];
    }
    return errors + convertChecked(table, {matrix + whole, size - whole});
}

const unsigned short* mpx2CountTable()
{
    return TABLES.pseudoToCount.data();
}
