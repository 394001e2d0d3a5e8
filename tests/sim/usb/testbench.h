// A board that answers with what it is told, and a host's session on it, for the tests of the bus.
#pragma once

#define _FTDI_DISABLE_DEPRECATED
#include <ftdi.h>

#include "sim/usb/bench.h"
#include "sim/usb/latixelsim.h"

#include <algorithm>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

namespace simtest {

using namespace std::chrono_literals;
using nlohmann::json;
using sim::Bytes;

/// Echoes what it receives. Tests let it send more.
class EchoBoard : public sim::Board {
public:
    using Board::Board;
    using Board::emit;

    void receive(std::span<const std::uint8_t> bytes, sim::Time /*now*/) override { emit(bytes); }

    void advance(sim::Time /*now*/) override {}
    void setBitMode(std::uint8_t /*mask*/, std::uint8_t mode, sim::Time /*now*/) override { modes.push_back(mode); }
    void powerCycle(sim::Time /*now*/) override { ++powered; }

    int powered = 0;
    Bytes modes; ///< each bit mode that was set
};

/// The bytes 0, 1, 2, ... up to 250 and again.
inline Bytes ramp(std::size_t size)
{
    Bytes bytes(size);
    for (std::size_t i = 0; i < size; ++i)
        bytes[i] = static_cast<std::uint8_t>(i % 251);
    return bytes;
}

/// A host's context, with a session once it is opened. The link is in synchronous FIFO mode then.
class Host {
public:
    Host() { EXPECT_EQ(ftdi_init(&ftdi), 0); }
    explicit Host(const char* description) : Host()
    {
        EXPECT_EQ(open(description), 0);
        EXPECT_EQ(ftdi_set_bitmode(&ftdi, 0xFF, BITMODE_SYNCFF), 0);
    }
    ~Host() { ftdi_deinit(&ftdi); }
    Host(const Host&) = delete;
    Host& operator=(const Host&) = delete;

    int open(const char* description) { return ftdi_usb_open_desc(&ftdi, 0x0403, 0x6010, description, nullptr); }
    int write(const Bytes& bytes) { return ftdi_write_data(&ftdi, bytes.data(), static_cast<int>(bytes.size())); }
    int read(int size)
    {
        got.assign(static_cast<std::size_t>(size), 0xEE);
        const int count = ftdi_read_data(&ftdi, got.data(), size);
        got.resize(static_cast<std::size_t>(std::max(count, 0)));
        return count;
    }
    /// Reads what comes, up to `size` bytes.
    Bytes fetch(int size) { return read(size) >= 0 ? got : Bytes{}; }
    /// What a board's answer of `size` bytes looks like when it is asked for at once.
    Bytes answer(std::size_t size)
    {
        EXPECT_EQ(write(ramp(size)), static_cast<int>(size));
        return fetch(static_cast<int>(size));
    }
    std::string error() { return ftdi_get_error_string(&ftdi); }

    ftdi_context ftdi{};
    Bytes got;
};

/// A bench of echo boards with these descriptions, and with the keys of `more` in the last one.
inline json echoBench(std::initializer_list<const char*> descriptions, const json& more = json::object())
{
    json bench{{"boards", json::array()}};
    for (const char* description : descriptions)
        bench["boards"].push_back({{"kind", "echo"}, {"description", description}, {"serial", "S"}});
    bench["boards"].back().merge_patch(more);
    return bench;
}

/// What an echo board keeps in a member.
template <typename T>
T kept(std::size_t board, T EchoBoard::*member)
{
    T value{};
    sim::inspect<EchoBoard>(board, [&](EchoBoard& echo) { value = echo.*member; });
    return value;
}

/// Time that `act` takes.
template <typename Act>
sim::Clock::duration timeOf(Act act)
{
    const auto start = sim::Clock::now();
    act();
    return sim::Clock::now() - start;
}

class BusTest : public testing::Test {
protected:
    explicit BusTest(const json& bench = echoBench({"A", "B"}))
    {
        sim::registerBoardKind("echo", [](const json& board, const json&) {
            return std::make_unique<EchoBoard>(board.at("description").get<std::string>());
        });
        sim::loadBench(bench);
    }
    ~BusTest() override
    {
        sim::clearBus();
        EXPECT_EQ(sim::openSessions(), 0);
        EXPECT_EQ(sim::liveContexts(), 0);
    }
};

} // namespace simtest
