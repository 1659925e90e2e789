// Starting the library's services from a service's configuration.
//
// A host service calls Initialize once, early, with the view of its
// configuration's root. It sets up, in this order, what the configuration asks
// for:
//   - "refTracker": the ref tracker (tessera/census.h), tracking the types
//     named by the "className" of each of the node's entries:
//         <refTracker>
//           <entry><className>N7MyTypes7SessionE</className></entry>
//         </refTracker>
//     A name must be spelt exactly as std::type_info::name() gives it.
//   - logging: the default logger's level from "/logLevel" (a level name:
//     "none", "quiet", "panic", "error", "warning", "info", "verbose",
//     "trivia"; "info" when absent), and the log files:
//         "log/outputToFiles"  true       whether the log is written to files
//         "log/directory"      the working directory at start
//         "log/maxFileSize"    10485760   bytes at which a new file is begun
//         "log/maxFileNum"     10         files kept, at least 2
//         "log/fileLevel"      "trivia"   most verbose level written to them
//         "log/fileMode"       "append"   "append" continues the current file;
//                                         "new" begins each run with a new one
//         "log/rolloverFailureAction"  "continue", "abort" or "break": what a
//                                      failed roll-over does
//     The files are <serviceName>.log, <serviceName>-1.log (the newest
//     closed one) up to <serviceName>-<maxFileNum - 1>.log (the oldest), and
//     are registered with the log manager as the writer "file". When
//     "alert/log/directory" is set, records at "error" and above also go to
//     <serviceName>-alert.log there (writer "alert"), rolled by
//     "alert/log/maxFileSize" and "alert/log/maxFileNum" with the same
//     defaults.
//   - the process's thread pool (tessera/system/threadPool.h) from the
//     "ThreadPool" node, installed as GetThreadPool()'s; bad limits throw
//     InvalidArgumentException before anything starts.
#pragma once

#include <tessera/api.h>
#include <tessera/config.h>

#include <string>

namespace Tessera {
namespace Service {

// Throws AlreadyInitializedException when called after a successful call. A
// call that throws for a bad setting has started nothing and may be repeated.
// `serviceName` names the log files.
TESSERA_EXPORT void Initialize(const Config::View& config,
                               const std::string& serviceName = "service");

}  // namespace Service
}  // namespace Tessera
