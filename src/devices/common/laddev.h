// What the composites of both chip families have in common as devices of the host.
#pragma once

#include "devices/common/boardreports.h"
#include "devices/common/devdefaults.h"
#include "devices/common/devicereport.h"
#include "devices/common/deviceturn.h"
#include "devices/common/hostevents.h"
#include "devices/common/ladmembers.h"
#include "devices/common/linkturn.h"
#include "devices/common/parallel.h"
#include "devices/common/paramtable.h"
#include "devices/common/serieslife.h"
#include "host/idorvet.h"
#include "shared/contained.h"
#include "shared/osdepend.h"
#include "shared/str.h"

#include <atomic>
#include <cmath>
#include <cstdarg>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace HwLatixel {

inline constexpr std::size_t LAD_CHIP_PIXELS = 65536; ///< pixels of a chip
inline constexpr unsigned LAD_ADC_CHANNELS = 16;      ///< of each member

/// Base of a composite: members, records, reports, and the operations that forward to members. It has no hardware of
/// its own. A member that does not come up is left out.
///
/// The composite has a turn and a series of its own, above those of its members: an operation of the host has the turn
/// while it goes through the members, and takes the turn of one member after the other. No lock and no turn is held
/// while the host is called. The host keeps other calls away from `initDevice` alone: the members that `closeDevice`
/// has closed stay until then, so that a call that is still among them meets closed boards.
///
/// `Base` stands between the host's interface and the composite, with the virtual operations that come before
/// `acqFunc`.
template <typename Interface, typename Member, typename Base = DevDefaults<Interface>>
class LadDev : public Base {
public:
    int initDevice() override = 0;
    /// Ends a running series and closes the members, within three seconds. 1 with a text from a callback of this
    /// device other than that of a series' last event, or where such a callback does not end in time: then
    /// the device can be used or closed again.
    int closeDevice() override
    {
        if (life.caller() == SeriesLife::Caller::Handler)
            return logError(1, "The device cannot be closed from its own callback.");
        if (closing.exchange(true))
            return logError(1, "Device is busy");
        const int result = closeWithin(getPreciseTime() + CLOSE_LIMIT);
        closing = false;
        return result == 0 ? 0 : logError(1, "The device cannot be closed: a call of it has not returned.");
    }
    /// As `closeDevice`, then frees the object. Where a callback of the host does not end in time, the thread that runs
    /// it does so as its last act.
    void destroy() override
    {
        if (life.caller() == SeriesLife::Caller::Handler) {
            logError(1, "The device cannot be destroyed from its own callback.");
            return;
        }
        closeDevice();
        // From here on the host may take down whatever its callbacks use.
        events.setFunc(nullptr, nullptr);
        report.setLogMsgFunc(nullptr, nullptr);
        if (life.abandon())
            delete this;
    }
    bool isConnected() const override { return loadFlag(connected); }
    bool isBusy() const override { return loadFlag(busy); }
    int devInfo(dv::_DevInfo* info) const override
    {
        if (info == nullptr)
            return refuseNull();
        *info = devInfoRec;
        return 0;
    }
    int devMpxInfo(dv::_DevMpxInfo* info) const override
    {
        if (info == nullptr)
            return refuseNull();
        *info = devMpxInfoRec;
        return 0;
    }
    int setEventFunc(dv::EventFunc func, void* user) override
    {
        events.setFunc(func, user);
        return 0;
    }
    int setLogMsgFunc(dv::LogMsgFunc func, void* user) override
    {
        report.setLogMsgFunc(func, user);
        return 0;
    }
    dv::IParamMgr* parameters() const override { return params; }
    dv::IParamMgr* inDeviceConfigParameters() const override { return inDeviceParams; }
    const char* lastError() const override { return report.lastError(); }
    const char* deviceName() const override { return "Latixel"; }
    /// The first status of a member that is not 0, in the order of the members.
    int deviceStatus() const override
    {
        for (std::size_t i = 0; i < members.size(); ++i)
            if (const int status = members[i].deviceStatus(); status != 0)
                return status;
        return 0;
    }
    /// The first status text of a member that is not empty.
    const char* deviceStatusText() const override
    {
        std::string text;
        for (std::size_t i = 0; i < members.size() && text.empty(); ++i)
            text = members[i].deviceStatusText();
        // What the host holds stays valid as long as nothing new comes.
        if (text != statusText.get())
            statusText.set(text);
        return statusText.get();
    }
    int chipIDList(dv::IStrList* list) const override
    {
        if (list == nullptr)
            return refuseNull();
        for (const auto& id : chipIds)
            list->add(id.c_str());
        return 0;
    }
    int adcCount() const override { return static_cast<int>(members.size() * LAD_ADC_CHANNELS); }
    double adcValue(unsigned index) const override
    {
        if (index / LAD_ADC_CHANNELS >= members.size())
            return logError(dv::RESULT_INVALID_INDEX, "Invalid ADC index.");
        return members[index / LAD_ADC_CHANNELS].adcValue(index % LAD_ADC_CHANNELS);
    }
    int analogValue(unsigned chip, double* value) override
    {
        if (value == nullptr)
            return refuseNull();
        const auto* found = members.findChip(chip);
        if (found == nullptr)
            return logError(wrongArgumentCode, "Invalid chip index: %u", chip);
        return operate([&] { return found->member->analogValue(static_cast<unsigned>(found->index), value); });
    }
    /// As requested, not as measured.
    double lastAcqTime() const override { return acqTime; }
    int setPolarity(int, bool) override { return 0; }
    int doSoftwareTrigger(unsigned) override { return 0; }

    virtual void acqFunc() = 0;

protected:
    /// `names` are the members' USB descriptions, in the order in which they stand in the composite.
    LadDev(IDorvet* host, std::string logFolder, FileLog* log, std::string settings, std::vector<std::string> names)
        : dorvet(host),
          params(host->createParamMgr()),
          inDeviceParams(host->createParamMgr()),
          logDirectory(std::move(logFolder)),
          settingsPath(std::move(settings)),
          deviceNames(std::move(names))
    {
        devMpxInfoRec.biasMax = maxBiasOf(deviceNames);
        report.setTurn(&linkTurn, &life);
        report.attachLog(log);
    }
    ~LadDev() override
    {
        params->destroy();
        inDeviceParams->destroy();
    }

    virtual std::unique_ptr<Member> makeMember(const std::string& name, const std::string& biasType) = 0;
    /// Called for each member that has come up, before it is taken over with its position.
    virtual void memberUp(Member&, std::size_t) {}
    /// Lets a stopped series go that waits for the host.
    virtual void dismissSeries()
    {
        forAll([](Member& member) { member.stopAcquisition(); });
    }

    /// Tells firmware and serial of the members in the parameters "Firmware", where the last one's stands, and
    /// "DeviceSerials"; that of a single member becomes the composite's.
    void publishMembers()
    {
        std::string serials;
        forAll([&](const Member& member) {
            params->get("Firmware")->setString(member.firmware().c_str());
            serials += serialFromDeviceName(member.deviceName()) + " ";
        });
        params->get("DeviceSerials")->setString(serials.c_str());
        if (members.size() == 1)
            devInfoRec.serialNumber = str::toNumDef<int>(serialFromDeviceName(members[0].deviceName()), 1);
    }
    /// Brings the members up and fills the records. -1 without a chip.
    int bringUpMembers()
    {
        if (const int result = closeDevice(); result != 0)
            return result;
        members.clear();
        // A series that ended by a failed recovery has left both.
        storeFlag(inAcquisition, false);
        storeFlag(busy, false);
        chipIds.clear();
        for (const auto& name : deviceNames)
            bringUp(name);
        const auto chips = static_cast<unsigned>(members.chipCount());
        devMpxInfoRec.chipTotal = chips;
        devMpxInfoRec.pixelTotal = chips * static_cast<unsigned>(LAD_CHIP_PIXELS);
        if (chips == 0) {
            chipIds.clear();
            return -1;
        }
        storeFlag(connected, true);
        return 0;
    }

    int logError(int code, const char* format, ...) const __attribute__((format(printf, 3, 4)))
    {
        va_list args;
        va_start(args, format);
        report.errorV(code, format, args);
        va_end(args);
        return code;
    }
    /// Reports a member's failure. The name is looked up by the position among the members that came up, in the list of
    /// all names: behind one that did not come up it is that of a neighbour.
    int memberFailed(std::size_t index, const char* memberError, int code = 1) const
    {
        const std::string& name = deviceNames[std::min(index, deviceNames.size() - 1)];
        return logError(code, "Device %s reported error: %s", name.c_str(), memberError);
    }
    /// Runs `call(member)` on the members in their order, up to the first that fails, which is reported. `call` may
    /// also take the member's position. 0; else 1, or the member's result where `tellsMemberResult` is set.
    template <typename Call>
    int untilFailure(Call call) const
    {
        for (std::size_t i = 0; i < members.size(); ++i) {
            int result = 0;
            if constexpr (std::is_invocable_v<Call, Member&, std::size_t>)
                result = call(members[i], i);
            else
                result = call(members[i]);
            if (result != 0)
                return memberFailed(i, members[i].lastError(), tellsMemberResult ? result : 1);
        }
        return 0;
    }
    template <typename Call>
    void forAll(Call call) const
    {
        for (std::size_t i = 0; i < members.size(); ++i)
            call(members[i]);
    }
    /// The part of an array of `perChip` elements a chip that belongs to member `index`.
    template <typename T>
    Slice<T> memberSlice(T* data, std::size_t size, std::size_t index, std::size_t perChip) const
    {
        return sliceOf(data, size, members.firstChip(index), static_cast<std::size_t>(members[index].chipCount()),
                       perChip);
    }
    std::size_t pixelCount() const { return static_cast<std::size_t>(members.chipCount()) * LAD_CHIP_PIXELS; }
    int checkMatrixSize(std::size_t size) const
    {
        if (size >= pixelCount())
            return 0;
        return logError(wrongArgumentCode, "Invalid size for matrix (%lu < %lu)", static_cast<unsigned long>(size),
                        static_cast<unsigned long>(pixelCount()));
    }
    int refuseNull() const { return logError(1, "No place for a result, or no data, given."); }
    /// 1 with a text where no board is open.
    int requireMembers() const { return members.empty() ? logError(1, "%s", NOT_CONNECTED) : 0; }
    /// Runs an operation that goes through the members, with the turn in hand; what it waits for their turns is limited
    /// for all of them together. 1 with a text where there is no turn or no board, else the operation's result.
    template <typename Operation>
    int operate(Operation operation) const
    {
        const TurnBudget budget(turnLimit());
        const DeviceTurn turn = operationTurn();
        return turn.require() != 0 || requireMembers() != 0 ? 1 : operation();
    }
    DeviceTurn operationTurn() const { return {linkTurn, report, turnLimit()}; }
    /// Seconds that an operation waits for the turn.
    double turnLimit() const
    {
        constexpr double PATIENCE = 5.0;
        return life.state() != SeriesLife::State::Idle ? acqTime + PATIENCE : PATIENCE;
    }
    void setBusy(bool value)
    {
        if (loadFlag(busy) == value)
            return;
        storeFlag(busy, value);
        events.send(HWEVENT_BUSY_CHANGED, value ? 1 : 0, false);
    }
    /// Stops all members and clears their counters; their results don't count.
    void abortAcqAllDevs()
    {
        forAll([](Member& member) {
            member.stopAcquisition();
            member.eraseMatrix();
        });
    }
    /// Makes room for a series in the life of the device, waiting for what is left of the one before. 1 with a text
    /// where there is none.
    int beginSeries(unsigned count, double time)
    {
        const bool limited = devMpxInfoRec.acqTimeMax > 0.0;
        if (!std::isfinite(time) || time < devMpxInfoRec.acqTimeMin || (limited && time > devMpxInfoRec.acqTimeMax))
            return logError(1, "Invalid acquisition time (%g s).", time);
        // Also in a callback that is none of a series' events.
        if (life.caller() == SeriesLife::Caller::Handler)
            return logError(1, "Acquisition is running");
        switch (life.begin()) {
        case SeriesLife::Start::Accepted:
            break;
        case SeriesLife::Start::Running:
        case SeriesLife::Start::InCallback:
            return logError(1, "Acquisition is running");
        case SeriesLife::Start::Late:
            return logError(1, "Device is busy");
        }
        acqCount = count;
        acqTimeRequested = time;
        acqTime = time;
        return 0;
    }
    /// Runs the series that has begun, or gives it up where its preparation has failed. Returns the result of the
    /// preparation, or 1.
    int runSeries(int prepared)
    {
        if (prepared != 0) {
            life.giveUp();
            return prepared;
        }
        return life.run(acqFuncWrapper, this) ? 0 : logError(1, "Cannot start the acquisition thread.");
    }
    /// Sends the event with which a series ends.
    void endSeries(unsigned event, long data)
    {
        life.finished();
        events.send(event, data, false);
    }
    /// For the destructor of a concrete class: the series runs operations of that class.
    void shutDown()
    {
        LadDev::closeDevice();
        // Nothing is freed under a thread, however long it takes.
        while (!life.awaitThreads(CLOSE_LIMIT)) {
        }
        events.dispatcher().stopThreadAndWait();
    }

    mutable LinkTurn linkTurn; ///< whose operation goes through the members
    mutable DeviceReport report;
    mutable SeriesLife life;
    HostEvents events{life};
    LadMembers<Member> members;
    std::vector<std::string> chipIds; ///< one identifier for each chip; set at bring-up

    // Records: written before and in `initDevice`, then only read
    dv::_DevInfo devInfoRec{"Latixel", 8, 2, 1, 1};
    dv::_DevMpxInfo devMpxInfoRec{0, 0, 0, 0.0, 0.0, 4e-08, 86400.0, 0, 0, 0, {1}};
    IDorvet* dorvet;               ///< the host, not owned
    dv::IParamMgr* params;         ///< owned through its `destroy`
    dv::IParamMgr* inDeviceParams; ///< owned through its `destroy`; stays empty
    std::string logDirectory;
    std::string settingsPath;
    std::vector<std::string> deviceNames;

    bool connected = false;
    std::atomic<bool> closing{false}; ///< a thread is in `closeDevice`
    bool busy = false;
    bool inAcquisition = false; ///< polled: a series runs
    std::atomic<unsigned> acqCount{0};
    std::atomic<double> acqTime{0.0};          ///< requested length of a frame, seconds
    std::atomic<double> acqTimeRequested{0.0}; ///< the same
    int wrongArgumentCode = 1; ///< for a chip that is not there and a matrix that is too small; set by the constructor
    bool tellsMemberResult = false; ///< what a failed broadcast returns; set by the constructor
    int recoverAttemptCount = 5;    ///< setting "RecoverAttemptCount"
    mutable LastError statusText;

private:
    static constexpr double CLOSE_LIMIT = 2.5; ///< seconds that closing waits for a series and for other calls

    /// Closes members and composite. 1 where a series or another call goes on behind the deadline.
    int closeWithin(double deadline)
    {
        linkTurn.beginClosing();
        life.stop();
        // All of them before the first is waited for: what a member does then ends at its next step.
        forAll([](Member& member) { member.beginClosing(); });
        dismissSeries();
        // With the turn in hand nothing begins any more, a series that was being prepared included.
        DeviceTurn turn(linkTurn, report, deadline - getPreciseTime());
        const bool alone = turn.taken() && life.awaitThreads(deadline - getPreciseTime());
        const bool closed = alone && closeMembers();
        if (closed) {
            storeFlag(connected, false);
            members.retire();
        } else {
            forAll([](Member& member) { member.cancelClosing(); });
        }
        turn.release();
        linkTurn.endClosing();
        return closed ? 0 : 1;
    }
    void bringUp(const std::string& name)
    {
        std::unique_ptr<Member> member = makeMember(name, biasTypeOf(name));
        if (member->initDevice() != 0) {
            report.line(MSG, "Initialization of Latixel device %s failed: %s", name.c_str(), member->lastError());
            return;
        }
        report.line(MSG, "Initialized Latixel device %s", name.c_str());
        if constexpr (requires { member->setLogMsgFunc(passOn, this); })
            member->setLogMsgFunc(passOn, this);
        memberUp(*member, members.size());
        for (const auto& id : member->chipIDs())
            chipIds.push_back(id);
        members.add(std::move(member));
    }
    /// At once on all links: those of boards that are gone take their time.
    bool closeMembers()
    {
        std::atomic<bool> all = true;
        inParallel(members.size(), [&](std::size_t i) {
            if (members[i].closeDevice() != 0)
                all = false;
        });
        return all;
    }
    /// That a board has become too hot concerns the user, whichever member tells it.
    static void passOn(unsigned level, const char* text, void* lad)
    {
        if (std::string_view(text).starts_with(TOO_HOT_MESSAGE))
            static_cast<LadDev*>(lad)->report.pass(level, text);
    }
    /// Ends a series whose thread can't go on.
    void breakOff()
    {
        life.stop();
        life.framesOver();
        dismissSeries();
        events.dispatcher().stopThread();
        linkTurn.endWholeSeries();
        setBusy(false);
        storeFlag(inAcquisition, false);
        endSeries(HWEVENT_ACQ_FAILED, -1);
    }
    static void acqFuncWrapper(void* lad)
    {
        auto* self = static_cast<LadDev*>(lad);
        const auto tell = [self](const char* text) { self->logError(1, "Acquisition failed (%s)", text); };
        if (!contained([self] { self->acqFunc(); }, tell))
            contained([self] { self->breakOff(); });
        // The host has gone away meanwhile and has left the device to this thread.
        if (self->life.left())
            delete self;
    }
};

} // namespace HwLatixel
