// The Medipix3 readout board: its firmware with the command tables, and up to five channels of chips, written from the
// wire's point of view.
//
// Keys of its entry in a bench, beside those of every board, of sim/boards/interfaceboard.h, sim/wire/framepace.h and
// sim/world/triggerinput.h:
//   "channels"      list of up to five channels, each a list of up to two chip identifiers, as [["C07-W0123"], []]
//   "scene"         the picture behind the sensor (sim/world/scene.h); also a key of the bench, for all boards
//
// Faults of its own:
//   {"kind": "stuck_channel", "channel": c, "level": 0 or 1}
//   {"kind": "chip_missing", "channel": c, "position": 0 or 1}
#pragma once

#include "sim/boards/interfaceboard.h"
#include "sim/boards/mpx3readout.h"
#include "sim/wire/framepace.h"

namespace sim {

class LATIXELSIM_API Mpx3Board : public InterfaceBoard {
public:
    static constexpr std::size_t CHANNEL_COUNT = 5;

    /// Throws std::runtime_error, with a text for people, for a bad entry.
    Mpx3Board(const nlohmann::json& board, const nlohmann::json& bench);

    void powerCycle(Time now) override;
    void externalTrigger(Time now) override;
    void setBitMode(std::uint8_t mask, std::uint8_t mode, Time now) override;
    bool applyFault(const nlohmann::json& fault) override;
    void clearFaults() override;

    // What tests look at.
    Mpx3Chain& channel(std::size_t number) { return chains.at(number); }
    Mpx3Chip& chip(std::size_t number, std::size_t position = 0) { return chains.at(number).chip(position); }
    bool biasDischarged() const { return discharged; }
    std::uint8_t pins() const { return pinWord; }
    bool chipsPowered() const { return (pinWord & PIN_POWER) != 0 && !cpu().overheated(); }
    /// Shutter time in units of 10 ns.
    std::uint64_t timerCount() const { return timer; }
    std::uint8_t triggerWord() const { return trigger.word(); }
    std::uint8_t dataMask() const { return enabledChannels; }
    std::uint8_t selectMask() const { return selectedChannels; }
    bool twoChipsPerChannel() const { return chainLength == 2; }
    bool continuousReadWrite() const { return continuous; }
    /// What the firmware's own readouts deliver, once the host has said it.
    const std::optional<ReadoutOrder>& storedReadout() const { return stored; }
    /// The first eight bytes of the image that reads a counter.
    const std::array<std::uint8_t, 8>& readoutImage(unsigned counter) const { return images.at(counter); }
    const Shutter& shutterState() const { return shutter; }
    /// Frames, or rows of a row series, taken since power came on.
    std::uint64_t framesTaken() const { return frameNumber; }

private:
    static constexpr std::uint8_t PIN_POWER = 1, PIN_RESET = 2, PIN_FAST_CLEAR = 4;

    static const std::array<Command<Mpx3Board>, 23> COMMANDS;

    void obey(const Frame& frame, Time now) override { obeyBy(COMMANDS, *this, frame, now); }
    void run(Time now) override;
    void endSeries() final;
    void applyPower() final;
    double adcVolts(unsigned channel) const override;
    int suppliedCode() const override { return discharged ? -1 : biasCode(); }

    // Peripheral 1, the chips.
    void handOutputBack(const Frame& frame, Time now);
    void setPins(const Frame& frame, Time now);
    void readNow(const Frame& frame, Time now);
    void selectChannels(const Frame& frame, Time now);
    void storeReadout(const Frame& frame, Time now);
    void storeImage(const Frame& frame, Time now);
    void setContinuous(const Frame& frame, Time now);
    void setChainLength(const Frame& frame, Time now);
    void shiftChips(const Frame& frame, Time now);
    // Peripheral 4, SPI.
    void switchDischarge(const Frame& frame, Time now);
    // Peripheral 5, acquisition.
    void startFrames(const Frame& frame, Time now);
    void stopFrames(const Frame& frame, Time now);
    void setTimer(const Frame& frame, Time now);
    void setTrigger(const Frame& frame, Time now);

    void buildChains(const nlohmann::json& board, const nlohmann::json& bench);
    void reset();
    void finishFrame(const ShutterFrame& frame);
    void readOut(const ReadoutOrder& order);
    Mpx3Omr readoutOmr(unsigned counter) const;

    std::array<Mpx3Chain, CHANNEL_COUNT> chains;
    TriggerInput trigger;
    FramePace pace;

    std::uint8_t pinWord = 0;
    std::uint8_t selectedChannels = 0;
    std::uint8_t enabledChannels = 0;
    std::size_t chainLength = 1;
    bool continuous = false;
    bool discharged = false;
    std::uint64_t timer = 0;
    std::optional<ReadoutOrder> stored;
    std::array<std::array<std::uint8_t, 8>, 2> images{};

    Shutter shutter;
    bool rowSeries = false;
    std::uint64_t frameNumber = 0;
    Packet lastPacket{};
    Mpx3Readout readout;
};

/// Makes a board of the kind "mpx3".
LATIXELSIM_API std::unique_ptr<Board> makeMpx3Board(const nlohmann::json& board, const nlohmann::json& bench);

} // namespace sim
