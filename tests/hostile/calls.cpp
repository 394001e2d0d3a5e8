// What the hostile host calls.
#include "hostile/host.h"

namespace hostile {

namespace {

constexpr double AT_ONCE = 0.1;
constexpr double READING = 0.2;
constexpr double OPERATION = 5.0 + TIMES.back() + 0.5;
constexpr double START = 5.0 + OPERATION;
constexpr double STOP = 1.0 + TIMES.back() + 0.5;
constexpr double CLOSE = 3.0;

using Host = HostileHost;

/// A state of a dimension, by the dice.
int stateOf(Host& host, Dim dim, Dice& dice)
{
    return static_cast<int>(dice(static_cast<unsigned>(host.kind().states[dim])));
}

void start(Host& host, Dice& dice)
{
    const int time = stateOf(host, Time, dice);
    const unsigned count = dice(3) == 0 ? 1000 : 1 + dice(6);
    host.world().start(time,
                       [&] { return host.dev().startAcquisition(count, TIMES.at(static_cast<std::size_t>(time))); });
}

void setAcqMode(Host& host, Dice& dice)
{
    const unsigned drawn = dice(6);
    constexpr std::array<unsigned, 2> SPECIAL = {dv::ACQMODE_SOFT_TRIGGER, dv::ACQMODE_TDI};
    const unsigned mode = drawn < SPECIAL.size() ? SPECIAL.at(drawn) : 0U;
    host.dev().setAcqMode(mode & host.kind().modes);
}

void setDacs(Host& host, Dice& dice)
{
    const int state = stateOf(host, Dacs, dice);
    host.world().change(Dacs, state, [&] { return host.subject().setDacs(state); });
}

/// The words of a Timepix configuration stand in the counters until the next readout.
void setPixelCfg(Host& host, Dice& dice)
{
    const int state = static_cast<int>(dice(2));
    const auto set = [&] {
        return host.world().change(Pixels, state, [&] { return host.subject().setPixels(state); });
    };
    if (host.kind().matrix3)
        set();
    else
        host.world().change(Counters, state + 1, set);
}

void setConfig(Host& host, Dice& dice)
{
    const int state = stateOf(host, Config, dice);
    host.world().change(Config, state, [&] { return host.subject().setConfig(state); });
}

/// A written matrix of a Timepix chip is a configuration too.
void writeMatrix(Host& host, Dice& dice)
{
    const int state = static_cast<int>(dice(2));
    const auto write = [&] { return host.subject().writeMatrix(state); };
    if (host.kind().matrix3)
        host.world().change(Counters, state, write);
    else
        host.world().change(Pixels, 2, write);
}

void resetMedipix(Host& host, Dice&)
{
    const auto reset = [&] { return host.dev().resetMedipix(); };
    if (host.kind().matrix3)
        host.world().change(Pixels, 0, [&] { return host.world().change(Dacs, 0, reset); });
    else
        host.world().change(Dacs, 0, reset);
}

void readParameter(Host& host, bool inFlash, const char* name)
{
    host.withParameters([&] {
        dv::IParamMgr* manager = inFlash ? host.dev().inDeviceConfigParameters() : host.dev().parameters();
        if (manager == nullptr)
            return;
        if (dv::IParam* param = manager->get(name); param != nullptr)
            param->getString();
    });
}

/// What asks nobody but the device's own memory.
void look(Host& host, Dice&)
{
    dv::IHwDevMpx& dev = host.dev();
    dv::_DevMpxInfo info{};
    dev.devMpxInfo(&info);
    dev.isBusy();
    dev.isConnected();
    dev.deviceType();
    dev.lastAcqTime();
    dev.chipIDs();
    if (dev.lastError() == nullptr || dev.deviceName() == nullptr)
        host.complain("a text is missing");
}

const Call CALLS[] = {
    {"startAcquisition", START, start},
    {"stopAcquisition", STOP, [](Host& h, Dice&) { h.dev().stopAcquisition(); }},
    {"closeDevice", CLOSE, [](Host& h, Dice&) { h.close(); }},
    {"setAcqMode", AT_ONCE, setAcqMode},
    {"setDacs", OPERATION, setDacs},
    {"setPixelCfg", OPERATION, setPixelCfg},
    {"setConfig", OPERATION, setConfig},
    {"writeMatrix", OPERATION, writeMatrix},
    {"eraseMatrix", OPERATION, [](Host& h, Dice&) { h.dev().eraseMatrix(); }},
    {"readMatrix", OPERATION, [](Host& h, Dice&) { h.subject().readMatrix(); }},
    {"lastData", OPERATION, [](Host& h, Dice&) { h.takeFrame(); }},
    {"resetMedipix", OPERATION, resetMedipix},
    {"senseDac, clock", OPERATION, [](Host& h, Dice& d) { h.subject().operate(d(2)); }},
    {"analogValue", OPERATION,
     [](Host& h, Dice&) {
         double volts = 0;
         h.dev().analogValue(0, &volts);
     }},
    {"setBias", OPERATION, [](Host& h, Dice& d) { h.dev().setBias(10 + d(20)); }},
    {"bias sense", READING,
     [](Host& h, Dice&) {
         double volts = 0;
         double amperes = 0;
         h.dev().biasVoltageCurrentSense(&volts, &amperes);
     }},
    {"adcValue", READING, [](Host& h, Dice& d) { h.dev().adcValue(d(16)); }},
    {"deviceStatus", READING, [](Host& h, Dice&) { h.dev().deviceStatus(); }},
    {"deviceStatusText", READING, [](Host& h, Dice&) { h.dev().deviceStatusText(); }},
    {"CPU parameter", READING, [](Host& h, Dice&) { readParameter(h, false, "TempCpu"); }},
    {"flash parameter", OPERATION, [](Host& h, Dice&) { readParameter(h, true, "Table"); }},
    {"doSoftwareTrigger", AT_ONCE, [](Host& h, Dice&) { h.dev().doSoftwareTrigger(0); }},
    {"records and flags", AT_ONCE, look},
    {"setEventFunc", AT_ONCE, [](Host& h, Dice&) { h.listen(); }},
    {"setLogMsgFunc", AT_ONCE, [](Host& h, Dice&) { h.listenToLog(); }},
};

} // namespace

std::span<const Call> calls()
{
    return CALLS;
}

} // namespace hostile
