// A bench is the JSON file that says which boards hang on the virtual bus:
//   {"boards": [{"kind": "mpx3", "description": "...", "serial": "...", "manufacturer": "...",
//                "vendor_id": "0x0403", "product_id": "0x6010",
//                "link": {"rate_mb_s": 40, "latency_ms": 2}, "faults": [...], ... keys of the kind}],
//    ... keys for all boards, as "scene"}
// Needed are "kind" and "description". The first board is the newest on the bus, and so the first that is listed.
// A "rate_mb_s" of 0, or none, lets the link run as fast as memory. "latency_ms" is what an idle read waits whatever
// latency timer the host sets; without it, the host's setting counts. Faults are told in sim/usb/faults.h. Comments are
// allowed.
#pragma once

#include "sim/boards/board.h"

#include <filesystem>
#include <functional>
#include <memory>
#include <nlohmann/json_fwd.hpp>
#include <string>

namespace sim {

/// Makes a board from its entry in the bench and the whole bench. Throws std::exception with a text for people.
using BoardMaker = std::function<std::unique_ptr<Board>(const nlohmann::json& board, const nlohmann::json& bench)>;

/// Makes a kind of board known to benches that are loaded later. A name that is known already gets the new maker.
LATIXELSIM_API void registerBoardKind(const std::string& name, BoardMaker maker);

/// Path of a bench: `name` itself if there is such a file, or the file of that name, with or without ".json", in the
/// folders of benches that came with the library. Throws std::runtime_error if there is none.
std::filesystem::path findBench(const std::string& name);

/// Replaces the bus by the bench that `findBench` finds. Throws std::runtime_error with a text for people.
void loadBenchFile(const std::string& name);

/// Loads the bench that the environment variable LATIXELSIM_BENCH names, if none was loaded before. A failure is told
/// on the standard error output, once, and leaves the bus empty.
void ensureBench();

} // namespace sim
