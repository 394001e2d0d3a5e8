// What a host may call when, and what it gets: the table of docs/developer.md, cell by cell, on each kind of device.
#include "hostile/host.h"

#include "devices/common/devicebench.h"

#include <cstring>
#include <fstream>
#include <gtest/gtest.h>

using namespace hostile;

namespace {

/// Columns, as the document has them.
enum Column : std::size_t {
    AtClosed,
    AtIdle,
    AtPreparing,
    AtRunning,
    AtWhole,
    AtStopping,
    AtEnding,
    AtFrame,
    AtLast,
    AtLog,
    COLUMNS
};

struct Row {
    const char* name;
    std::array<const char*, COLUMNS> cells;
    int (*make)(Subject& subject);
};

int start(Subject& s)
{
    return s.device().startAcquisition(1, TIMES.front());
}
int stop(Subject& s)
{
    return s.device().stopAcquisition();
}
int close(Subject& s)
{
    return s.device().closeDevice();
}
int destroy(Subject& s)
{
    s.device().destroy();
    return 0;
}
int erase(Subject& s)
{
    return s.device().eraseMatrix();
}
int bias(Subject& s)
{
    return s.device().setBias(20);
}
int status(Subject& s)
{
    return s.device().deviceStatus();
}
int readMatrix(Subject& s)
{
    return s.readMatrix();
}
int lastData(Subject& s)
{
    return refhost::adopt(s.device().lastData()) != nullptr ? 0 : 1;
}
int trigger(Subject& s)
{
    return s.device().doSoftwareTrigger(0);
}
int init(Subject& s)
{
    return s.device().initDevice();
}

// The document tells what the words mean.
const Row ROWS[] = {
    // closed, idle, preparing, running, continuous or TDI, stopping, ending, frame handler, last event, log callback
    {"start",
     {"fails", "done", "running", "running", "running", "waits", "waits", "running", "done", "running"},
     start},
    {"stop", {"closed", "done", "done", "done", "done", "done", "done", "done", "done", "done"}, stop},
    {"close", {"done", "done", "done", "done", "done", "done", "done", "refused", "done", "refused"}, close},
    {"destroy", {"done", "done", "-", "done", "done", "done", "done", "refused", "done", "-"}, destroy},
    {"setters, erase",
     {"closed", "done", "waits", "waits", "running", "waits", "waits", "done", "done", "done"},
     erase},
    {"bias", {"closed", "done", "done", "done", "done", "done", "done", "done", "done", "done"}, bias},
    {"readers", {"last", "new", "last", "last", "last", "last", "last", "last", "new", "new"}, status},
    {"matrices",
     {"closed", "chips", "waits", "frame", "frame", "frame", "frame", "frame", "chips", "chips"},
     readMatrix},
    {"lastData", {"closed", "chips", "waits", "frame", "frame", "frame", "frame", "frame", "chips", "chips"}, lastData},
    {"trigger", {"done", "done", "done", "done", "done", "done", "done", "done", "done", "done"}, trigger},
    {"initDevice", {"done", "done", "-", "done", "done", "done", "done", "refused", "done", "-"}, init},
};

constexpr int HELD_MS = 30; ///< for which a short stage lasts behind the beginning of the call

/// A device that is brought into a stage for each call.
class Staged {
public:
    explicit Staged(const Kind& deviceKind) : kind(deviceKind)
    {
        current = this;
        make();
    }
    ~Staged()
    {
        current = nullptr;
        sim::clearBus();
    }
    Staged(const Staged&) = delete;
    Staged& operator=(const Staged&) = delete;

    struct Outcome {
        int result = -99;
        std::string text;
        bool inLog = false; ///< told in a log callback, where `lastError` may still be the line before
        bool asked = false; ///< whether anything went to the board meanwhile
    };

    /// Makes the call of a row in a column, and ends the series behind it.
    Outcome call(const Row& row, Column column)
    {
        outcome = {};
        outcome.inLog = column == AtLog;
        calling = [this, &row] {
            sim::clearTraffic();
            outcome.result = row.make(*subject);
            outcome.asked = !sim::written(0).empty();
            if (row.make != destroy || subject->caller() == Series::Caller::Handler)
                outcome.text = device().lastError();
            made = true;
        };
        made = false;
        enter(column);
        freed = row.make == destroy && row.cells[column] == std::string("done");
        return outcome;
    }
    /// Everything back as it was.
    void leave()
    {
        calling = nullptr;
        held = STAGES;
        if (freed)
            return make();
        device().stopAcquisition();
        EXPECT_TRUE(support::soon([&] { return subject->series() == Series::State::Idle; }));
        support::sleepMs(5); // for its last event
        device().setAcqMode(0);
        if (!device().isConnected() && device().initDevice() != 0)
            ADD_FAILURE() << device().lastError();
        listen();
        failures = 0;
        ended = 0;
        frames = 0;
    }
    /// Gives the device up at the end.
    void end() { device().destroy(); }

    Subject& get() { return *subject; }
    std::atomic<int> failures{0}; ///< HWEVENT_ACQ_FAILED

private:
    dv::IHwDevMpx& device() { return subject->device(); }
    void make()
    {
        sim::clearBus();
        subject = kind.make(kind, host, folder);
        EXPECT_EQ(device().initDevice(), 0);
        listen();
        frames = 0;
        ended = 0;
        failures = 0;
    }
    void listen()
    {
        sim::setUsbHook(&Staged::linger);
        device().setEventFunc(&Staged::event, this);
        device().setLogMsgFunc(&Staged::logged, this);
    }
    void enter(Column column)
    {
        constexpr unsigned MANY = 1000;
        where = column;
        switch (column) {
        case AtClosed:
            device().closeDevice();
            return calling();
        case AtIdle:
            return calling();
        case AtLog:
            device().analogValue(0, nullptr);
            return;
        case AtFrame:
        case AtLast:
            device().startAcquisition(column == AtLast ? 1 : 2, TIMES[1]);
            EXPECT_TRUE(support::soon([&] { return made.load(); }));
            return;
        case AtWhole:
            device().setAcqMode(dv::ACQMODE_TDI);
            [[fallthrough]];
        case AtRunning:
            device().startAcquisition(MANY, TIMES[1]);
            EXPECT_TRUE(support::soon([&] { return frames > 0; }));
            return calling();
        case AtPreparing:
            return inHeld(Preparing, [&] { device().startAcquisition(MANY, TIMES[1]); });
        default:
            device().startAcquisition(MANY, TIMES[1]);
            EXPECT_TRUE(support::soon([&] { return frames > 0; }));
            return inHeld(column == AtStopping ? Stopping : Ending, [&] { device().stopAcquisition(); });
        }
    }
    /// Lets another thread bring a short stage about, which lasts until the call has begun.
    template <typename Bring>
    void inHeld(Stage stage, Bring bring)
    {
        held = stage;
        std::jthread other(bring);
        EXPECT_TRUE(support::soon([&] { return isIn(stage); })) << STAGE_NAMES.at(stage);
        std::jthread release([this] {
            support::sleepMs(HELD_MS);
            held = STAGES;
        });
        calling();
    }
    bool isIn(Stage stage) const
    {
        const auto state = subject->series();
        return (stage == Preparing && state == Series::State::Preparing) ||
               (stage == Stopping && state == Series::State::Stopping) ||
               (stage == Ending && state == Series::State::Ending);
    }
    static void linger(std::span<const std::uint8_t>)
    {
        Staged* self = current;
        while (self != nullptr && self->held != STAGES && self->isIn(self->held))
            support::sleepMs(1);
    }
    static void event(unsigned event, long data, void* user)
    {
        auto& self = *static_cast<Staged*>(user);
        const auto caller = self.subject->caller();
        const bool frame = event == HWEVENT_FRAME_READY;
        if (event == HWEVENT_BUSY_CHANGED)
            return linger({});
        if (frame)
            refhost::adopt(self.device().lastData());
        if (self.calling && frame && data == 0 && self.where == AtFrame)
            self.calling();
        if (self.calling && self.where == AtLast && caller == Series::Caller::LastEvent && self.ended++ == 0)
            self.calling();
        self.failures += event == HWEVENT_ACQ_FAILED ? 1 : 0;
        self.ended += frame ? 0 : 1;
        self.frames += frame ? 1 : 0;
    }
    static void logged(unsigned, const char*, void* user)
    {
        auto& self = *static_cast<Staged*>(user);
        if (self.where == AtLog && self.outcome.result == -99 && self.calling) {
            self.outcome.result = -98;
            self.calling();
        }
    }

    inline static std::atomic<Staged*> current{nullptr};

    const Kind& kind;
    support::TempFolder folder;
    refhost::Host host{folder.path(), folder.path()};
    std::unique_ptr<Subject> subject;
    std::function<void()> calling;
    Outcome outcome;
    std::atomic<Column> where{AtIdle};
    std::atomic<Stage> held{STAGES};
    std::atomic<int> frames{0};
    std::atomic<int> ended{0};
    std::atomic<bool> made{false}; ///< the call has returned
    bool freed = false;
};

/// Whether a call has given what a word of the document says.
bool gave(const std::string& word, Staged& staged, const Row& row, const Staged::Outcome& outcome)
{
    const auto tells = [&](const char* part) { return outcome.text.find(part) != std::string::npos; };
    if (word == "running")
        return outcome.result == 1 && (outcome.inLog || outcome.text == "Acquisition is running");
    if (word == "closed")
        return outcome.result == 1 && outcome.text.starts_with("Device not connected");
    if (word == "fails") // at once, or by an event
        return outcome.result == 1 || support::soon([&] { return staged.failures > 0; });
    if (word == "refused")
        return (outcome.result == 1 || row.make == destroy) &&
               (outcome.inLog || tells("cannot be closed") || tells("cannot be destroyed"));
    if (word == "new")
        return outcome.result == 0 && outcome.asked;
    return outcome.result == 0;
}

class CallsAgainstStates : public testing::TestWithParam<const Kind*> {};

TEST_P(CallsAgainstStates, AsTheDocumentHasThem)
{
    const Kind& kind = *GetParam();
    const bool whole = (kind.modes & dv::ACQMODE_TDI) != 0;
    Staged staged(kind);
    for (const Row& row : ROWS)
        for (std::size_t column = 0; column < COLUMNS; ++column) {
            const std::string word = row.cells[column];
            if (word == "-" || (column == AtWhole && !whole))
                continue;
            const auto outcome = staged.call(row, static_cast<Column>(column));
            EXPECT_TRUE(gave(word, staged, row, outcome))
                << kind.name << ": " << row.name << " in column " << column << " is to be \"" << word << "\", gave "
                << outcome.result << " \"" << outcome.text << "\"";
            staged.leave();
        }
    staged.end();
    for (const auto& violation : sim::violations())
        ADD_FAILURE() << violation.what;
}

std::vector<const Kind*> allKinds()
{
    std::vector<const Kind*> all;
    for (const Kind& kind : kinds())
        all.push_back(&kind);
    return all;
}

INSTANTIATE_TEST_SUITE_P(Kinds, CallsAgainstStates, testing::ValuesIn(allKinds()),
                         [](const auto& row) { return std::string(row.param->name); });

} // namespace

TEST(CallsAgainstStatesDocument, HasTheSameCells)
{
    std::ifstream document(DEVELOPER_DOCUMENT);
    std::vector<std::string> lines;
    for (std::string line; std::getline(document, line);)
        lines.push_back(line);
    for (const Row& row : ROWS) {
        std::string expected = std::string("| ") + row.name + " |";
        for (const char* cell : row.cells)
            expected += std::string(" ") + cell + " |";
        EXPECT_EQ(std::ranges::count(lines, expected), 1) << expected;
    }
}
