// Several Medipix3 boards as one detector.
#pragma once

#include "devices/common/laddev.h"
#include "devices/mpx3/mpx3dev.h"

#include <atomic>
#include <deque>
#include <memory>
#include <string>
#include <vector>

namespace HwLatixel {

class Mpx3LadDev;

/// One member's side of the hand-shake with the composite.
struct DevEventInfo {
    Mpx3LadDev* lad;
    std::size_t index;                              ///< the member's position
    Event readAllowed{false, false, "readAllowed"}; ///< the member may read its next frame into the composite's matrix
    Event acqFinished{false, false, "acqFinished"}; ///< the member has ended its frame
    std::atomic<int> result{0};                     ///< type of the last event taken into account
    ThreadSyncObject sliceSync;                     ///< keeps a write of the member's slice and a copy of it apart
};

/// A composite of Medipix3 boards. Member 0 is the trigger master, the others follow its trigger output.
///
/// A series has a detached thread, "mpx3ladacq", beside those of the members. Each member may have one frame read into
/// `matrix` ahead of the host: its event waits for `readAllowed`, which a read by the host gives to all members, and
/// answers with `acqFinished`. A host that takes no frames holds the series at the second one.
class Mpx3LadDev : public LadDev<dv::IHwDevMpx3, Mpx3Dev> {
public:
    /// `log` is the library's log, not owned. Touches no hardware before `initDevice`.
    Mpx3LadDev(IDorvet* dorvet, std::string logDirectory, FileLog* log, std::string settingsPath,
               std::vector<std::string> names);
    ~Mpx3LadDev() override;

    /// Brings all members up, which takes some seconds for each. -1 without a chip.
    int initDevice() override;
    int closeDevice() override;

    int deviceType() const override { return 2; }
    int devMpx3Info(dv::_DevMpx3Info* info) const override;

    // Configuration. Members are called in their order, up to the first that fails.
    int resetMedipix() override;
    int eraseMatrix() override;
    int setAcqMode(unsigned mode) override;
    int setBias(double volts) override;
    /// That of member 0; while a series runs the last measured one. -1 when both values are exactly 0.
    int biasVoltageCurrentSense(double* volts, double* amperes) const override;
    /// 27 values for each chip. For a single chip the result is 0, whatever its member said.
    int setDacs(const unsigned short* dacs, std::size_t size, int chip) override;
    int setPixelCfg(const unsigned char* data, std::size_t size) override;
    int setConfig(dv::_Mpx3Config config) override;
    /// Each member gets the whole of the test pulse columns.
    int sendTestPulses(unsigned count, double period, const unsigned char* ctpr) override;
    int senseDac(unsigned chip, unsigned dac) override;
    int setExtDac(unsigned, int, double) override { return dv::RESULT_NOT_SUPPORTED; }

    // Matrices and series
    int writeMatrix(const unsigned* data, std::size_t size, bool convert) override;
    /// While a series runs a copy of the last frame, after which the members may read the next one.
    int readMatrix(unsigned* data, std::size_t size, bool convert) override;
    int startAcquisition(unsigned count, double time) override;
    int stopAcquisition() override;
    dv::IMpxFrame* lastData() override;
    void acqFunc() override;

protected:
    std::unique_ptr<Mpx3Dev> makeMember(const std::string& name, const std::string& biasType) override;
    void memberUp(Mpx3Dev& member, std::size_t index) override;

private:
    void loadSettings();
    static int paramReadSetFunc(dv::IParam* param, bool isRead, long user);
    void onWriteParam(dv::IParam* param);
    int prepareAcq();
    void configureTriggers(Mpx3Dev& member, bool master) const;
    void endSeriesBefore();
    unsigned takeStartedSeries();
    void startMembers();
    bool isOver(unsigned number) const;
    bool waitForMembers(unsigned frame, unsigned number);
    static void devEventFuncWrapper(unsigned event, long data, void* info);
    void devEventFunc(DevEventInfo& info, unsigned event, long data);
    bool waitForReadAllowed(DevEventInfo& info) const;
    void readMatrixFromDevice(DevEventInfo& info);
    int recoverDevice(const char* name) const;
    void setMatrixRead();
    void logFunction(const char* name) const { report.section(name, true); }

    Buffer<unsigned> matrix{0, false};                        ///< the frame; by the hand-shake and `sliceSync`
    std::vector<std::unique_ptr<DevEventInfo>> devEventInfos; ///< by member
    std::atomic<unsigned> seriesNumber{0};                    ///< of the series that the host has begun last
    ThreadSyncObject seriesSync;                              ///< held by the thread of a series, but for its start
    ThreadSyncObject startSync;                               ///< guards startedSeries
    std::deque<unsigned> startedSeries;                       ///< numbers for the threads that begin
    bool membersDismissed = false;                            ///< polled: nobody takes the members' frames any more
    std::atomic<unsigned> acqMode{0};
    mutable std::atomic<double> lastBiasVoltage{0.0}; ///< last measured bias, volts
    mutable std::atomic<double> lastBiasCurrent{0.0}; ///< last measured bias current, in the calibration's unit
    bool debugLog = false;                            ///< setting "DebugLog"
    double smallestBias = 0.0;                        ///< volts, while members come up
    double largestBias = 0.0;                         ///< volts, while members come up
};

} // namespace HwLatixel
