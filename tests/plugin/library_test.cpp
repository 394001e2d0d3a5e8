// The library object in the hands of a careless host, and its threads when it is unloaded.
#include "refhost/plugin.h"
#include "sim/usb/latixelsim.h"
#include "support/tempfolder.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <chrono>
#include <dlfcn.h>
#include <filesystem>
#include <future>
#include <memory>
#include <pthread.h>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace {

using Devices = std::vector<dv::IHwDev*>;

/// A host without directories.
class EmptyHost final : public IDorvet {
public:
    virtual ~EmptyHost() = default;
    dv::IParamMgr* createParamMgr() override { return nullptr; }
    dv::IFrameFactory* frameFactory() override { return nullptr; }
    dv::IUiService* uiService() override { return nullptr; }
    const char* logDirectory() override { return nullptr; }
    const char* configDirectory() override { return nullptr; }
};

class ThrowingList final : public dv::PtrList<dv::IHwDev*> {
public:
    int add(dv::IHwDev* /*device*/) override { throw std::runtime_error("the host's own"); }
};

class LibraryTest : public testing::Test {
protected:
    void SetUp() override { folder.write("latixel.ini", "[Settings]\nModule1=0\nModule2=0\nModule3=0\nModule4=0\n"); }
    void TearDown() override { sim::clearBus(); }

    /// A Medipix2 or Timepix board for each serial, all of one composite.
    static void attachMembers(const std::vector<std::string>& serials)
    {
        nlohmann::json boards = nlohmann::json::array();
        for (const auto& serial : serials)
            boards.push_back({{"kind", "mpx2"},
                              {"description", "Latixel Latixel TLWA 1 sn: " + serial + " A"},
                              {"modules", nlohmann::json::array({nlohmann::json::array({"C07-W0123"})})}});
        sim::loadBench({{"boards", boards}, {"scene", {{"kind", "flat"}, {"flux", 1000}, {"noise", false}}}});
    }
    dv::IHwLib* load()
    {
        handle.reset(dlopen(LATIXEL_PLUGIN, RTLD_NOW | RTLD_LOCAL));
        return reinterpret_cast<dv::IHwLib* (*)()>(dlsym(handle.get(), "dvGetHwLib"))();
    }
    static Devices devicesOf(const dv::IHwLib& library)
    {
        dv::PtrList<dv::IHwDev*> list;
        EXPECT_EQ(library.deviceList(&list), 0);
        return list.vect();
    }
    static std::ptrdiff_t threadCount()
    {
        return std::ranges::distance(std::filesystem::directory_iterator("/proc/self/task"));
    }

    support::TempFolder folder;
    refhost::Host host{folder.path(), folder.path()};
    std::unique_ptr<void, int (*)(void*)> handle{nullptr, dlclose};
};

TEST_F(LibraryTest, AnswersWhatAHostMustNotDo)
{
    attachMembers({"1", "2"});
    dv::IHwLib* library = load();
    EmptyHost empty;
    for (IDorvet* wrong : {static_cast<IDorvet*>(nullptr), static_cast<IDorvet*>(&empty)})
        EXPECT_EQ(library->open(wrong), 1);
    EXPECT_TRUE(devicesOf(*library).empty());
    ASSERT_EQ(library->open(&host), 0);
    EXPECT_EQ(devicesOf(*library).size(), 1U);
    ThrowingList throwing;
    EXPECT_EQ(library->deviceList(nullptr), 1);
    EXPECT_EQ(library->deviceList(&throwing), 1);
    EXPECT_EQ(library->close(), 0);
    EXPECT_EQ(library->close(), 0);
}

TEST_F(LibraryTest, SecondOpenKeepsDevicesWithTheirLog)
{
    attachMembers({"1", "2"});
    dv::IHwLib* library = load();
    ASSERT_EQ(library->open(&host), 0);
    const Devices first = devicesOf(*library);
    ASSERT_EQ(library->open(&host), 0);
    const Devices both = devicesOf(*library);
    ASSERT_GE(both.size(), first.size());
    EXPECT_TRUE(std::equal(first.begin(), first.end(), both.begin()));
    auto* composite = dynamic_cast<dv::IHwDevMpx*>(first.at(0));
    ASSERT_NE(composite, nullptr);
    EXPECT_EQ(composite->adcValue(10000), -1005);
    EXPECT_THAT(folder.read("latixel.log"), testing::HasSubstr("Invalid ADC index.")) << "in the log that it was given";
    EXPECT_EQ(library->close(), 0);
    EXPECT_TRUE(devicesOf(*library).empty());
    host.complainOfLeftovers();
    EXPECT_EQ(host.complaints(), std::vector<std::string>{});
    EXPECT_EQ(sim::liveContexts(), 0);
}

// A thread that has announced its end still runs for a while in the library's code: unloading then ends the process.
// Those that call the host are made to take long over their very last steps.
TEST_F(LibraryTest, HasNoThreadWhenItIsUnloaded)
{
    static pthread_key_t slowEnd;
    ASSERT_EQ(pthread_key_create(&slowEnd, [](void*) { std::this_thread::sleep_for(std::chrono::milliseconds(30)); }),
              0);
    std::thread([] {}).join(); // with the first one a sanitizer starts a thread of its own
    const auto before = threadCount();
    for (const bool lost : {false, false, true}) {
        attachMembers({"1", "2", "3"});
        refhost::Plugin plugin(host, LATIXEL_PLUGIN);
        plugin.open();
        ASSERT_EQ(plugin.devices().size(), 1U);
        refhost::Device& composite = *plugin.devices().front();
        composite.findParam("ParallelReadout")->setBool(true);
        std::promise<void> called;
        composite.onEvent([&, first = true](const refhost::Event& event) mutable {
            pthread_setspecific(slowEnd, &slowEnd);
            if (event.type == dv::HWEVENT_FRAME_READY)
                composite.lastData();
            if (std::exchange(first, false))
                called.set_value();
        });
        EXPECT_EQ(composite.mpx()->startAcquisition(1000, 0.001), 0);
        called.get_future().wait();
        if (lost)
            sim::unplug(1);
        plugin.close();
        EXPECT_EQ(threadCount(), before) << (lost ? "of a board that was lost" : "of a series under way");
    }
    pthread_key_delete(slowEnd);
}

} // namespace
