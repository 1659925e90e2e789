// What the files of the file-operations journal (journal/basicFileOpsJournal.cpp,
// journal/fileOpsEntries.cpp, journal/fileOpsRecovery.cpp) share.
#pragma once

#include <mutex>

namespace Tessera {
namespace Service {

// Held by Init and Exit, and by whoever reads the directory they set.
std::mutex& FileOpsInitLock();

} // namespace Service
} // namespace Tessera
