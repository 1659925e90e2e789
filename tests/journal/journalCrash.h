// The crash test's two halves that need no platform: the child's append loop
// and the parent's check of what a kill left behind. The platform halves
// (tests/posix, tests/win32) start the child by re-running the test program
// with a filter and the marker variable, read its acknowledgements, and kill
// it. No Tessera journal names here: the Windows half includes <windows.h>.
#pragma once

#include <string>

namespace JournalCrash {

// Set (to the journal directory) in the child's environment.
constexpr const char* kMarker = "TESSERA_JOURNAL_CRASH_CHILD";
// The gtest filter that runs the child's loop.
constexpr const char* kChildFilter = "--gtest_filter=JournalCrashChild.AppendsUntilKilled";
// The child writes "@J <journal path>" once the journal exists, then
// "@A <index>" after each append returns.

// Sets the journal directory up for the parent's checks.
void BeginParent(const std::string& dir);
void EndParent();
// Checks the journal after the child was killed having acknowledged `acked`
// entries: every acknowledged entry there in order, at most one torn record,
// the steps recovery lists, and undo entries appended after recovery read
// back. Deletes the journal. Returns "" or what went wrong. `torn` is set
// when a torn record was found.
std::string CheckAfterKill(const std::string& journalPath, int acked, bool& torn);

}  // namespace JournalCrash
