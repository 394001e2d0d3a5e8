// The plug-in as a host loads it, a careless one too: its entry, discovery, and what is left when it is gone.
#include "refhost/error.h"
#include "refhost/plugin.h"
#include "refhost/series.h"
#include "sim/boards/mpx3board.h"
#include "sim/usb/latixelsim.h"
#include "support/tempfolder.h"

#include <gmock/gmock.h>
#include <nlohmann/json.hpp>

#include <algorithm>
#include <chrono>
#include <dlfcn.h>
#include <filesystem>
#include <fstream>
#include <ftdi.h>
#include <future>
#include <malloc.h>
#include <memory>
#include <pthread.h>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace {

/// Threads and open files of this program.
std::pair<std::ptrdiff_t, std::ptrdiff_t> threadsAndFiles()
{
    const auto entries = [](const char* folder) {
        return std::ranges::distance(std::filesystem::directory_iterator(folder));
    };
    return {entries("/proc/self/task"), entries("/proc/self/fd")};
}

/// A board of the family that the description tells, with a chip.
nlohmann::json board(const std::string& description)
{
    const nlohmann::json chips = nlohmann::json::array({"C07-W0123"});
    if (description.find(" TR") != std::string::npos)
        return {{"kind", "mpxrow"}, {"description", description}, {"channels", chips}};
    if (description.find(" TL") != std::string::npos)
        return {{"kind", "mpx2"}, {"description", description}, {"modules", nlohmann::json::array({chips})}};
    return {{"kind", "mpx3"}, {"description", description}, {"channels", nlohmann::json::array({chips})}};
}

/// Of boards that are one composite, up to the serial.
const std::string MEMBER = "Latixel Latixel TLWA 1 sn: ";

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

class PluginTest : public testing::Test {
protected:
    void SetUp() override { folder.write("latixel.ini", "[Settings]\nModule1=0\nModule2=0\nModule3=0\nModule4=0\n"); }
    void TearDown() override { sim::clearBus(); }

    static void attach(const std::vector<std::string>& descriptions)
    {
        nlohmann::json boards = nlohmann::json::array();
        for (const auto& description : descriptions)
            boards.push_back(board(description));
        sim::loadBench({{"boards", boards}, {"scene", {{"kind", "flat"}, {"flux", 1000}, {"noise", false}}}});
    }
    std::vector<std::string> open()
    {
        plugin = std::make_unique<refhost::Plugin>(host, LATIXEL_PLUGIN);
        plugin->open();
        std::vector<std::string> names;
        for (const auto& device : plugin->devices())
            names.push_back(device->name());
        return names;
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
    std::string log() const { return folder.read("latixel.log"); }
    bool logged(const std::string& line) const { return log().find("[MSG]: " + line + "\n") != std::string::npos; }

    support::TempFolder folder;
    refhost::Host host{folder.path(), folder.path()};
    std::unique_ptr<void, int (*)(void*)> handle{nullptr, dlclose};
    std::unique_ptr<refhost::Plugin> plugin;
};

} // namespace

TEST_F(PluginTest, ExportsItsEntryAndNothingElse)
{
    dv::IHwLib* library = load();
    EXPECT_EQ(dlsym(handle.get(), "_ZN9HwLatixel6hwLibE"), nullptr);
    std::filesystem::remove(folder / "latixel.ini");
    EXPECT_EQ(library->open(&host), 0) << "on an empty bus, without settings";
    EXPECT_TRUE(logged("Found 0 devices:"));
    EXPECT_EQ(library->close(), 0);
}

TEST_F(PluginTest, ClassifiesWhatIsOnTheBus)
{
    attach({"Latixel Latixel M3WA 9 sn: 8 A", "Latixel Latixel M3WA sn: 1 A", "Latixel Latixel TRWA 2 sn: 2 A",
            "Latixel Latixel M3WA 10 sn: 3 A", "Latixel Latixel TLWA 2 sn: 4 A", "Latixel Latixel TLWA sn: 5 A",
            "Latixel Latixel TLWA 1 sn: 7 A", "Latixel Latixel TLWA 3a sn: 9 A", "Other Thing sn: 6"});
    EXPECT_EQ(open(), (std::vector<std::string>{"Latixel Latixel M3WA sn: 1 A", "Latixel Latixel TRWA 2 sn: 2 A",
                                                "Latixel Latixel TLWA sn: 5 A", "Latixel Latixel TLWA 3a sn: 9 A",
                                                "Latixel", "Latixel"}))
        << "single devices as they are on the bus, then the composites";
    const auto& devices = plugin->devices();
    ASSERT_EQ(devices.size(), 6U);
    // Members stand in the byte-wise order of their names.
    EXPECT_FALSE(devices[4]->isMpx3());
    EXPECT_EQ(devices[4]->findParam("DeviceSerials")->getString(), "7 4 ");
    EXPECT_TRUE(devices[5]->isMpx3());
    EXPECT_EQ(devices[5]->findParam("DeviceSerials")->getString(), "3 8 ");
    EXPECT_TRUE(logged("Found 8 devices:")) << log();
    for (const char* line : {"#0 \"Latixel Latixel M3WA 9 sn: 8 A\" is Latixel MPX3 device (part of LAD)",
                             "#1 \"Latixel Latixel M3WA sn: 1 A\" is Latixel MPX3 device",
                             "#2 \"Latixel Latixel TRWA 2 sn: 2 A\" is Latixel ROW device",
                             "#5 \"Latixel Latixel TLWA sn: 5 A\" is Latixel device"})
        EXPECT_TRUE(logged(std::string("   Device ") + line)) << line;
    EXPECT_NE(log().find("   Device (name=Latixel Latixel M3WA sn: 1 A, serial=, vidpix=4036010)\n"),
              std::string::npos);
    plugin->close();
    EXPECT_EQ(host.complaints(), std::vector<std::string>{});
}

TEST_F(PluginTest, SettingsNameMembersAndPrefix)
{
    attach({"Latixel Latixel M3WA sn: 1 A", "Latixel Latixel M3WA sn: 2 A", "Special Latixel M3WA sn: 3 A"});
    folder.write("latixel.ini", "[Settings]\nDeviceCount=2147483647\nDevice0=sn: 2\nDevice5=\n");
    EXPECT_EQ(open(), (std::vector<std::string>{"Latixel Latixel M3WA sn: 1 A", "Latixel"}));
    EXPECT_NE(log().find("sn: 2 A\" is Latixel MPX3 device (part of LAD)\n"), std::string::npos);
    plugin.reset();
    folder.write("latixel.ini", "[Settings]\nDevNamePrefix=Special\n");
    EXPECT_EQ(open(), (std::vector<std::string>{"Special Latixel M3WA sn: 3 A"}));
    plugin.reset();
    folder.write("latixel.ini", "[Settings]\nOldDevices=true\n");
    EXPECT_TRUE(open().empty());
    EXPECT_TRUE(logged("Initializing old Latixel devices..."));
    plugin.reset();
    std::string nonsense = "[Settings\n]]=\nDeviceCount=-5\nModule0=99999999999999999999\n=\n";
    for (int i = 0; i < 20000; ++i)
        nonsense += static_cast<char>(i * 7919 % 256);
    folder.write("latixel.ini", nonsense);
    EXPECT_EQ(open().size(), 2U) << "as without settings";
}

TEST_F(PluginTest, DeviceThatDoesNotOpenIsNotListed)
{
    attach({"Latixel Latixel M3WA sn: 1 A", "Latixel Latixel M3WA sn: ../../2 A"});
    // Another program has the first one.
    ftdi_context other{};
    ASSERT_EQ(ftdi_init(&other), 0);
    ASSERT_EQ(ftdi_usb_open_desc(&other, 0x0403, 0x6010, "Latixel Latixel M3WA sn: 1 A", nullptr), 0);
    EXPECT_EQ(open(), (std::vector<std::string>{"Latixel Latixel M3WA sn: ../../2 A"}));
    EXPECT_NE(folder.read("latixel_1.log").find("Cannot open device"), std::string::npos);
    ftdi_usb_close(&other);
    ftdi_deinit(&other);
    EXPECT_TRUE(std::filesystem::exists(folder / "latixel_.._.._2.log")) << "a serial stays in its folder";
    plugin->close();
    EXPECT_EQ(host.complaints(), std::vector<std::string>{});
}

TEST_F(PluginTest, HundredLivesLeaveNothingBehind)
{
    attach({"Latixel Latixel M3WA sn: 1 A"});
    const auto live = [&](bool series) {
        refhost::Host ownHost(folder.path(), folder.path());
        refhost::Plugin loaded(ownHost, LATIXEL_PLUGIN);
        loaded.open();
        ASSERT_EQ(loaded.devices().size(), 1U);
        if (series) {
            refhost::Device& device = *loaded.devices().front();
            const auto result =
                refhost::runSeries(device, {.frames = 3, .seconds = 0.001}, [](refhost::SeriesFrame) {});
            EXPECT_EQ(result.frames, 3U);
        }
        loaded.close();
        EXPECT_EQ(ownHost.complaints(), std::vector<std::string>{});
        // What the virtual board keeps for tests would count as the plug-in's memory.
        sim::clearTraffic();
        sim::inspect<sim::Mpx3Board>(0, [](sim::Mpx3Board& made) { made.clearFrames(); });
    };
    for (int i = 0; i < 10; ++i)
        live(true);
    const auto before = threadsAndFiles();
    const std::size_t memoryBefore = mallinfo2().uordblks;
    for (int i = 0; i < 100; ++i)
        live(i % 10 == 0);
    EXPECT_EQ(threadsAndFiles(), before);
    EXPECT_LT(mallinfo2().uordblks, memoryBefore + 300000) << "not one frame's buffer in a hundred lives";
    EXPECT_EQ(sim::liveContexts(), 0);
    EXPECT_EQ(dlopen(LATIXEL_PLUGIN, RTLD_NOW | RTLD_NOLOAD), nullptr) << "the library is unloaded";
}

TEST_F(PluginTest, AnswersWhatAHostMustNotDo)
{
    attach({MEMBER + "1 A", MEMBER + "2 A"});
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

TEST_F(PluginTest, SecondOpenKeepsDevicesWithTheirLog)
{
    attach({MEMBER + "1 A", MEMBER + "2 A"});
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
TEST_F(PluginTest, HasNoThreadWhenItIsUnloaded)
{
    static pthread_key_t slowEnd;
    ASSERT_EQ(pthread_key_create(&slowEnd, [](void*) { std::this_thread::sleep_for(std::chrono::milliseconds(30)); }),
              0);
    std::thread([] {}).join(); // with the first one a sanitizer starts a thread of its own
    const auto before = threadsAndFiles().first;
    for (const bool lost : {false, false, true}) {
        attach({MEMBER + "1 A", MEMBER + "2 A", MEMBER + "3 A"});
        ASSERT_EQ(open().size(), 1U);
        refhost::Device& composite = *plugin->devices().front();
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
        plugin->close();
        EXPECT_EQ(threadsAndFiles().first, before) << (lost ? "of a board that was lost" : "of a series under way");
    }
    pthread_key_delete(slowEnd);
}
