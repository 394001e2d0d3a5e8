// Loads benches: finds the file, makes the boards of each kind, and puts them on the bus.
#include "sim/usb/bench.h"

#include "sim/boards/mpx2board.h"
#include "sim/boards/mpx3board.h"
#include "sim/boards/oldboard.h"
#include "sim/boards/rowboard.h"
#include "sim/jsonkeys.h"
#include "sim/usb/bus.h"
#include "sim/usb/latixelsim.h"

#include <charconv>
#include <cstdio>
#include <cstdlib>
#include <dlfcn.h>
#include <fstream>
#include <map>
#include <mutex>

namespace sim {

using nlohmann::json;
namespace fs = std::filesystem;

namespace {

/// The kinds of boards. A table, since a registration in the makers' own files would run at load.
struct Kinds {
    std::mutex mutex;
    std::map<std::string, BoardMaker, std::less<>> makers{
        {"fenxel", makeFenxelBoard}, {"mpx2", makeMpx2Board},  {"mpx2usb2", makeUsb2Board},
        {"mpx3", makeMpx3Board},     {"mpxrow", makeRowBoard},
    };
};

Kinds& kinds()
{
    static Kinds known;
    return known;
}

BoardMaker makerOf(const std::string& kind)
{
    const std::scoped_lock lock(kinds().mutex);
    const auto& makers = kinds().makers;
    if (const auto found = makers.find(kind); found != makers.end())
        return found->second;
    std::string names;
    for (const auto& [name, maker] : makers)
        names += (names.empty() ? "" : ", ") + name;
    throw std::runtime_error("unknown kind \"" + kind + "\" (known: " + names + ")");
}

/// A USB number, as 24592 or "0x6010".
std::uint16_t readUsbId(const json& board, const char* key, std::uint16_t fallback)
{
    const auto found = board.find(key);
    if (found == board.end() || !found->is_string())
        return readKey<std::uint16_t>(board, key, fallback);
    const auto text = found->get<std::string>();
    const char* end = text.data() + text.size();
    std::uint16_t id = 0;
    if (!text.starts_with("0x") || std::from_chars(text.data() + 2, end, id, 16).ptr != end)
        badKey(key, "a number or a text like \"0x6010\"");
    return id;
}

LinkSpeed readLink(const json& board)
{
    const json link = readObject(board, "link");
    refuseOtherKeys(link, {"rate_mb_s", "latency_ms"});
    LinkSpeed speed;
    speed.bytesPerSecond = readKey<double>(link, "rate_mb_s", 0.0) * 1e6;
    if (speed.bytesPerSecond < 0)
        badKey("rate_mb_s", "0 or more");
    if (link.contains("latency_ms")) {
        const std::chrono::duration<double, std::milli> latency(readKey<double>(link, "latency_ms"));
        if (!(latency.count() >= 0 && latency.count() <= 255))
            badKey("latency_ms", "a time from 0 to 255 milliseconds");
        speed.latency = std::chrono::duration_cast<Clock::duration>(latency);
    }
    return speed;
}

std::shared_ptr<Bridge> makeBridge(const json& board, const json& bench)
{
    if (!board.is_object())
        throw std::runtime_error("must be an object");
    const BoardMaker maker = makerOf(readKey<std::string>(board, "kind"));
    readKey<std::string>(board, "description");
    UsbIdentity identity;
    identity.manufacturer = readKey<std::string>(board, "manufacturer", identity.manufacturer);
    identity.serial = readKey<std::string>(board, "serial", identity.serial);
    identity.vendor = readUsbId(board, "vendor_id", identity.vendor);
    identity.product = readUsbId(board, "product_id", identity.product);
    auto bridge = std::make_shared<Bridge>(maker(board, bench), std::move(identity), readLink(board));
    for (const json& fault : readList(board, "faults"))
        bridge->addFault(fault);
    return bridge;
}

/// What people call the board at `position`, counted from 1.
std::string boardLabel(const json& board, std::size_t position)
{
    std::string label = "board " + std::to_string(position + 1);
    if (board.is_object() && board.contains("description"))
        label += " (" + board["description"].dump() + ")";
    return label;
}

/// Folders that benches came in: beside the library, installed with it, and the one that it was built from.
std::vector<fs::path> benchFolders()
{
    std::vector<fs::path> folders;
    Dl_info library{};
    if (dladdr(reinterpret_cast<const void*>(&benchFolders), &library) != 0 && library.dli_fname != nullptr) {
        const fs::path folder = fs::path(library.dli_fname).parent_path();
        folders.push_back(folder / "benches");
        folders.push_back(folder / "../share/latixel/benches");
    }
    folders.emplace_back(LATIXELSIM_BENCH_DIR);
    return folders;
}

} // namespace

void registerBoardKind(const std::string& name, BoardMaker maker)
{
    const std::scoped_lock lock(kinds().mutex);
    kinds().makers[name] = std::move(maker);
}

void loadBench(const json& bench)
{
    if (!bench.is_object() || !bench.contains("boards"))
        throw std::runtime_error("a bench must be an object with the key \"boards\"");
    std::vector<std::shared_ptr<Bridge>> chips;
    for (const json& board : readList(bench, "boards")) {
        try {
            chips.push_back(makeBridge(board, bench));
        } catch (const std::exception& error) {
            throw std::runtime_error(boardLabel(board, chips.size()) + ": " + error.what());
        }
    }
    Bus::instance().replace(std::move(chips));
}

fs::path findBench(const std::string& name)
{
    if (fs::is_regular_file(name))
        return name;
    if (!fs::path(name).has_parent_path())
        for (const fs::path& folder : benchFolders())
            for (const char* ending : {"", ".json"})
                if (fs::path path = folder / (name + ending); fs::is_regular_file(path))
                    return path;
    throw std::runtime_error("there is no bench \"" + name + "\"");
}

void loadBenchFile(const std::string& name)
{
    const fs::path path = findBench(name);
    std::ifstream file(path);
    try {
        if (!file)
            throw std::runtime_error("cannot be read");
        loadBench(json::parse(file, nullptr, true, true));
    } catch (const std::exception& error) {
        throw std::runtime_error(path.string() + ": " + error.what());
    }
}

void ensureBench()
{
    static std::once_flag looked;
    std::call_once(looked, [] {
        const char* name = std::getenv("LATIXELSIM_BENCH");
        if (Bus::instance().hasBench() || name == nullptr || *name == '\0')
            return;
        try {
            loadBenchFile(name);
        } catch (const std::exception& error) {
            std::fprintf(stderr, "latixelsim: %s\n", error.what());
        }
    });
}

} // namespace sim
