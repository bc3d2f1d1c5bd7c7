// ExitStatus: the process exit status of zsm, one per kind of outcome, so that a
// script can tell a mistake in its own command line from a server that refused
// and from downloads that failed.
//
//   0  success
//   1  any other failure (device not configured, local files, the demo's checks)
//   2  usage: an unknown command or option, or a value the command refuses
//   3  the server or the protocol: no connection, an HTTP or server error, no
//      answer in time
//   4  downloads: at least one failed in this run, or they did not finish in
//      time (a failure left from an earlier run does not count)
//
// Plain constants and a pure function; safe from any thread.
#pragma once

#include "zolvani/subscription/Error.h"

namespace zsm {

enum ExitStatus : int {
  kExitOk = 0,
  kExitFailure = 1,
  kExitUsage = 2,
  kExitServer = 3,
  kExitDownloads = 4,
};

// The exit status a command that failed with `error` ends with.
int exitStatusFor(const zolvani::Error& error);

// The table above, as printed at the end of `zsm --help`.
const char* exitStatusHelp();

}  // namespace zsm
