// Controls the virtual bus: which boards hang on it, their faults, and what they saw. Tests link this library in
// place of libftdi; the tool loads it before the plug-in and calls the two C functions.
#pragma once

#include "sim/boards/board.h"

#include <cstdint>
#include <memory>
#include <nlohmann/json_fwd.hpp>
#include <span>
#include <string>
#include <vector>

extern "C" {
/// Replaces the bus by the bench in the JSON file `path`, which may also be the bare name of a bench that came with
/// the library. Returns 0, or -1 with the reason in `latixelsimError`; the bus is as before then.
LATIXELSIM_API int latixelsimLoadBench(const char* path);
/// Text of the last failed `latixelsimLoadBench` on this thread.
LATIXELSIM_API const char* latixelsimError();
}

namespace sim {

// All of these may be called from any thread. Where they take a board's position they throw std::out_of_range if the
// bench has no such board.

/// Replaces the bus by the boards of a bench. Throws std::runtime_error with a text for people on a bad bench.
LATIXELSIM_API void loadBench(const nlohmann::json& bench);
/// Takes all boards off the bus. Sessions that the host still holds find no device from then on.
LATIXELSIM_API void clearBus();

/// Everything that the host wrote to the board since the last `clearTraffic`, in order. `board` counts in bench order.
LATIXELSIM_API Bytes written(std::size_t board);
LATIXELSIM_API void clearTraffic();

/// Violations of all boards since the bench was loaded.
LATIXELSIM_API std::vector<Violation> violations();

/// Adds a fault to a board, as it stands in the "faults" list of a bench (see sim/usb/faults.h). Its plan counts from
/// now. Throws std::runtime_error with a text for people for an unknown kind or a bad value.
LATIXELSIM_API void addFault(std::size_t board, const nlohmann::json& fault);
/// Ends all faults of a board that still act, and forgets those that wait.
LATIXELSIM_API void clearFaults(std::size_t board);

/// Pulls a board off the bus, and puts it back (powered anew).
LATIXELSIM_API void unplug(std::size_t board);
LATIXELSIM_API void plug(std::size_t board);

/// A pulse on the external trigger input of a board.
LATIXELSIM_API void pulseTrigger(std::size_t board);

/// Calls `hook` before and behind each call of libftdi for a chip that is open, on the thread of that call and with no
/// lock held: there a test gives way to other threads, or looks at what is about to be written (`bytes`, empty in all
/// other calls). Null for none.
LATIXELSIM_API void setUsbHook(void (*hook)(std::span<const std::uint8_t> bytes));

/// Number of sessions that the host holds open on the bus, and of contexts that were initialised and not released.
LATIXELSIM_API int openSessions();
LATIXELSIM_API int liveContexts();

/// Runs `look(board)` with the board's mutex held.
LATIXELSIM_API void withBoard(std::size_t board, void (*look)(Board&, void*), void* user);

/// Calls `look` with the board at that position in the bench, cast to its class, under the board's mutex.
template <typename BoardClass, typename Look>
void inspect(std::size_t board, Look look)
{
    withBoard(
        board, [](Board& b, void* user) { (*static_cast<Look*>(user))(dynamic_cast<BoardClass&>(b)); }, &look);
}

} // namespace sim
