// Faults between the bus and a board: when they begin, what they do, and how they end.
#include "sim/usb/testbench.h"

#include <gmock/gmock.h>

namespace simtest {
namespace {

using testing::HasSubstr;
using testing::ThrowsMessage;

class FaultsTest : public BusTest {
protected:
    FaultsTest() : BusTest(echoBench({"A"}, {{"link", {{"latency_ms", 1}}}})) {}

    static void fault(const char* text) { sim::addFault(0, json::parse(text)); }
    Host host{"A"};
};

TEST_F(FaultsTest, AnswersAreCutOnceAfterSomeReads)
{
    fault(R"({"kind": "short_read", "bytes": 6, "when": {"after_reads": 2}})");
    EXPECT_EQ(host.read(10), 0) << "a read that brings nothing does not count";
    EXPECT_EQ(host.answer(10), ramp(10));
    // The second read takes a part; the third meets the rest of the answer.
    host.write(ramp(20));
    EXPECT_EQ(host.fetch(4), ramp(4));
    EXPECT_EQ(host.read(16), 6);
    EXPECT_EQ(host.got.back(), 9);
    EXPECT_EQ(host.read(16), 0);
    EXPECT_EQ(host.answer(10), ramp(10));
}

TEST_F(FaultsTest, SilenceBeginsAtTheExactByte)
{
    fault(R"({"kind": "silence", "times": 2, "when": {"after_bytes": 20000}})");
    host.write(ramp(50000));
    EXPECT_EQ(host.fetch(50000), ramp(20000));
    EXPECT_EQ(host.read(10), 0) << "a read that finds nothing to swallow does not count";
    EXPECT_EQ(host.answer(10), Bytes{});
    EXPECT_EQ(host.answer(10), ramp(10));
}

TEST_F(FaultsTest, WrittenSequenceIsFoundAcrossWrites)
{
    fault(R"({"kind": "silence", "when": {"after_written": "55 02 05", "occurrence": 3}})");
    host.write({0x55, 0x02, 0x05, 0x55, 0x02});
    EXPECT_EQ(host.fetch(5).size(), 5U);
    host.write({0x05, 0x55});
    EXPECT_EQ(host.fetch(2).size(), 2U);
    host.write({0x02, 0x05, 0x01});
    EXPECT_EQ(host.read(3), 0);
    EXPECT_EQ(host.answer(100), Bytes{});
    sim::clearFaults(0);
    EXPECT_EQ(host.answer(100), ramp(100));
}

TEST_F(FaultsTest, ErrorsBringTheirResultAndText)
{
    fault(R"({"kind": "error", "result": -7, "text": "it hangs", "times": 2, "when": {"after_writes": 1}})");
    EXPECT_EQ(host.read(1), 0);
    EXPECT_EQ(host.write({1}), 1);
    EXPECT_EQ(host.write({2}), -7);
    EXPECT_EQ(host.error(), "it hangs");
    EXPECT_EQ(host.read(1), -7);
    EXPECT_EQ(host.fetch(2), Bytes{1});
}

TEST_F(FaultsTest, GarbageSpoilsTheToldBytes)
{
    fault(R"({"kind": "garbage", "offset": 3, "bytes": 4, "seed": 9})");
    const Bytes bytes = host.answer(20);
    ASSERT_EQ(bytes.size(), 20U);
    for (std::size_t i = 0; i < bytes.size(); ++i)
        EXPECT_EQ(bytes[i] != i, i >= 3 && i < 7) << i;
}

TEST_F(FaultsTest, LateAnswersComeWhole)
{
    const auto waited = timeOf([&] {
        fault(R"({"kind": "late", "seconds": 0.2})");
        EXPECT_EQ(host.answer(10), Bytes{});
        while (host.read(10) == 0) {
        }
    });
    EXPECT_GE(waited, 200ms);
    EXPECT_EQ(host.got, ramp(10));
}

TEST_F(FaultsTest, StalledWritesFailAtTheHostsTimeLimitOrGoOn)
{
    host.ftdi.usb_write_timeout = 30;
    fault(R"({"kind": "stalled_write", "bytes": 4, "times": 1})");
    EXPECT_GE(timeOf([&] { EXPECT_EQ(host.write(ramp(10)), -1); }), 30ms);
    EXPECT_EQ(host.error(), "usb bulk write failed");
    EXPECT_EQ(host.write(ramp(10)), 10);
    EXPECT_EQ(sim::written(0).size(), 14U);

    host.ftdi.usb_write_timeout = 5000;
    fault(R"({"kind": "stalled_write", "bytes": 6, "seconds": 0.03})");
    EXPECT_GE(timeOf([&] { EXPECT_EQ(host.write(ramp(10)), 10); }), 30ms);
    EXPECT_EQ(sim::written(0).size(), 24U);
}

TEST_F(FaultsTest, PlugIsPulledDuringATransferAndPutBack)
{
    fault(R"({"kind": "unplug", "replug_after_s": 0.02, "when": {"after_bytes": 20000}})");
    host.write(ramp(50000));
    const int result = host.read(50000);
    EXPECT_TRUE(result == -4 || result == -1) << result;
    EXPECT_EQ(host.write({1}), -1);
    ftdi_usb_close(&host.ftdi);
    while (host.open("A") != 0) {
    }
    host.write({1});
    EXPECT_EQ(host.read(1), 0) << "not in FIFO mode any more";
    EXPECT_EQ(kept(0, &EchoBoard::powered), 2);
}

TEST_F(FaultsTest, BadFaultsAreToldAbout)
{
    const std::pair<const char*, const char*> cases[] = {
        {R"({"kind": "flood"})", "fault \"flood\": unknown kind"},
        {R"({"kind": "silence", "time": 1})", "fault \"silence\": unknown key \"time\""},
        {R"({"kind": "error", "result": 1})", "\"result\" must be negative"},
        {R"({"kind": "mute", "on": "write"})", "\"on\" must be "},
        {R"({"kind": "silence", "when": {"after_read": 1}})", "\"when\": one of after_reads,"},
        {R"({"kind": "silence", "when": {"after_written": "55 0"}})", "\"after_written\" must be bytes"},
    };
    for (const auto& [text, told] : cases)
        EXPECT_THAT([t = text] { fault(t); }, ThrowsMessage<std::runtime_error>(HasSubstr(told)));
    EXPECT_EQ(host.answer(10), ramp(10));
}

} // namespace
} // namespace simtest
