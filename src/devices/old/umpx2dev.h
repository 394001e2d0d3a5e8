// One readout board of the older generation behind one USB link.
#pragma once

#include "host/idorvet.h"
#include "link/cmdmgrold.h"
#include "link/ftdidev.h"
#include "shared/filelog.h"
#include "shared/lasterror.h"
#include "shared/osdepend.h"

#include <atomic>
#include <cstddef>
#include <memory>
#include <span>
#include <string>
#include <vector>

namespace HwLatixel {

/// A board with one or more modules that share the link, of which one is active at a time: each operation on chips
/// switches to the module first. It is no device of the host: the host sees the composite that owns it. It has no
/// parameters, threads or events; all that is asked for is done before a call returns, and what there is to choose
/// stands in the settings' section with the board's serial.
///
/// Results are 0 or an error code, with a text in `lastError`. Operations on chips give 1 without a chip. `devSync`
/// covers single operations, not a whole frame; what is not told to take it is safe by the command manager's lock.
class UMpx2Dev {
public:
    /// `name` is the USB description, `logDirectory` the folder of the board's log. Touches no hardware.
    UMpx2Dev(std::string name, IDorvet* dorvet, std::string logDirectory, std::string settingsPath);
    virtual ~UMpx2Dev();
    UMpx2Dev(const UMpx2Dev&) = delete;
    UMpx2Dev& operator=(const UMpx2Dev&) = delete;

    /// Opens the link, tests it, asks for firmware and frequencies and finds the chips. Fails where the link does not
    /// open or the board does not answer.
    virtual int initDevice();
    virtual int closeDevice();
    /// Marks the board as closing, without waiting: what uses the link ends at its next step. `closeDevice` follows.
    void beginClosing();
    /// Takes that back where the composite is not closed after all.
    void cancelClosing();
    virtual int resetMedipix();
    virtual int eraseMatrix();
    /// Volts at the analog sense output, whatever `chip` says. Returns 0, also where the read failed.
    virtual int analogValue(unsigned chip, double* value);
    /// Limited to 3.0 to 114.5 V. Returns 0.
    virtual int setBias(double volts);
    /// Sets timer and measurement settings, and clears the counters unless they are clear.
    virtual int prepareAcquisition(double seconds);
    /// Behind a stop, nothing is started.
    virtual int startAcquisition();
    virtual int stopAcquisition();
    /// Waits for the start and the end of a frame. A stop ends the wait with 0.
    virtual int waitForAcqFinish();
    /// 14 values for each chip; `chip` -1 sets all modules, any other that chip's module, if there is one. The number
    /// of values is compared with one module's; where the array ends before the last module does, zeros are sent.
    virtual int setMpx2Dacs(const unsigned short* dacs, unsigned long size, int chip, int senseChip, int senseDac,
                            int extDac, unsigned ctpr);
    /// Reads the chips of all modules into `size` words, and clears their counters. `data` may be null.
    virtual int readMatrix(unsigned short* data, unsigned long size, bool convert);
    /// With `convert` only the first chip of each module gets the counts; the others are written as if they were 0.
    virtual int writeMatrix(const unsigned short* data, unsigned long size, bool convert);
    virtual int setPixelCfg(const unsigned char* cfg, unsigned long size);
    /// MHz; `mhz` becomes the clock that the board can make. -1 while the board's frequency is unknown.
    virtual int setTimepixClock(double* mhz);
    /// Reads the section with the serial from the file `path`; a missing file leaves the present values.
    virtual void loadSettings(const char* path);
    virtual int setPower(bool on);
    /// A negative voltage does nothing. Refused is a DAC number from 5 on, while 4 passes although the text tells of 0
    /// to 3.
    virtual int setInterfaceDac(char dac, double volts);
    /// Reads one ADC channel, 12 bits. Boards of the first kind have channels to 7.
    virtual int getADC(unsigned char channel, unsigned short* value) const;
    virtual int chipCount() const { return chipTotal; }
    /// DACs of a chip: 14 on Timepix, 15 on Medipix2.
    virtual int dacCount() const;
    virtual std::vector<std::string> chipIDs() const { return chipIdList; }
    virtual const char* lastError() const { return lastErrorText.get(); }
    virtual int adcCount() const { return 16; }
    virtual double adcValue(unsigned channel) const;
    /// Sends test frames until the board answers one, at most ten.
    virtual int testDevice();
    /// Finds the chips of all modules.
    virtual int readChipInfo();
    /// Asks for the frequencies of timer and Timepix clock.
    virtual int getFrequencies();
    /// Text and number of the firmware; `version` may be null.
    virtual int getFirmwareVersion(std::string& text, int* version);
    /// As `setMpx2Dacs`, with the answer of each module at `stream`, 33 bytes for each of its chips, over that of the
    /// module before. With `idsOnly` the chains are not cleared first.
    virtual int setDACs(const unsigned short* dacs, unsigned long size, char* stream, int chip, int senseChip,
                        int senseDac, int extDac, unsigned ctpr, bool idsOnly);
    /// Steps the link through bit-bang and tests it.
    int resetDevice();
    /// Sets the shutter time.
    int setTimer(double seconds);
    /// These boards have no status.
    int deviceStatus() const { return 0; }
    const char* deviceStatusText() const { return ""; }

protected:
    /// Reports a failure to the log and to `lastError`; returns `code`. No callback of the host hears of it.
    virtual int logError(int code, const char* format, ...) const __attribute__((format(printf, 3, 4)));

private:
    static constexpr double TICKS_PER_MHZ = 1e6; ///< of the shutter timer, in one second

    int requireChips() const;
    int refuseNull() const;
    int command(unsigned char code, unsigned char p0, unsigned char p1, unsigned char p2, char* ack = nullptr) const;
    int transfer(unsigned char code, std::span<unsigned char> out, std::span<unsigned char> in) const;
    int switchModule(int index, bool useMap);
    int readModuleIds(int module);
    int exchangeDacs(std::span<unsigned char> block, unsigned char* answer) const;
    double measuredTime(std::span<const unsigned char> stream) const;
    void logBanner(LogLevel level, const char* title) const;
    const char* linkError() const;
    void dropLink();

    mutable ThreadSyncObject devSync;
    mutable LastError lastErrorText;
    IDorvet* dorvet; ///< the host, not owned
    std::unique_ptr<FileLog> log;
    std::unique_ptr<FtdiDev> ftdi;
    std::unique_ptr<CmdMgrOld> cmdMgr;
    std::string name;
    std::string logDirectory;
    std::string settingsPath; ///< stored, not read
    std::string serial;

    // Set at bring-up, then only read
    std::vector<std::string> chipIdList;
    int timepixFrequency = 0; ///< MHz, told by the board
    int timerFrequency = 0;   ///< MHz, told by the board
    int chipTotal = 0;
    int chipsPerModule = 0;
    bool newBoard;              ///< of the second kind, by its name
    bool timepix = true;        ///< nothing tells these boards' chip type
    int triggerType = 0;        ///< a TriggerMode; nothing sets it
    bool acqFlag = true;        ///< of the measurement settings; nothing sets it
    bool eraseByCommand = true; ///< nothing sets it

    // Settings
    bool debugLog = false;
    bool overrideChipIds = false;
    bool logBuffers = true;
    int moduleCount = 0;
    int chipCountSetting = 0;
    int startModule = 0;
    double firstSwitchDelay = 0.1; ///< seconds
    double switchDelay = 0.001;    ///< seconds
    std::vector<int> modules;      ///< the bus value of each module

    int currentModule = 0;                ///< devSync
    bool erased = false;                  ///< devSync: the counters are clear
    std::atomic<double> lastAcqTime{0.0}; ///< as the board measured it; no operation hands it out
    std::atomic<double> acqTime{0.0};     ///< requested length of a frame, seconds
    bool connected = false;
    bool noChip = true;
    bool stopRequested = false; ///< polled by the waits for a frame
};

} // namespace HwLatixel
