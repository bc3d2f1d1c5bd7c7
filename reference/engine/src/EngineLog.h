// The engine's log: contract debug events to a rotating file in the data folder.
//
// Thread-safety: the logger is safe to call from any thread.
#pragma once

#include <memory>

#include "zolvani/reference/ReferenceEngine.h"

namespace spdlog {
class logger;
}

namespace zolvani::reference {

// A logger writing "<time> [<spdlog level>] [L<contract level>] <message>" lines
// to engine.log (rotated by size) in the data folder; null when the file cannot
// be opened.
std::shared_ptr<spdlog::logger> makeEngineLogger(const ReferenceEngineOptions& options);

}  // namespace zolvani::reference
