// The panic path's way into the log.
#pragma once

namespace Tessera {
namespace Service {

// Logs `report` at the "panic" level through the default logger when the log
// manager has a writer. Never throws; a panic while logging one is not logged.
void LogPanicReport(const char* report) noexcept;

} // namespace Service
} // namespace Tessera
