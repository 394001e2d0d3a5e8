// The kinds of faults, their moments, and the layer that applies them.
#include "sim/usb/faults.h"

#include "sim/jsonkeys.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <limits>
#include <mutex>
#include <random>
#include <set>

namespace sim {

using nlohmann::json;

namespace {

Clock::duration secondsKey(const json& object, const char* key)
{
    const auto seconds = readKey<double>(object, key);
    if (!(seconds >= 0 && seconds <= 1e6))
        badKey(key, "a time from 0 to 1000000 seconds");
    return std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(seconds));
}

/// Bytes of a text like "55 02 A0".
Bytes hexKey(const json& object, const char* key)
{
    auto text = readKey<std::string>(object, key);
    std::erase(text, ' ');
    Bytes bytes(text.size() / 2);
    bool good = !text.empty() && text.size() % 2 == 0;
    for (std::size_t i = 0; good && i < bytes.size(); ++i) {
        const char* pair = text.data() + 2 * i;
        good = std::from_chars(pair, pair + 2, bytes[i], 16).ptr == pair + 2;
    }
    if (!good)
        badKey(key, "bytes as pairs of hexadecimal digits");
    return bytes;
}

/// A copy of `text` that lives for good, since libftdi's error texts do.
const char* keepText(const std::string& text)
{
    static std::mutex mutex;
    static auto& texts = *new std::set<std::string>;
    const std::scoped_lock lock(mutex);
    return texts.insert(text).first->c_str();
}

/// What the "on" of an error stands for.
struct StepsRow {
    std::string_view on;
    std::array<UsbStep, 2> steps;
};

constexpr StepsRow STEPS[] = {
    {"transfers", {UsbStep::Read, UsbStep::Write}},    {"read", {UsbStep::Read, UsbStep::Read}},
    {"write", {UsbStep::Write, UsbStep::Write}},       {"open", {UsbStep::Open, UsbStep::Open}},
    {"strings", {UsbStep::Strings, UsbStep::Strings}},
};

class ErrorFault : public Fault {
public:
    explicit ErrorFault(const json& fault)
    {
        const auto on = readKey<std::string>(fault, "on", "transfers");
        const auto* row = std::ranges::find(STEPS, on, &StepsRow::on);
        if (row == std::end(STEPS))
            badKey("on", "\"transfers\", \"read\", \"write\", \"open\" or \"strings\"");
        steps = row->steps;
        refusal.value = readKey<int>(fault, "result", -1);
        if (refusal.value >= 0)
            badKey("result", "negative");
        if (fault.contains("text"))
            refusal.text = keepText(readKey<std::string>(fault, "text"));
    }

    std::optional<UsbResult> refuse(UsbStep step) override
    {
        return std::ranges::count(steps, step) > 0 ? std::optional(refusal) : std::nullopt;
    }

private:
    std::array<UsbStep, 2> steps{};
    UsbResult refusal;
};

class SilenceFault : public Fault {
public:
    explicit SilenceFault(const json& /*fault*/) {}

    bool spoil(Board& board, bool /*again*/) override
    {
        board.dropOutput();
        return true;
    }
};

class LateFault : public Fault {
public:
    explicit LateFault(const json& fault) { secondsKey(fault, "seconds"); } // withheld for good, it would be silence

    bool withholds() const override { return true; }
};

class ShortReadFault : public Fault {
public:
    explicit ShortReadFault(const json& fault) : bytes(readKey<std::size_t>(fault, "bytes")) {}

    bool spoil(Board& board, bool again) override
    {
        if (!again)
            board.cutOutput(bytes);
        return true;
    }

private:
    std::size_t bytes;
};

class GarbageFault : public Fault {
public:
    explicit GarbageFault(const json& fault)
        : offset(readKey<std::size_t>(fault, "offset", 0)),
          bytes(readKey<std::size_t>(fault, "bytes", std::numeric_limits<std::size_t>::max())),
          random(readKey<std::uint64_t>(fault, "seed", 1))
    {
    }

    bool spoil(Board& board, bool again) override
    {
        auto output = board.outputBytes();
        if (again || output.size() <= offset)
            return again;
        output = output.subspan(offset);
        // Never the byte that was there: a fault that by chance changes nothing would be none.
        for (auto& byte : output.first(std::min(bytes, output.size())))
            byte = static_cast<std::uint8_t>(byte + 1 + random() % 255);
        return true;
    }

private:
    std::size_t offset;
    std::size_t bytes;
    std::mt19937_64 random;
};

class StalledWriteFault : public Fault {
public:
    explicit StalledWriteFault(const json& fault) : bytes(readKey<std::size_t>(fault, "bytes", 0)) {}

    std::size_t writable(std::size_t size) override { return std::min(size, bytes); }

private:
    std::size_t bytes;
};

class MuteFault : public Fault {
public:
    explicit MuteFault(const json& fault)
    {
        const auto on = readKey<std::string>(fault, "on", "all");
        if (on != "all" && on != "read" && on != "control")
            badKey("on", "\"all\", \"read\" or \"control\"");
        reads = on != "control";
        controls = on != "read";
    }

    bool isMute(UsbStep step) override
    {
        return (step == UsbStep::Read && reads) || (step == UsbStep::Control && controls);
    }
    std::size_t writable(std::size_t size) override { return reads && controls ? 0 : size; }

private:
    bool reads = true;
    bool controls = true;
};

class UnplugFault : public Fault {
public:
    explicit UnplugFault(const json& fault)
    {
        if (fault.contains("replug_after_s"))
            replugAfter = secondsKey(fault, "replug_after_s");
    }

    void begin(FaultTarget& target, Time now) override { target.pullPlug(replugAfter, now); }

private:
    std::optional<Clock::duration> replugAfter;
};

/// A fault that the board itself shows when its moment comes.
class BoardFault : public Fault {
public:
    explicit BoardFault(const json& entry) : fault(entry) {}

    void begin(FaultTarget& target, Time /*now*/) override
    {
        try {
            if (!target.faultyBoard().applyFault(fault))
                target.report("unknown fault " + fault.at("kind").dump());
        } catch (const std::exception& error) {
            target.report("fault " + fault.at("kind").dump() + ": " + error.what());
        }
    }

private:
    json fault;
};

template <typename Kind>
std::unique_ptr<Fault> make(const json& fault)
{
    return std::make_unique<Kind>(fault);
}

constexpr std::optional<std::uint64_t> FOR_GOOD = std::nullopt;

struct KindRow {
    std::string_view kind;
    std::unique_ptr<Fault> (*make)(const json&);
    std::optional<std::uint64_t> times; ///< where the fault does not say so itself
    std::array<std::string_view, 7> keys;
};

constexpr KindRow KINDS[] = {
    {"error", make<ErrorFault>, FOR_GOOD, {"kind", "when", "on", "result", "text", "times", "seconds"}},
    {"silence", make<SilenceFault>, FOR_GOOD, {"kind", "when", "times", "seconds"}},
    {"late", make<LateFault>, FOR_GOOD, {"kind", "when", "seconds"}},
    {"short_read", make<ShortReadFault>, 1, {"kind", "when", "bytes", "times", "seconds"}},
    {"garbage", make<GarbageFault>, 1, {"kind", "when", "offset", "bytes", "seed", "times", "seconds"}},
    {"stalled_write", make<StalledWriteFault>, FOR_GOOD, {"kind", "when", "bytes", "times", "seconds"}},
    {"mute", make<MuteFault>, FOR_GOOD, {"kind", "when", "on", "times", "seconds"}},
    {"unplug", make<UnplugFault>, 0, {"kind", "when", "replug_after_s"}},
};

} // namespace

Trigger::Trigger(const json& when, Time now)
{
    if (!when.is_object())
        badKey("when", "an object");
    if (when.empty())
        return;
    try {
        readCondition(when, now);
    } catch (const std::exception& error) {
        throw std::runtime_error(std::string("\"when\": ") + error.what());
    }
}

void Trigger::readCondition(const json& when, Time now)
{
    static constexpr std::array<std::pair<const char*, On>, 5> CONDITIONS{{{"after_reads", On::AfterReads},
                                                                           {"after_writes", On::AfterWrites},
                                                                           {"after_bytes", On::AfterBytes},
                                                                           {"after_written", On::AfterWritten},
                                                                           {"after_s", On::AfterTime}}};
    const auto known = [&](const auto& row) { return when.contains(row.first); };
    const auto* row = std::find_if(CONDITIONS.begin(), CONDITIONS.end(), known);
    if (row == CONDITIONS.end())
        throw std::runtime_error("one of after_reads, after_writes, after_bytes, after_written or after_s is missing");
    on = row->second;
    if (on == On::AfterWritten) {
        refuseOtherKeys(when, {"after_written", "occurrence"});
        sequence = hexKey(when, row->first);
        left = std::max<std::uint64_t>(1, readKey<std::uint64_t>(when, "occurrence", 1));
        return;
    }
    refuseOtherKeys(when, {row->first});
    if (on == On::AfterTime)
        at = now + secondsKey(when, row->first);
    else
        left = readKey<std::uint64_t>(when, row->first);
}

bool Trigger::due(Time now) const
{
    return on == On::AfterTime ? now >= at : left == 0;
}

Time Trigger::moment(Time now) const
{
    return on == On::AfterTime ? std::min(at, now) : now;
}

std::size_t Trigger::bytesLeft() const
{
    return on == On::AfterBytes ? left : std::numeric_limits<std::size_t>::max();
}

void Trigger::countRead()
{
    if (on == On::AfterReads && left > 0)
        --left;
}

void Trigger::countReadBytes(std::size_t count)
{
    if (on == On::AfterBytes)
        left -= std::min<std::uint64_t>(left, count);
}

void Trigger::countWrite()
{
    if (on == On::AfterWrites && left > 0)
        --left;
}

void Trigger::countWritten(std::span<const std::uint8_t> bytes)
{
    if (on != On::AfterWritten)
        return;
    tail.insert(tail.end(), bytes.begin(), bytes.end());
    auto from = tail.begin();
    while (left > 0) {
        const auto found = std::search(from, tail.end(), sequence.begin(), sequence.end());
        if (found == tail.end())
            break;
        --left;
        from = found + static_cast<std::ptrdiff_t>(sequence.size());
    }
    const auto kept = std::min<std::ptrdiff_t>(tail.end() - from, static_cast<std::ptrdiff_t>(sequence.size()) - 1);
    tail.erase(tail.begin(), tail.end() - kept);
}

void FaultLayer::add(const json& fault, Time now)
{
    if (!fault.is_object())
        throw std::runtime_error("a fault must be an object");
    const auto kind = readKey<std::string>(fault, "kind");
    const auto* row = std::ranges::find(KINDS, kind, &KindRow::kind);
    const bool ours = row != std::end(KINDS);
    try {
        if (!ours && !fault.contains("when")) {
            if (!target.faultyBoard().applyFault(fault))
                throw std::runtime_error("unknown kind");
            return;
        }
        Plan plan{Trigger(readKey<json>(fault, "when", json::object()), now), nullptr, 0, std::nullopt};
        if (!ours) {
            plan.fault = make<BoardFault>(fault);
        } else {
            refuseOtherKeys(fault, row->keys);
            plan.fault = row->make(fault);
            plan.times = row->times;
            if (fault.contains("times"))
                plan.times = readKey<std::uint64_t>(fault, "times");
            if (fault.contains("seconds"))
                plan.lasting = secondsKey(fault, "seconds");
        }
        plans.push_back(std::move(plan));
    } catch (const std::exception& error) {
        throw std::runtime_error("fault \"" + kind + "\": " + error.what());
    }
    settle(now);
}

void FaultLayer::clear()
{
    plans.clear();
    target.faultyBoard().clearFaults();
}

void FaultLayer::begin(Plan& plan, Time now)
{
    plan.acting = true;
    if (plan.lasting)
        plan.until = now + *plan.lasting;
    plan.fault->begin(target, now);
}

void FaultLayer::settle(Time now)
{
    for (Plan& plan : plans)
        if (!plan.acting && plan.trigger.due(now))
            begin(plan, plan.trigger.moment(now));
    std::erase_if(plans, [&](const Plan& plan) { return plan.acting && (plan.times == 0 || now >= plan.until); });
}

std::optional<UsbResult> FaultLayer::refuse(UsbStep step, Time now)
{
    settle(now);
    std::optional<UsbResult> refusal;
    for (Plan& plan : plans) {
        if (plan.acting && !refusal) {
            refusal = plan.fault->refuse(step);
            plan.hit = plan.hit || refusal;
        }
    }
    if (refusal)
        countHits();
    return refusal;
}

std::size_t FaultLayer::readable(Time now)
{
    settle(now);
    Board& board = target.faultyBoard();
    std::size_t limit = std::numeric_limits<std::size_t>::max();
    for (Plan& plan : plans) {
        if (!plan.acting)
            limit = std::min(limit, plan.trigger.bytesLeft());
        else if (plan.fault->withholds())
            return 0;
        else if (board.pending() > 0 && plan.fault->spoil(board, plan.hit))
            plan.hit = true;
    }
    return std::min(limit, board.pending());
}

void FaultLayer::tookBytes(std::size_t count, Time now)
{
    for (Plan& plan : plans)
        if (!plan.acting)
            plan.trigger.countReadBytes(count);
    settle(now);
}

void FaultLayer::endRead(std::size_t count, Time now)
{
    countHits();
    for (Plan& plan : plans)
        if (!plan.acting && count > 0)
            plan.trigger.countRead();
    settle(now);
}

bool FaultLayer::isMute(UsbStep step, Time now)
{
    settle(now);
    bool mute = false;
    for (Plan& plan : plans) {
        const bool steps = plan.acting && plan.fault->isMute(step);
        plan.hit = plan.hit || steps;
        mute = mute || steps;
    }
    return mute;
}

std::size_t FaultLayer::writable(std::size_t size, Time now)
{
    settle(now);
    std::size_t moved = size;
    for (Plan& plan : plans) {
        if (!plan.acting)
            continue;
        const std::size_t allowed = plan.fault->writable(size);
        plan.hit = plan.hit || allowed < size;
        moved = std::min(moved, allowed);
    }
    return moved;
}

void FaultLayer::endWrite(std::span<const std::uint8_t> bytes, Time now)
{
    countHits();
    for (Plan& plan : plans) {
        if (plan.acting || bytes.empty())
            continue;
        plan.trigger.countWrite();
        plan.trigger.countWritten(bytes);
    }
    settle(now);
}

void FaultLayer::countHits()
{
    for (Plan& plan : plans) {
        if (plan.hit && plan.times && *plan.times > 0)
            --*plan.times;
        plan.hit = false;
    }
}

} // namespace sim
