// The CPU of a readout board, over SPI: version, status, published values, power and temperature commands.
// One template for all generations; a derived class only says how its command manager reaches the CPU.
#pragma once

#include "host/iparam.h"
#include "host/records.h"
#include "link/cmdmgr.h"
#include "link/cmdmgrmpx3.h"
#include "shared/str.h"

#include <algorithm>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <map>
#include <string>
#include <utility>
#include <vector>

/// The CPU's commands: two bytes, then arguments and zeros up to the block's size. The answer has the same size.
namespace ibcpu {

struct Command {
    unsigned char code;
    unsigned char sub;
    unsigned long size;  ///< Bytes of the block.
    const char* logText; ///< Announces the command in the debug log.
};

inline constexpr Command GET_STATUS{2, 0, 4, "CPU Get Status"};
inline constexpr Command GET_VALUE_NAMES{3, 0, 4096, "CPU Get Values"};
inline constexpr Command GET_VALUES{4, 0, 4096, "CPU Get Values"};
inline constexpr Command GET_VERSION{5, 0, 100, "CPU Get Version"};
inline constexpr Command GET_STATUS_TEXT{6, 0, 100, "CPU Get Status Text"};
inline constexpr Command TEMPERATURE_RESET{0x80, 0, 6, "CPU Temperature Reset"};
inline constexpr Command POWER_ON{0x80, 3, 6, "CPU Set Power"};
inline constexpr Command POWER_OFF{0x80, 4, 6, "CPU Set Power"};
inline constexpr Command SET_VALUE{0x80, 0, 6, "CPU Set Value"}; ///< `sub` is the value's position.

/// Where the answer's content starts: a text up to a zero byte or the end of the block, or the status.
inline constexpr std::size_t ANSWER_OFFSET = 2;

} // namespace ibcpu

/// One CPU behind the command manager `T`. No operation reports a failure: a dead link shows as an all-zero answer,
/// that is as no version, status 0 and empty texts. Each call costs one SPI exchange (`getValues` the first time two)
/// and ends with the output handed back to the chips. No lock: the device serialises it with other traffic.
template <typename T>
class IBCpuMgr {
public:
    using Values = std::vector<std::pair<std::string, std::string>>;

    /// `manager` is not owned and outlives this object.
    explicit IBCpuMgr(T* manager) : mgr(manager) {}
    virtual ~IBCpuMgr() = default;
    IBCpuMgr(const IBCpuMgr&) = delete;
    IBCpuMgr& operator=(const IBCpuMgr&) = delete;

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

    /// The published values as pairs of name and text, in the CPU's order; the names are read once.
    Values getValues();
    /// The values, each as a line "name = value".
    std::string dumpValuesToString();
    /// Writes the values into `manager`; new parameters are read-only texts without a callback.
    void dumpValuesToParams(dv::IParamMgr* manager);
    /// The same with `hook` and `user` for new parameters, and notes each value's position for `parameterIndex`. A
    /// name that begins with "*" becomes a parameter that the host may write; the "*" stays part of the name.
    void dumpValuesAndCreateParams(dv::IParamMgr* manager, dv::ParamFunc hook, long user);
    /// Position of a value at the last `dumpValuesAndCreateParams`, -1 if there was none of that name.
    int parameterIndex(const std::string& name) const;

    /// Sets the value at position `index` (one byte). Returns 0.
    int setValue(int index, float value);
    /// Switches the chips' power. Returns 0.
    int setPowerOn(bool on);
    /// Clears the CPU's memory of an exceeded temperature. Returns 0.
    int temperatureReset();

protected:
    T* mgr;

private:
    using Block = std::vector<unsigned char>;

    Block exchange(const ibcpu::Command& command, std::initializer_list<unsigned char> args = {});
    std::vector<std::string> askForList(const ibcpu::Command& command);
    static std::string textOf(const Block& answer);
    static void storeValue(dv::IParamMgr* manager, const std::string& name, const std::string& value,
                           dv::ParamFunc hook, long user, unsigned flags);

    int errorType = 0;
    std::vector<std::string> valueNames;
    std::map<std::string, int> parameterIndexes;
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

template <typename T>
std::string IBCpuMgr<T>::getVersion()
{
    const Block answer = exchange(ibcpu::GET_VERSION);
    // A bus with nobody on it reads as ones.
    constexpr std::size_t PRESENCE_BYTE = 3;
    if ((answer[PRESENCE_BYTE] & 0x80) != 0)
        return "";
    return textOf(answer);
}

template <typename T>
int IBCpuMgr<T>::getStatus()
{
    constexpr int STATUS_ERROR = 4;
    const int status = exchange(ibcpu::GET_STATUS)[ibcpu::ANSWER_OFFSET];
    if (status == STATUS_ERROR) {
        errorType = 1;
        return 2;
    }
    return status == 1 || status == 2 ? status : 0;
}

template <typename T>
std::string IBCpuMgr<T>::getStatusText()
{
    return textOf(exchange(ibcpu::GET_STATUS_TEXT));
}

template <typename T>
typename IBCpuMgr<T>::Values IBCpuMgr<T>::getValues()
{
    if (valueNames.empty())
        valueNames = askForList(ibcpu::GET_VALUE_NAMES);
    const std::vector<std::string> texts = askForList(ibcpu::GET_VALUES);
    Values values;
    for (std::size_t i = 0; i < std::min(valueNames.size(), texts.size()); ++i)
        values.emplace_back(valueNames[i], texts[i]);
    return values;
}

template <typename T>
std::string IBCpuMgr<T>::dumpValuesToString()
{
    std::string dump;
    for (const auto& [name, value] : getValues())
        dump.append(name).append(" = ").append(value).append("\n");
    return dump;
}

template <typename T>
void IBCpuMgr<T>::dumpValuesToParams(dv::IParamMgr* manager)
{
    for (const auto& [name, value] : getValues())
        storeValue(manager, name, value, nullptr, 0, dv::PARAM_READ_ONLY);
}

template <typename T>
void IBCpuMgr<T>::dumpValuesAndCreateParams(dv::IParamMgr* manager, dv::ParamFunc hook, long user)
{
    parameterIndexes.clear();
    int position = 0;
    for (const auto& [name, value] : getValues()) {
        parameterIndexes[name] = position++;
        storeValue(manager, name, value, hook, user, name.starts_with('*') ? dv::PARAM_LIVE : dv::PARAM_READ_ONLY);
    }
}

template <typename T>
int IBCpuMgr<T>::parameterIndex(const std::string& name) const
{
    const auto found = parameterIndexes.find(name);
    return found != parameterIndexes.end() ? found->second : -1;
}

template <typename T>
int IBCpuMgr<T>::setValue(int index, float value)
{
    ibcpu::Command command = ibcpu::SET_VALUE;
    command.sub = static_cast<unsigned char>(index);
    const HwLatixel::CmdArgs bytes = HwLatixel::CmdArgs::word(std::bit_cast<std::uint32_t>(value));
    exchange(command, {bytes.d0, bytes.d1, bytes.d2, bytes.d3});
    return 0;
}

template <typename T>
int IBCpuMgr<T>::setPowerOn(bool on)
{
    exchange(on ? ibcpu::POWER_ON : ibcpu::POWER_OFF);
    return 0;
}

template <typename T>
int IBCpuMgr<T>::temperatureReset()
{
    exchange(ibcpu::TEMPERATURE_RESET);
    return 0;
}

template <typename T>
typename IBCpuMgr<T>::Block IBCpuMgr<T>::exchange(const ibcpu::Command& command,
                                                  std::initializer_list<unsigned char> args)
{
    logCommand(command.logText);
    Block request(command.size);
    Block answer(command.size);
    request[0] = command.code;
    request[1] = command.sub;
    std::copy(args.begin(), args.end(), request.begin() + ibcpu::ANSWER_OFFSET);
    unsigned long received = 0;
    sendReceiveSpi(request.data(), answer.data(), command.size, &received);
    return answer;
}

template <typename T>
std::vector<std::string> IBCpuMgr<T>::askForList(const ibcpu::Command& command)
{
    return str::split(textOf(exchange(command)), ";", false, 0);
}

template <typename T>
std::string IBCpuMgr<T>::textOf(const Block& answer)
{
    const auto begin = answer.begin() + ibcpu::ANSWER_OFFSET;
    return {begin, std::find(begin, answer.end(), '\0')};
}

template <typename T>
void IBCpuMgr<T>::storeValue(dv::IParamMgr* manager, const std::string& name, const std::string& value,
                             dv::ParamFunc hook, long user, unsigned flags)
{
    if (!manager->exists(name.c_str()))
        manager->addString(name.c_str(), name.c_str(), value.c_str(), hook, user, flags);
    else if (dv::IParam* param = manager->get(name.c_str()))
        param->setString(value.c_str());
}
