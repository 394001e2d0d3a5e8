// External triggers of a series: what the host's mode word asks for, and the word that goes to the board.
#pragma once

#include "devices/common/paramtable.h"
#include "host/records.h"

namespace HwLatixel {

enum TriggerMode { TRIGGER_NONE = 0, TRIGGER_START = 1, TRIGGER_STOP = 2, TRIGGER_BOTH = 3 };

/// The mode that a word of `dv::AcqMode` bits asks for. With both trigger bits set the start bit wins, so that
/// TRIGGER_BOTH never comes from here: a host that sets both gets frames that the timer stops.
constexpr TriggerMode triggerModeOf(unsigned acqMode)
{
    if ((acqMode & dv::ACQMODE_EXT_TRIGGER_START) != 0)
        return TRIGGER_START;
    return (acqMode & dv::ACQMODE_EXT_TRIGGER_STOP) != 0 ? TRIGGER_STOP : TRIGGER_NONE;
}
constexpr bool triggersStart(int mode)
{
    return mode == TRIGGER_START || mode == TRIGGER_BOTH;
}
constexpr bool triggersStop(int mode)
{
    return mode == TRIGGER_STOP || mode == TRIGGER_BOTH;
}

/// Bits of the board's trigger word that all generations share, beside the setting itself in the low two bits.
namespace triggerword {
inline constexpr unsigned char SETTING_MASK = 3;
inline constexpr unsigned char WAIT_FOR_READY = 4;
inline constexpr unsigned char MASTER = 8;
inline constexpr unsigned char OUT_LEVEL = 0x10;
} // namespace triggerword

/// The trigger word from `setting` and the parameters "TriggerWaitForReady", "TriggerMaster" and "TriggerOutLevel".
inline unsigned char triggerWordOf(dv::IParamMgr* params, unsigned char setting)
{
    unsigned word = setting;
    word |= paramBool(params, "TriggerWaitForReady") ? triggerword::WAIT_FOR_READY : 0U;
    word |= paramBool(params, "TriggerMaster") ? triggerword::MASTER : 0U;
    word |= paramByte(params, "TriggerOutLevel") != 0 ? triggerword::OUT_LEVEL : 0U;
    return static_cast<unsigned char>(word);
}

} // namespace HwLatixel
