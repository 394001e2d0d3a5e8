// What a Medipix2 or Timepix board with modules and a row board have in common as devices.
#pragma once

#include "board/ibbiasparams.h"
#include "board/ibcpumgr.h"
#include "board/ibflash.h"
#include "board/ibspi.h"
#include "chipdata/mpx2matrix.h"
#include "devices/common/boardlink.h"
#include "devices/common/devdefaults.h"
#include "devices/common/devicereport.h"
#include "devices/common/deviceturn.h"
#include "devices/common/doublebuffer.h"
#include "devices/common/hostevents.h"
#include "devices/common/linkturn.h"
#include "devices/common/paramtable.h"
#include "devices/common/serieslife.h"
#include "devices/common/softtrigger.h"
#include "devices/common/stopsunderway.h"
#include "devices/common/triggers.h"
#include "host/idorvet.h"
#include "link/cmdmgr.h"
#include "link/tpxpins.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <cstdint>
#include <functional>
#include <initializer_list>
#include <memory>
#include <span>
#include <string>
#include <vector>

namespace HwLatixel {

/// In what the kinds of board differ, where a number or a rule is all of the difference.
struct Mpx2BoardKind {
    std::span<const char* const> firmwares; ///< beginnings of the accepted firmware texts
    const char* correctFirmware;            ///< told to a user with another one
    int firmwareTries;                      ///< requests for the text, while it comes back empty
    unsigned acqModeMask;                   ///< of dv::_DevMpxInfo
    double ticksPerSecond;                  ///< of the shutter timer and of the time in the end-of-frame packet
    ibspi::BiasHandBack biasHandBack;       ///< see ibspi::writeBiasDac
    ibspi::AdcClose adcClose;               ///< see ibspi::readAdc
    bool adcReadCounts;                     ///< the ADC's read decides over the result of `getADC`
    bool quietServices;                     ///< the traffic of flash, CPU and ADC is left out of the debug log
    bool collectsCutFrame;                  ///< the packet of a frame that a stop has cut is waited for, else dropped
    bool tellsRecoveredRead;                ///< a read that is repeated behind a recovery that worked is told
    std::span<const ParamRow> sensorParams; ///< parameters of its own, behind "Firmware"
    std::span<const ParamRow> lastParams;   ///< parameters of its own, behind all others
};

/// Base of the two device classes: records, reports, link, services, configuration of the chips. Chips stand in groups
/// that the board's multiplexer selects: a module with a daisy chain of chips, or a channel with one. A concrete class
/// knows its groups, finds its chips, reads its matrix and runs its series.
///
/// Order of a device's life: constructor, `initDevice`, configuration and series in any order, `closeDevice`,
/// `destroy`. The host keeps other calls away from `initDevice` alone.
///
/// What needs an answer or the chips has the link's turn meanwhile: an operation of the host, a frame of a series from
/// its start command to the end of its stream, or a series of rows as a whole. What brings no answer, the bias and a
/// stop, needs the writing side alone. Locks, all recursive, in the order in which they are taken, behind the turn:
/// the link's exchange around commands that must not be split by those two; the pins' own lock; the stream buffers'
/// locks; the report's lock. None of them and no turn is held while events or log lines go to the host.
class AMpx2Dev : public DevDefaults<dv::IHwDevMpx2> {
public:
    // Life cycle (ampx2dev.cpp)
    /// Ends a running series, powers the chips down and closes link and log, within three seconds. 1 with a text from a
    /// callback of this device other than that of a series' last event, or where such a callback does not end in time:
    /// then nothing is closed, and the device can be used or closed again.
    int closeDevice() override;
    /// The first step of `closeDevice`, which does not wait: from here on every command fails and every wait ends, in
    /// all threads, until `closeDevice` has been called. For a device of several boards, which end together then.
    void beginClosing();
    /// Takes `beginClosing` back where the device of several boards is not closed after all.
    void cancelClosing();
    /// As `closeDevice`, then frees the object. Where a callback of the host does not end in time, the thread that runs
    /// it does so as its last act.
    void destroy() override;
    ~AMpx2Dev() override;

    // Identity and reports
    int deviceType() const override { return 1; }
    int devInfo(dv::_DevInfo* info) const override;
    int devMpxInfo(dv::_DevMpxInfo* info) const override;
    int devMpx2Info(dv::_DevMpx2Info* info) const override;
    bool isConnected() const override { return loadFlag(connected); }
    bool isBusy() const override { return loadFlag(busy); }
    bool isTimepix() const override { return timepix; }
    const char* deviceName() const override { return deviceNameText.c_str(); }
    const char* lastError() const override { return report.lastError(); }
    dv::IParamMgr* parameters() const override { return devParams; }
    dv::IParamMgr* inDeviceConfigParameters() const override { return inDeviceParams; }
    int chipIDList(dv::IStrList* list) const override;
    int setEventFunc(dv::EventFunc func, void* user) override;
    int setLogMsgFunc(dv::LogMsgFunc func, void* user) override;
    virtual int enableDataCompression(bool) { return dv::RESULT_NOT_SUPPORTED; }
    virtual bool isDataCompressionEnabled() const { return false; }
    virtual bool supportsDataCompression() const { return false; }
    /// Reports a failure to log, host and `lastError`; returns `code`, which is the host's severity as well. See
    /// DeviceReport::errorV.
    virtual int logError(int code, const char* format, ...) const __attribute__((format(printf, 3, 4)));
    void logFunction(const char* title) const { report.section(title, true); }

    // Board (ampx2dev_board.cpp)
    /// Asks for the firmware's text. `number`, where given, becomes 0. Returns 0 whatever came back.
    virtual int getFirmwareVersion(std::string& text, int* number);
    /// 1 for a firmware that this class knows. Otherwise 0, after telling the log and, where the host has a user
    /// interface, the user; nothing stops for it.
    int checkFirmwareVersion();
    /// Empties the pipeline of the link: reads and drops what the board still sends, at most 2 s long. Returns 0.
    int resetDevice();
    int resetMedipix() override;
    /// Chip power, and the CPU's power command where there is a CPU. Leaves the chips in reset. Returns 0.
    virtual int setPower(bool on);
    /// Stores and sends all pins.
    void setPins(TpxPins newPins);
    /// Sends nothing: these boards have no such DAC. A negative value is taken for nothing at all; refused is a DAC
    /// number from 5 on, while 4 passes although the text tells of 0 to 3.
    virtual int setInterfaceDac(char dac, double value);
    /// The status as the board's CPU tells it; in a series as it was told last. Trips the temperature protection.
    int deviceStatus() const override;
    const char* deviceStatusText() const override;
    /// Reads one ADC channel (0 to 15), 12 bits. `flag` is a bit of the ADC's command word, true in all calls.
    virtual int getADC(unsigned char channel, unsigned short* value, bool flag) const;
    /// Volts at ADC channel 0, whatever `index` says. Returns 0, also where the read failed.
    int analogValue(unsigned index, double* value) override;
    int adcCount() const override { return 16; }
    double adcValue(unsigned channel) const override;
    /// Measured bias; while a series runs the last measured one, see `leaveWish`. With both pointers null both are
    /// measured. -1 when both values are exactly 0.
    int biasVoltageCurrentSense(double* volts, double* amperes) const override;
    /// Raw access. `kind` 0: six bytes, which are peripheral, command and four arguments, with
    /// `flags`. 1: peripheral, command and a payload. 2: bytes without a frame. -1 for any other kind or too few bytes.
    int sendRawData(unsigned char* data, unsigned long size, unsigned long kind, unsigned long flags,
                    unsigned long ignored) override;
    /// Reads up to `size` bytes, with up to 1 s of silence. Returns their count or a negative code; -1 for a `kind`
    /// other than 0.
    int receiveRawData(unsigned char* data, unsigned long size, unsigned long kind, unsigned long ignored,
                       unsigned long ignored2) override;

    // Chips (ampx2dev_chips.cpp)
    /// 14 values for each Timepix chip, 15 for each Medipix2 chip; `chip` has no effect. As `setMpx2Dacs` with nothing
    /// on the sense output.
    int setDacs(const unsigned short* dacs, std::size_t size, int chip) override;
    int setMpx2Dacs(const unsigned short* dacs, std::size_t size, int chip, int senseChip, int senseDac, int extDac,
                    unsigned ctpr) override;
    /// Loads the DAC chains and hands back what they held: 33 bytes for each chip at `stream`. -1 for too few values,
    /// -2 where the multiplexer can't be switched, otherwise the result of the failed read. `senseChip` is compared
    /// with the number of groups done, while within a group it counts chips.
    virtual int setDACs(const unsigned short* dacs, std::size_t size, char* stream, int chip, int senseChip,
                        int senseDac, int extDac, unsigned ctpr, double timeout, bool idsOnly);
    /// Decodes the stream buffer, or with `fromCopy` its copy, into `size` words.
    virtual int getConvertedMatrix(unsigned short* matrix, std::size_t size, bool convert, bool fromCopy);
    int setExtDacValue(double) override { return 0; }
    int sendTestPulses(unsigned, double, double) override { return 0; }
    int setTimepixClock(double* mhz) override;
    /// Sends pre-shutter clocks from the parameters. Returns the sum of the commands' results.
    virtual int setAcqClocks();
    /// Sets the shutter time.
    int setTimer(double seconds);
    /// `setting` is the parameter "TriggerStg"; the other bits come from the parameters too.
    void setTriggerSettings(unsigned char setting);

    // Series (ampx2dev_series.cpp)
    /// As asked for, also after a frame that a stop has cut: the measured time goes to no reader.
    double lastAcqTime() const override { return acqTime; }
    int setAcqMode(unsigned mode) override;
    int doSoftwareTrigger(unsigned) override;
    /// Waits for the host's software trigger, or until `*stop` is true.
    void waitForSwTrigger(bool* stop);
    /// Tells the host of a change by HWEVENT_BUSY_CHANGED.
    void setBusy(bool value);
    virtual int copyMatrixStreamToSecondBuffer();
    // For a composite that drives the exposures
    /// Whether a composite's series runs: then nothing but that touches the stream buffers, and a stop cuts a recovery.
    void setDriven(bool isDriven) { storeFlag(driven, isDriven); }
    /// Whether the temperature protection has tripped.
    bool isOverheated() const { return loadFlag(overheated); }
    /// What the stream buffer holds becomes the frame that is announced.
    void announceMatrix() { buffers.announce(streamMissing); }
    /// Takes the announced frame over into the second buffer, unless that was done before. Whether it was done now.
    bool takeAnnouncedMatrix() { return buffers.copyAnnounced(); }
    /// Bytes that have not come of the frame in the second buffer.
    std::size_t missingBytes() const { return buffers.copyMissing(); }
    int startAcquisition(unsigned count, double seconds) override;
    /// Works in every state, also where it is refused: without chips, or with chips that are switched off, the series
    /// ends all the same.
    int stopAcquisition() override;
    int readMatrix(unsigned short* matrix, std::size_t size, bool convert) override;
    /// A frame of 16-bit counts. From the first frame event of a series to its last event it is the frame announced
    /// last; otherwise the chips are read afresh, and cleared by it.
    dv::IMpxFrame* lastData() override;
    /// Brings timer, clocks, counters and triggers into the state in which a series starts. -1 where the timer refuses,
    /// -2 where a clock can't be set, -3 where the readout can't.
    virtual int prepareAcquisition(double seconds);
    /// One exposure, with the turn held by the caller.
    virtual int doSingleAcquisition() { return expose(); }
    /// Brings a failed device back to the state that the host last set. -1 where the board does not answer, -2 where
    /// the chips can't be written.
    virtual int recoverDevice() = 0;
    virtual void acqFunc() = 0;

protected:
    /// Chips behind one setting of the multiplexer.
    struct ChipGroup {
        int number; ///< of the module or channel
        int chips;
    };
    using EndOfFrame = std::array<unsigned char, END_OF_FRAME_SIZE>;
    struct PinChange {
        std::uint8_t TpxPins::*pin;
        std::uint8_t level;
    };
    using Link = BoardLink<CmdMgr>;
    /// Marks the calling thread as one that writes the CPU's values into the parameters, as long as it lives.
    class CpuParamUpdate {
    public:
        CpuParamUpdate() { ++depth; }
        ~CpuParamUpdate() { --depth; }
        CpuParamUpdate(const CpuParamUpdate&) = delete;
        CpuParamUpdate& operator=(const CpuParamUpdate&) = delete;
        static bool running() { return depth > 0; }

    private:
        inline static thread_local int depth = 0;
    };
    /// Bytes of a stream.
    struct StreamCount {
        std::size_t expected = 0;
        std::size_t received = 0;
        std::size_t missing() const { return expected - std::min(received, expected); }
    };
    /// Readings that a series makes between two frames for a host that polls. The bits below are channels of the ADC.
    enum Wish : unsigned {
        WISH_STATUS = 1U << 16,
        WISH_STATUS_TEXT = 1U << 17,
        WISH_CPU_PARAMS = 1U << 18,
        WISH_BIAS = 1U << 19,
        WISH_BIAS_CURRENT = 1U << 20,
    };
    static constexpr unsigned ADC_CHANNELS = 16;

    AMpx2Dev(const Mpx2BoardKind& kind, std::string name, IDorvet* dorvet, std::string logDir, std::string settingsFile,
             const std::string& biasType);

    // The groups of a concrete class
    virtual std::vector<ChipGroup> chipGroups() const = 0;
    virtual int switchGroup(int number) = 0;
    virtual std::unique_ptr<IBCpuMgr<CmdMgr>> makeCpu() = 0;
    virtual void loadSettings(const char* path) = 0;
    /// Reads the chips into `stream`, with the turn in hand, and leaves the counters cleared.
    virtual int readStream(std::span<unsigned char> stream, StreamCount& count) = 0;
    /// Decodes a stream into all words of the matrix, with `convert` as counts.
    virtual void decodeStream(std::span<const unsigned char> stream, std::span<unsigned short> matrix,
                              bool convert) const = 0;
    /// Adds to a frame of `lastData` what the device knows of it.
    virtual void describeFrame(dv::IMpxFrame& frame) = 0;
    /// What the shutter timer is set to for frames of `seconds`.
    virtual double shutterTime(double seconds) const { return seconds; }
    /// Keeps the link for a series that is one turn as a whole, within the turn of its preparation.
    virtual void reserveLink() {}
    /// What a series needs to be told of its readout beforehand.
    virtual int prepareReadout() { return 0; }
    /// 0, or 1 with a text for a series that the board can't count.
    virtual int checkSeries(unsigned) { return 0; }
    /// As `readMatrix`; `missing` takes the bytes that have not come of what it tells.
    virtual int readMatrixCounting(unsigned short* matrix, std::size_t size, bool convert, std::size_t& missing) = 0;
    /// 0, or 1 with a text where what is to be done needs chips.
    virtual int requireChips() const;

    void shutDown();
    void giveBoardUp(bool stopFirst);
    DeviceTurn operationTurn() const { return {linkTurn, report, turnLimit()}; }
    double turnLimit() const;

    // Bring-up steps (ampx2dev.cpp)
    int openBoard();
    void identifyBoard();
    void powerCycle();
    void setChipCount(int count);
    void completeBringUp();
    int readChipInfo(std::size_t streamOffset);
    bool chipIdsMatch();

    // Board (ampx2dev_board.cpp)
    std::string askFirmware() const;
    void readFlashParameters();
    void readFlashLate(const std::function<int()>& read);
    virtual void initCpu();
    void changePins(std::initializer_list<PinChange> changes);
    int sendBiasCode(double volts);
    void senseBiasByAdc(bool volts, bool amperes) const;
    virtual void senseBias(bool volts, bool amperes) const { senseBiasByAdc(volts, amperes); }
    bool reconnect();
    int pollStatus() const;
    void pollStatusText() const;
    void logTraffic(bool commands, bool sentData, bool receivedData) const;
    unsigned short readAdcCode(unsigned char channel) const;
    unsigned short pollAdcCode(unsigned char channel) const;
    virtual void onReadParam(dv::IParam*) {}
    void onReadParamCpu();
    void fetchCpuParams() const;
    void fetchCpuValues() const;
    void publishCpuValues() const;
    double cpuValue(const char* name) const;
    virtual void onWriteParamCpu(dv::IParam*) {}
    void onWriteParam(dv::IParam* param);
    void initParameters();
    static int paramReadSetFunc(dv::IParam* param, bool isRead, long user);
    static int paramReadSetFuncCpu(dv::IParam* param, bool isRead, long user);

    // Chips (ampx2dev_chips.cpp)
    int dacCountOfChip() const;
    int exchangeDacs(unsigned char* block, unsigned char* answer, std::size_t size, double timeout);
    int writeChips(const unsigned short* matrix, std::size_t size, bool convert);
    void sendReadout(const Mpx2Readout& readout);

    // Series (ampx2dev_series.cpp)
    static constexpr double PACKET_GRACE = 2.0;        ///< seconds that the end-of-frame packet may come late
    static constexpr double WAIT_UNLIMITED = 1e100;    ///< seconds; an external trigger may hold a frame up for ever
    static constexpr double SLEEPING_WAIT_ABOVE = 1.0; ///< seconds; shorter frames are waited for without sleeping
    static constexpr double SERIES_PATIENCE = 3600.0;  ///< seconds; who has the turn gives it back long before
    static constexpr double DRAIN_TIMEOUT = 0.2;       ///< seconds of silence after which the link counts as empty
    static constexpr double DRAIN_LIMIT = 2.0;         ///< seconds, for a board that never falls silent

    /// How one pass of a series ended.
    enum class Pass {
        Taken,   ///< the frame lies in the stream buffer
        Again,   ///< it failed and is to be repeated
        Stopped, ///< the host has stopped the series
        Lost,    ///< the device could not be recovered
        Overheated,
    };
    int configureSeries(double seconds);
    void openSeries();
    Pass runFrames();
    Pass takeFrame(bool repeated, StreamCount& count);
    Pass frameTaken();
    Pass recoverSeries();
    Pass recoverRead(bool readerCame);
    void announceFrame(std::uint64_t frame, const StreamCount& count);
    void endSeries(Pass last, bool staysBusy);
    int prepareSeries(unsigned count, double seconds);
    int startExposure(unsigned char flags, std::uint32_t frameWord);
    void endExposure();
    int expose();
    int waitForFrameEnd(double timeout, bool sleeps, const bool* stop, EndOfFrame& packet);
    int completeExposure(bool ended, const EndOfFrame& packet);
    void takeMeasuredTime(const EndOfFrame& packet);
    unsigned char triggerFlags() const;
    void stopBoard();
    void breakOff();
    static void acqFuncWrapper(void* device);
    /// Waits until the host has taken the frame before out of the stream. False where a stop or `interrupted()` ends
    /// the wait.
    template <typename Interrupted>
    bool awaitReader(Interrupted interrupted)
    {
        constexpr unsigned POLL_MS = 10; // for those who wait for the link meanwhile
        while (!matrixReadEvent.wait(POLL_MS))
            if (life.stopped() || interrupted())
                return false;
        return !life.stopped();
    }
    bool givesAnnouncedFrame() const;
    void takeAnnouncedFrame();
    int readChipsNow(unsigned short* matrix, std::size_t size, bool convert, std::size_t& missing);
    void discardMatrix();
    bool checkSize(std::size_t size) const;
    int refuseNull() const;
    bool recoveryCut() const;

    // Readings for a host that polls (ampx2dev_series.cpp)
    bool wishesDue() const;
    bool leaveWish(unsigned wish) const;
    void serveWishes();
    template <typename Poll>
    void read(unsigned wish, double patience, Poll poll) const
    {
        if (leaveWish(wish))
            return;
        const DeviceTurn turn(linkTurn, report, patience);
        if (turn.taken())
            poll();
    }

    static constexpr double STATUS_PATIENCE = 0.1;      ///< seconds for a poll, which must not hang
    static constexpr double CPU_PARAM_INTERVAL = 0.5;   ///< seconds between two refreshes by reads of CPU parameters
    static constexpr unsigned char BLANK_STREAM = 0xFF; ///< counters that read as 0
    static constexpr const char* TOO_HOT = "Device allowed temperature exceeded, chips turned off.";

    const Mpx2BoardKind& kind;

    mutable LinkTurn linkTurn;
    mutable DeviceReport report;
    mutable SeriesLife life;
    HostEvents events{life};
    Event matrixReadEvent{false, false, "matrixRead"}; ///< the acquisition thread may overwrite the stream
    SoftTrigger softTrigger;
    mutable DoubleBuffer buffers;
    std::vector<unsigned char> spareStream; ///< a frame that makes way for others on the link; the series' thread
    std::size_t streamMissing = 0;          ///< bytes that a composite's frame lacks; the series' thread

    Link link{report};
    std::unique_ptr<IBFlashFpx<CmdMgr>> ibFlash; ///< lives as long as the parameters that call it
    std::unique_ptr<IBCpuMgr<CmdMgr>> ibCpu;     ///< the turn; null when the board has no usable CPU
    IBBiasParams biasParams;                     ///< filled at bring-up
    std::unique_ptr<FileLog> devLog;
    Buffer<unsigned short> dacsBackup{0, false}; ///< the last DACs set; the turn

    // Records: written before and in `initDevice`, then only read
    dv::_DevInfo devInfoRec;
    dv::_DevMpxInfo devMpxInfoRec;
    IDorvet* dorvet;               ///< the host, not owned
    dv::IParamMgr* devParams;      ///< owned through its `destroy`, from the constructor on
    dv::IParamMgr* inDeviceParams; ///< owned through its `destroy`, from the constructor on
    std::string deviceNameText;
    std::string logDir;
    std::string settingsFile;
    std::string serialText;
    std::string firmwareText;
    std::vector<std::string> chipIds; ///< one identifier for each chip
    int chipCount_ = 0;
    bool timepix = true; ///< until the chip identifiers say otherwise
    bool debugLog = false;
    bool logRotate = false;

    TpxPins pins;                     ///< pinSync
    mutable ThreadSyncObject pinSync; ///< keeps a change of the pins and its command together

    bool connected = false; ///< polled: the bring-up has ended
    bool noChip = true;     ///< polled: there is no chip
    bool busy = false;
    bool acquiring = false;                  ///< polled: between the first step of a series' thread and its last event
    bool frameAnnounced = false;             ///< polled: the series has handed over a frame
    bool driven = false;                     ///< polled: a composite runs a series
    bool halfStopped = false;                ///< polled: an exposure in two halves is to end
    bool exposing = false;                   ///< polled: a shutter was opened, and not seen to end but by closing
    bool closing = false;                    ///< polled: the device is being closed
    std::atomic<double> closingSince{0.0};   ///< when that has begun
    std::atomic<bool> closedInSeries{false}; ///< and a series ran
    bool boardMute = false;                  ///< polled: the bring-up has ended since the board did not answer
    bool needsRecovery = false;              ///< a stop has cut a recovery; kept by whoever drives the series
    mutable bool overheated = false;         ///< polled: the temperature protection has tripped

    std::atomic<unsigned> acqMode{0};          ///< bits of dv::AcqMode, as the host wants the next series
    std::atomic<unsigned> seriesMode{0};       ///< the same of the series that was prepared last
    std::atomic<std::uint64_t> acqCount{0};    ///< frames in the series
    std::atomic<double> acqTime{0.0};          ///< requested length of a frame, seconds
    std::atomic<double> lastAcqTimeValue{0.0}; ///< as the board measured it; no operation hands it out
    std::atomic<int> recoverResult{0};         ///< of the last recovery in a series; 0 once a frame was exposed again
    std::atomic<double> timepixClock{10.0};    ///< MHz
    std::atomic<double> biasValue{0.0};        ///< the last bias asked for, volts
    std::atomic<int> preShutterClockCount{100};
    std::atomic<int> preShutterClockDivider{1};
    std::atomic<int> preShutterDelayClockCount{100};
    mutable std::atomic<double> biasSense{0.0};    ///< last measured bias, volts
    mutable std::atomic<double> currentSense{0.0}; ///< last measured bias current, in the calibration's unit
    mutable std::atomic<double> lastCpuRead{0.0};  ///< time of the last refresh by a read of a CPU parameter
    mutable std::atomic<int> devStatus{0};         ///< the last status read from the CPU
    mutable LastError statusText;                  ///< the last status text read from the CPU
    StopsUnderWay stopsUnderWay;
    mutable std::atomic<unsigned> wishes{0};                                  ///< readings that the series is to make
    std::atomic<double> nextServing{0.0};                                     ///< when it may make them
    mutable std::array<std::atomic<unsigned short>, ADC_CHANNELS> adcCodes{}; ///< as measured last
    mutable ThreadSyncObject valueSync;
    mutable IBCpu::Values cpuValues;   ///< valueSync; as the CPU told them last
    mutable bool cpuValuesNew = false; ///< valueSync; they are not in the parameters yet
};

} // namespace HwLatixel
