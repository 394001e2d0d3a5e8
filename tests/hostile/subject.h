// The devices that the hostile host drives, each with its boards, and the states that the host puts them into.
#pragma once

#include "devices/common/serieslife.h"
#include "host/idorvet.h"
#include "host/ihwdev.h"
#include "support/tempfolder.h"

#include <array>
#include <cstdint>
#include <memory>
#include <nlohmann/json.hpp>
#include <span>
#include <vector>

namespace hostile {

using Series = HwLatixel::SeriesLife;

/// What a frame depends on. Each of these has a few known states, which setters choose between.
enum Dim : std::size_t {
    Dacs,     ///< 0: all zero, as after a reset; 1: half of the photons count
    Pixels,   ///< 0: all count; 1: a pattern is masked; 2 (Timepix): all masked, as a written matrix leaves them
    Config,   ///< Medipix3: 0: whole frames; 1: the lower half of the rows; 2: continuous reading and writing
    Counters, ///< at the beginning of a frame. 0: clear; others: as a matrix or a configuration has left them
    Time,     ///< which of TIMES
    DIMS,
};
using State = std::array<int, DIMS>;

inline constexpr std::array<double, 3> TIMES = {0.01, 0.03, 0.12}; ///< seconds of a frame

/// A device, with the little that a test looks at behind the host's interface.
class Subject {
public:
    virtual ~Subject() = default;
    virtual dv::IHwDevMpx& device() = 0;
    virtual Series::State series() const = 0;
    virtual Series::Caller caller() const = 0;

    // These set a dimension to one of its states
    virtual int setDacs(int state) = 0;
    virtual int setPixels(int state) = 0;
    virtual int setConfig(int state) = 0;
    virtual int writeMatrix(int state) = 0;
    virtual int readMatrix() = 0;
    /// An operation of this family alone.
    virtual int operate(unsigned which) = 0;
};

/// A kind of device.
struct Kind {
    const char* name;
    nlohmann::json (*boards)();
    const char* settings;
    State states;     ///< how many each dimension has
    bool matrix3;     ///< Medipix3: matrices and configurations are those of that family
    unsigned modes;   ///< acquisition modes that it has beside the normal one
    bool rowsChecked; ///< its frames of rows depend on nothing but their state
    std::unique_ptr<Subject> (*make)(const Kind& kind, IDorvet& host, const support::TempFolder& folder);
};

/// The kinds whose series follow the states of SeriesLife.
std::span<const Kind> kinds();

/// What the device of a kind tells as its frame in a state, bit for bit, pixel by pixel.
std::vector<std::uint32_t> expectedFrame(const Kind& kind, const State& state);

} // namespace hostile
