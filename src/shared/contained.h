// Where code of ours is entered from outside: an exception ends there, and does not reach the host or end the process.
#pragma once

#include <cxxabi.h>

#include <exception>

/// Calls `call`. An exception that comes out of it goes no further: `report` gets its text. Returns whether there was
/// none. The end of a thread by `pthread_exit` or cancellation is let through.
template <typename Call, typename Report>
bool contained(Call call, Report report)
{
    try {
        try {
            call();
            return true;
        } catch (const std::exception& exception) {
            report(exception.what());
        } catch (const abi::__forced_unwind&) {
            throw;
        } catch (...) {
            report("exception of an unknown type");
        }
    } catch (const abi::__forced_unwind&) {
        throw;
    } catch (...) { // out of the report: there is no memory, and nobody to tell
    }
    return false;
}

/// The same where nobody could be told.
template <typename Call>
bool contained(Call call)
{
    return contained(call, [](const char*) {});
}
