// The devices that the hostile host drives.
#include "hostile/subject.h"

#include "chipdata/mpx2counters.h"
#include "devices/common/ladbench.h"
#include "devices/mpx2/mpx2bench.h"
#include "devices/mpx2/mpx2laddev.h"
#include "devices/mpx3/mpx3bench.h"
#include "devices/mpx3/mpx3laddev.h"
#include "devices/old/uladdev.h"
#include "sim/boards/oldboard.h"
#include "sim/world/scene.h"

#include <algorithm>
#include <cmath>

namespace hostile {

namespace {

using nlohmann::json;
using support::TempFolder;

constexpr std::size_t SIDE = 256;
constexpr std::size_t CHIP = SIDE * SIDE;
constexpr unsigned short HALF_OF_PHOTONS = 300; ///< threshold code
constexpr unsigned WRITTEN = 1000;              ///< counts of a written matrix, Medipix3
constexpr unsigned MPX3_FULL = 4095;
constexpr unsigned MPX2_FULL = MPX2_COUNTS - 1;

/// Neither rows nor columns nor chips look alike, so that a stream that has slipped shows.
json sceneOf(std::size_t board)
{
    return {{"kind", "gradient"}, {"flux", 10000 + 1000 * board}, {"noise", false}, {"layout", "span"}};
}

bool masked(std::size_t pixel)
{
    return pixel % CHIP / 7 % 3 == 0;
}

std::size_t chipsOf(const json& board)
{
    const json& lines = board.contains("channels") ? board["channels"] : board["modules"];
    std::size_t chips = 0;
    for (const json& line : lines)
        chips += line.is_array() ? line.size() : static_cast<std::size_t>(line != "");
    return chips;
}

std::size_t chipsOf(const Kind& kind)
{
    std::size_t chips = 0;
    for (const json& board : kind.boards())
        chips += chipsOf(board);
    return chips;
}

// ---- What a frame shows ----

/// A pixel of a Timepix chip whose counter began with a configuration word in it.
std::uint32_t behindWord(unsigned short word, std::uint32_t hits)
{
    convertCountsMpx2(&word, 1, true);
    return word == MPX2_UNKNOWN_COUNT ? word : std::min(word + hits, MPX2_FULL);
}

std::uint32_t countOf(const Kind& kind, const State& state, std::size_t pixel, std::uint32_t hits)
{
    if (kind.matrix3) {
        if (state[Config] == 1 && pixel % CHIP >= CHIP / 2)
            return 0;
        return std::min(hits + (state[Counters] == 1 ? WRITTEN : 0), MPX3_FULL);
    }
    if (state[Counters] == 0)
        return std::min(hits, MPX2_FULL);
    // As the host's byte becomes the chip's word: 0 gives bit 13, 1 gives the mask's bit as well.
    const bool withMask = state[Counters] == 2 && masked(pixel);
    return behindWord(withMask ? 0x2080 : 0x2000, hits);
}

} // namespace

std::vector<std::uint32_t> expectedFrame(const Kind& kind, const State& state)
{
    std::vector<std::uint32_t> frame;
    const json boards = kind.boards();
    const auto seconds = static_cast<float>(TIMES.at(static_cast<std::size_t>(state[Time])));
    for (std::size_t b = 0; b < boards.size(); ++b) {
        const sim::Scene scene(sceneOf(b));
        const auto chips = static_cast<unsigned>(chipsOf(boards[b]));
        const auto share = static_cast<float>(scene.counted(state[Dacs] == 1 ? HALF_OF_PHOTONS : 0));
        for (unsigned chip = 0; chip < chips; ++chip) {
            const sim::FluxMap flux = scene.flux(chip, chips);
            for (std::size_t i = 0; i < CHIP; ++i) {
                const bool counts = state[Pixels] == 0 || (state[Pixels] == 1 && !masked(i));
                const float mean = counts ? share * ((*flux)[i] * seconds) : 0;
                frame.push_back(countOf(kind, state, i, static_cast<std::uint32_t>(std::lround(mean))));
            }
        }
    }
    return frame;
}

namespace {

// ---- Devices ----

/// Shows the state of a device's series.
template <typename Device>
class Watched : public Device {
public:
    using Device::Device;
    Series& watchedLife()
    {
        if constexpr (requires { this->series.state(); })
            return this->series;
        else
            return this->life;
    }
};

/// What both families have in common.
template <typename Device>
class SubjectOf : public Subject {
public:
    SubjectOf(Watched<Device>* made, std::size_t chipCount) : dev(made), chips(chipCount) {}
    dv::IHwDevMpx& device() override { return *dev; }
    Series::State series() const override { return dev->watchedLife().state(); }
    Series::Caller caller() const override { return dev->watchedLife().caller(); }

protected:
    Watched<Device>* const dev; ///< not owned: a device is freed by its `destroy`
    const std::size_t chips;
};

template <typename Device>
class Mpx3Subject : public SubjectOf<Device> {
public:
    using SubjectOf<Device>::SubjectOf, SubjectOf<Device>::dev, SubjectOf<Device>::chips;

    int setDacs(int state) override
    {
        constexpr std::size_t DACS = 27;
        std::vector<unsigned short> dacs(chips * DACS);
        for (std::size_t i = 0; i < dacs.size(); i += DACS)
            dacs[i] = state == 1 ? HALF_OF_PHOTONS : 0;
        return dev->setDacs(dacs.data(), dacs.size(), -1);
    }
    int setPixels(int state) override
    {
        // Two bits of a pixel's first byte are inverted on their way, the mask's among them.
        std::vector<unsigned char> cfg(2 * chips * CHIP);
        for (std::size_t i = 0; i < cfg.size(); i += 2)
            cfg[i] = state == 1 && masked(i / 2) ? 2 : 3;
        return dev->setPixelCfg(cfg.data(), cfg.size());
    }
    int setConfig(int state) override
    {
        constexpr unsigned char HALF_OF_ROWS = 8;
        dv::_Mpx3Config config = support::plainConfig();
        config.rowBlock = state == 1 ? HALF_OF_ROWS : 0;
        config.continuousRW = state == 2 ? 1 : 0;
        return dev->setConfig(config);
    }
    int writeMatrix(int state) override
    {
        const std::vector<unsigned> matrix(chips * CHIP, state == 1 ? WRITTEN : 0);
        return dev->writeMatrix(matrix.data(), matrix.size(), true);
    }
    int readMatrix() override
    {
        std::vector<unsigned> matrix(chips * CHIP);
        return dev->readMatrix(matrix.data(), matrix.size(), true);
    }
    int operate(unsigned which) override { return dev->senseDac(which % 2, 3); }
};

template <typename Device>
class Mpx2Subject : public SubjectOf<Device> {
public:
    using SubjectOf<Device>::SubjectOf, SubjectOf<Device>::dev, SubjectOf<Device>::chips;

    int setDacs(int state) override
    {
        constexpr std::size_t DACS = 14;
        constexpr std::size_t THRESHOLD = 6;
        std::vector<unsigned short> dacs(chips * DACS);
        for (std::size_t i = THRESHOLD; i < dacs.size(); i += DACS)
            dacs[i] = state == 1 ? HALF_OF_PHOTONS : 0;
        return dev->setDacs(dacs.data(), dacs.size(), -1);
    }
    int setPixels(int state) override
    {
        std::vector<unsigned char> cfg(chips * CHIP);
        for (std::size_t i = 0; i < cfg.size(); ++i)
            cfg[i] = state == 1 && masked(i) ? 1 : 0;
        return dev->setPixelCfg(cfg.data(), cfg.size());
    }
    int setConfig(int) override { return 0; }
    int writeMatrix(int) override
    {
        // Counters that are clear, which masks all pixels.
        const std::vector<unsigned short> matrix(chips * CHIP);
        return dev->writeMatrix(matrix.data(), matrix.size(), true);
    }
    int readMatrix() override
    {
        std::vector<unsigned short> matrix(chips * CHIP);
        return dev->readMatrix(matrix.data(), matrix.size(), true);
    }
    int operate(unsigned which) override
    {
        double mhz = which % 2 == 0 ? 10 : 40;
        return dev->setTimepixClock(&mhz);
    }
};

void loadBoards(const Kind& kind, const TempFolder& folder)
{
    json boards = kind.boards();
    for (std::size_t b = 0; b < boards.size(); ++b)
        boards[b]["scene"] = sceneOf(b);
    sim::loadBench({{"boards", boards}});
    folder.write("latixel.ini", kind.settings);
}

/// A single device; `more` are the last arguments of its constructor.
template <typename SubjectClass, typename Device, auto... more>
std::unique_ptr<Subject> makeSingle(const Kind& kind, IDorvet& host, const TempFolder& folder)
{
    loadBoards(kind, folder);
    auto* device = new Watched<Device>(kind.boards()[0]["description"], &host, folder.path(), folder / "latixel.ini",
                                       "A", more...);
    return std::make_unique<SubjectClass>(device, chipsOf(kind));
}

json mpx3()
{
    return json::array({support::mpx3Board({1, 1})});
}
json mpx2()
{
    return json::array({support::mpx2Board({1, 1})});
}
json row()
{
    return json::array({support::rowBoard({"C01-W0100", "", "C02-W0100"})});
}

constexpr State MPX3_STATES = {2, 2, 3, 2, TIMES.size()};
constexpr State MPX2_STATES = {2, 3, 1, 3, TIMES.size()};

using HwLatixel::Mpx2Dev;
using HwLatixel::Mpx2DevRow;
using HwLatixel::Mpx3Dev;

constexpr unsigned SOFT = dv::ACQMODE_SOFT_TRIGGER;
constexpr unsigned TDI = dv::ACQMODE_TDI;

const Kind KINDS[] = {
    {"mpx3", mpx3, "[Settings]\nModule2=0\nModule3=0\nModule4=0\n", MPX3_STATES, true, SOFT | TDI,
     false, // rows are right with five channels alone
     makeSingle<Mpx3Subject<Mpx3Dev>, Mpx3Dev, false>},
    {"mpx2", mpx2, "[Settings]\n", MPX2_STATES, false, SOFT, false, makeSingle<Mpx2Subject<Mpx2Dev>, Mpx2Dev, false>},
    {"row", row, "[Settings]\n", MPX2_STATES, false, SOFT | TDI, true, makeSingle<Mpx2Subject<Mpx2DevRow>, Mpx2DevRow>},
};

} // namespace

std::span<const Kind> kinds()
{
    return KINDS;
}

} // namespace hostile
