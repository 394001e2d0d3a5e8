// One Medipix3 chip.
#include "sim/chips/mpx3chip.h"

#include "sim/chips/bitplanes.h"
#include "sim/chips/mpx3counters.h"
#include "sim/world/rowmotion.h"

#include <algorithm>
#include <functional>

namespace sim {

namespace {

constexpr std::size_t SIDE = 256;

/// Width of a DAC in bits.
constexpr unsigned dacBits(std::size_t dac)
{
    return dac >= 8 && dac <= 24 ? 8 : 9;
}

std::array<std::uint8_t, Mpx3Chip::FUSE_BYTES> fusesOf(const std::string& id)
{
    if (id.empty())
        return {};
    constexpr unsigned LAST_POSITION = 15;
    constexpr unsigned LAST_WAFER = 0xFFF;
    const auto [letter, position, wafer] = readChipId(id, LAST_POSITION, LAST_WAFER);
    // What stands in the upper half of the third byte and in the last two has no part in the identifier.
    return {static_cast<std::uint8_t>(letter << 4U | position), static_cast<std::uint8_t>(wafer & 0xFFU),
            static_cast<std::uint8_t>(0x50U | wafer >> 8U), 0x2D, static_cast<std::uint8_t>(0x80U ^ wafer)};
}

// Outputs of the sense selector.
constexpr unsigned SENSE_BAND_GAP = 26;
constexpr unsigned SENSE_TEMPERATURE = 27;
constexpr unsigned SENSE_DAC15 = 30;
constexpr unsigned SENSE_DAC16 = 31;

} // namespace

Mpx3Chip::Mpx3Chip(const std::string& id, ChipPlace chipPlace, std::shared_ptr<const Scene> behind)
    : fuseBits(fusesOf(id)),
      place(chipPlace),
      scene(std::move(behind))
{
}

void Mpx3Chip::reset()
{
    omrImage = {};
    dacCodes = {};
    ctprBits = {};
    pixels.reset();
    clearCounters();
    ++generation;
}

void Mpx3Chip::loadDacs(std::span<const std::uint8_t> stream)
{
    std::size_t bit = 0;
    for (std::size_t dac = DAC_COUNT; dac-- > 0;) {
        unsigned code = 0;
        for (unsigned i = 0; i < dacBits(dac); ++i, ++bit)
            code = code << 1U | (stream[bit / 8] >> (7 - bit % 8) & 1U);
        dacCodes[dac] = static_cast<std::uint16_t>(code);
    }
    ++generation;
}

void Mpx3Chip::loadCtpr(std::span<const std::uint8_t> bytes)
{
    std::copy_n(bytes.begin(), CTPR_BYTES, ctprBits.begin());
}

void Mpx3Chip::loadHalf(unsigned counter, bool secondHalf, std::span<const std::uint8_t> planes)
{
    counters[counter].pending.reset();
    pixels.loadHalf(counter, secondHalf ? 128 : 0, planes);
    if (counter == 1 && secondHalf) {
        pixels.latchConfig();
        ++generation;
    }
}

void Mpx3Chip::clearCounters()
{
    pixels.clear();
    for (Counter& counter : counters)
        counter.pending.reset();
}

void Mpx3Chip::expose(double seconds, unsigned depth, std::uint64_t frame)
{
    for (Counter& counter : counters) {
        const double before = counter.pending && !counter.pending->row ? counter.pending->seconds : 0;
        counter.pending = {before + seconds, depth, frame, false};
    }
}

void Mpx3Chip::exposeRow(std::uint64_t step, double seconds, unsigned depth)
{
    for (Counter& counter : counters)
        counter.pending = {seconds, depth, step, true};
}

const ChipStream& Mpx3Chip::read(unsigned counter, const ReadoutShape& shape)
{
    Counter& own = counters[counter];
    if (own.pending && own.pending->row) {
        shiftRow(counter, shape);
        return own.stream;
    }
    const bool repeats = own.pending && pixels.isClear(counter) && !scene->noisy();
    const Made made = repeats ? Made{own.pending->seconds, own.pending->depth, shape, generation} : Made{};
    if (repeats && own.streamRepeats && made == own.streamMade) {
        own.pending.reset();
        return own.stream;
    }
    settle(counter);
    own.stream.bytes.clear();
    pixels.shiftOut(counter, shape, own.stream.bytes);
    own.stream.version = ++versions;
    own.streamMade = made;
    own.streamRepeats = repeats;
    return own.stream;
}

std::array<std::uint8_t, Mpx3Chip::FUSE_BYTES> Mpx3Chip::fuses() const
{
    std::array<std::uint8_t, FUSE_BYTES> shifted{};
    std::ranges::transform(fuseBits, shifted.begin(), lowestBitFirst);
    return shifted;
}

const std::vector<std::uint16_t>& Mpx3Chip::registers(unsigned counter)
{
    settle(counter);
    return pixels.registers(counter);
}

std::optional<double> Mpx3Chip::senseVolts() const
{
    constexpr double LOWEST = 0.05;
    constexpr double RANGE = 1.4;
    constexpr double BAND_GAP = 0.648;
    constexpr double TEMPERATURE_OFFSET = 0.06; ///< about 36 degrees
    const unsigned selected = omrImage.get(OmrField::SenseDac);
    if (selected == 0)
        return std::nullopt;
    if (selected == SENSE_BAND_GAP || selected == SENSE_TEMPERATURE)
        return BAND_GAP + (selected == SENSE_TEMPERATURE ? TEMPERATURE_OFFSET - 0.001 * place.number : 0);
    std::size_t dac = selected < 16 ? selected - 1 : selected + 1;
    if (selected == SENSE_DAC15 || selected == SENSE_DAC16)
        dac = selected == SENSE_DAC15 ? 15 : 16;
    if (dac >= DAC_COUNT)
        return LOWEST;
    return LOWEST + RANGE * dacCodes[dac] / (1U << dacBits(dac));
}

/// Puts what is pending into the counter.
void Mpx3Chip::settle(unsigned counter)
{
    Counter& own = counters[counter];
    if (!own.pending)
        return;
    const Exposure exposure = *own.pending;
    own.pending.reset();
    if (exposure.row)
        return;
    const Made made{exposure.seconds, exposure.depth, {}, generation};
    if (own.field.empty() || made != own.fieldMade)
        own.field.expect(frameMeans(counter, exposure));
    own.fieldMade = made;
    std::vector<std::uint32_t> counts(Mpx3Pixels::COUNT);
    count(counter, exposure, own.field, counts);
    pixels.add(counter, exposure.depth, counts);
}

void Mpx3Chip::count(unsigned counter, const Exposure& exposure, const PoissonField& field,
                     std::span<std::uint32_t> counts) const
{
    const unsigned source = exposure.depth == 24 ? 0 : counter; // the two halves of one count
    if (scene->noisy())
        field.draw(mixSeed(scene->seed(), exposure.frame, place.number, source), counts);
    else
        field.rounded(counts);
}

/// Share of the photons that each pixel counts, by the threshold, its adjustment and the mask bit.
std::vector<float> Mpx3Chip::sensitivity(unsigned counter, unsigned depth) const
{
    const unsigned source = depth == 24 ? 0 : counter;
    const unsigned firstBit = source == 0 ? Mpx3Pixels::CONFIG_ADJUST0 : Mpx3Pixels::CONFIG_ADJUST1;
    std::array<float, Mpx3Pixels::CONFIG_ADJUST_BITS + 1> byAdjustment{};
    for (std::size_t step = 0; step < byAdjustment.size(); ++step)
        byAdjustment[step] =
            static_cast<float>(scene->counted(dacCodes[source] - static_cast<double>(step) * scene->adjustStep()));

    std::vector<float> share(Mpx3Pixels::COUNT);
    std::ranges::transform(pixels.configuration(), share.begin(), [&](std::uint16_t word) {
        const bool masked = (word & Mpx3Pixels::CONFIG_MASK) != 0;
        return masked ? 0.0F : byAdjustment[word >> firstBit & Mpx3Pixels::CONFIG_ADJUST_BITS];
    });
    return share;
}

const std::vector<float>& Mpx3Chip::flux() const
{
    if (!fluxMap)
        fluxMap = scene->flux(place.number, place.total);
    return *fluxMap;
}

std::vector<float> Mpx3Chip::frameMeans(unsigned counter, const Exposure& exposure) const
{
    std::vector<float> means = sensitivity(counter, exposure.depth);
    const auto seconds = static_cast<float>(exposure.seconds);
    const std::vector<float>& falling = flux();
    for (std::size_t i = 0; i < means.size(); ++i)
        means[i] *= falling[i] * seconds;
    return means;
}

/// What the row that is read now has counted on its way.
std::vector<float> Mpx3Chip::rowMeans(unsigned counter, const Exposure& exposure)
{
    std::vector<float> means = photonsOfRows(*scene, flux(), {.number = exposure.frame, .seconds = exposure.seconds});
    std::ranges::transform(means, columnSensitivity(counter, exposure.depth), means.begin(), std::multiplies<>());
    return means;
}

/// Mean sensitivity of the pixels of each column, which all of a row's counts have come by.
const std::vector<float>& Mpx3Chip::columnSensitivity(unsigned counter, unsigned depth)
{
    Counter& own = counters[counter];
    if (own.columnsMadeAt == generation)
        return own.columns;
    const std::vector<float> share = sensitivity(counter, depth);
    own.columns.assign(SIDE, 0);
    for (std::size_t i = 0; i < share.size(); ++i)
        own.columns[i % SIDE] += share[i] / SIDE;
    own.columnsMadeAt = generation;
    return own.columns;
}

void Mpx3Chip::shiftRow(unsigned counter, const ReadoutShape& shape)
{
    Counter& own = counters[counter];
    const Exposure exposure = *own.pending;
    own.pending.reset();
    PoissonField field;
    field.expect(rowMeans(counter, exposure));
    std::array<std::uint32_t, SIDE> counts{};
    count(counter, exposure, field, counts);

    const unsigned width = std::min(exposure.depth, 12U);
    const std::uint32_t full = (1U << exposure.depth) - 1;
    const unsigned shift = exposure.depth == 24 && counter == 0 ? 12 : 0;
    std::array<std::uint16_t, SIDE> states{};
    for (std::size_t column = 0; column < SIDE; ++column)
        states[column] = mpx3StateOfCount(width)[std::min(counts[column], full) >> shift & ((1U << width) - 1)];
    own.stream.bytes.clear();
    appendPlanes(std::span(states).subspan(shape.firstColumn, shape.columns), shape.planes, own.stream.bytes);
    own.stream.version = ++versions;
    own.streamRepeats = false;
}

} // namespace sim
