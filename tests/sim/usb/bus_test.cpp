// The virtual bus through the functions of libftdi: listing, sessions, transfers, and benches.
#include "sim/usb/testbench.h"

#include "support/tempfolder.h"

#include <cstdlib>
#include <gmock/gmock.h>
#include <thread>

namespace simtest {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::ThrowsMessage;

/// Descriptions of all chips of a product, in the order of the list.
std::vector<std::string> listed(int vendor = 0x0403, int product = 0x6010)
{
    Host host;
    ftdi_device_list* list = nullptr;
    const int count = ftdi_usb_find_all(&host.ftdi, &list, vendor, product);
    std::vector<std::string> names;
    for (const auto* entry = list; entry != nullptr; entry = entry->next) {
        char text[129] = "";
        EXPECT_EQ(ftdi_usb_get_strings(&host.ftdi, entry->dev, nullptr, 0, text, 128, nullptr, 0), 0);
        EXPECT_EQ(host.ftdi.usb_dev, nullptr);
        names.emplace_back(text);
    }
    EXPECT_EQ(count, static_cast<int>(names.size()));
    ftdi_list_free(&list);
    EXPECT_EQ(list, nullptr);
    return names;
}

TEST_F(BusTest, ListsPluggedChipsNewestFirst)
{
    sim::loadBench(echoBench({"A", "B", "C"}, {{"product_id", "0x6014"}}));
    EXPECT_THAT(listed(), ElementsAre("A", "B"));
    EXPECT_THAT(listed(0x0403, 0x6014), ElementsAre("C"));
    EXPECT_THAT(listed(0, 0), ElementsAre("A", "B", "C"));

    sim::unplug(1);
    EXPECT_THAT(listed(), ElementsAre("A"));
    sim::plug(1);
    EXPECT_THAT(listed(), ElementsAre("B", "A"));
    EXPECT_EQ(kept(1, &EchoBoard::powered), 2);
}

TEST_F(BusTest, SessionsAndContextsAreCounted)
{
    Host host;
    EXPECT_EQ(host.open("no such"), -3);
    EXPECT_EQ(host.error(), "device not found");
    EXPECT_EQ(host.open("B"), 0);
    {
        Host second;
        EXPECT_EQ(second.open("B"), -5);
        EXPECT_EQ(sim::openSessions(), 1);
        EXPECT_EQ(sim::liveContexts(), 2);
    }
    EXPECT_EQ(ftdi_usb_close(&host.ftdi), 0);
    EXPECT_EQ(host.open("B"), 0);
}

/// Results of requests of each kind and of transfers, in one line.
std::string resultsOf(ftdi_context& ftdi)
{
    unsigned char byte = 0;
    const int results[] = {ftdi_usb_reset(&ftdi),
                           ftdi_usb_purge_buffers(&ftdi),
                           ftdi_set_bitmode(&ftdi, 0xFF, 0x40),
                           ftdi_set_baudrate(&ftdi, 9600),
                           ftdi_set_latency_timer(&ftdi, 2),
                           ftdi_get_latency_timer(&ftdi, &byte),
                           ftdi_write_data(&ftdi, &byte, 1),
                           ftdi_read_data(&ftdi, &byte, 1)};
    return testing::PrintToString(results);
}

TEST_F(BusTest, RequestsFailAsInLibftdi)
{
    Host host;
    EXPECT_EQ(resultsOf(host.ftdi), "{ -2, -3, -2, -3, -3, -2, -666, -666 }");
    ASSERT_EQ(host.open("A"), 0);
    EXPECT_EQ(resultsOf(host.ftdi), "{ 0, 0, 0, 0, 0, 0, 1, 1 }");

    const std::string gone = "{ -1, -1, -1, -2, -2, -1, -1, -4 }";
    sim::unplug(0);
    EXPECT_EQ(resultsOf(host.ftdi), gone);
    EXPECT_EQ(host.error(), "usb bulk read failed");
    // Back under a new address, the chip is no longer what the session holds.
    sim::plug(0);
    EXPECT_EQ(resultsOf(host.ftdi), gone);
    EXPECT_EQ(ftdi_usb_close(&host.ftdi), -1);
    EXPECT_EQ(host.open("A"), 0);
    EXPECT_EQ(resultsOf(host.ftdi), "{ 0, 0, 0, 0, 0, 0, 1, 1 }");
}

TEST_F(BusTest, ReadsBringWhatHasArrived)
{
    Host host("A");
    ASSERT_EQ(ftdi_set_latency_timer(&host.ftdi, 30), 0);
    const auto idle = timeOf([&] { EXPECT_EQ(host.read(10), 0); });
    EXPECT_GE(idle, 30ms);
    EXPECT_LT(idle, 3s);

    EXPECT_EQ(host.answer(4), ramp(4));

    // What arrives during the wait ends it, and what exceeds a transfer comes with further ones.
    ftdi_set_latency_timer(&host.ftdi, 255);
    const std::jthread board([] {
        std::this_thread::sleep_for(5ms);
        sim::inspect<EchoBoard>(0, [](EchoBoard& echo) { echo.emit(ramp(50000)); });
    });
    EXPECT_EQ(host.fetch(50000), ramp(50000));
}

TEST_F(BusTest, BytesBeyondTheRequestStayInTheContext)
{
    Host host("A");
    ftdi_read_data_set_chunksize(&host.ftdi, 65536);
    host.write(ramp(20000));
    EXPECT_EQ(host.fetch(10), ramp(10));
    EXPECT_EQ(host.read(19989), 19989);
    EXPECT_EQ(host.got.back(), ramp(19999).back());
    EXPECT_EQ(host.fetch(1), Bytes{ramp(20000).back()});

    host.write(ramp(40000));
    host.read(1);
    EXPECT_EQ(ftdi_usb_purge_buffers(&host.ftdi), 0);
    EXPECT_EQ(host.read(99), 0);
}

TEST_F(BusTest, BadBenchesAreToldAboutAndLeaveTheBusAlone)
{
    const std::pair<const char*, const char*> cases[] = {
        {R"({"kind": "ecko"})", R"(board 2 ("B"): unknown kind "ecko" (known: )"},
        {R"({"vendor_id": 65536})", R"("vendor_id" must be a number from 0 to 65535)"},
        {R"({"link": {"latency_ms": -1}})", R"("latency_ms" must be a time)"},
        {R"({"faults": [{"kind": "flood"}]})", R"(board 2 ("B"): fault "flood": unknown kind)"},
    };
    for (const auto& [patch, told] : cases) {
        const json bench = echoBench({"A", "B"}, json::parse(patch));
        EXPECT_THAT([&] { sim::loadBench(bench); }, ThrowsMessage<std::runtime_error>(HasSubstr(told))) << patch;
    }
    EXPECT_THAT([] { sim::loadBench(json::array()); }, ThrowsMessage<std::runtime_error>(HasSubstr("\"boards\"")));
    EXPECT_THAT(listed(), ElementsAre("A", "B"));
    EXPECT_THAT([] { sim::unplug(2); }, ThrowsMessage<std::out_of_range>(HasSubstr("no board 2 on a bench of 2")));
}

TEST_F(BusTest, BenchesAreLoadedFromFilesThroughTheCInterface)
{
    const support::TempFolder folder;
    const std::string path = folder.write("bench.json", "// Comments are allowed.\n" + echoBench({"From file"}).dump());
    EXPECT_EQ(latixelsimLoadBench(path.c_str()), 0);
    EXPECT_THAT(listed(), ElementsAre("From file"));
    EXPECT_EQ(latixelsimLoadBench("no such bench"), -1);
    EXPECT_STREQ(latixelsimError(), "there is no bench \"no such bench\"");
    folder.write("bench.json", "{\"boards\": [}");
    EXPECT_EQ(latixelsimLoadBench(path.c_str()), -1);
    EXPECT_THAT(latixelsimError(), HasSubstr(path + ": "));
    EXPECT_THAT(listed(), ElementsAre("From file"));
}

// Each statement runs in a process of its own, whose first call of libftdi it makes.
TEST(BenchEnvironmentTest, TakesTheBenchThatTheEnvironmentNames)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    const auto countChips = [](const char* bench) {
        setenv("LATIXELSIM_BENCH", bench, 1);
        std::exit(static_cast<int>(listed().size()));
    };
    EXPECT_EXIT(countChips("old-two"), testing::ExitedWithCode(2), "");
    EXPECT_EXIT(countChips("nowhere"), testing::ExitedWithCode(0), "latixelsim: there is no bench \"nowhere\"");
}

} // namespace
} // namespace simtest
