#import "Host/macOS/OVProxyStart.h"

#include <dispatch/dispatch.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>

#import "Host/macOS/HostOutput.h"

using ostravel::host::fail;
using ostravel::host::printable;

namespace {

// The extension starts within a second, unless the system is busy or asks the user.
constexpr std::chrono::seconds kPatience{30};

[[noreturn]] void finishRunning() {
  std::printf("proxy running\n");
  std::exit(EXIT_SUCCESS);
}

}  // namespace

@implementation OVProxyStart

- (instancetype)initWithConnection:(NEVPNConnection*)connection {
  self = [super init];
  if (self != nil) {
    _connection = [connection retain];
  }
  return self;
}

- (void)runRestarting:(BOOL)restarts {
  [self observe];
  switch ([_connection status]) {
    case NEVPNStatusInvalid:
    case NEVPNStatusDisconnected:
      [self start];
      return;
    case NEVPNStatusDisconnecting:
      _phase = Phase::stopping;
      return;
    case NEVPNStatusConnecting:
    case NEVPNStatusConnected:
    case NEVPNStatusReasserting:
      break;
  }
  if (restarts) {
    std::printf("proxy restarting\n");
    _phase = Phase::stopping;
    [_connection stopVPNTunnel];
    return;
  }
  _phase = Phase::begun;
  [self statusBecame:[_connection status]];
}

- (void)observe {
  [[NSNotificationCenter defaultCenter] addObserverForName:NEVPNStatusDidChangeNotification
                                                    object:_connection
                                                     queue:nil
                                                usingBlock:^(NSNotification* notification) {
                                                  (void)notification;
                                                  // Read now: the status may change again before
                                                  // the main queue runs.
                                                  const NEVPNStatus status = [_connection status];
                                                  dispatch_async(dispatch_get_main_queue(), ^{
                                                    [self statusBecame:status];
                                                  });
                                                }];
  dispatch_after_f(dispatch_time(DISPATCH_TIME_NOW, std::chrono::nanoseconds(kPatience).count()),
                   dispatch_get_main_queue(), self,
                   [](void* context) { [static_cast<OVProxyStart*>(context) giveUp]; });
}

- (void)start {
  NSError* error = nil;
  if (![_connection startVPNTunnelWithOptions:nil andReturnError:&error]) {
    fail("start the proxy", error);
  }
  std::printf("proxy starting\n");
  _phase = Phase::requested;
}

- (void)statusBecame:(NEVPNStatus)status {
  switch (status) {
    case NEVPNStatusConnected:
      if (_phase != Phase::stopping) {
        finishRunning();
      }
      break;
    case NEVPNStatusConnecting:
    case NEVPNStatusReasserting:
      if (_phase == Phase::requested) {
        _phase = Phase::begun;
      }
      break;
    case NEVPNStatusInvalid:
    case NEVPNStatusDisconnected:
      if (_phase == Phase::stopping) {
        [self start];
      } else if (_phase == Phase::begun) {
        std::fprintf(stderr, "ostravel-host: the proxy has stopped instead of starting; "
                             "the extension's log may say why\n");
        std::exit(EXIT_FAILURE);
      }
      break;
    case NEVPNStatusDisconnecting:
      break;
  }
}

- (void)giveUp {
  const NEVPNStatus status = [_connection status];
  if (status == NEVPNStatusConnected && _phase != Phase::stopping) {
    finishRunning();
  }
  std::fprintf(stderr, "ostravel-host: the proxy does not run after %lld seconds: it is %s\n",
               static_cast<long long>(kPatience.count()), printable(status));
  std::exit(EXIT_FAILURE);
}

@end
