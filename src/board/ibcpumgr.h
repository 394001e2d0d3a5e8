// The CPU of a readout board, over SPI: version, status, published values, power and temperature commands.
// One class for all generations; what is derived from it only says how a command manager reaches the CPU.
#pragma once

#include "host/iparam.h"
#include "link/cmdmgr.h"
#include "link/cmdmgrmpx3.h"

#include <initializer_list>
#include <map>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace ibcpu {
struct Command;
} // namespace ibcpu

/// One CPU. No operation reports a failure: a dead link shows as an all-zero answer, that is as no version, status 0,
/// empty texts and no values. Each call costs one SPI exchange (`getValues` two until the names are there) and ends
/// with the output handed back to the chips. No lock: the device serialises it with other traffic.
///
/// What is written into parameters here comes from the CPU, so their callbacks are off meanwhile: they would send it
/// back as the host's wish.
class IBCpu {
public:
    using Values = std::vector<std::pair<std::string, std::string>>;

    virtual ~IBCpu() = default;
    IBCpu(const IBCpu&) = delete;
    IBCpu& operator=(const IBCpu&) = delete;

    /// One full-duplex exchange of `size` bytes with the CPU. Its result counts for nothing.
    virtual int sendReceiveSpi(unsigned char* tx, unsigned char* rx, unsigned long size, unsigned long* received) = 0;
    /// Writes `text` as a line of its own into the debug log.
    virtual void logCommand(const char* text) = 0;

    /// True if the board carries a CPU that tells a version.
    bool isSupported() { return !getVersion().empty(); }
    /// The CPU's firmware version; empty if there is none.
    std::string getVersion();
    /// The CPU's state: 0 good, 1 or 2 as the CPU tells it; an error (4) is 2 as well, and sets the error type.
    int getStatus();
    /// 1 once the CPU has reported an error, for the life of this object, whatever `getStatus` gives later; 0 before.
    int getErrorType() const { return errorType; }
    /// The CPU's own words for its state.
    std::string getStatusText();

    /// The published values as pairs of name and text, in the CPU's order. The names are read once; an answer that is
    /// empty or too short, for the names or for the values, gives no values, and the names are asked for again by the
    /// next call.
    Values getValues();
    /// The values, each as a line "name = value".
    std::string dumpValuesToString();
    /// Writes the values into `manager`, all that have a name; new parameters are read-only texts without a callback.
    void dumpValuesToParams(dv::IParamMgr* manager);
    /// The same with `hook` and `user` for new parameters, and notes each value's position for `parameterIndex`. A
    /// name that begins with "*" becomes a parameter that the host may write; the "*" stays part of the name.
    /// A lost answer is asked for once more; where that is lost too, the next `dumpValuesToParams` makes up for it.
    void dumpValuesAndCreateParams(dv::IParamMgr* manager, dv::ParamFunc hook, long user);
    /// Position of a value at the last `dumpValuesAndCreateParams`, -1 if there was none of that name.
    int parameterIndex(const std::string& name) const;

    /// Sets the value at position `index`; sends nothing for one that takes more than a byte. Returns 0.
    int setValue(int index, float value);
    /// Switches the chips' power. Returns 0.
    int setPowerOn(bool on);
    /// Clears the CPU's memory of an exceeded temperature. Returns 0.
    int temperatureReset();

protected:
    IBCpu() = default;

private:
    /// How parameters are to be created.
    struct Creation {
        dv::ParamFunc hook;
        long user;
    };

    std::vector<unsigned char> exchange(const ibcpu::Command& command, std::initializer_list<unsigned char> args = {},
                                        unsigned long* received = nullptr);
    std::vector<std::string> askForList(const ibcpu::Command& command);
    void createParams(dv::IParamMgr* manager, const Values& values);

    int errorType = 0;
    std::vector<std::string> valueNames; ///< empty until the CPU has told them
    std::map<std::string, int> parameterIndexes;
    std::optional<Creation> openCreation; ///< was asked for, but no values have come since
};

/// The CPU behind the command manager `T`.
template <typename T>
class IBCpuMgr : public IBCpu {
public:
    /// `manager` is not owned and outlives this object.
    explicit IBCpuMgr(T* manager) : mgr(manager) {}

protected:
    T* mgr;
};

/// What is the same in all of them: the manager exchanges and logs.
template <typename T>
class IBCpuMgrOn : public IBCpuMgr<T> {
public:
    using IBCpuMgr<T>::IBCpuMgr;

    int sendReceiveSpi(unsigned char* tx, unsigned char* rx, unsigned long size, unsigned long* received) override
    {
        return this->mgr->sendReceiveSpiCpu(tx, rx, size, received);
    }
    void logCommand(const char* text) override { this->mgr->logCommand(text); }
};

/// The CPU of a Medipix3 board.
class IBCpuMgrMpx3 : public IBCpuMgrOn<HwLatixel::CmdMgrMpx3> {
public:
    using IBCpuMgrOn::IBCpuMgrOn;
};

namespace HwLatixel {

/// The CPU of a Medipix2 or Timepix board.
class IBCpuMgrTpx : public IBCpuMgrOn<CmdMgr> {
public:
    using IBCpuMgrOn::IBCpuMgrOn;
};

/// The CPU of a row board.
class IBCpuMgrTpxRow : public IBCpuMgrOn<CmdMgr> {
public:
    using IBCpuMgrOn::IBCpuMgrOn;
};

} // namespace HwLatixel
