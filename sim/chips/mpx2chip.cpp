// One Medipix2 or Timepix chip.
#include "sim/chips/mpx2chip.h"

#include "sim/chips/bitplanes.h"
#include "sim/chips/mpx2counters.h"

#include <algorithm>
#include <cmath>
#include <functional>

namespace sim {

namespace {

constexpr std::size_t SIDE = 256;
constexpr std::size_t PIXEL_COUNT = SIDE * SIDE;
constexpr unsigned PLANES = 14;
constexpr std::uint8_t FIRST_PAD = 0xE0;
static_assert(Mpx2Chip::ROW_BYTES == PLANES * SIDE / 8);

constexpr std::size_t FUSE_START = 5; ///< byte of the DAC record at which the fuses are shifted out
constexpr unsigned TIMEPIX_FUSE = 8;  ///< bit of the third fuse byte

/// A part of a DAC's code: `bits` of it from bit `shift` on stand from bit `first` of the record on.
struct DacPart {
    std::uint8_t dac;
    std::uint8_t shift;
    std::uint8_t first;
    std::uint8_t bits;
};

constexpr std::array<DacPart, 9> COMMON_PARTS = {{{0, 0, 3, 8},
                                                  {1, 0, 11, 8},
                                                  {2, 0, 19, 8},
                                                  {3, 0, 45, 4},
                                                  {3, 4, 55, 4},
                                                  {4, 0, 59, 8},
                                                  {5, 0, 85, 8},
                                                  {6, 0, 99, 10},
                                                  {7, 0, 109, 4}}};
constexpr std::array<DacPart, 6> TIMEPIX_PARTS = {
    {{8, 0, 119, 8}, {9, 0, 127, 8}, {10, 0, 135, 8}, {11, 0, 180, 8}, {12, 0, 226, 8}, {13, 0, 234, 8}}};
constexpr std::array<DacPart, 7> MEDIPIX_PARTS = {{{8, 0, 113, 10},
                                                   {9, 0, 123, 4},
                                                   {10, 0, 127, 8},
                                                   {11, 0, 135, 8},
                                                   {12, 0, 180, 8},
                                                   {13, 0, 226, 8},
                                                   {14, 0, 234, 8}}};
constexpr std::size_t THRESHOLD_DAC = 6;

/// Which bits of a pixel's configuration word do what.
struct PixelBits {
    std::uint8_t mask;                  ///< set: the pixel does not count
    std::array<std::uint8_t, 4> adjust; ///< of the threshold, the lowest first
    std::uint8_t adjustBits;
    std::array<std::uint8_t, 2> mode; ///< what the pixel measures
};

constexpr PixelBits TIMEPIX_BITS{.mask = 7, .adjust = {8, 12, 10, 11}, .adjustBits = 4, .mode = {9, 6}};
constexpr PixelBits MEDIPIX_BITS{.mask = 0, .adjust = {7, 6, 8, 0}, .adjustBits = 3, .mode = {}};

/// What a Timepix pixel measures.
enum PixelMode : unsigned { COUNTS_HITS, TIME_OVER_THRESHOLD, FIRST_HIT, TIME_OF_ARRIVAL };

unsigned gather(unsigned word, std::span<const std::uint8_t> bits)
{
    unsigned value = 0;
    for (std::size_t i = 0; i < bits.size(); ++i)
        value |= (word >> bits[i] & 1U) << i;
    return value;
}

/// Fills up a stream behind the rows with bytes that are none of theirs.
void pad(Bytes& bytes, std::size_t size)
{
    for (std::size_t i = 0; bytes.size() < size; ++i)
        bytes.push_back(static_cast<std::uint8_t>(FIRST_PAD + i % 16));
}

std::array<std::uint8_t, 3> fusesOf(const std::string& id, Mpx2Kind kind)
{
    constexpr unsigned POSITIONS = 12; ///< on the wafer; the fuses count them from the other end
    constexpr unsigned LAST_WAFER = 0x7FF;
    if (id.empty())
        return {};
    const auto [letter, position, wafer] = readChipId(id, POSITIONS, LAST_WAFER);
    // What stands in the upper half of the third byte has no part in the identifier.
    return {lowestBitFirst((POSITIONS - position) << 4U | letter), lowestBitFirst(wafer & 0xFFU),
            lowestBitFirst(0x50U | wafer >> 8U | (kind == Mpx2Kind::Timepix ? TIMEPIX_FUSE : 0U))};
}

} // namespace

Mpx2Chip::Mpx2Chip(const std::string& id, Mpx2Kind chipKind, ChipPlace chipPlace, std::shared_ptr<const Scene> behind)
    : kind(chipKind),
      fuses(fusesOf(id, chipKind)),
      place(chipPlace),
      scene(std::move(behind)),
      config(PIXEL_COUNT),
      state(PIXEL_COUNT)
{
}

void Mpx2Chip::powerOff()
{
    std::ranges::fill(config, std::uint16_t{0});
    std::ranges::fill(state, std::uint16_t{0});
    cleared = false;
    pending.reset();
    reset();
}

void Mpx2Chip::reset()
{
    dacRecord = {};
    ++generation;
}

Mpx2Chip::Record Mpx2Chip::shiftRecord(std::span<const std::uint8_t> record)
{
    Record old = dacRecord;
    std::ranges::copy(fuses, old.begin() + FUSE_START);
    std::ranges::copy(record, dacRecord.begin());
    ++generation;
    return old;
}

void Mpx2Chip::loadMatrix(std::span<const std::uint8_t> image)
{
    for (std::size_t row = 0; row < SIDE; ++row)
        takePlanes(image.subspan(row * ROW_BYTES, ROW_BYTES), PLANES, std::span(config).subspan(row * SIDE, SIDE));
    state = config;
    cleared = false;
    pending.reset();
    ++generation;
}

/// Bits of the DAC register, the lowest at `first`. A Timepix record lies one bit higher than that of a Medipix2.
std::uint32_t Mpx2Chip::field(unsigned first, unsigned bits) const
{
    std::uint32_t value = 0;
    for (unsigned i = 0; i < bits; ++i) {
        const unsigned at = first + i + (kind == Mpx2Kind::Timepix ? 1 : 0);
        value |= (static_cast<std::uint32_t>(dacRecord[RECORD_BYTES - 1 - at / 8]) >> at % 8 & 1U) << i;
    }
    return value;
}

unsigned Mpx2Chip::dac(std::size_t number) const
{
    unsigned code = 0;
    const auto collect = [&](std::span<const DacPart> parts) {
        for (const DacPart& part : parts)
            if (part.dac == number)
                code |= field(part.first, part.bits) << part.shift;
    };
    collect(COMMON_PARTS);
    if (kind == Mpx2Kind::Timepix)
        collect(TIMEPIX_PARTS);
    else
        collect(MEDIPIX_PARTS);
    return code;
}

std::optional<double> Mpx2Chip::senseVolts() const
{
    constexpr double LOWEST = 0.05;
    constexpr double VOLTS_PER_CODE = 2.1 / 256;
    const unsigned selected = senseDac();
    if (selected == 0 || selected > dacCount())
        return std::nullopt;
    const unsigned code = dac(selected - 1);
    return LOWEST + VOLTS_PER_CODE * (selected - 1 == THRESHOLD_DAC ? code / 4.0 : code);
}

void Mpx2Chip::expose(const Mpx2Exposure& exposure)
{
    const double before = pending ? pending->seconds : 0;
    pending = exposure;
    pending->seconds += before;
}

const ChipStream& Mpx2Chip::read()
{
    std::optional<Made> made;
    if (cleared && !scene->noisy() && pending) {
        made = Made{*pending, generation};
        made->exposure.frame = 0;
        if (made == streamMade) {
            pending.reset();
            return stream;
        }
    }
    settle();
    stream.bytes.clear();
    stream.bytes.reserve(IMAGE_BYTES);
    for (std::size_t row = 0; row < SIDE; ++row)
        appendPlanes(std::span(state).subspan(row * SIDE, SIDE), PLANES, stream.bytes);
    pad(stream.bytes, IMAGE_BYTES);
    ++stream.version;
    streamMade = made;
    if (!cleared)
        std::ranges::fill(state, MPX2_CLEAR_STATE);
    cleared = true;
    return stream;
}

const ChipStream& Mpx2Chip::readRows(const Mpx2RowRead& order)
{
    const std::size_t leaving = order.step.rows * SIDE;
    settle();
    Words moved(state.begin(), state.begin() + static_cast<std::ptrdiff_t>(leaving));
    if (!cleared) {
        std::shift_left(state.begin(), state.end(), static_cast<std::ptrdiff_t>(leaving));
        std::fill(state.end() - static_cast<std::ptrdiff_t>(leaving), state.end(), MPX2_CLEAR_STATE);
    }
    if (order.exposure) {
        std::vector<float> hits = photonsOfRows(*scene, falling(), order.step);
        for (std::size_t row = 0; row < leaving; row += SIDE)
            std::transform(columnSensitivity().begin(), columnSensitivity().end(),
                           hits.begin() + static_cast<std::ptrdiff_t>(row),
                           hits.begin() + static_cast<std::ptrdiff_t>(row), std::multiplies<>());
        PoissonField field;
        field.expect(std::move(hits));
        count(field, *order.exposure, moved);
    }
    stream.bytes.clear();
    for (std::size_t row = 0; row < leaving; row += SIDE)
        appendPlanes(std::span(moved).subspan(row, SIDE), PLANES, stream.bytes);
    pad(stream.bytes, order.step.rows * (ROW_BYTES + 1) - 1);
    ++stream.version;
    streamMade.reset();
    return stream;
}

const std::vector<std::uint16_t>& Mpx2Chip::registers()
{
    settle();
    return state;
}

/// Puts what is pending into the counters. One that holds no count, as after switching on, does not get into step.
void Mpx2Chip::settle()
{
    if (!pending)
        return;
    const Mpx2Exposure exposure = *pending;
    pending.reset();
    if (expected.empty() || expectedSeconds != exposure.seconds || expectedGeneration != generation)
        expected.expect(means(exposure.seconds));
    expectedSeconds = exposure.seconds;
    expectedGeneration = generation;
    count(expected, exposure, state);
    cleared = false;
}

/// Adds what the pixels have measured to the first counters of the matrix, or to what has become of them.
void Mpx2Chip::count(const PoissonField& field, const Mpx2Exposure& exposure, std::span<std::uint16_t> states) const
{
    std::vector<std::uint32_t> hits(states.size());
    if (scene->noisy())
        field.draw(mixSeed(scene->seed(), exposure.frame, place.number, 0), hits);
    else
        field.rounded(hits);

    const auto stateOf = mpx2StateOfCount();
    const auto countOf = mpx2CountOfState();
    for (std::size_t i = 0; i < states.size(); ++i) {
        const std::uint16_t before = countOf[states[i] & MPX2_CLEAR_STATE];
        if (before != MPX2_NO_COUNT)
            states[i] = stateOf[std::min(before + measured(config[i], hits[i], exposure), MPX2_FULL_COUNT)];
    }
}

/// What a pixel adds to its counter for some hits.
std::uint32_t Mpx2Chip::measured(std::uint16_t word, std::uint32_t hits, const Mpx2Exposure& exposure) const
{
    constexpr double PULSE_MICROSECONDS = 2.5; ///< for which a hit lies over the threshold
    if (kind == Mpx2Kind::Medipix2 || hits == 0)
        return hits;
    double ticks = 0;
    switch (gather(word, TIMEPIX_BITS.mode)) {
    case TIME_OVER_THRESHOLD:
        ticks = hits * PULSE_MICROSECONDS * exposure.clockMhz;
        break;
    case FIRST_HIT:
        return 1;
    case TIME_OF_ARRIVAL: // from the first hit until the shutter closes
        ticks = exposure.seconds * hits / (hits + 1.0) * exposure.clockMhz * 1e6;
        break;
    default:
        return hits;
    }
    return static_cast<std::uint32_t>(std::min<double>(std::round(ticks), MPX2_FULL_COUNT));
}

/// Share of the photons that each pixel counts, by the threshold, its adjustment and the mask bit.
std::vector<float> Mpx2Chip::sensitivity() const
{
    const PixelBits& bits = kind == Mpx2Kind::Timepix ? TIMEPIX_BITS : MEDIPIX_BITS;
    const auto adjust = std::span(bits.adjust).first(bits.adjustBits);
    std::array<float, 16> byAdjustment{};
    for (std::size_t step = 0; step < byAdjustment.size(); ++step)
        byAdjustment[step] =
            static_cast<float>(scene->counted(dac(THRESHOLD_DAC) - static_cast<double>(step) * scene->adjustStep()));
    std::vector<float> share(PIXEL_COUNT);
    for (std::size_t i = 0; i < PIXEL_COUNT; ++i)
        if ((config[i] >> bits.mask & 1) == 0)
            share[i] = byAdjustment[gather(config[i], adjust)];
    return share;
}

/// Mean sensitivity of the pixels of each column, which all of a row's counts have come by.
const std::vector<float>& Mpx2Chip::columnSensitivity()
{
    if (columnsMadeAt == generation)
        return columns;
    const std::vector<float> share = sensitivity();
    columns.assign(SIDE, 0);
    for (std::size_t i = 0; i < PIXEL_COUNT; ++i)
        columns[i % SIDE] += share[i] / SIDE;
    columnsMadeAt = generation;
    return columns;
}

/// Photons a second that fall on each pixel.
const std::vector<float>& Mpx2Chip::falling()
{
    if (!flux)
        flux = scene->flux(place.number, place.total);
    return *flux;
}

/// Expected hits of all pixels.
std::vector<float> Mpx2Chip::means(double seconds)
{
    std::vector<float> hits = sensitivity();
    const std::vector<float>& photons = falling();
    for (std::size_t i = 0; i < PIXEL_COUNT; ++i)
        hits[i] *= photons[i] * static_cast<float>(seconds);
    return hits;
}

} // namespace sim
