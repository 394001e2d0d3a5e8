// Several Medipix2 or Timepix boards as one detector.
#pragma once

#include "devices/common/workteam.h"
#include "devices/mpx2/mpx2dev.h"
#include "devices/mpx2/mpx2lad.h"

#include <atomic>
#include <memory>
#include <set>
#include <string>
#include <vector>

namespace HwLatixel {

/// A composite of Medipix2 or Timepix boards, which drives each frame itself: it opens the shutters one after the
/// other, waits for all of them, reads all streams, and hands over one frame. Members have no series of their own.
///
/// A series has a detached thread, which has the composite's turn from the first start command of a frame to the last
/// byte of its streams. With the parameter "ParallelReadout" it has one more thread for each further member as long as
/// it lasts, which work in that turn; then a short exposure also begins before the host's handler of the frame before
/// has returned. The host's read of a frame takes the members' streams over and decodes them while the next frame is
/// exposed.
class Mpx2LadDev : public Mpx2Lad<Mpx2Dev> {
public:
    /// `log` is the library's log, not owned. Touches no hardware before `initDevice`.
    Mpx2LadDev(IDorvet* dorvet, std::string logDirectory, FileLog* log, std::string settingsPath,
               std::vector<std::string> names);
    ~Mpx2LadDev() override;

    /// Brings all members up, which takes some seconds for each. -1 without a chip. Chips of both kinds count as
    /// Timepix chips.
    int initDevice() override;

    /// Sends the pre-shutter clocks of the parameters to the members as well.
    int setTimepixClock(double* mhz) override;

    // Matrices and series (mpx2laddev_series.cpp)
    /// From the first frame event of a series to its last event the frame announced last, else what the chips hold.
    int readMatrix(unsigned short* data, std::size_t size, bool convert) override;
    dv::IMpxFrame* lastData() override;
    int startAcquisition(unsigned count, double time) override;
    void acqFunc() override;

protected:
    std::unique_ptr<Mpx2Dev> makeMember(const std::string& name, const std::string& biasType) override;

private:
    /// How one attempt at a frame ended.
    enum class Pass { Taken, Again, Stopped, Lost, Overheated };

    void loadSettings();
    void findChipKind();

    int readMatrixCounting(unsigned short* data, std::size_t size, bool convert, std::size_t& missing);
    int readChipsNow(unsigned short* data, std::size_t size, bool convert, std::size_t& missing);
    bool givesAnnouncedFrame() const;
    void takeAnnouncedFrame();

    int prepareAcq();
    int completeRecoveries();
    void openSeries();
    Pass runFrames();
    void closeSeries(Pass last);
    Pass takeFrame();
    Pass startExposures();
    void cutExposures(std::size_t started);
    Pass awaitExposures();
    Pass awaitAndRead();
    Pass readAside(SeriesTurn& turn);
    Pass readMatrixesFromDevices(int (Mpx2Dev::*readStreams)(), bool readerCame);
    bool readWorked(std::size_t index, int result);
    Pass repeatRead(bool readerCame);
    template <typename Interrupted>
    bool awaitReader(Interrupted interrupted);
    bool anyOverheated() const;
    void announceFrame(unsigned index, bool last);
    static void placeFrame(void* lad);
    static void goOnBehindFrame(void* lad);
    Pass recoverMember(std::size_t index);
    int recoverDevice(Mpx2Dev& member);
    WorkTeam& readers();

    Event matrixRead{false, false, "matrixRead"}; ///< the streams have been taken over; the next may be read
    ThreadSyncObject takeSync;                    ///< the announced frame is taken over, or put in place, as a whole
    ThreadSyncObject decodeSync;          ///< one reader's frame stays in the second buffers until it is decoded
    std::unique_ptr<WorkTeam> team;       ///< the series' thread
    std::set<Mpx2Dev*> unrecovered;       ///< a stop has cut their recovery; who starts the next series, or the series
    bool parallelReadout = false;         ///< of the parameter "ParallelReadout", as last looked at; as `unrecovered`
    bool frameAnnounced = false;          ///< polled: the series has handed over a frame
    std::atomic<bool> busyFollows{false}; ///< behind the frame event under way `busy` becomes true
    int preShutterClockCount = 10;        ///< of the parameters, as last looked at; the turn, as the next two
    int preShutterClockDivider = 2;
    int preShutterDelayClockCount = 10;
    std::atomic<double> timepixClock{10.0}; ///< MHz, as the last member left it
};

} // namespace HwLatixel
