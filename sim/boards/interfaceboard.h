// What the readout boards of the newer generations have in common, whatever chips they carry: the way from bytes to
// commands, the firmware's name, the SPI peripheral with its slaves, and who delivers to the host.
//
// Keys of every such board in a bench:
//   "firmware"      text of up to 29 characters
//   "flash"         parameter store or raw image (sim/boards/flash.h); missing: no flash answers, all bits 1
//   "cpu"           the board's CPU (sim/boards/boardcpu.h); missing or null: none
//   "bias"          the bias supply (sim/boards/analog.h)
//   "temperature"   of the board, degrees Celsius (31.5)
//   "adc"           volts on further ADC channels, as {"3": 1.52}
//
// Faults of every such board:
//   {"kind": "cpu_overheated", "text": ...}             status 4, chips off, until the next temperature reset
//   {"kind": "cpu_status", "status": 2, "text": ...}    another status, until the next temperature reset
//   {"kind": "flash", ... keys of "flash" that replace those of the board, as "magic", "version", "image"}
//   {"kind": "firmware", "text": ...}                   another firmware's name, "" for none
//   {"kind": "hang"}                                    takes and sends nothing until the host resets the bit mode
#pragma once

#include "sim/boards/analog.h"
#include "sim/boards/board.h"
#include "sim/boards/boardcpu.h"
#include "sim/boards/flash.h"
#include "sim/wire/frames.h"

#include <nlohmann/json.hpp>

namespace sim {

/// Values of a command rule's flag sets: bit n stands for the flags value n.
namespace flagset {
constexpr std::uint8_t BARE = 1U << 0U;
constexpr std::uint8_t TAKES_OUTPUT = 1U << 2U;
constexpr std::uint8_t HELD_PAYLOAD = 1U << 1U;
constexpr std::uint8_t PAYLOAD = 1U << 5U;
constexpr std::uint8_t ANSWERED_PAYLOAD = 1U << 7U;
} // namespace flagset

class LATIXELSIM_API InterfaceBoard : public Board {
public:
    static constexpr std::size_t FIRMWARE_BYTES = 29;

    void receive(std::span<const std::uint8_t> bytes, Time now) override;
    void advance(Time now) override;
    void setBitMode(std::uint8_t mask, std::uint8_t mode, Time now) override;
    void powerCycle(Time now) override;
    bool applyFault(const nlohmann::json& fault) override;
    void clearFaults() override;

    // What tests look at.
    /// All frames since `clearFrames`, with their payloads, also those that were refused.
    const std::vector<Frame>& frames() const { return seen; }
    void clearFrames() { seen.clear(); }
    /// True when no frame and no payload is half received.
    bool idle() const { return parser.idle(); }
    BoardCpu& cpu() { return boardCpu; }
    const BoardCpu& cpu() const { return boardCpu; }
    const Flash& flash() const { return flashChip; }
    const BiasSupply& biasSupply() const { return bias; }
    int biasCode() const { return biasDac.code(); }

protected:
    /// Numbers of the peripherals that frames are addressed to.
    enum Peripheral : std::uint8_t { PERI_CHIPS = 1, PERI_INFO = 2, PERI_SPI = 4, PERI_ACQ = 5 };
    /// Who delivers to the host.
    enum class Output { Chips, Info, Spi };

    /// A command of a board, and the operation that does it.
    template <typename BoardClass>
    struct Command {
        CommandRule rule;
        void (BoardClass::*act)(const Frame& frame, Time now);
    };

    /// `firmwareName` is what the firmware tells unless the entry says otherwise. Throws std::runtime_error, with a
    /// text for people, for a bad entry.
    InterfaceBoard(const nlohmann::json& board, const char* firmwareName, const BiasWiring& wiring);

    /// Does what a frame commands.
    virtual void obey(const Frame& frame, Time now) = 0;
    /// Lets the board's own timers run up to `now`.
    virtual void run(Time now) = 0;
    /// Ends what takes frames, without a word.
    virtual void endSeries() = 0;
    /// The power of the chips may have changed.
    virtual void applyPower() = 0;
    /// Volts on a channel of the ADC.
    virtual double adcVolts(unsigned channel) const;
    /// Code at which the bias supply works.
    virtual int suppliedCode() const { return biasDac.code(); }

    // What commands of every board do.
    void tellFirmware(const Frame& frame, Time now);
    void spiData(const Frame& frame, Time now);
    void spiSet(const Frame& frame, Time now);
    void spiSelect(const Frame& frame, Time now);
    void spiSend(const Frame& frame, Time now);

    /// Looks the command up in a table and does it, unless the firmware has something against it. Returns false if the
    /// table does not have it.
    template <typename BoardClass, std::size_t count>
    static bool obeyIfKnown(const std::array<Command<BoardClass>, count>& commands, BoardClass& board,
                            const Frame& frame, Time now)
    {
        for (const Command<BoardClass>& command : commands)
            if (command.rule.peripheral == frame.peripheral && command.rule.command == frame.command) {
                const std::string against = objection(command.rule, frame);
                if (against.empty())
                    (board.*command.act)(frame, now);
                else
                    board.violate(against, frame.head());
                return true;
            }
        return false;
    }
    /// The same for the last table that there is.
    template <typename BoardClass, std::size_t count>
    static void obeyBy(const std::array<Command<BoardClass>, count>& commands, BoardClass& board, const Frame& frame,
                       Time now)
    {
        if (!obeyIfKnown(commands, board, frame, now))
            board.violate("unknown command", frame.head());
    }

    void giveOutput(Output to);
    /// Sends, if the output belongs to `from`. What the chips send waits for the output; the answers of the other
    /// peripherals are lost without it.
    void deliver(Output from, std::span<const std::uint8_t> bytes);
    /// True while something that the chips have sent waits for the output.
    bool chipsWait() const { return !chipBacklog.empty(); }
    /// Takes a long stream's beginning alone into a violation.
    Complain complainAbout();
    /// The firmware's side of the link begins anew.
    void resetLink();

private:
    void handle(Frame&& frame, Time now);

    std::string firmware;
    const std::string usualFirmware;
    const nlohmann::json flashEntry;
    BoardCpu boardCpu;
    Flash flashChip;
    BiasDac biasDac;
    Adc adc;
    BiasSupply bias;
    SpiBus spi;
    double temperature;
    std::array<double, Adc::CHANNELS> restingVolts{};

    FrameParser parser;
    std::vector<Frame> seen;
    bool fifoMode = true;
    bool hung = false;
    Output output = Output::Chips;
    Bytes chipBacklog;
};

} // namespace sim
