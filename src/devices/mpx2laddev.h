// Several Medipix2 or Timepix boards as one detector.
#pragma once

#include "devices/common/laddev.h"
#include "devices/mpx2dev.h"

#include <atomic>
#include <memory>
#include <string>
#include <vector>

namespace HwLatixel {

/// One member's read in a thread of its own.
struct ThreadObject {
    Mpx2Dev* dev;
    int result = 0;                    ///< of the read; written before `finished` is set
    std::atomic<bool> finished{false}; ///< the thread has ended
};

/// A composite of Medipix2 or Timepix boards, which drives each frame itself: it opens the shutters one after the
/// other, waits for all of them, reads all streams, and hands over one frame. Members have no series of their own.
///
/// A series has a detached thread, which holds `devSync` for the whole of a frame, so that configuration calls wait for
/// its end. The host's read of a frame copies the members' streams and decodes the copies, while the next frame is
/// exposed.
class Mpx2LadDev : public LadDev<dv::IHwDevMpx2, Mpx2Dev> {
public:
    /// `log` is the library's log, not owned. Touches no hardware before `initDevice`.
    Mpx2LadDev(IDorvet* dorvet, std::string logDirectory, FileLog* log, std::string settingsPath,
               std::vector<std::string> names);
    ~Mpx2LadDev() override;

    /// Brings all members up, which takes some seconds for each. -1 without a chip.
    int initDevice() override;

    int deviceType() const override { return 1; }
    int devMpx2Info(dv::_DevMpx2Info* info) const override;
    /// Always true: the composite takes its chips for Timepix chips.
    bool isTimepix() const override { return timepix; }
    virtual int enableDataCompression(bool) { return dv::RESULT_NOT_SUPPORTED; }
    virtual bool isDataCompressionEnabled() const { return false; }
    virtual bool supportsDataCompression() const { return false; }

    // Status. An exchange with a member would take the end of its frame off the link, and so waits for it.
    /// That of before where a frame takes longer than 100 ms: a poll must not hang.
    int deviceStatus() const override;
    const char* deviceStatusText() const override;
    double adcValue(unsigned index) const override;

    // Configuration, for which a frame in progress is waited for. Members are called in their order, up to the first
    // that fails.
    int resetMedipix() override;
    int eraseMatrix() override;
    int setAcqMode(unsigned) override { return 0; }
    int setBias(double volts) override;
    /// A composite of this family senses no bias.
    int biasVoltageCurrentSense(double* volts, double* amperes) const override;
    int setDacs(const unsigned short* dacs, std::size_t size, int chip) override;
    /// The members' number of DACs for each chip. For a single chip the result is 0, whatever its member said.
    /// `senseChip` 0 is the first chip of whichever member is called.
    int setMpx2Dacs(const unsigned short* dacs, std::size_t size, int chip, int senseChip, int senseDac, int extDac,
                    unsigned ctpr) override;
    int setPixelCfg(const unsigned char* cfg, std::size_t size) override;
    int setExtDacValue(double) override { return 0; }
    int sendTestPulses(unsigned, double, double) override { return 0; }
    /// Sends the pre-shutter clocks of the parameters to the members as well.
    int setTimepixClock(double* mhz) override;

    // Matrices and series
    int writeMatrix(const unsigned short* data, std::size_t size, bool convert) override;
    int readMatrix(unsigned short* data, std::size_t size, bool convert) override;
    int startAcquisition(unsigned count, double time) override;
    /// Waits for nothing. A series that waits for the reader of the frame before goes on waiting.
    int stopAcquisition() override;
    dv::IMpxFrame* lastData() override;
    void acqFunc() override;

protected:
    std::unique_ptr<Mpx2Dev> makeMember(const std::string& name, const std::string& biasType) override;
    void nudgeSeries(bool stopBoards) override;

private:
    /// How one attempt at a frame ended.
    enum class Pass { Taken, Again, Stopped, Lost };

    void loadSettings();
    int prepareAcq();
    Pass takeFrame();
    template <typename Step>
    Pass stepAllMembers(Step step);
    void announceFrame(unsigned index, bool last);
    int readMatrixesFromDevices();
    int readInSequence();
    int readInParallel();
    static void readThread(void* object);
    int recoverDevice(Mpx2Dev& member);

    Event matrixRead{false, false, "matrixRead"}; ///< the streams have been taken over; the next may be read
    bool timepix = true;
    bool parallelReadout = false;  ///< of the parameter "ParallelReadout", as last looked at; the series' thread
    int preShutterClockCount = 10; ///< of the parameters, as last looked at; the host's thread
    int preShutterClockDivider = 2;
    int preShutterDelayClockCount = 10;
    mutable std::atomic<int> lastStatus{0};
    std::atomic<double> timepixClock{10.0}; ///< MHz, as the last member left it
};

} // namespace HwLatixel
