// The hostile host against each kind of device: whatever is called when, frames are right or told as wrong, every call
// returns in time, and nothing is left behind.
#include "hostile/host.h"

#include <cstdlib>
#include <gtest/gtest.h>
#include <iomanip>
#include <iostream>

#include "devices/common/devicebench.h"

using namespace hostile;

namespace {

double environment(const char* name, double fallback)
{
    const char* text = std::getenv(name);
    return text != nullptr ? std::atof(text) : fallback;
}

/// Frames of rows as an undisturbed series has them.
void learnRows(const Kind& kind, KnownFrames& known)
{
    support::TempFolder folder;
    refhost::Host host(folder.path(), folder.path());
    const auto subject = kind.make(kind, host, folder);
    auto& device = subject->device();
    ASSERT_EQ(device.initDevice(), 0);
    support::EventLog events(device);
    State state{};
    events.onFrame = [&](long) { known.addRows(*refhost::adopt(device.lastData()), state); };
    device.setAcqMode(dv::ACQMODE_TDI);
    for (state[Dacs] = 0; state[Dacs] < 2; ++state[Dacs])
        for (state[Pixels] = 0; state[Pixels] < kind.states[Pixels]; ++state[Pixels])
            for (state[Time] = 0; state[Time] < kind.states[Time]; ++state[Time]) {
                ASSERT_EQ(subject->setDacs(state[Dacs]), 0);
                ASSERT_EQ(state[Pixels] == 2 ? subject->writeMatrix(0) : subject->setPixels(state[Pixels]), 0);
                ASSERT_EQ(subject->setConfig(0), 0);
                events.clear();
                ASSERT_EQ(device.startAcquisition(2, TIMES.at(static_cast<std::size_t>(state[Time]))), 0);
                ASSERT_TRUE(events.waitForEnd());
            }
    device.destroy();
    sim::clearBus();
}

void print(const Hits& hits)
{
    std::cout << std::setw(20) << "";
    for (const char* name : STAGE_NAMES)
        std::cout << std::setw(10) << name;
    for (const auto& [name, counts] : hits) {
        std::cout << "\n" << std::setw(20) << name;
        for (const auto count : counts)
            std::cout << std::setw(10) << count;
    }
    std::cout << "\n";
}

constexpr std::size_t CALLS = 60;      ///< of a thread with one device
constexpr unsigned MOST_EPISODES = 20; ///< devices for what the dice have left out

/// Cells of the table that cannot be: a device is not brought up while another call of it runs, and not freed under
/// one.
constexpr std::array<Stage, 5> NO_INIT = {Preparing, Stopping, Ending, InFrame, InLast};
constexpr std::array<Stage, 2> NO_DESTROY = {Preparing, InFrame};

Hits noHits()
{
    Hits hits;
    for (const Call& call : calls())
        hits[call.name] = {};
    for (const Stage stage : NO_INIT)
        hits["initDevice"].at(stage) = 1;
    for (const Stage stage : NO_DESTROY)
        hits["destroy"].at(stage) = 1;
    return hits;
}

bool complete(const Hits& hits)
{
    return std::ranges::all_of(hits, [](const auto& row) { return std::ranges::count(row.second, 0UL) == 0; });
}

class HostileTest : public testing::TestWithParam<const Kind*> {};

TEST_P(HostileTest, Rages)
{
    if (std::getenv("LATIXEL_STRESS_SECONDS") == nullptr)
        GTEST_SKIP() << "runs where LATIXEL_STRESS_SECONDS says for how long";
    const Kind& kind = *GetParam();
    KnownFrames known(kind);
    if (kind.rowsChecked)
        learnRows(kind, known);
    const double seconds = environment("LATIXEL_STRESS_SECONDS", 0);
    auto seed = static_cast<std::uint64_t>(environment("LATIXEL_STRESS_SEED", 1));
    Hits hits = noHits();
    const Moment begun = Clock::now();
    unsigned long frames = 0;
    unsigned directed = 0;
    for (unsigned episode = 0; directed < MOST_EPISODES; ++episode, ++seed) {
        // First all by the dice; then what they have left out.
        const bool random = episode < 2 || std::chrono::duration<double>(Clock::now() - begun).count() < seconds;
        if (!random && complete(hits))
            break;
        directed += random ? 0 : 1;
        std::cout << kind.name << ", seed " << seed << std::endl;
        HostileHost host(kind, known, seed, seed % 2 == 0, random ? Hits{} : hits);
        auto report = host.run(random ? CALLS : CALLS / 2);
        for (const auto& complaint : report.complaints)
            ADD_FAILURE() << kind.name << ", seed " << seed << ": " << complaint;
        if (HasFailure())
            break;
        for (const auto& [name, counts] : report.hits)
            for (std::size_t i = 0; i < counts.size(); ++i)
                hits[name][i] += counts[i];
        frames += report.framesChecked;
    }
    EXPECT_TRUE(complete(hits));
    EXPECT_GT(frames, 20U);
    print(hits);
    std::cout << frames << " frames checked\n";
}

/// Whatever the machine does meanwhile, each thread makes the same calls in the same order.
TEST(HostileSchedule, RepeatsForASeed)
{
    const Kind& kind = kinds().front();
    const KnownFrames known(kind);
    const auto calls = [&](std::uint64_t seed) { return HostileHost(kind, known, seed, false, {}).run(20).made; };
    const auto first = calls(7);
    const auto again = calls(7);
    const auto other = calls(8);
    // The first thread goes on until the others are done.
    for (std::size_t thread = 1; thread < first.size(); ++thread) {
        EXPECT_EQ(first[thread], again[thread]) << thread;
        EXPECT_NE(first[thread], other[thread]) << thread;
    }
}

std::vector<const Kind*> allKinds()
{
    std::vector<const Kind*> all;
    for (const Kind& kind : kinds())
        all.push_back(&kind);
    return all;
}

INSTANTIATE_TEST_SUITE_P(Kinds, HostileTest, testing::ValuesIn(allKinds()),
                         [](const auto& row) { return std::string(row.param->name); });

} // namespace
