// A device's parameters from a table, and their values.
#include "devices/common/paramtable.h"

#include "host/datatype.h"

#include <algorithm>

namespace HwLatixel {

namespace {

void addParam(dv::IParamMgr& params, const ParamRow& row, const void* content, dv::ParamFunc func, long user)
{
    switch (row.kind) {
    case ParamKind::Text:
        params.addString(row.name, row.description, static_cast<const char*>(content), func, user, row.flags);
        break;
    case ParamKind::StoredText:
        params.addParam(row.name, row.description, DTYPE_STRING, 1, content, func, user, row.flags);
        break;
    case ParamKind::Double:
        params.addDouble(row.name, row.description, row.defaultValue, func, user, row.flags);
        break;
    case ParamKind::Bool:
        params.addBool(row.name, row.description, row.defaultValue != 0, func, user, row.flags);
        break;
    case ParamKind::Byte:
        params.addByte(row.name, row.description, static_cast<unsigned char>(row.defaultValue), func, user, row.flags);
        break;
    case ParamKind::Int32:
        params.addInt32(row.name, row.description, row.defaultValue, func, user, row.flags);
        break;
    case ParamKind::StoredInt32:
        params.addParam(row.name, row.description, DTYPE_I32, 1, content, func, user, row.flags);
        break;
    }
}

template <typename T, typename Get>
T valueOf(dv::IParamMgr* params, const char* name, Get get)
{
    if (params == nullptr || !params->exists(name))
        return T{};
    dv::IParam* param = params->get(name);
    return param != nullptr ? (param->*get)() : T{};
}

} // namespace

void addParams(dv::IParamMgr& params, std::span<const ParamRow> rows, std::span<const ParamContent> contents,
               dv::ParamFunc func, long user)
{
    for (const auto& row : rows) {
        const auto found = std::ranges::find(contents, std::string_view(row.name), &ParamContent::name);
        const void* content = found != contents.end() ? found->content : nullptr;
        const bool isText = row.kind == ParamKind::Text || row.kind == ParamKind::StoredText;
        if (!params.exists(row.name))
            addParam(params, row, content, row.callback ? func : nullptr, row.callback ? user : 0);
        else if (isText && content != nullptr)
            params.get(row.name)->setString(static_cast<const char*>(content));
    }
}

unsigned char paramByte(dv::IParamMgr* params, const char* name)
{
    return valueOf<unsigned char>(params, name, &dv::IParam::getByte);
}

bool paramBool(dv::IParamMgr* params, const char* name)
{
    return valueOf<bool>(params, name, &dv::IParam::getBool);
}

int paramInt32(dv::IParamMgr* params, const char* name)
{
    return valueOf<int>(params, name, &dv::IParam::getInt32);
}

} // namespace HwLatixel
