// What a device logs of its board's services: flash parameters, and a CPU that reports an error.
#pragma once

#include "devices/common/devicereport.h"
#include "host/iparam.h"
#include "host/records.h"

#include <cstddef>

namespace HwLatixel {

/// What a board's CPU tells of itself, see IBCpuMgr::getStatus and getErrorType.
inline constexpr int CPU_FAULT = 2;
inline constexpr int CPU_ERROR_TEMPERATURE = 1;

/// How the message begins that tells of an exceeded temperature.
inline constexpr const char* TOO_HOT_MESSAGE = "Maximal allowed temperature exceeded !";

/// Logs the parameters that the board's flash has filled. Bulk data is left out: it would be read from the flash only
/// to be logged.
inline void logFlashParameters(DeviceReport& report, dv::IParamMgr& inDeviceParams)
{
    constexpr std::size_t BULK_ITEMS = 11;
    const auto params = inDeviceParams.params();
    for (auto* param : params) {
        if (param->size() < BULK_ITEMS)
            report.line(DBG, "Param[%s] = %s", param->name(), param->getString().c_str());
        else
            report.line(DBG, "Param[%s] = <BIGDATA>", param->name());
    }
    if (params.empty())
        report.line(DBG, "No parameters in IB Flash.");
}

/// Reports a CPU whose status is CPU_FAULT. An exceeded temperature reaches the host as an error once, and sets
/// `overheated`; other errors reach the log alone.
template <typename Cpu>
void reportCpuFault(DeviceReport& report, Cpu& cpu, bool& overheated)
{
    if (cpu.getErrorType() != CPU_ERROR_TEMPERATURE) {
        report.error(0, "Device error: %s\n", cpu.getStatusText().c_str());
    } else {
        if (!loadFlag(overheated))
            report.error(dv::RESULT_OVERHEATED,
                         "%s Let the device cool down and then reconnect it in SW or restart SW.\nDevice error: %s\n",
                         TOO_HOT_MESSAGE, cpu.getStatusText().c_str());
        storeFlag(overheated, true);
    }
    if (report.log() != nullptr)
        report.line(ERR, "Device error. Dumping values:\n%s\n", cpu.dumpValuesToString().c_str());
}

} // namespace HwLatixel
