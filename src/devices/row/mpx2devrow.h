// One row board behind one USB link.
#pragma once

#include "devices/common/rowtimes.h"
#include "devices/mpx2/ampx2dev.h"

#include <array>
#include <atomic>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace HwLatixel {

/// A board with up to seven chips side by side, each on a channel of its own, all clocked out together. In its mode for
/// time-delayed integration (TDI) one shutter stays open for a whole series while the board delivers blocks of rows:
/// 256 rows make a frame. Never a member of a composite. For its life, its locks and its threads see AMpx2Dev.
///
/// Once the temperature protection has tripped, all that works on chips, timer or matrix refuses with 1 until the next
/// `initDevice`; `setBias` works on. A series of rows has the link's turn as a whole: what needs an answer or the chips
/// is refused until it is stopped or over.
class Mpx2DevRow : public AMpx2Dev {
public:
    static constexpr int CHANNELS = 7;
    // What `switchChannel` takes beside the number of a channel.
    static constexpr int ENABLED_CHANNELS = -1;
    static constexpr int NO_CHANNEL = -2;

    /// `biasType` is the variant letter of the name, which chooses the bias rule. Does no I/O.
    Mpx2DevRow(std::string name, IDorvet* dorvet, std::string logDir, std::string settingsFile, std::string biasType);
    ~Mpx2DevRow() override;

    // Life cycle (mpx2devrow_bringup.cpp)
    /// Opens the link and brings the board up: firmware text, flash, CPU, power, chips, identifiers. Takes some
    /// seconds. Fails only where the link does not open, with the link's result; a board without a working chip is a
    /// device without chips.
    int initDevice() override;
    /// Brings back link, power, bias, clock, pixel configuration and DACs; the configuration is written twice, or the
    /// chips don't take it. A running series is not prepared again.
    int recoverDevice() override;
    /// Reads the log's settings from the file `path`; a missing file or key leaves the present values.
    void loadSettings(const char* path) override;
    /// Selects one of the channels 0 to 4, or ENABLED_CHANNELS; anything else selects none. The multiplexer has no way
    /// to the channels 5 and 6 alone: what goes channel by channel, DACs and matrix, never reaches their chips.
    int switchChannel(int channel);
    /// Finds the chips by a test pattern that goes past all of them at once. Returns 0.
    int getChipCount();
    /// Reads the identifier of each chip, and with it the chip type.
    int readChipInfo() { return AMpx2Dev::readChipInfo(0); }

    // Configuration (mpx2devrow_config.cpp)
    /// Over SPI, also where there is a CPU. -1 on a board that has no bias limits.
    int setBias(double volts) override;
    /// Highest bias in volts that the type letter stands for.
    double getMaxBias() const;
    int setInterfaceDac(char dac, double value) override;
    int setPixelCfg(const unsigned char* cfg, std::size_t size) override;
    int writeMatrix(const unsigned short* matrix, std::size_t size, bool convert) override;

    // Matrices (mpx2devrow_config.cpp)
    /// Reads the chips, which clears their counters, and fills the stream buffer with ones: pixels of it that no later
    /// stream brings count as 0.
    int eraseMatrix() override;
    /// Brings the raw stream of all chips into the stream buffer, and leaves the counters cleared. With `rowOnly` one
    /// row, in front of the rows that are there. What a short stream does not bring stays as it was.
    virtual int readMatrixFromDevice(bool rowOnly);
    /// Takes a block of `rows` rows of a TDI series into the stream buffer, behind those of the same frame. Waits up to
    /// 2 s; rows that do not come, or that find no room, are left out. Returns 0.
    virtual int readContinuousMatrixFromDevice(unsigned long rows);

    // Series (mpx2devrow_acq.cpp)
    /// Tells the board how many bits a block of "TdiRowCount" rows has.
    virtual int setReadoutBitCount();
    void acqFunc() override;
    virtual void acqFuncContinuous();

protected:
    std::vector<ChipGroup> chipGroups() const override;
    int switchGroup(int number) override { return switchChannel(number); }
    std::unique_ptr<IBCpuMgr<CmdMgr>> makeCpu() override;
    int requireChips() const override;
    int readStream(std::span<unsigned char> stream, StreamCount& count) override;
    int readMatrixCounting(unsigned short* matrix, std::size_t size, bool convert, std::size_t& missing) override;
    void decodeStream(std::span<const unsigned char> stream, std::span<unsigned short> matrix,
                      bool convert) const override;
    void describeFrame(dv::IMpxFrame& frame) override;
    double shutterTime(double seconds) const override;
    bool preparedForRows() const { return (seriesMode & dv::ACQMODE_TDI) != 0; }
    int prepareReadout() override { return setReadoutBitCount(); }
    void reserveLink() override;
    int checkSeries(unsigned count) override;
    void onReadParam(dv::IParam* param) override;

private:
    /// Rows of a block at most: more have more bits than the board can be told.
    static constexpr std::uint32_t MAX_BLOCK_ROWS = (1UL << 24) / (8 * MPX2_ROW_STREAM_STRIDE);
    /// Blocks of a series at most, for the same reason.
    static constexpr std::uint64_t MAX_BLOCKS = (1UL << 24) - 1;

    // Bring-up steps
    void findChips();
    void logChipIds() const;
    void exchangePattern(std::span<unsigned char> reply);
    int restoreChips();

    // Matrices
    int readOut(std::span<unsigned char> stream, bool rowOnly, StreamCount& count);
    int receiveStream(std::span<unsigned char> stream, StreamCount& count);
    int receiveRow(std::span<unsigned char> stream);
    int readRows(unsigned long rows, StreamCount& count);

    // Series
    unsigned tdiRowCount() const;
    std::uint64_t blocksOf(std::uint64_t frames) const;
    int startRows(std::uint64_t blocks);
    bool readTdiFrame(unsigned rows, StreamCount& count);
    Pass runRows(std::uint64_t& frame, StreamCount& count);
    void leaveRows();

    Buffer<unsigned char> pixelCfgBackup{0, false}; ///< the host's last pixel configuration; the turn
    std::string biasTypeText;
    std::array<int, CHANNELS> channelEnabled{}; ///< 1 for a channel with a chip; set at bring-up, then only read

    std::atomic<std::uint64_t> rowsRead{0}; ///< rows of the current TDI frame in the stream buffer
    std::atomic<bool> seriesOfRows{false};  ///< the mode of the series that runs
    std::atomic<bool> rowsMissed{false};    ///< a block of the TDI series has come short, and may come yet
    RowTimes rowTimes;
};

} // namespace HwLatixel
