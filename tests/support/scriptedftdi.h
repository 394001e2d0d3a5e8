// A libftdi that follows a script: it answers from lists and records every call. A test program that uses it includes
// `ftdiexports.h` in one of its sources.
#pragma once

#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <string>
#include <vector>

struct ScriptedFtdi {
    struct Device {
        std::uint32_t vidPid;
        std::string description;
        std::string serial;
        int timesReadable = 1000000; ///< Its texts can be read so many times, as if it was then unplugged.
    };
    struct Read {
        std::string data;
        int error = 0;
    };

    std::vector<Device> devices;        ///< What is on the bus.
    std::deque<Read> reads;             ///< Answers of the reads, one after another; then nothing arrives.
    std::deque<int> writeResults;       ///< Results of the writes, one after another; then all is taken,
    bool stuck = false;                 ///< or nothing.
    std::map<std::string, int> results; ///< Results of other functions by name, 0 if not here.
    /// Called by "read", "write", "open", "reset" and "get_latency" with the milliseconds that they may block.
    std::function<void(const std::string& function, int limit)> hook;

    std::vector<std::string> calls; ///< All calls but reads and writes, with their arguments.
    std::string written;            ///< All bytes taken.
    int readCount = 0;
    int liveContexts = 0; ///< `ftdi_init` less `ftdi_deinit`.

    static ScriptedFtdi& instance()
    {
        static ScriptedFtdi script;
        return script;
    }
    static ScriptedFtdi& restart() { return instance() = {}; }
};

/// Bytes as hexadecimal digits, with blanks between them.
template <typename Container>
std::string hex(const Container& bytes)
{
    std::string text;
    for (const auto byte : bytes) {
        text += text.empty() ? "" : " ";
        text += {"0123456789ABCDEF"[byte >> 4 & 15], "0123456789ABCDEF"[byte & 15]};
    }
    return text;
}
