// How a call of the tool's own functions fails.
#pragma once

#include "apps/latixel/exitcode.h"
#include "support/tempfolder.h"

#include <functional>
#include <gtest/gtest.h>

namespace support {

/// The Failure that `call` throws, or one with the code Success.
inline tool::Failure failureOf(const std::function<void()>& call)
{
    try {
        call();
    } catch (const tool::Failure& failure) {
        return failure;
    }
    return {tool::ExitCode::Success, ""};
}

inline tool::ExitCode codeOf(const std::function<void()>& call)
{
    return failureOf(call).code;
}

} // namespace support
