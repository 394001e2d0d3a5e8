// Several Medipix3 boards as one detector.
#pragma once

#include "devices/common/laddev.h"
#include "devices/mpx3/mpx3dev.h"

#include <atomic>
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
    Event acqFinished{false, false, "acqFinished"}; ///< the member has ended its frame, or its series
    std::atomic<int> result{0};                     ///< type of the last event taken into account
    std::atomic<unsigned> framesEnded{0};           ///< in this series
    std::atomic<bool> failed{false};                ///< the series of this member has
    ThreadSyncObject sliceSync;                     ///< around a write of the member's part of the frame; guards:
    bool filled = false;                            ///< the part is that of the frame to be announced next
    unsigned long missing = 0;                      ///< bytes of it that have not come
};

/// A composite of Medipix3 boards. Member 0 is the trigger master, the others follow its trigger output.
///
/// A series has a detached thread, "mpx3ladacq", beside those of the members, which end before its last event. Each
/// member may have one frame read into `matrix` ahead of the host: its event waits for `readAllowed`, which the first
/// read of the announced frame gives to all members, and answers with `acqFinished`. A host that takes no frames holds
/// the series at the second one. When a frame's event comes to the host, `matrix` and `announced` are swapped: what the
/// host reads is the announced frame as often as it likes, up to the last event of the series.
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
    /// From the first frame event of a series to its last event the announced frame, else what the chips hold.
    int readMatrix(unsigned* data, std::size_t size, bool convert) override;
    int startAcquisition(unsigned count, double time) override;
    /// Ends the series in any state; a frame event still comes for the frame in progress, whose members that have not
    /// delivered count as missing. Waits for what the boards have on the wire, about a second for all of them together,
    /// in a handler not at all.
    int stopAcquisition() override;
    dv::IMpxFrame* lastData() override;
    void acqFunc() override;

protected:
    std::unique_ptr<Mpx3Dev> makeMember(const std::string& name, const std::string& biasType) override;
    void memberUp(Mpx3Dev& member, std::size_t index) override;
    void dismissSeries() override;

private:
    void loadSettings();
    static int paramReadSetFunc(dv::IParam* param, bool isRead, long user);
    void onWriteParam(dv::IParam* param);
    bool awaitMembers(double deadline) const;
    void configureTriggers() const;
    int prepareAcq();
    void abandonPreparation();
    void startMembers();
    void takeFrames();
    bool waitForMembers(unsigned frame);
    bool isFailed(unsigned frame) const;
    void stopMembers(double patience);
    void abortMembers();
    static void beforeFrame(void* lad);
    void announceFrame();
    bool copyAnnounced(unsigned* data, std::size_t size, unsigned long* missing);
    void letMembersRead();
    void setMatrixRead();
    int readFrame(unsigned* data, std::size_t size, bool convert, unsigned long* missing);
    static void devEventFuncWrapper(unsigned event, long data, void* info);
    void devEventFunc(DevEventInfo& info, unsigned event, long data);
    void endMemberFrame(DevEventInfo& info, unsigned event) const;
    bool waitForReadAllowed(DevEventInfo& info) const;
    void readMatrixFromDevice(DevEventInfo& info);
    int recoverDevice(const char* name) const;
    bool isRunning() const { return life.state() == SeriesLife::State::Running; }
    void logFunction(const char* name) const { report.section(name, true); }

    std::vector<unsigned> matrix;                             ///< the frame that the members read; by the hand-shake
    std::vector<std::unique_ptr<DevEventInfo>> devEventInfos; ///< by member
    ThreadSyncObject frameSync;                               ///< guards what is announced:
    std::vector<unsigned> announced;                          ///< the frame that the host was told of last
    unsigned long announcedMissing = 0;                       ///< bytes of it that have not come
    bool frameAnnounced = false;                              ///< there is one
    bool frameTaken = false;                                  ///< it was read, and the members have gone on
    std::atomic<unsigned> acqMode{0};
    mutable std::atomic<double> lastBiasVoltage{0.0}; ///< last measured bias, volts
    mutable std::atomic<double> lastBiasCurrent{0.0}; ///< last measured bias current, in the calibration's unit
    bool debugLog = false;                            ///< setting "DebugLog"
    double smallestBias = 0.0;                        ///< volts, while members come up
    double largestBias = 0.0;                         ///< volts, while members come up
};

} // namespace HwLatixel
