// One Medipix3 readout board behind one USB link.
#pragma once

#include "board/ibbiasparams.h"
#include "board/ibcpumgr.h"
#include "board/ibflash.h"
#include "chipdata/mpx3matrix.h"
#include "chipdata/mpx3omr.h"
#include "devices/common/boardlink.h"
#include "devices/common/rowtimes.h"
#include "devices/common/seriesthread.h"
#include "devices/mpx3/ampx3dev.h"
#include "link/cmdmgrmpx3.h"

#include <array>
#include <atomic>
#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <vector>

namespace HwLatixel {

/// A board with up to five channels, one or two Medipix3 chips on each, a flash store and perhaps a CPU. It stands
/// alone or as a member of a composite.
///
/// A physical channel is 0 to 4. A detected channel is a position in `channelMasks`, and what every operation after
/// bring-up counts in; chips are numbered through the detected channels.
///
/// Locks, in the order in which they are taken: `devSync` around command sequences, `dataSync` around the frame in
/// progress, `startSync`, `cpuSync` around the board CPU, the report's lock. A series has one detached thread,
/// "mpx3devacq"; it holds `dataSync` for the whole of a frame and never `devSync`, but for the drain after a stopped
/// TDI series.
class Mpx3Dev : public AMpx3Dev {
public:
    /// `variant` is the variant letter of the name, which chooses the bias rule. `fromLad` is true for a member of a
    /// composite.
    Mpx3Dev(std::string name, IDorvet* dorvet, std::string logDir, std::string settingsFile, std::string variant,
            bool fromLad);
    ~Mpx3Dev() override;

    // Life cycle (mpx3dev_bringup.cpp)
    /// Opens the link and brings the board up: firmware text, flash, CPU, power, chips. Takes some seconds. Fails only
    /// where the link does not open, with the link's result; a board without a working chip is a device without chips.
    int initDevice() override;
    /// Ends a running series, powers the chips down and closes the link. Not to be called from an event callback.
    int closeDevice() override;
    int resetDevice() override;
    int resetMedipix() override;
    /// Chip power, and the CPU's power command where there is a CPU. Returns the result of the pin command.
    int setPower(bool on);
    void loadSettings(const char* path) override;

    // Identity and status (mpx3dev_bringup.cpp, mpx3dev_params.cpp)
    std::string serialNum() const;
    int chipCount() const { return chipCountValue; }
    std::string firmware() const { return firmwareText; }
    /// Asks the board's CPU. Trips the temperature protection: from then on DACs, matrices, timer and series are
    /// refused until the next `initDevice`. While a series runs or is prepared, where the device is busy for 100 ms,
    /// and without a CPU, the last value comes back without a transfer.
    int deviceStatus() const override;
    const char* deviceStatusText() const override;
    /// Refreshes the CPU's values in `parameters`, at most once a second.
    void readSenseValuesFromCpu() const;

    // Configuration (mpx3dev_config.cpp)
    /// Loads the DACs of `chip`, or of all with -1, from an array of 27 values for each chip of the device. A chip
    /// selects its whole channel.
    int setDacs(const unsigned short* dacs, std::size_t count, int chip) override;
    int setConfig(dv::_Mpx3Config config) override;
    /// Selects the DAC on the sense output. `chip` is compared with the channel, not with the chip number: with two
    /// chips on a channel the chips of channel `chip` are meant.
    int senseDac(unsigned chip, unsigned dac) override;
    int setExtDac(unsigned chip, int dac, double value) override;
    int setCTPR(const unsigned char* ctpr, unsigned long size);
    /// Sets the shutter time. The board counts it in units of 10 ns, 48 bits.
    int setTimer(double seconds);
    int setTriggerSettings();

    // Bias and ADC (mpx3dev_sense.cpp)
    /// -1 on a board that has no bias limits. A voltage beyond the limits is limited silently.
    int setBias(double volts) override;
    /// Measured bias; while a series runs the last measured one. -1 when both values are exactly 0.
    int biasVoltageCurrentSense(double* volts, double* amperes) const override;
    int adcCount() const override { return 16; }
    double adcValue(unsigned index) const override;
    /// Volts at ADC channel 0, which carries the sense output that `senseDac` has selected, whatever `chip` says.
    int analogValue(unsigned chip, double* value) override;
    int getDacAnalogValue(unsigned chip, unsigned dac, double* value);
    /// Degrees Celsius of a chip, from its temperature and band gap outputs.
    double readTemperature(int chip);

    // Matrices (mpx3dev_matrix.cpp)
    int readMatrix(unsigned* data, std::size_t size, bool convert) override;
    int readMatrix(unsigned* data, std::size_t size, unsigned char counter, bool convert) override;
    int writeMatrix(const unsigned* data, std::size_t size, bool convert) override;
    int writeMatrix(const unsigned* data, std::size_t size, unsigned char counter, bool convert) override;
    int eraseMatrix() override;
    int fastClearMatrix();

    // Series (mpx3dev_acq.cpp)
    int setAcqMode(unsigned mode) override;
    int startAcquisition(unsigned count, double time) override;
    int stopAcquisition() override;
    dv::IMpxFrame* lastData() override;
    /// Brings timer, chips, triggers and data path into the state in which a series starts. `allowBurst` is false in a
    /// composite, which hands over each frame itself.
    int prepareAcquisition(unsigned count, double time, bool allowBurst);
    /// Starts the series that `prepareAcquisition` has prepared.
    int startAcquisitionFromLad();
    /// Gives the last frame up unread, so that the series may overwrite it.
    void releaseFrame() { matrixReadEvent.set(); }
    /// Waits until the threads of a series that ends are gone. One that goes on is stopped after half a second.
    void awaitSeriesEnd();
    void acqFunc() override;

    /// Switches the debug log on or off; what the settings switch on stays on until then.
    void setDebugLog(bool on);

    /// A copy of the register image.
    virtual OMR omr() const { return omrValue; }

private:
    static constexpr int PHYSICAL_CHANNELS = 5;
    static constexpr int ALL_CHANNELS = -1;
    /// Seconds; a series of shorter frames hands its events to the dispatcher's worker while the board goes on
    /// exposing.
    static constexpr double BURST_THRESHOLD = 0.1;

    // Bring-up steps (mpx3dev_bringup.cpp)
    int openLink();
    void readFirmware();
    void readFlashParameters();
    void initCpu();
    int detectChipCount();
    int readChipIDs();
    int countChips(int channel, int* chips);
    int readChannelIDs(int channel);
    void addChip(const std::string& id);
    int exchangeFuses(int channel, std::size_t size, unsigned char* answer);
    void logDetected() const;
    void sizeBuffers();
    void completeMpxInfo();
    void waitForSeriesEnd();
    int setPins(unsigned char word) const;

    // Parameters (mpx3dev_params.cpp)
    void initParameters();
    static int paramReadSetFunc(dv::IParam* param, bool isRead, long user);
    static int paramReadSetFuncCpu(dv::IParam* param, bool isRead, long user);
    void onReadParam(dv::IParam* param);
    void onWriteParam(dv::IParam* param);
    void onReadParamCpu();

    // Commands (mpx3dev_config.cpp)
    int sendShift(const unsigned char* data, std::size_t size, unsigned char flags) const
    {
        return link.sendPayload(mpx3::MpxCmd::Shift, data, size, flags);
    }
    int switchChannel(int channel, bool dataEnable, bool physical, bool log);
    int channelMask(int channel, bool physical) const;
    int sendOMR();
    int sendOMRMode(unsigned char mode);
    int setReadoutOMRs();
    int setDacsSingleChannel(const unsigned short* dacs, unsigned long count, int channel);
    void logFunction(const char* title, bool underline = true) const { report.section(title, underline); }
    int requireChips() const;
    int requireLink() const;
    int chipsPerChannel() const { return channelCount > 0 ? chipCountValue / channelCount : 0; }
    /// Reads one ADC channel (0 to 15), 12 bits. `flag` is a bit of the ADC's command word, always true here.
    int getADC(unsigned char channel, unsigned short* value, bool flag) const;
    unsigned short readSenseCode(unsigned char channel) const;

    // Matrices (mpx3dev_matrix.cpp)
    int writeMatrixChannel(const unsigned* data, unsigned long size, unsigned char counter, int channel, bool convert);
    int writeCounters(const unsigned* data, unsigned long size, unsigned char counter, const OMR& saved);
    int writeMatrixSingleCounter(const unsigned* data, unsigned long size, bool lowCounter);
    int readMatrixFromDevice(unsigned* data, std::size_t size, unsigned char counter, bool convert);
    int readMatrixStream(int channel, bool sendCommand);
    int dropMatrixStream();
    unsigned long matrixStreamSize(int channels) const;
    void convertMatrixStream(const Buffer<unsigned char>& stream, unsigned long received, std::span<unsigned> matrix,
                             std::size_t convertSize, int counters, int channel, bool convert) const;
    Mpx3StreamShape streamShape(int channel) const;
    unsigned long long getReadBitsSize() const { return mpx3ReadBits(omrValue, twoChips); }
    CmdArgs streamParams() const;
    int setMatrixStreamParams();

    // Series (mpx3dev_acq.cpp)
    void startSeriesThread();
    unsigned char startFlags(bool continuous) const;
    void tellStop();
    void requestStop();
    int sendStart(unsigned char flags, std::uint32_t frameWord);
    void acqFuncNormal();
    void acqFuncCRW();
    void acqFuncTDI();
    void openHandOver(bool throughWorker);
    int runFrames(bool startEachFrame);
    int takeFrame(bool startCommand);
    int waitForFrameEnd();
    bool waitForReader();
    void announceFrame(unsigned index, bool throughWorker);
    void endSeries(int result);
    void readTdiFrame();
    void readTDIMatrixFromDevice();

    ThreadSyncObject startSync; ///< keeps the start command and the request for a stop apart
    ThreadSyncObject dataSync;  ///< guards streamBuffer and readBytes against the acquisition thread
    /// The last matrix stream; dataSync, or the matrixReadEvent hand-shake.
    Buffer<unsigned char> streamBuffer{0, false};
    Buffer<unsigned char> streamCopy{0, false};        ///< what a read during a series decodes from; the reader's
    unsigned long readBytes = 0;                       ///< bytes in streamBuffer; goes with it
    Event matrixReadEvent{false, false, "matrixRead"}; ///< the reader has taken streamBuffer away

    BoardLink<CmdMgrMpx3> link{report};
    std::unique_ptr<IBFlashFpxMpx3<CmdMgrMpx3>> ibFlash;
    std::unique_ptr<IBCpuMgrMpx3> ibCpu; ///< null when the board has no usable CPU
    IBBiasParams biasParams;

    // Set at bring-up, then only read
    std::string firmwareText;
    std::string biasTypeText;
    int channelCount = 0;          ///< channels that answered
    bool fromLad;                  ///< stored, not read
    bool readParallel = true;      ///< setting "ReadParallel"
    bool skipPeriodicLog = false;  ///< setting "DebugLogSkipPeriodic"
    bool twoChips = false;         ///< two chips on each channel
    std::vector<int> channelMasks; ///< bit of each detected channel; a second bring-up appends to it
    std::array<int, PHYSICAL_CHANNELS> moduleEnable{1, 1, 1, 1, 1}; ///< settings "Module0" to "Module4"

    // Set by the host's thread while no series runs
    OMR omrValue;
    int triggerMode = 0; ///< a TriggerMode
    bool tdiMode = false;
    bool crwMode = false;
    bool burstMode = false;

    // The series
    SeriesThreads series;
    StopsUnderWay stopsUnderWay;
    bool acquiring = false; ///< polled: the acquisition thread is in its series
    RowTimes tdiRowTimes;
    std::size_t tdiRowIndex = 0; ///< dataSync

    mutable ThreadSyncObject cpuSync; ///< guards ibCpu's exchanges and the fields below
    mutable bool overheated = false;  ///< polled: temperature protection has tripped
    mutable int lastCpuStatus = 0;
    mutable std::string statusText;
    mutable double lastCpuRead = 0.0;   ///< time of the last refresh on a read of a CPU parameter
    mutable double lastSenseRead = 0.0; ///< time of the last refresh in readSenseValuesFromCpu

    mutable std::atomic<double> biasSense{0.0};    ///< last measured bias, volts
    mutable std::atomic<double> currentSense{0.0}; ///< last measured bias current, in the calibration's unit
};

} // namespace HwLatixel
