// One Medipix3 readout board behind one USB link.
#pragma once

#include "board/ibbiasparams.h"
#include "board/ibcpumgr.h"
#include "board/ibflash.h"
#include "chipdata/mpx3matrix.h"
#include "chipdata/mpx3omr.h"
#include "devices/common/boardlink.h"
#include "devices/common/deviceturn.h"
#include "devices/common/rowtimes.h"
#include "devices/common/seriespreparation.h"
#include "devices/common/seriesturn.h"
#include "devices/mpx3/ampx3dev.h"
#include "link/cmdmgrmpx3.h"
#include "shared/lasterror.h"

#include <array>
#include <atomic>
#include <cstdint>
#include <functional>
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
/// Whatever needs an answer or the chips has the link's turn, the register image and the CPU included; a frame of a
/// series has it from its start command to the last byte of its stream, and gives it back before the host is called.
/// Locks, in the order in which they are taken, all behind the turn: the link's exchange around what must not be split
/// by a thread without the turn, which sends the bias or a stop; `readerSync` around the decoding of a series' frame,
/// `streamSync` around the frame that was announced last, the report's lock. None is held while the host is called. A
/// series has one thread, "mpx3devacq".
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
    /// Ends a running series, powers the chips down and closes the link, within three seconds, also from the handler of
    /// a series' last event. 1 from any other handler of this device, and where one goes on too long: then nothing is
    /// closed, and the device can be used or closed again.
    int closeDevice() override;
    /// The first step of `closeDevice`, which does not wait: from here on every command fails and every wait ends, in
    /// all threads, until `closeDevice` has been called. For a device of several boards, which end together then.
    void beginClosing();
    /// Takes `beginClosing` back where the device of several boards is not closed after all.
    void cancelClosing();
    /// Closes and frees the device, at the latest when the last handler of the host has returned. Refused within an
    /// event handler other than that of a series' last event.
    void destroy() override;
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
    /// refused until the next `initDevice`. Where the device is busy for 100 ms, and without a CPU, the last value
    /// comes back without a transfer; in a series too, which asks the CPU between two frames then, at most once a
    /// second.
    int deviceStatus() const override;
    /// The same for the CPU's words. A text stays valid until seven others have come.
    const char* deviceStatusText() const override;
    /// Refreshes the CPU's values in `parameters`, at most once a second.
    void readSenseValuesFromCpu() const;

    // Configuration (mpx3dev_config.cpp)
    /// Loads the DACs of `chip`, or of all with -1, from an array of 27 values for each chip of the device. A chip
    /// selects its whole channel.
    int setDacs(const unsigned short* dacs, std::size_t count, int chip) override;
    /// The same for an array that does hold `count` values; `setDacs` takes 0 for an array for all chips.
    int loadDacs(const unsigned short* dacs, std::size_t count, int chip);
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
    /// Measured bias; while a series runs the last measured one, and the series measures anew between two frames. -1
    /// when both values are exactly 0.
    int biasVoltageCurrentSense(double* volts, double* amperes) const override;
    int adcCount() const override { return 16; }
    /// While a series runs the last reading of that channel, as with the bias.
    double adcValue(unsigned index) const override;
    /// Volts at ADC channel 0, which carries the sense output that `senseDac` has selected, whatever `chip` says.
    int analogValue(unsigned chip, double* value) override;
    int getDacAnalogValue(unsigned chip, unsigned dac, double* value);
    /// Degrees Celsius of a chip, from its temperature and band gap outputs.
    double readTemperature(int chip);

    // Matrices (mpx3dev_matrix.cpp)
    /// From the first frame event of a series to its last event the frame announced last, else what the chips hold.
    int readMatrix(unsigned* data, std::size_t size, bool convert) override;
    int readMatrix(unsigned* data, std::size_t size, unsigned char counter, bool convert) override;
    /// As `readMatrix`; `missing` gets the bytes of the frame that have not come, whose pixels are 0.
    int readFrame(unsigned* data, std::size_t size, bool convert, unsigned long* missing);
    int writeMatrix(const unsigned* data, std::size_t size, bool convert) override;
    int writeMatrix(const unsigned* data, std::size_t size, unsigned char counter, bool convert) override;
    int eraseMatrix() override;
    int fastClearMatrix();

    // Series (mpx3dev_acq.cpp)
    int setAcqMode(unsigned mode) override;
    /// 1 while a series runs; right behind a stop it waits for the end of the series before.
    int startAcquisition(unsigned count, double time) override;
    /// Ends the series in any state, also where the guards refuse. Waits for the frame in progress, about a second.
    int stopAcquisition() override;
    void waitForSoftwareTrigger(bool* stop) override;
    dv::IMpxFrame* lastData() override;
    /// Brings timer, chips, triggers and data path into the state in which a series starts. `allowBurst` is false in a
    /// composite, which hands over each frame itself.
    int prepareAcquisition(unsigned count, double time, bool allowBurst);
    /// Starts the series that `prepareAcquisition` has prepared.
    int startAcquisitionFromLad();
    /// Forgets a series that was prepared and is not to be started.
    void giveUpPreparation();
    /// Whether the series that was prepared last goes by one start command as a whole.
    bool preparedWhole() const { return plan.get().whole(); }
    /// Bytes of a whole frame of the series that was prepared last, on the wire.
    unsigned long frameBytes() const { return plan.get().frameBytes; }
    /// `stopAcquisition` in two steps, for several boards that stop together: the first one tells the board and returns
    /// what the guards say, the second one waits for the frame on the wire, up to `deadline`.
    int beginStop();
    void endStop(double deadline);
    /// Waits until the thread of a series is gone, its last event included, at most `limit` seconds. Whether it is.
    bool awaitSeriesGone(double limit) { return series.awaitThreads(limit); }
    void acqFunc() override;

    /// Switches the debug log on or off; what the settings switch on stays on until then.
    void setDebugLog(bool on);

    /// A copy of the register image.
    virtual OMR omr() const { return omrValue.get(); }

private:
    static constexpr int PHYSICAL_CHANNELS = 5;
    static constexpr int ALL_CHANNELS = -1;
    /// Seconds; a series of shorter frames hands its events to the dispatcher's worker while the board goes on
    /// exposing.
    static constexpr double BURST_THRESHOLD = 0.1;
    static constexpr double OPERATION_PATIENCE = 5.0; ///< seconds that an operation waits for the turn beside a frame

    /// What a series does, as it was prepared.
    struct Plan {
        unsigned count = 0; ///< frames
        double time = 0.0;  ///< seconds of a frame
        int triggerMode = 0;
        bool tdi = false;
        bool continuous = false; ///< continuous read-write
        bool softTrigger = false;
        bool burst = false;
        unsigned long frameBytes = 0; ///< of a whole frame on the wire
        /// One start command for the whole series.
        bool whole() const { return tdi || continuous; }
    };
    /// A matrix stream, with all that it takes to decode it.
    struct Stream {
        std::vector<unsigned char> bytes;
        Mpx3StreamShape shape;
        unsigned long received = 0;
        unsigned long missing = 0; ///< bytes that did not come
        int counters = 0;
        double frameTime = 0.0; ///< seconds
    };
    /// Readings that a series takes between two frames since somebody has asked; below them a bit for each ADC channel.
    enum Wish : unsigned {
        WISH_STATUS = 1U << 16U,
        WISH_STATUS_TEXT = 1U << 17U,
        WISH_CPU_VALUES = 1U << 18U,
        WISH_BIAS = 1U << 19U,
    };
    static constexpr unsigned ADC_CHANNELS = 16;

    using Link = BoardLink<CmdMgrMpx3>;
    /// The board's CPU, each exchange of which is made within the turn.
    class TurnCpu;

    // Bring-up steps (mpx3dev_bringup.cpp)
    int openLink();
    int endSession();
    void giveBoardUp();
    void findChips();
    void forgetChips();
    void readFirmware();
    void readFlashParameters();
    void readFlashLate(const std::function<int()>& read);
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
    int setPins(unsigned char word) const;

    // Parameters (mpx3dev_params.cpp)
    void initParameters();
    static int paramReadSetFunc(dv::IParam* param, bool isRead, long user);
    static int paramReadSetFuncCpu(dv::IParam* param, bool isRead, long user);
    void onReadParam(dv::IParam* param);
    void onWriteParam(dv::IParam* param);
    void onReadParamCpu();
    void refreshCpuValues() const;
    void storeCpuValues(const IBCpu::Values& values) const;
    void pollStatus() const;
    void pollStatusText() const;
    void leaveWish(unsigned wish) const { wishes |= wish; }
    bool inSeries() const { return series.state() != SeriesLife::State::Idle; }
    bool serveWishes();

    // Commands (mpx3dev_config.cpp)
    int sendShift(const unsigned char* data, std::size_t size, unsigned char flags) const
    {
        return link.sendPayload(mpx3::MpxCmd::Shift, data, size, flags);
    }
    double patience() const;
    void applyConfig(const dv::_Mpx3Config& values);
    int switchChannel(int channel, bool dataEnable, bool physical, bool log);
    int channelMask(int channel, bool physical) const;
    int sendOMR();
    int sendOMRMode(unsigned char mode);
    int setReadoutOMRs();
    unsigned char triggerWord() const;
    int sendTriggerWord(unsigned char word) const;
    int setDacsSingleChannel(const unsigned short* dacs, unsigned long count, int channel);
    void logFunction(const char* title, bool underline = true) const { report.section(title, underline); }
    int requireChips() const;
    int requireLink() const;
    int chipsPerChannel() const { return channelCount > 0 ? chipCountValue / channelCount : 0; }
    /// Reads one ADC channel (0 to 15), 12 bits. `flag` is a bit of the ADC's command word, always true here.
    int getADC(unsigned char channel, unsigned short* value, bool flag) const;
    unsigned short readSenseCode(unsigned char channel) const;
    void measureBias(bool volts, bool current) const;

    // Matrices (mpx3dev_matrix.cpp)
    int writeMatrixChannel(const unsigned* data, unsigned long size, unsigned char counter, int channel, bool convert);
    int writeCounters(const unsigned* data, unsigned long size, unsigned char counter, const OMR& saved);
    int writeMatrixSingleCounter(const unsigned* data, unsigned long size, bool lowCounter);
    int readMatrixFromDevice(std::span<unsigned> matrix, int counters, bool convert, unsigned long* missing);
    void readAnnounced(std::span<unsigned> matrix, const int* counters, bool convert, Stream* about);
    int readMatrixStream(int channel, bool sendCommand);
    void reportShort(unsigned long received, unsigned long expected) const;
    unsigned long matrixStreamSize(int channels) const;
    Mpx3StreamShape streamShape(int channel) const;
    std::span<unsigned> hostMatrix(unsigned* data, std::size_t size) const;
    bool bothCounters() const { return config.get().counterSelect == 2; }
    unsigned long long getReadBitsSize() const { return mpx3ReadBits(omrValue.get(), twoChips); }
    CmdArgs streamParams() const;
    int setMatrixStreamParams();

    // Series (mpx3dev_acq.cpp)
    int beginSeries();
    int prepareSeries(unsigned count, double time, bool allowBurst);
    int prepareChips(const Plan& newPlan);
    int runSeries();
    int checkTime(double time) const;
    unsigned long frameSize(bool tdi) const;
    unsigned char startFlags(bool withContinuous) const;
    void requestStop();
    void tellBoardStop();
    void awaitFrameOver(double deadline);
    void beginLoop();
    int sendStart(unsigned char flags, std::uint32_t frameWord, bool* opened);
    void acqFuncNormal();
    void acqFuncCRW();
    void acqFuncTDI();
    void openHandOver(bool throughWorker);
    int runFrames(bool startEachFrame);
    int takeFrame(bool startCommand);
    int exposeAndRead(bool startCommand, SeriesTurn& turn);
    int receiveFrame();
    void restoreReadout();
    int waitForFrameEnd();
    bool waitForReader(bool orWanted);
    void publish();
    void announceFrame(unsigned index, bool throughWorker);
    void leaveBoard(bool drain, const std::function<void()>& restore);
    void endSeries(int result);
    void failSeries();
    void breakOff();
    bool readTdiFrame();
    void receiveTdiRows();
    unsigned long receiveTdiRow(std::size_t offset, unsigned long record);
    /// The series' stop flag, as waits of the link poll it; they only read it.
    bool* stopFlag() const { return const_cast<bool*>(series.stopRequested()); }

    /// What is read from the link; of who has the turn.
    std::unique_ptr<Stream> incoming = std::make_unique<Stream>();
    ThreadSyncObject streamSync;
    std::unique_ptr<Stream> announced = std::make_unique<Stream>(); ///< guarded by streamSync
    ThreadSyncObject readerSync;
    Stream reading;                                    ///< copy that is decoded; guarded by readerSync
    Event matrixReadEvent{false, false, "matrixRead"}; ///< the reader has taken the announced stream away

    Link link{report};
    std::unique_ptr<IBFlashFpxMpx3<CmdMgrMpx3>> ibFlash; ///< lives as long as the parameters that call it
    std::unique_ptr<TurnCpu> ibCpu;                      ///< null when the board has no usable CPU; by the turn
    IBBiasParams biasParams;

    // Set at bring-up, then only read
    std::string firmwareText;
    std::string biasTypeText;
    std::atomic<int> channelCount{0};                               ///< channels that answered
    bool fromLad;                                                   ///< stored, not read
    bool readParallel = true;                                       ///< setting "ReadParallel"
    bool skipPeriodicLog = false;                                   ///< setting "DebugLogSkipPeriodic"
    bool twoChips = false;                                          ///< two chips on each channel
    std::vector<int> channelMasks;                                  ///< bit of each detected channel
    std::array<int, PHYSICAL_CHANNELS> moduleEnable{1, 1, 1, 1, 1}; ///< settings "Module0" to "Module4"

    Guarded<OMR> omrValue; ///< the register image; changed by who has the turn

    // The series
    Guarded<Plan> plan;                       ///< of the series prepared last
    Plan now;                                 ///< of the series that runs; its thread's
    bool preparedForLad = false;              ///< by `prepareAcquisition`, and not started; polled
    bool acquiring = false;                   ///< polled: the board may be exposing, a stop tells it
    bool startSent = false;                   ///< within an exchange, as the next one
    bool stopSent = false;                    ///< the board has been told to stop
    bool frameAnnounced = false;              ///< polled: reads get the announced frame
    bool leaving = false;                     ///< polled: the device is being closed
    std::atomic<double> closingSince{0.0};    ///< when closing has begun
    bool readoutDisturbed = false;            ///< the chips or the data path are not as a frame needs them; turn
    double wishesServed = 0.0;                ///< when; the series' thread's
    Event frameOver{true, true, "frameOver"}; ///< no frame of the series is on the wire
    RowTimes tdiRowTimes;

    mutable std::atomic<unsigned> wishes{0}; ///< Wish bits, and one for each ADC channel
    bool cpuPresent = false;                 ///< polled: there is an ibCpu
    bool boardMute = false;                  ///< polled: the bring-up has ended since the board did not answer
    mutable bool overheated = false;         ///< polled: temperature protection has tripped
    mutable std::atomic<int> lastCpuStatus{0};
    mutable LastError statusText;
    mutable std::atomic<double> lastCpuRead{0.0};   ///< time of the last refresh on a read of a CPU parameter
    mutable std::atomic<double> lastSenseRead{0.0}; ///< time of the last refresh in readSenseValuesFromCpu
    /// Last reading of each ADC channel, -1 before the first.
    mutable std::array<std::atomic<int>, ADC_CHANNELS> adcCodes{-1, -1, -1, -1, -1, -1, -1, -1,
                                                                -1, -1, -1, -1, -1, -1, -1, -1};

    mutable std::atomic<double> biasSense{0.0};    ///< last measured bias, volts
    mutable std::atomic<double> currentSense{0.0}; ///< last measured bias current, in the calibration's unit
};

/// Exchanges with the CPU take the turn one by one.
class Mpx3Dev::TurnCpu : public IBCpuMgrMpx3 {
public:
    explicit TurnCpu(const Mpx3Dev& owner) : IBCpuMgrMpx3(owner.link.manager()), device(owner) {}
    int sendReceiveSpi(unsigned char* tx, unsigned char* rx, unsigned long size, unsigned long* received) override;

private:
    const Mpx3Dev& device;
};

} // namespace HwLatixel
