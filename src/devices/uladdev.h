// The boards of the older generation as one detector.
#pragma once

#include "devices/common/laddev.h"
#include "devices/umpx2dev.h"

#include <memory>
#include <string>
#include <vector>

namespace HwLatixel {

/// The one host device of the older generation, in the plainest form of a composite: one detached thread drives the
/// members frame by frame and calls the host for each frame, which reads it within its callback. There is no recovery
/// and no repetition; a member that fails ends the series at once. The host's log callback is not called.
class ULadDev : public LadDev<dv::IHwDevMpx2, UMpx2Dev> {
public:
    /// `log` is the library's log, not owned. Touches no hardware before `initDevice`.
    ULadDev(IDorvet* dorvet, std::string logDirectory, FileLog* log, std::string settingsPath,
            std::vector<std::string> names);
    ~ULadDev() override;

    /// Brings all members up. -1 without a chip.
    int initDevice() override;

    int deviceType() const override { return 1; }
    int devMpx2Info(dv::_DevMpx2Info* info) const override;
    bool isTimepix() const override { return true; }
    virtual int enableDataCompression(bool) { return dv::RESULT_NOT_SUPPORTED; }
    virtual bool isDataCompressionEnabled() const { return false; }
    virtual bool supportsDataCompression() const { return false; }
    /// Takes the callback, and never calls it.
    int setLogMsgFunc(dv::LogMsgFunc, void*) override { return 0; }

    // Configuration. Members are called in their order, up to the first that fails, whose result is returned.
    int resetMedipix() override;
    int eraseMatrix() override;
    int setAcqMode(unsigned) override { return 0; }
    int setBias(double volts) override;
    /// These boards sense no bias.
    int biasVoltageCurrentSense(double* volts, double* amperes) const override;
    /// -1005 for an unknown chip.
    int analogValue(unsigned chip, double* value) override;
    int setDacs(const unsigned short* dacs, std::size_t size, int chip) override;
    int setMpx2Dacs(const unsigned short* dacs, std::size_t size, int chip, int senseChip, int senseDac, int extDac,
                    unsigned ctpr) override;
    int setPixelCfg(const unsigned char* cfg, std::size_t size) override;
    int setExtDacValue(double) override { return 0; }
    int sendTestPulses(unsigned, double, double) override { return 0; }
    int setTimepixClock(double* mhz) override;

    // Matrices and series; -1005 for a matrix that is too small
    int writeMatrix(const unsigned short* data, std::size_t size, bool convert) override;
    int readMatrix(unsigned short* data, std::size_t size, bool convert) override;
    int startAcquisition(unsigned count, double time) override;
    int stopAcquisition() override;
    dv::IMpxFrame* lastData() override;
    void acqFunc() override;

protected:
    std::unique_ptr<UMpx2Dev> makeMember(const std::string& name, const std::string& biasType) override;
    void nudgeSeries(bool stopBoards) override;

private:
    bool takeFrame();
    void sendEvent(unsigned event, long data) const;
};

} // namespace HwLatixel
