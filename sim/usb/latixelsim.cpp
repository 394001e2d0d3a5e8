// The control side of the virtual bus, for tests and the tool.
#include "sim/usb/latixelsim.h"

#include "sim/usb/bench.h"
#include "sim/usb/bus.h"

#include <exception>
#include <nlohmann/json.hpp>

namespace {

thread_local std::string lastError;

} // namespace

int latixelsimLoadBench(const char* path)
{
    try {
        sim::loadBenchFile(path != nullptr ? path : "");
        return 0;
    } catch (const std::exception& error) {
        lastError = error.what();
        return -1;
    }
}

const char* latixelsimError()
{
    return lastError.c_str();
}

namespace sim {

void clearBus()
{
    Bus::instance().replace({});
}

Bytes written(std::size_t board)
{
    return Bus::instance().bridge(board)->traffic();
}

void clearTraffic()
{
    for (const auto& bridge : Bus::instance().bridges())
        bridge->clearTraffic();
}

std::vector<Violation> violations()
{
    std::vector<Violation> all;
    for (const auto& bridge : Bus::instance().bridges()) {
        auto some = bridge->violations();
        all.insert(all.end(), std::make_move_iterator(some.begin()), std::make_move_iterator(some.end()));
    }
    return all;
}

void addFault(std::size_t board, const nlohmann::json& fault)
{
    Bus::instance().bridge(board)->addFault(fault);
}

void clearFaults(std::size_t board)
{
    Bus::instance().bridge(board)->clearFaults();
}

void unplug(std::size_t board)
{
    Bus::instance().bridge(board)->unplug();
}

void plug(std::size_t board)
{
    Bus::instance().bridge(board)->plug();
}

void pulseTrigger(std::size_t board)
{
    Bus::instance().bridge(board)->pulseTrigger();
}

void setUsbHook(void (*hook)(std::span<const std::uint8_t> bytes))
{
    Bus::instance().hook = hook;
}

int openSessions()
{
    return static_cast<int>(Bus::instance().sessions.size());
}

int liveContexts()
{
    return static_cast<int>(Bus::instance().contexts.size());
}

void withBoard(std::size_t board, void (*look)(Board&, void*), void* user)
{
    Bus::instance().bridge(board)->withBoard(look, user);
}

} // namespace sim
