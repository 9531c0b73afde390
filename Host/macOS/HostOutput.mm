#import "Host/macOS/HostOutput.h"

#include <cstdio>
#include <cstdlib>

namespace ostravel::host {

const char* printable(NSString* text) {
  const char* const bytes = [text UTF8String];
  return bytes != nullptr ? bytes : "?";
}

const char* printable(NEVPNStatus status) {
  switch (status) {
    case NEVPNStatusInvalid:
      return "not configured";
    case NEVPNStatusDisconnected:
      return "stopped";
    case NEVPNStatusConnecting:
      return "starting";
    case NEVPNStatusConnected:
      return "running";
    case NEVPNStatusReasserting:
      return "restarting";
    case NEVPNStatusDisconnecting:
      return "stopping";
  }
  return "in an unknown state";
}

void printFailure(const char* what, NSError* error) {
  NSString* const text = [error localizedDescription];
  std::fprintf(stderr, "ostravel-host: cannot %s: %s (%s %ld)\n", what,
               text != nil ? printable(text) : "the system gives no reason",
               printable([error domain]), static_cast<long>([error code]));
}

void fail(const char* what, NSError* error) {
  printFailure(what, error);
  std::exit(EXIT_FAILURE);
}

}  // namespace ostravel::host
