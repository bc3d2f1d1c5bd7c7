#include "ExitStatus.h"

#include "CliError.h"
#include "zolvani/subscription/Constants.h"
#include "zolvani/subscription/platform/CurlHttpTransport.h"

namespace zsm {

int exitStatusFor(const zolvani::Error& error) {
  if (error.domain == kCliErrorDomain) {
    switch (error.code) {
      case kCliErrorUsage:
        return kExitUsage;
      case kCliErrorTimeout:
      case kCliErrorServer:
        return kExitServer;
      case kCliErrorDownloads:
        return kExitDownloads;
      default:
        return kExitFailure;
    }
  }
  // The library's own errors all come from talking to the server (refusals,
  // HTTP statuses, the server's codes, being offline); the transport's are the
  // connection's.
  if (error.domain == zolvani::kZolvaniSubscriptionManagerErrorDomain ||
      error.domain == zolvani::kCurlErrorDomain)
    return kExitServer;
  return kExitFailure;
}

const char* exitStatusHelp() {
  return "Exit status:\n"
         "  0  success\n"
         "  1  other failures (device not configured, local files, demo checks)\n"
         "  2  usage error: unknown command or option, or a value the command refuses\n"
         "  3  server or protocol error: no connection, HTTP or server error, no answer in time\n"
         "  4  downloads failed in this run, or did not finish within --watch-timeout\n"
         "     (a failure left from an earlier run is mentioned, not counted)";
}

}  // namespace zsm
