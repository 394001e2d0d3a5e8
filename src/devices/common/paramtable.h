// A device's own parameters, as a table that one loop gives to the host's parameter manager.
#pragma once

#include "host/iparam.h"

#include <span>
#include <string_view>

namespace HwLatixel {

/// Value of the parameter "HwLibVer" of every device.
inline constexpr const char* LIBRARY_VERSION = "Version 3.0 (Mar 19 2024)";

/// How a parameter is given to the host, with its first value.
enum class ParamKind {
    Text,       ///< a text of the device
    StoredText, ///< the same, given by its storage
    Double,
    Bool,
    Byte,
    Int32,
    StoredInt32, ///< a field of the device, given by its address
};

struct ParamRow {
    const char* name;
    const char* description;
    ParamKind kind;
    int defaultValue; ///< of a double, bool, byte or int; the others take `ParamContent`
    unsigned flags;   ///< a dv::ParamFlags value
    bool callback;
};

/// The content of one parameter that is a text or lies in a field of the device.
struct ParamContent {
    std::string_view name;
    const void* content;
};

/// Adds the parameters of `rows` in their order, those that the manager has not got yet; one that it has takes the
/// present content. `func` and `user` go to the rows with a callback.
void addParams(dv::IParamMgr& params, std::span<const ParamRow> rows, std::span<const ParamContent> contents,
               dv::ParamFunc func, long user);

// Values of a manager's parameters; 0, false where there is no such parameter.
unsigned char paramByte(dv::IParamMgr* params, const char* name);
bool paramBool(dv::IParamMgr* params, const char* name);
int paramInt32(dv::IParamMgr* params, const char* name);

} // namespace HwLatixel
