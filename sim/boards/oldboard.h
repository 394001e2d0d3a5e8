// The readout boards of the old generation: their firmware with its table of commands, and one to four modules of
// Timepix chips that share one link, written from the wire's point of view. Two kinds: the USB2 board, and the Fenxel
// board that came after it. They differ in the switch of modules, and in the ADC.
//
// The board answers each frame that it understands with one of the same command: what the command tells, or zeros; or
// FF FF FF if it refuses. A command with data goes on: the host sends its data, the board sends its own, and then a
// second frame of the command, all zeros, or FF FF FF for data that the chips cannot take. Data have the length of the
// chips that were counted last (13). Between the answers stand the frames of a measurement that nothing asks for: 06
// with 22 22 22 when the shutter opens, and 44 44 44 when it closes, or is closed by a break, before that is answered.
// A frame with a wrong check byte gets no answer. Data that stop for half a second are refused as they are.
//
//   00  firmware: p0 the years since 2010 and the month, 4 bits each; p1 the day in the low 5 bits; p2 its number
//   03  shutter timer, bytes 5 4 3 of its ticks
//   04  the same, bytes 2 1 0
//   05  external DACs: p0 names them in its high nibble, p1 and p2 are 14 bits, 2000 for a volt
//   07  bias: 18, code, code
//   08  divider of the Timepix clock, 16 bits; p2 is 1 for a clock that is not divided
//   13  chips of a module, in the low 5 bits of p2; counted on the active module, or told by p2 of the host
//   14  p1: bit 0 for a trigger that starts measurements, bit 1 for one that ends them; p2: 80 or 0
//   20  reads the matrix: FF for each chip, the images of all chips as in sim/boards/mpx2readout.h, and the length of
//       the last measurement in ticks as two frames, 55 03 with bytes 5 4 3, and 55 04 with bytes 2 1 0
//   21  writes the matrix: FF, the images, and what fills up 114721 bytes for each chip
//   22  starts a measurement of all modules: 40, 0, 0
//   23  breaks it
//   24  DAC registers, 33 bytes for each chip: FF and the records go in, FF for each chip and the old records come out
//   26  resets all chips
//   27  clears the counters of the active module
//   35  p0: clock of the timer in MHz
//   36  p0: clock that the Timepix clock is made of, in MHz
//   40  ADC, channel p2; 12 bits in p0 and p1, with the channel in front
//   41  power of all chips, p2; it is on when the board is switched on
//   43  active module, p2 (Fenxel)
//   68  the same, in all three parameters (USB2)
//
// Keys of its entry in a bench:
//   "modules"          list of one to four modules, each a list of as many chip identifiers: [["C07-W0123"], [""]]
//   "addresses"        what the host selects each module by, 0 to 255 ([0, 1, 2, 3])
//   "firmware_number"  0 to 255 (23)
//   "firmware_date"    from 2010 to 2025 ("2012-09-14")
//   "timer_mhz"        1 to 100 (100), "timepix_mhz" 1 to 255 (50)
//   "scene"            the picture behind the sensor (sim/world/scene.h); also a key of the bench, for all boards
//
// Faults of its own. Those of frames hit "frames" of them, or all if it is missing, of the "command", named as in the
// table of commands, or of any:
//   {"kind": "no_answer", "command": "Test", "frames": n}              the frame is not sent
//   {"kind": "wrong_check", ...}                                       it is sent with a wrong check byte
//   {"kind": "late_frame", "delay_s": 1.5, ...}                        it is late, and with it all behind it
//   {"kind": "refuse", ...}                                            the command is refused, and not done
//   {"kind": "refuse_data", ...}                                       it is done, but its data are refused
//   {"kind": "short_data", "bytes": 1000, ...}                         the end of the board's data is missing
//   {"kind": "module_silent", "module": m}
//   {"kind": "chip_missing", "module": m, "position": p}               its neighbours are joined
//   {"kind": "stuck_line", "module": m, "level": 0 or 1}
#pragma once

#include "sim/boards/board.h"
#include "sim/boards/mpx2readout.h"
#include "sim/wire/oldframes.h"
#include "sim/world/shutter.h"

#include <deque>
#include <nlohmann/json.hpp>

namespace sim {

class LATIXELSIM_API OldBoard : public Board {
public:
    enum class Kind { Usb2, Fenxel };
    static constexpr std::size_t MOST_MODULES = 4;
    static constexpr std::size_t EXTERNAL_DACS = 4;

    /// Throws std::runtime_error, with a text for people, for a bad entry.
    OldBoard(Kind kind, const nlohmann::json& board, const nlohmann::json& bench);

    void receive(std::span<const std::uint8_t> bytes, Time now) override;
    void advance(Time now) override;
    void setBitMode(std::uint8_t mask, std::uint8_t mode, Time now) override;
    void powerCycle(Time now) override;
    void externalTrigger(Time now) override;
    bool applyFault(const nlohmann::json& fault) override;
    void clearFaults() override;

    // What tests look at.
    /// All good frames since `clearFrames`, with their data, also those that were refused.
    const std::vector<OldFrame>& frames() const { return seen; }
    /// Forgets them, but for one whose data are on their way.
    void clearFrames() { seen.erase(seen.begin(), seen.end() - (takesData != nullptr ? 1 : 0)); }
    Mpx2Chain& module(std::size_t number) { return chains.at(number); }
    Mpx2Chip& chip(std::size_t number, std::size_t position = 0) { return chains.at(number).chip(position); }
    /// What the host has selected a module by last.
    std::uint8_t activeAddress() const { return active; }
    /// Chips of a module, once they have been counted.
    std::size_t chipsCounted() const { return counted; }
    bool chipsPowered() const { return powered; }
    /// Shutter time in ticks of the board's timer.
    std::uint64_t timerCount() const { return timer; }
    double timepixClockMhz() const;
    /// Bit 0: a trigger starts a measurement; bit 1: a trigger ends it.
    std::uint8_t triggerMode() const { return trigger; }
    /// Code of the bias that was set last, or -1, and the volts that it gives.
    int biasCode() const { return bias; }
    double biasVolts() const;
    double externalDacVolts(std::size_t dac) const;
    const Shutter& shutterState() const { return shutter; }
    /// Measurements since power came on.
    std::uint64_t framesTaken() const { return frameNumber; }

private:
    /// In what the kinds differ.
    struct Build {
        std::uint8_t othersSwitch; ///< command by which the other kind switches its modules
        unsigned adcChannels;
        double adcRange; ///< volts
        unsigned senseChannel;
    };
    /// What a command answers, or none if it is refused.
    using Answer = std::optional<OldParams>;

    struct Command {
        std::uint8_t number;
        const char* name;    ///< by which faults know it
        std::uint32_t fixed; ///< bits that the parameters must have
        std::uint32_t free;  ///< bits that they may have
        Answer (OldBoard::*act)(const OldFrame& frame, Time now);
        Bytes (OldBoard::*exchange)(std::span<const std::uint8_t> data); ///< what it delivers for the host's data
        std::size_t chipBytes;                                           ///< of the host's data for each chip
    };
    static const std::array<Command, 22> COMMANDS;

    enum class FaultKind { NoAnswer, WrongCheck, LateFrame, Refuse, RefuseData, ShortData };
    struct FrameFault {
        FaultKind kind;
        std::optional<std::uint8_t> command;
        std::uint64_t frames; ///< that it still hits
        Clock::duration delay;
        std::size_t bytes;
    };
    struct Posted {
        Time due;
        Bytes bytes;
    };

    static const Build& buildOf(Kind kind);

    void buildModules(const nlohmann::json& board, const nlohmann::json& bench);
    void readFirmware(const nlohmann::json& board);
    bool applyFrameFault(const std::string& kind, const nlohmann::json& fault);
    std::optional<FrameFault> hit(FaultKind kind, std::uint8_t command);

    // The link.
    const Command* commandOf(const OldFrame& frame);
    void obey(Time now);
    std::size_t takeData(std::span<const std::uint8_t> bytes, Time now);
    void finishData(Time now);
    void send(std::uint8_t command, const OldParams& params, Time at);
    void post(Bytes bytes, Time due);
    Complain complainAbout();
    void resetLink();

    // What commands do.
    Answer tellFirmware(const OldFrame& frame, Time now);
    Answer setTimerHigh(const OldFrame& frame, Time now);
    Answer setTimerLow(const OldFrame& frame, Time now);
    Answer setExternalDac(const OldFrame& frame, Time now);
    Answer setBias(const OldFrame& frame, Time now);
    Answer setTimepixClock(const OldFrame& frame, Time now);
    Answer countChips(const OldFrame& frame, Time now);
    Answer setMeasurement(const OldFrame& frame, Time now);
    Answer startMeasurement(const OldFrame& frame, Time now);
    Answer breakMeasurement(const OldFrame& frame, Time now);
    Answer checkChips(const OldFrame& frame, Time now);
    Answer resetChips(const OldFrame& frame, Time now);
    Answer eraseMatrix(const OldFrame& frame, Time now);
    Answer tellTimerClock(const OldFrame& frame, Time now);
    Answer tellTimepixClock(const OldFrame& frame, Time now);
    Answer readAdc(const OldFrame& frame, Time now);
    Answer setPower(const OldFrame& frame, Time now);
    Answer switchModule(const OldFrame& frame, Time now);
    Bytes readMatrix(std::span<const std::uint8_t> data);
    Bytes writeMatrix(std::span<const std::uint8_t> data);
    Bytes shiftDacs(std::span<const std::uint8_t> data);

    bool chipsReady() const { return powered && shutter.idle(); }
    Mpx2Chain* activeModule();
    double adcVolts(unsigned channel);
    void applyPower(bool on);
    void reset();
    void run(Time now);
    void finishFrame(const ShutterFrame& frame);

    const Build build;
    std::vector<Mpx2Chain> chains; ///< one for each module
    Bytes addresses;
    OldParams firmware{};
    const unsigned timerMhz;
    const unsigned timepixMhz;

    // The link.
    OldFrameParser parser;
    std::vector<OldFrame> seen;
    const Command* takesData = nullptr; ///< the command whose data are on their way; its frame is the last one seen
    std::size_t dataMissing = 0;
    Time lastData{};
    bool dataGood = true; ///< the chips had nothing against them
    std::deque<Posted> posted;
    bool fifoMode = true;
    std::vector<FrameFault> faults;

    // The board, as the host has set it.
    std::uint8_t active = 0;
    std::size_t counted = 0;
    bool powered = false;
    std::uint64_t timer = 0;
    std::uint32_t clockWord = 0;
    std::uint8_t trigger = 0;
    int bias = -1;
    std::array<std::uint16_t, EXTERNAL_DACS> dacCodes{};
    Shutter shutter;
    std::uint64_t measured = 0; ///< ticks of the last measurement
    std::uint64_t frameNumber = 0;
    Mpx2Readout readout{{}};
};

/// Make boards of the kinds "mpx2usb2" and "fenxel".
LATIXELSIM_API std::unique_ptr<Board> makeUsb2Board(const nlohmann::json& board, const nlohmann::json& bench);
LATIXELSIM_API std::unique_ptr<Board> makeFenxelBoard(const nlohmann::json& board, const nlohmann::json& bench);

} // namespace sim
