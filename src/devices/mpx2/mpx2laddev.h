// Several Medipix2 or Timepix boards as one detector.
#pragma once

#include "devices/mpx2/mpx2dev.h"
#include "devices/mpx2/mpx2lad.h"

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
class Mpx2LadDev : public Mpx2Lad<Mpx2Dev> {
public:
    /// `log` is the library's log, not owned. Touches no hardware before `initDevice`.
    Mpx2LadDev(IDorvet* dorvet, std::string logDirectory, FileLog* log, std::string settingsPath,
               std::vector<std::string> names);
    ~Mpx2LadDev() override;

    /// Brings all members up, which takes some seconds for each. -1 without a chip.
    int initDevice() override;

    /// As `LadDev`, unless a frame is under way: after 100 ms of waiting the last status comes back.
    int deviceStatus() const override;
    const char* deviceStatusText() const override;

    // These wait for the end of a frame, whose answers they would take else
    double adcValue(unsigned index) const override;
    int resetMedipix() override;
    int eraseMatrix() override;
    int setBias(double volts) override;
    int setMpx2Dacs(const unsigned short* dacs, std::size_t size, int chip, int senseChip, int senseDac, int extDac,
                    unsigned ctpr) override;
    int setPixelCfg(const unsigned char* cfg, std::size_t size) override;
    int writeMatrix(const unsigned short* data, std::size_t size, bool convert) override;
    /// Sends the pre-shutter clocks of the parameters to the members as well.
    int setTimepixClock(double* mhz) override;

    // Matrices and series. A stop waits for nothing; a series that waits for the reader of the frame before goes on
    // waiting.
    int readMatrix(unsigned short* data, std::size_t size, bool convert) override;
    int startAcquisition(unsigned count, double time) override;
    void acqFunc() override;

protected:
    std::unique_ptr<Mpx2Dev> makeMember(const std::string& name, const std::string& biasType) override;
    void dismissSeries() override;

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
    bool parallelReadout = false;  ///< of the parameter "ParallelReadout", as last looked at; the series' thread
    int preShutterClockCount = 10; ///< of the parameters, as last looked at; the host's thread
    int preShutterClockDivider = 2;
    int preShutterDelayClockCount = 10;
    mutable std::atomic<int> lastStatus{0};
    std::atomic<double> timepixClock{10.0}; ///< MHz, as the last member left it
};

} // namespace HwLatixel
