// The boards of the older generation as one detector.
#pragma once

#include "devices/mpx2/mpx2lad.h"
#include "devices/old/umpx2dev.h"

#include <memory>
#include <string>
#include <vector>

namespace HwLatixel {

/// The one host device of the older generation, in the plainest form of a composite: one detached thread drives the
/// members frame by frame and calls the host for each frame, which reads it within its callback. There is no recovery
/// and no repetition; a member that fails ends the series at once. The host's log callback is not called. The turn of a
/// frame stays with the series' thread until the callback has returned: other threads' operations wait for that.
class ULadDev : public Mpx2Lad<UMpx2Dev> {
public:
    /// `log` is the library's log, not owned. Touches no hardware before `initDevice`.
    ULadDev(IDorvet* dorvet, std::string logDirectory, FileLog* log, std::string settingsPath,
            std::vector<std::string> names);
    ~ULadDev() override;

    /// Brings all members up. -1 without a chip.
    int initDevice() override;

    /// Takes the callback, and never calls it.
    int setLogMsgFunc(dv::LogMsgFunc, void*) override { return 0; }

    /// These boards have no status.
    int deviceStatus() const override { return 0; }
    const char* deviceStatusText() const override { return ""; }

    // What fails in a member comes back with the member's result; -1005 for a wrong chip or a matrix that is too small
    int setTimepixClock(double* mhz) override;
    int readMatrix(unsigned short* data, std::size_t size, bool convert) override;
    int startAcquisition(unsigned count, double time) override;
    void acqFunc() override;

protected:
    std::unique_ptr<UMpx2Dev> makeMember(const std::string& name, const std::string& biasType) override;

private:
    /// How a frame ended.
    enum class Pass { Taken, Stopped, Failed };

    Pass takeFrame();
    Pass failedMember(std::size_t index, int result);
};

} // namespace HwLatixel
