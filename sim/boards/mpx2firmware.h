// What the firmware of all boards with Medipix2 or Timepix chips does alike: chips on data lines behind a multiplexer,
// their pins, registers and triggers, and the frames that a shutter takes.
//
// Keys of such a board in a bench, beside those of every board, of sim/boards/interfaceboard.h and of
// sim/world/triggerinput.h:
//   "scene"       the picture behind the sensor (sim/world/scene.h); also a key of the bench, for all boards
//   "fifo_bytes"  a series pauses while more than this lies on the output (16777216)
//
// Faults of such a board; those of streams hit "readouts" readouts, or all if it is missing. A line is a "module" or a
// "channel", as the board calls it:
//   {"kind": "stuck_line", "module": m, "level": 0 or 1}
//   {"kind": "short_stream", "bytes": 1000, "readouts": n}             the end of the stream is missing
//   {"kind": "tail_out_of_step", "bytes": 64, "readouts": n}           more data come before the closing packet
#pragma once

#include "sim/boards/interfaceboard.h"
#include "sim/boards/mpx2readout.h"
#include "sim/wire/framepace.h"
#include "sim/wire/mpx2pins.h"

namespace sim {

class LATIXELSIM_API Mpx2Firmware : public InterfaceBoard {
public:
    void powerCycle(Time now) override;
    void externalTrigger(Time now) override;
    bool applyFault(const nlohmann::json& fault) override;
    void clearFaults() override;

    // What tests look at.
    std::uint16_t pins() const { return pinWord; }
    bool chipsPowered() const { return (pinWord & PIN_POWER) != 0 && !cpu().overheated(); }
    /// Shutter time in ticks of the board's timer.
    std::uint64_t timerCount() const
    {
        return std::uint64_t{registers[ACQ_TIMER_HIGH]} << 32U | registers[ACQ_TIMER_LOW];
    }
    std::uint8_t triggerWord() const { return trigger.word(); }
    /// Value that an acquisition command without other effect has set last.
    std::uint32_t acquisitionRegister(std::size_t command) const { return registers.at(command); }
    /// Clock that Timepix pixels measure times with.
    double timepixClockMhz() const;
    const Shutter& shutterState() const { return shutter; }
    /// Frames, or blocks of rows, taken since power came on.
    std::uint64_t framesTaken() const { return frameNumber; }

protected:
    /// In what the boards differ.
    struct Build {
        const char* firmware;    ///< what it tells unless the entry says otherwise
        std::size_t lines;       ///< data lines, each of a module or channel
        const char* line;        ///< what a line is called in faults
        std::uint64_t timerTick; ///< of the shutter's timer, in units of 10 ns
        bool muxHoldsByte;       ///< the multiplexer puts a byte of its own in front of each line's
        Mpx2Levels passBy;       ///< pins with which data pass the chips' registers by
    };

    /// Throws std::runtime_error, with a text for people, for a bad entry. The board takes its power when it is
    /// complete, by `reset`.
    Mpx2Firmware(const nlohmann::json& board, const Build& build);

    void obey(const Frame& frame, Time now) final;
    void run(Time now) final;
    void endSeries() final;
    void applyPower() final;
    double adcVolts(unsigned channel) const final;

    /// Does what a frame with a command of this board alone says.
    virtual void obeyOwn(const Frame& frame, Time now) = 0;
    /// Bytes were shifted with no line selected.
    virtual void shiftNowhere(const Frame& frame) = 0;
    /// The shutter has closed: the chips have counted, and the host is told.
    virtual void finishFrame(const ShutterFrame& frame);

    // What commands of such boards do.
    void selectLines(const Frame& frame, Time now);
    void startFrame(const Frame& frame, Time now);

    /// Everything as after switching on; what the board is made of stays.
    void reset();
    /// True if the chips are under power and out of reset, with the pins as they belong and the shutter closed.
    bool chipsReady(const Frame& frame, const Mpx2Levels& levels);
    /// The same for a command that takes the output for what comes of it, which should not find anything waiting there.
    bool takeOutput(const Frame& frame, const Mpx2Levels& levels);
    std::vector<Mpx2Chain*> selectedLines();
    /// The line that a fault names.
    Mpx2Chain& lineOf(const nlohmann::json& fault);
    /// Begins frames by the triggers that a start command names, each as long as the timer says, and as the plan says
    /// at least. A shutter that opens by itself lets the chips have their clocks first.
    void openShutter(ShutterPlan plan, const Frame& start, Time now);
    Mpx2Exposure exposureOf(const ShutterFrame& frame) const;
    /// Ends a frame with the packet that tells its time, in ticks of the timer.
    void closeFrame(const ShutterFrame& frame);
    /// Delivers what was read and the packet that closes it, or less of it by a fault.
    void deliverReadout(std::span<const std::uint8_t> stream);

    std::vector<Mpx2Chain> chains; ///< one for each line
    Mpx2Readout readout;
    std::uint8_t selected = 0;

private:
    /// Commands of the acquisition that set a register of the same number.
    enum AcqRegister : std::uint8_t {
        ACQ_TIMER_LOW = 3,
        ACQ_TIMER_HIGH = 4,
        ACQ_PRE_DELAY = 7,
        ACQ_PRE_COUNT = 16,
        ACQ_PRE_DIVIDER = 17,
        ACQ_TIMEPIX_DIVIDER = 19,
        ACQ_COUNT3 = 20,
        ACQ_DIVIDER3 = 21,
    };
    static constexpr std::size_t ACQ_REGISTERS = 22;

    /// A fault of readouts.
    struct StreamFault {
        std::size_t bytes = 0;
        std::uint64_t readouts = 0; ///< that it still hits

        /// Bytes of the fault for the next readout.
        std::size_t hit() { return readouts > 0 ? --readouts, bytes : 0; }
    };

    static const std::array<Command<Mpx2Firmware>, 18> COMMANDS;

    // Peripheral 1, the chips.
    void shiftChips(const Frame& frame, Time now);
    void setPins(const Frame& frame, Time now);
    // Peripheral 5, acquisition.
    void stopFrame(const Frame& frame, Time now);
    void setTrigger(const Frame& frame, Time now);
    void setRegister(const Frame& frame, Time now);

    Clock::duration preShutterTime() const;

    const Build build;
    TriggerInput trigger;
    FramePace pace;
    Shutter shutter;

    std::uint16_t pinWord = 0;
    std::array<std::uint32_t, ACQ_REGISTERS> registers{};
    StreamFault shortStream;
    StreamFault lateTail;
    std::uint64_t frameNumber = 0;
};

} // namespace sim
