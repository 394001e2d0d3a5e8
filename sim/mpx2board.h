// The Medipix2 and Timepix readout board: its firmware with the command tables, and up to five modules of up to ten
// chips behind a multiplexer, written from the wire's point of view.
//
// Keys of its entry in a bench, beside those of every board, of sim/interfaceboard.h and of sim/triggerinput.h:
//   "modules"  list of up to five modules, each a list of up to ten chip identifiers, as [["C07-W0123"], []]
//   "chip"     "timepix" (the default) or "medipix2"
//   "scene"    the picture behind the sensor (sim/scene.h); also a key of the bench, for all boards
// A CPU that publishes "*BiasSet" makes the bias: "BiasVolt", "BiasCurr" and "TempDet" follow it.
//
// Faults of its own; those of streams hit "readouts" readouts, or all if it is missing:
//   {"kind": "module_silent", "module": m}
//   {"kind": "stuck_line", "module": m, "level": 0 or 1}
//   {"kind": "chip_missing", "module": m, "position": p}               its neighbours are joined
//   {"kind": "short_stream", "bytes": 1000, "readouts": n}             the end of the stream is missing
//   {"kind": "tail_out_of_step", "bytes": 64, "readouts": n}           more data come before the closing packet
#pragma once

#include "sim/interfaceboard.h"
#include "sim/mpx2pins.h"
#include "sim/mpx2readout.h"
#include "sim/triggerinput.h"

namespace sim {

class LATIXELSIM_API Mpx2Board : public InterfaceBoard {
public:
    static constexpr std::size_t moduleCount = 5;

    /// Throws std::runtime_error, with a text for people, for a bad entry.
    Mpx2Board(const nlohmann::json& board, const nlohmann::json& bench);

    void powerCycle(Time now) override;
    void externalTrigger(Time now) override;
    bool applyFault(const nlohmann::json& fault) override;
    void clearFaults() override;

    // What tests look at.
    Mpx2Chain& module(std::size_t number) { return chains.at(number); }
    Mpx2Chip& chip(std::size_t number, std::size_t position = 0) { return chains.at(number).chip(position); }
    std::uint16_t pins() const { return pinWord; }
    bool chipsPowered() const { return (pinWord & pinPower) != 0 && !cpu().overheated(); }
    std::uint8_t moduleMask() const { return selected; }
    /// Shutter time in units of 20 ns.
    std::uint64_t timerCount() const { return std::uint64_t{registers[acqTimerHigh]} << 32U | registers[acqTimerLow]; }
    std::uint8_t triggerWord() const { return trigger.word(); }
    /// Value that an acquisition command without other effect has set last.
    std::uint32_t acquisitionRegister(std::size_t command) const { return registers.at(command); }
    /// Clock that Timepix pixels measure times with.
    double timepixClockMhz() const;
    const Shutter& shutterState() const { return shutter; }
    std::uint64_t framesTaken() const { return frameNumber; }

private:
    /// Commands of the acquisition that set a register of the same number.
    enum AcqRegister : std::uint8_t {
        acqTimerLow = 3,
        acqTimerHigh = 4,
        acqPreDelay = 7,
        acqPreCount = 16,
        acqPreDivider = 17,
        acqTimepixDivider = 19,
        acqCount3 = 20,
        acqDivider3 = 21,
    };
    static constexpr std::size_t acqRegisters = 22;

    /// A fault of readouts.
    struct StreamFault {
        std::size_t bytes = 0;
        std::uint64_t readouts = 0; ///< that it still hits

        /// Bytes of the fault for the next readout.
        std::size_t hit() { return readouts > 0 ? --readouts, bytes : 0; }
    };

    static const std::array<Command<Mpx2Board>, 23> commands;

    void obey(const Frame& frame, Time now) override { obeyBy(commands, *this, frame, now); }
    void run(Time now) override;
    void endSeries() final;
    void applyPower() final;
    double adcVolts(unsigned channel) const override;

    // Peripheral 1, the chips.
    void shiftChips(const Frame& frame, Time now);
    void setPins(const Frame& frame, Time now);
    void selectModules(const Frame& frame, Time now);
    void showPattern(const Frame& frame, Time now);
    void announceReadout(const Frame& frame, Time now);
    void readMatrix(const Frame& frame, Time now);
    // Peripheral 5, acquisition.
    void startFrame(const Frame& frame, Time now);
    void stopFrame(const Frame& frame, Time now);
    void setTrigger(const Frame& frame, Time now);
    void setRegister(const Frame& frame, Time now);

    void buildChains(const nlohmann::json& board, const nlohmann::json& bench);
    void reset();
    void followBias(double volts);
    bool chipsReady(const Frame& frame, const Mpx2Levels& levels);
    std::vector<Mpx2Chain*> selectedModules();
    void finishFrame(const ShutterFrame& frame);
    Clock::duration preShutterTime() const;

    std::array<Mpx2Chain, moduleCount> chains;
    TriggerInput trigger;

    std::uint16_t pinWord = 0;
    std::uint8_t selected = 0;
    std::array<std::uint32_t, acqRegisters> registers{};
    std::optional<std::uint32_t> announced; ///< for the next readout
    Mpx2Readout readout;
    StreamFault shortStream;
    StreamFault lateTail;

    Shutter shutter;
    std::uint64_t frameNumber = 0;
};

/// Makes a board of the kind "mpx2".
LATIXELSIM_API std::unique_ptr<Board> makeMpx2Board(const nlohmann::json& board, const nlohmann::json& bench);

} // namespace sim
