// See ibcpumgr.h.
#include "board/ibcpumgr.h"

#include "host/records.h"
#include "link/cmdframe.h"
#include "shared/str.h"

#include <algorithm>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <limits>

namespace ibcpu {

/// One of the CPU's commands: two bytes, then arguments and zeros up to the block's size. The answer has the same size.
struct Command {
    unsigned char code;
    unsigned char sub;
    unsigned long size;  ///< Bytes of the block.
    const char* logText; ///< Announces the command in the debug log.
};

} // namespace ibcpu

namespace {

using ibcpu::Command;
using Block = std::vector<unsigned char>;

constexpr Command GET_STATUS{2, 0, 4, "CPU Get Status"};
constexpr Command GET_VALUE_NAMES{3, 0, 4096, "CPU Get Values"};
constexpr Command GET_VALUES{4, 0, 4096, "CPU Get Values"};
constexpr Command GET_VERSION{5, 0, 100, "CPU Get Version"};
constexpr Command GET_STATUS_TEXT{6, 0, 100, "CPU Get Status Text"};
constexpr Command TEMPERATURE_RESET{0x80, 0, 6, "CPU Temperature Reset"};
constexpr Command POWER_ON{0x80, 3, 6, "CPU Set Power"};
constexpr Command POWER_OFF{0x80, 4, 6, "CPU Set Power"};
constexpr Command SET_VALUE{0x80, 0, 6, "CPU Set Value"}; ///< `sub` is the value's position.

/// Where the answer's content starts: a text up to a zero byte or the end of the block, or the status.
constexpr std::size_t ANSWER_OFFSET = 2;

std::string textOf(const Block& answer)
{
    const auto begin = answer.begin() + ANSWER_OFFSET;
    return {begin, std::find(begin, answer.end(), '\0')};
}

/// A byte that begins every answer of a bus with nobody on it, and no text.
constexpr char NOBODY = '\xFF';

/// Keeps a parameter from calling back for the life of the guard.
class Silenced {
public:
    explicit Silenced(dv::IParam& silenced) : param(silenced) { param.enableCallback(false); }
    ~Silenced() { param.enableCallback(true); }
    Silenced(const Silenced&) = delete;
    Silenced& operator=(const Silenced&) = delete;

private:
    dv::IParam& param;
};

void storeValue(dv::IParamMgr* manager, const std::string& name, const std::string& value, dv::ParamFunc hook,
                long user, unsigned flags)
{
    if (manager == nullptr || name.empty())
        return;
    if (!manager->exists(name.c_str())) {
        manager->addString(name.c_str(), name.c_str(), value.c_str(), hook, user, flags);
    } else if (dv::IParam* param = manager->get(name.c_str())) {
        const Silenced silenced(*param);
        param->setString(value.c_str());
    }
}

} // namespace

std::string IBCpu::getVersion()
{
    const Block answer = exchange(GET_VERSION);
    // A bus with nobody on it reads as ones.
    constexpr std::size_t PRESENCE_BYTE = 3;
    if ((answer[PRESENCE_BYTE] & 0x80) != 0)
        return "";
    return textOf(answer);
}

int IBCpu::getStatus()
{
    constexpr int STATUS_ERROR = 4;
    const int status = exchange(GET_STATUS)[ANSWER_OFFSET];
    if (status == STATUS_ERROR) {
        errorType = 1;
        return 2;
    }
    return status == 1 || status == 2 ? status : 0;
}

std::string IBCpu::getStatusText()
{
    return textOf(exchange(GET_STATUS_TEXT));
}

IBCpu::Values IBCpu::getValues()
{
    if (valueNames.empty())
        valueNames = askForList(GET_VALUE_NAMES);
    if (valueNames.empty())
        return {};
    const std::vector<std::string> texts = askForList(GET_VALUES);
    Values values;
    for (std::size_t i = 0; i < std::min(valueNames.size(), texts.size()); ++i)
        values.emplace_back(valueNames[i], texts[i]);
    return values;
}

std::string IBCpu::dumpValuesToString()
{
    std::string dump;
    for (const auto& [name, value] : getValues())
        dump.append(name).append(" = ").append(value).append("\n");
    return dump;
}

void IBCpu::dumpValuesToParams(dv::IParamMgr* manager)
{
    const Values values = getValues();
    if (openCreation && !values.empty()) {
        createParams(manager, values);
        return;
    }
    for (const auto& [name, value] : values)
        storeValue(manager, name, value, nullptr, 0, dv::PARAM_READ_ONLY);
}

void IBCpu::dumpValuesAndCreateParams(dv::IParamMgr* manager, dv::ParamFunc hook, long user)
{
    constexpr int TRIES = 2;
    parameterIndexes.clear();
    openCreation = {hook, user};
    Values values;
    for (int i = 0; i < TRIES && values.empty(); ++i)
        values = getValues();
    if (!values.empty())
        createParams(manager, values);
}

/// Needs `openCreation`, and settles it.
void IBCpu::createParams(dv::IParamMgr* manager, const Values& values)
{
    const Creation creation = *std::exchange(openCreation, std::nullopt);
    int position = 0;
    for (const auto& [name, value] : values) {
        parameterIndexes[name] = position++;
        storeValue(manager, name, value, creation.hook, creation.user,
                   name.starts_with('*') ? dv::PARAM_LIVE : dv::PARAM_READ_ONLY);
    }
}

int IBCpu::parameterIndex(const std::string& name) const
{
    const auto found = parameterIndexes.find(name);
    return found != parameterIndexes.end() ? found->second : -1;
}

int IBCpu::setValue(int index, float value)
{
    if (index < 0 || index > std::numeric_limits<unsigned char>::max())
        return 0;
    Command command = SET_VALUE;
    command.sub = static_cast<unsigned char>(index);
    const HwLatixel::CmdArgs bytes = HwLatixel::CmdArgs::word(std::bit_cast<std::uint32_t>(value));
    exchange(command, {bytes.d0, bytes.d1, bytes.d2, bytes.d3});
    return 0;
}

int IBCpu::setPowerOn(bool on)
{
    exchange(on ? POWER_ON : POWER_OFF);
    return 0;
}

int IBCpu::temperatureReset()
{
    exchange(TEMPERATURE_RESET);
    return 0;
}

/// `received`, if given, takes the bytes that came; the others are zero.
Block IBCpu::exchange(const Command& command, std::initializer_list<unsigned char> args, unsigned long* received)
{
    logCommand(command.logText);
    Block request(command.size);
    Block answer(command.size);
    request[0] = command.code;
    request[1] = command.sub;
    std::copy(args.begin(), args.end(), request.begin() + ANSWER_OFFSET);
    unsigned long count = command.size;
    sendReceiveSpi(request.data(), answer.data(), command.size, &count);
    if (received != nullptr)
        *received = count;
    return answer;
}

/// Empty for an answer that was lost as a whole or in part.
std::vector<std::string> IBCpu::askForList(const Command& command)
{
    unsigned long received = 0;
    const std::string text = textOf(exchange(command, {}, &received));
    if (received < command.size || text.empty() || text.front() == NOBODY)
        return {};
    return str::split(text, ";", false, 0);
}
