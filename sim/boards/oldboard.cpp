// The readout boards of the old generation: making them, the link, and faults.
#include "sim/boards/oldboard.h"

#include "sim/jsonkeys.h"

#include <algorithm>
#include <array>
#include <charconv>

namespace sim {

using nlohmann::json;

namespace {

using namespace std::chrono_literals;

constexpr auto DATA_PATIENCE = 500ms; ///< between two pieces of a command's data
constexpr OldParams REFUSED = {0xFF, 0xFF, 0xFF};
constexpr OldParams DONE = {};

unsigned readMhz(const json& board, const char* key, unsigned fallback, unsigned most)
{
    const auto clock = readKey<unsigned>(board, key, fallback);
    if (clock < 1 || clock > most)
        badKey(key, "a number from 1 to " + std::to_string(most));
    return clock;
}

/// The date as the firmware tells it. What stands in the upper bits of the day has no part in it.
std::array<std::uint8_t, 2> dateBytes(const std::string& text)
{
    constexpr unsigned DAY_MARK = 0x40;
    constexpr unsigned FIRST_YEAR = 2010;
    unsigned year = 0, month = 0, day = 0;
    const auto number = [&](std::size_t at, std::size_t size, unsigned& value) {
        const char* end = text.data() + at + size;
        return std::from_chars(text.data() + at, end, value).ptr == end;
    };
    const bool reads = text.size() == 10 && text[4] == '-' && text[7] == '-' && number(0, 4, year) &&
                       number(5, 2, month) && number(8, 2, day);
    if (!reads || year < FIRST_YEAR || year > FIRST_YEAR + 15 || month < 1 || month > 12 || day < 1 || day > 31)
        badKey("firmware_date", "a date like \"2012-09-14\", from 2010 to 2025");
    return {static_cast<std::uint8_t>((year - FIRST_YEAR) << 4U | month), static_cast<std::uint8_t>(DAY_MARK | day)};
}

} // namespace

const OldBoard::Build& OldBoard::buildOf(Kind kind)
{
    static constexpr Build USB2{.othersSwitch = 0x43, .adcChannels = 8, .adcRange = 3, .senseChannel = 2};
    static constexpr Build FENXEL{.othersSwitch = 0x68, .adcChannels = 16, .adcRange = 5, .senseChannel = 0};
    return kind == Kind::Usb2 ? USB2 : FENXEL;
}

OldBoard::OldBoard(Kind kind, const json& board, const json& bench)
    : Board(readKey<std::string>(board, "description")),
      build(buildOf(kind)),
      timerMhz(readMhz(board, "timer_mhz", 100, 100)),
      timepixMhz(readMhz(board, "timepix_mhz", 50, 255))
{
    readFirmware(board);
    buildModules(board, bench);
    reset();
}

void OldBoard::readFirmware(const json& board)
{
    const auto [month, day] = dateBytes(readKey<std::string>(board, "firmware_date", "2012-09-14"));
    firmware = {month, day, readKey<std::uint8_t>(board, "firmware_number", 23)};
}

void OldBoard::buildModules(const json& board, const json& bench)
{
    const json modules = readList(board, "modules");
    const bool lists = std::ranges::all_of(modules, &json::is_array);
    if (!lists || modules.empty() || modules.size() > MOST_MODULES || modules[0].size() > Mpx2Chain::MOST_CHIPS)
        badKey("modules", "a list of one to four modules, each a list of ten chip identifiers at most");
    const json fallback = {0, 1, 2, 3};
    for (const json& address : board.contains("addresses") ? readList(board, "addresses") : fallback)
        addresses.push_back(valueAs<std::uint8_t>(address, "addresses"));
    if (addresses.size() < modules.size())
        badKey("addresses", "a list of a number for each module");

    const std::size_t chips = modules[0].size();
    const auto scene = Scene::behind(board, bench);
    ChipPlace place{.number = 0, .total = static_cast<unsigned>(chips * modules.size())};
    for (const json& ids : modules) {
        if (ids.size() != chips)
            badKey("modules", "a list of modules with as many chips each");
        Mpx2Chain& chain = chains.emplace_back();
        for (const json& id : ids) {
            chain.add(std::make_unique<Mpx2Chip>(valueAs<std::string>(id, "modules"), Mpx2Kind::Timepix, place, scene));
            ++place.number;
        }
    }
}

void OldBoard::powerCycle(Time /*now*/)
{
    fifoMode = true;
    frameNumber = 0;
    resetLink();
    reset();
}

void OldBoard::reset()
{
    applyPower(false);
    applyPower(true);
    active = 0;
    counted = 0;
    timer = 0;
    clockWord = 0;
    trigger = 0;
    bias = -1;
    dacCodes = {};
    measured = 0;
}

void OldBoard::setBitMode(std::uint8_t /*mask*/, std::uint8_t mode, Time /*now*/)
{
    constexpr std::uint8_t BIT_BANG = 0x01;
    fifoMode = mode != BIT_BANG;
    if (fifoMode)
        return;
    // The pins that the host now waves are the FIFO's: the firmware starts its side of the link anew.
    shutter.stop({});
    resetLink();
}

void OldBoard::resetLink()
{
    parser.reset();
    takesData = nullptr;
    dataMissing = 0;
    posted.clear();
}

void OldBoard::receive(std::span<const std::uint8_t> bytes, Time now)
{
    advance(now);
    if (!fifoMode) {
        violate("bytes while the chip is not in FIFO mode", bytes);
        return;
    }
    while (!bytes.empty()) {
        if (takesData != nullptr) {
            bytes = bytes.subspan(takeData(bytes, now));
            continue;
        }
        std::optional<OldFrame> frame;
        bytes = bytes.subspan(parser.take(bytes, frame, complainAbout()));
        if (frame) {
            seen.push_back(std::move(*frame));
            obey(now);
        }
    }
    advance(now);
}

void OldBoard::advance(Time now)
{
    run(now);
    if (takesData != nullptr && now - lastData > DATA_PATIENCE) {
        complainAbout()("data of " + std::string(takesData->name) + " cut short", seen.back().data);
        send(takesData->number, REFUSED, lastData + DATA_PATIENCE);
        takesData = nullptr;
    }
    for (; !posted.empty() && posted.front().due <= now; posted.pop_front())
        emit(posted.front().bytes);
}

/// The command that a frame gives, or none if this firmware does not understand it.
const OldBoard::Command* OldBoard::commandOf(const OldFrame& frame)
{
    const auto* const command = std::ranges::find(COMMANDS, frame.command, &Command::number);
    if (command == COMMANDS.end() || command->act == nullptr || command->number == build.othersSwitch)
        violate("unknown command", frame.bytes());
    else if ((frame.word() & ~command->free) != command->fixed)
        violate(std::string(command->name) + " with undefined parameters", frame.bytes());
    else
        return command;
    return nullptr;
}

/// Does what the last frame commands, and answers it.
void OldBoard::obey(Time now)
{
    const OldFrame& frame = seen.back();
    const Command* const command = commandOf(frame);
    if (command == nullptr || hit(FaultKind::Refuse, frame.command)) {
        send(frame.command, REFUSED, now);
        return;
    }
    const Answer answer = (this->*command->act)(frame, now);
    send(frame.command, answer.value_or(REFUSED), now);
    if (answer && command->exchange != nullptr) {
        takesData = command;
        dataMissing = command->chipBytes * counted;
        lastData = now;
        if (dataMissing == 0)
            finishData(now);
    }
    run(now);
}

std::size_t OldBoard::takeData(std::span<const std::uint8_t> bytes, Time now)
{
    Bytes& data = seen.back().data;
    const std::size_t part = std::min(dataMissing, bytes.size());
    data.reserve(takesData->chipBytes * counted);
    data.insert(data.end(), bytes.begin(), bytes.begin() + static_cast<std::ptrdiff_t>(part));
    dataMissing -= part;
    lastData = now;
    if (dataMissing == 0)
        finishData(now);
    return part;
}

/// The host's data are complete: delivers what the chips send for them, and the second frame.
void OldBoard::finishData(Time now)
{
    const Command& command = *std::exchange(takesData, nullptr);
    dataGood = true;
    Bytes answer = (this->*command.exchange)(seen.back().data);
    if (!answer.empty())
        if (const auto fault = hit(FaultKind::ShortData, command.number))
            answer.resize(answer.size() - std::min(fault->bytes, answer.size()));
    post(std::move(answer), now);
    const bool good = !hit(FaultKind::RefuseData, command.number) && dataGood;
    send(command.number, good ? DONE : REFUSED, now);
}

void OldBoard::send(std::uint8_t command, const OldParams& params, Time at)
{
    if (hit(FaultKind::NoAnswer, command))
        return;
    Bytes bytes = OldFrame{command, params, {}}.bytes();
    if (hit(FaultKind::WrongCheck, command))
        bytes.back() ^= 0xFFU;
    const auto late = hit(FaultKind::LateFrame, command);
    post(std::move(bytes), at + (late ? late->delay : Clock::duration::zero()));
}

/// Puts bytes on the output when they are due, and never before what was posted earlier.
void OldBoard::post(Bytes bytes, Time due)
{
    if (bytes.empty())
        return;
    if (!posted.empty())
        due = std::max(due, posted.back().due);
    posted.push_back({due, std::move(bytes)});
}

Complain OldBoard::complainAbout()
{
    return [this](std::string what, std::span<const std::uint8_t> bytes) {
        dataGood = false;
        violate(std::move(what), bytes.first(std::min<std::size_t>(64, bytes.size())));
    };
}

bool OldBoard::applyFault(const json& fault)
{
    const auto kind = readKey<std::string>(fault, "kind");
    if (applyFrameFault(kind, fault))
        return true;
    if (kind != "module_silent" && kind != "chip_missing" && kind != "stuck_line")
        return false;
    const auto number = readKey<std::size_t>(fault, "module");
    if (number >= chains.size())
        badKey("module", "a number from 0 to " + std::to_string(chains.size() - 1));
    Mpx2Chain& chain = chains[number];
    if (kind == "module_silent") {
        chain.silence();
    } else if (kind == "stuck_line") {
        chain.stickLine(readKey(fault, "level", 0U) != 0 ? 0xFF : 0x00);
    } else {
        const auto position = readKey<std::size_t>(fault, "position", 0);
        if (position >= chain.size())
            badKey("position", "that of a chip of the module");
        chain.lose(position);
    }
    return true;
}

bool OldBoard::applyFrameFault(const std::string& kind, const json& fault)
{
    using Row = std::pair<const char*, FaultKind>;
    static constexpr std::array<Row, 6> KINDS = {{{"no_answer", FaultKind::NoAnswer},
                                                  {"wrong_check", FaultKind::WrongCheck},
                                                  {"late_frame", FaultKind::LateFrame},
                                                  {"refuse", FaultKind::Refuse},
                                                  {"refuse_data", FaultKind::RefuseData},
                                                  {"short_data", FaultKind::ShortData}}};
    const auto* const row = std::ranges::find_if(KINDS, [&](const Row& one) { return kind == one.first; });
    if (row == KINDS.end())
        return false;
    refuseOtherKeys(fault, {"kind", "when", "command", "frames", "delay_s", "bytes"});
    FrameFault planned{.kind = row->second,
                       .command = std::nullopt,
                       .frames = readKey(fault, "frames", std::numeric_limits<std::uint64_t>::max()),
                       .delay = {},
                       .bytes = readKey(fault, "bytes", std::size_t{1000})};
    if (fault.contains("command")) {
        const auto name = readKey<std::string>(fault, "command");
        const auto* const command = std::ranges::find_if(
            COMMANDS, [&](const Command& one) { return one.name == name && one.number != build.othersSwitch; });
        if (command == COMMANDS.end())
            badKey("command", "the name of a command, as \"Read Matrix\"");
        planned.command = command->number;
    }
    if (planned.kind == FaultKind::LateFrame) {
        const auto seconds = readKey<double>(fault, "delay_s");
        if (!(seconds >= 0 && seconds <= 1e6))
            badKey("delay_s", "a time from 0 to 1000000 seconds");
        planned.delay = std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(seconds));
    }
    faults.push_back(planned);
    return true;
}

void OldBoard::clearFaults()
{
    faults.clear();
    for (Mpx2Chain& chain : chains)
        chain.clearFaults();
}

/// The fault of this kind that hits a frame of the command, if there is one; counts the hit.
std::optional<OldBoard::FrameFault> OldBoard::hit(FaultKind kind, std::uint8_t command)
{
    for (FrameFault& fault : faults)
        if (fault.kind == kind && fault.frames > 0 && fault.command.value_or(command) == command) {
            --fault.frames;
            return fault;
        }
    return std::nullopt;
}

std::unique_ptr<Board> makeUsb2Board(const json& board, const json& bench)
{
    return std::make_unique<OldBoard>(OldBoard::Kind::Usb2, board, bench);
}

std::unique_ptr<Board> makeFenxelBoard(const json& board, const json& bench)
{
    return std::make_unique<OldBoard>(OldBoard::Kind::Fenxel, board, bench);
}

} // namespace sim
