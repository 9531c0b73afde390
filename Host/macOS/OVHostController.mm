#import "Host/macOS/OVHostController.h"

#include <dispatch/dispatch.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>

#import "Host/macOS/HostOutput.h"
#import "Host/macOS/OVProxyStart.h"

using ostravel::host::fail;
using ostravel::host::HostAction;
using ostravel::host::HostCommand;
using ostravel::host::printable;
using ostravel::host::printFailure;

namespace {

// How long the system may take to report the state; it needs less than a second.
constexpr std::chrono::seconds kStatusPatience{10};

// The system displays it among its network services.
NSString* const kConfigurationName = @"Ostravel";
NSString* const kMonitoringSocketPath = @"monitoringSocketPath";

NETunnelProviderProtocol* protocolOf(NETransparentProxyManager* manager) {
  NEVPNProtocol* const protocol = [manager protocolConfiguration];
  return [protocol isKindOfClass:[NETunnelProviderProtocol class]]
             ? static_cast<NETunnelProviderProtocol*>(protocol)
             : nil;
}

// nil for none.
NSString* monitoringSocketOf(NETransparentProxyManager* manager) {
  id const path = [[protocolOf(manager) providerConfiguration] objectForKey:kMonitoringSocketPath];
  return [path isKindOfClass:[NSString class]] ? static_cast<NSString*>(path) : nil;
}

// Text that follows the version.
std::string stateOf(OSSystemExtensionProperties* found) {
  std::string state;
  if (@available(macOS 12.0, *)) {
    if ([found isEnabled]) {
      state += ", enabled";
    }
    if ([found isAwaitingUserApproval]) {
      state += ", waiting for approval";
    }
    if ([found isUninstalling]) {
      state += ", being removed";
    }
  }
  return state;
}

}  // namespace

@implementation OVHostController

- (instancetype)initWithCommand:(const HostCommand&)command {
  self = [super init];
  if (self != nil) {
    _command = command;
    _identifier =
        [[[NSBundle mainBundle] objectForInfoDictionaryKey:@"OSTRAVELExtensionIdentifier"] retain];
    _exitStatus = EXIT_SUCCESS;
  }
  return self;
}

- (void)run {
  if (_identifier == nil) {
    std::fprintf(stderr, "ostravel-host: has to be run where it is in its application\n");
    std::exit(EXIT_FAILURE);
  }
  switch (_command.action) {
    case HostAction::activate:
      if (!_command.isMonitoringSocketInReach()) {
        std::printf("note: an extension in the sandbox reaches only sockets in %s\n",
                    std::string(ostravel::host::kMonitoringSocketFolder).c_str());
      }
      [self submit:[OSSystemExtensionRequest
                       activationRequestForExtension:_identifier
                                               queue:dispatch_get_main_queue()]];
      break;
    case HostAction::deactivate:
      [self removeConfigurations];
      break;
    case HostAction::status:
      [self expectStatus];
      [self requestProperties];
      break;
  }
}

// Ends the process if the system does not answer in time.
- (void)expectStatus {
  dispatch_after_f(
      dispatch_time(DISPATCH_TIME_NOW, std::chrono::nanoseconds(kStatusPatience).count()),
      dispatch_get_main_queue(), nullptr, [](void*) {
        std::fprintf(stderr, "ostravel-host: the system has not answered after %lld seconds\n",
                     static_cast<long long>(kStatusPatience.count()));
        std::exit(EXIT_FAILURE);
      });
}

- (void)requestProperties {
  if (@available(macOS 12.0, *)) {
    // Tests the method instead of the system's version.
    if ([OSSystemExtensionRequest respondsToSelector:@selector(propertiesRequestForExtension:
                                                                                       queue:)]) {
      [self submit:[OSSystemExtensionRequest
                       propertiesRequestForExtension:_identifier
                                               queue:dispatch_get_main_queue()]];
      return;
    }
  }
  std::printf("extension: see systemextensionsctl list\n");
  [self printConfiguration];
}

- (void)submit:(OSSystemExtensionRequest*)request {
  [request setDelegate:self];
  [[OSSystemExtensionManager sharedManager] submitRequest:request];
}

// The extension

- (OSSystemExtensionReplacementAction)request:(OSSystemExtensionRequest*)request
                  actionForReplacingExtension:(OSSystemExtensionProperties*)existing
                                withExtension:(OSSystemExtensionProperties*)ext {
  (void)request;
  std::printf("replacing version %s (%s) with %s (%s)\n", printable([existing bundleShortVersion]),
              printable([existing bundleVersion]), printable([ext bundleShortVersion]),
              printable([ext bundleVersion]));
  _wasReplaced = YES;
  return OSSystemExtensionReplacementActionReplace;
}

- (void)requestNeedsUserApproval:(OSSystemExtensionRequest*)request {
  (void)request;
  std::printf("waiting for you to allow the extension in the system's settings\n");
}

- (void)request:(OSSystemExtensionRequest*)request
    didFinishWithResult:(OSSystemExtensionRequestResult)result {
  (void)request;
  const bool needsRestart = result == OSSystemExtensionRequestWillCompleteAfterReboot;
  switch (_command.action) {
    case HostAction::activate:
      if (needsRestart) {
        std::printf("restart this Mac, then activate again\n");
        std::exit(EXIT_SUCCESS);
      }
      std::printf("extension activated\n");
      [self installConfiguration];
      break;
    case HostAction::deactivate:
      std::printf(needsRestart ? "restart this Mac to finish\n" : "extension deactivated\n");
      std::exit(_exitStatus);
    case HostAction::status:
      // Continues when the properties arrive.
      break;
  }
}

- (void)request:(OSSystemExtensionRequest*)request didFailWithError:(NSError*)error {
  (void)request;
  switch (_command.action) {
    case HostAction::activate:
      fail("activate the extension", error);
    case HostAction::deactivate:
      fail("deactivate the extension", error);
    case HostAction::status:
      fail("ask for the extension's state", error);
  }
}

- (void)request:(OSSystemExtensionRequest*)request
    foundProperties:(NSArray<OSSystemExtensionProperties*>*)properties {
  (void)request;
  if ([properties count] == 0) {
    std::printf("extension: not activated\n");
  }
  for (OSSystemExtensionProperties* found in properties) {
    std::printf("extension: version %s (%s)%s\n", printable([found bundleShortVersion]),
                printable([found bundleVersion]), stateOf(found).c_str());
  }
  [self printConfiguration];
}

// The configuration

// Calls back with this application's saved configurations, in the system's order.
- (void)loadConfigurations:(void (^)(NSArray<NETransparentProxyManager*>* managers,
                                     NSError* error))completion {
  [NETransparentProxyManager loadAllFromPreferencesWithCompletionHandler:completion];
}

// The configuration of this extension; nil if none is saved. One for another extension is reused,
// so that there are never two.
- (NETransparentProxyManager*)ownOf:(NSArray<NETransparentProxyManager*>*)managers {
  for (NETransparentProxyManager* manager in managers) {
    NSString* const provider = [protocolOf(manager) providerBundleIdentifier];
    if (provider != nil && [provider isEqualToString:_identifier]) {
      return manager;
    }
  }
  return [managers firstObject];
}

- (void)installConfiguration {
  [self loadConfigurations:^(NSArray<NETransparentProxyManager*>* managers, NSError* error) {
    if (error != nil) {
      fail("load the configuration", error);
    }
    NETransparentProxyManager* manager = [self ownOf:managers];
    if (manager == nil) {
      manager = [[[NETransparentProxyManager alloc] init] autorelease];
    }
    [self save:manager];
  }];
}

- (void)save:(NETransparentProxyManager*)manager {
  NSString* const earlierSocket = monitoringSocketOf(manager);
  NSString* const socket = [self monitoringSocket];
  const BOOL isSameSocket =
      earlierSocket == socket || (socket != nil && [earlierSocket isEqualToString:socket]);

  NETunnelProviderProtocol* const protocol = [[[NETunnelProviderProtocol alloc] init] autorelease];
  [protocol setProviderBundleIdentifier:_identifier];
  // Displayed in the settings; must not be empty.
  [protocol setServerAddress:@"127.0.0.1"];
  if (socket != nil) {
    [protocol setProviderConfiguration:[NSDictionary dictionaryWithObject:socket
                                                                   forKey:kMonitoringSocketPath]];
  }
  [manager setProtocolConfiguration:protocol];
  [manager setLocalizedDescription:kConfigurationName];
  [manager setEnabled:YES];
  [manager saveToPreferencesWithCompletionHandler:^(NSError* error) {
    if (error != nil) {
      fail("save the configuration", error);
    }
    [self start:manager restarting:!isSameSocket || _wasReplaced];
  }];
}

// nil for none.
- (NSString*)monitoringSocket {
  return _command.monitoringSocketPath
             ? [NSString stringWithUTF8String:_command.monitoringSocketPath->c_str()]
             : nil;
}

- (void)start:(NETransparentProxyManager*)manager restarting:(BOOL)restarts {
  // A saved configuration is out of date until it is loaded again.
  [manager loadFromPreferencesWithCompletionHandler:^(NSError* error) {
    if (error != nil) {
      fail("load the configuration", error);
    }
    // Never released: a connection is not documented to outlive its manager.
    [manager retain];
    [[[OVProxyStart alloc] initWithConnection:[manager connection]] runRestarting:restarts];
  }];
}

- (void)removeConfigurations {
  [self loadConfigurations:^(NSArray<NETransparentProxyManager*>* managers, NSError* error) {
    if (error != nil) {
      printFailure("load the configuration", error);
      _exitStatus = EXIT_FAILURE;
    }
    [self removeConfigurations:managers from:0];
  }];
}

// Removes all configurations, one after the other; then the extension, even if this fails.
- (void)removeConfigurations:(NSArray<NETransparentProxyManager*>*)managers from:(NSUInteger)index {
  if (index >= [managers count]) {
    [self submit:[OSSystemExtensionRequest
                     deactivationRequestForExtension:_identifier
                                               queue:dispatch_get_main_queue()]];
    return;
  }
  NETransparentProxyManager* const manager = [managers objectAtIndex:index];
  [[manager connection] stopVPNTunnel];
  [manager removeFromPreferencesWithCompletionHandler:^(NSError* error) {
    if (error != nil) {
      printFailure("remove the configuration", error);
      _exitStatus = EXIT_FAILURE;
    } else {
      std::printf("configuration removed\n");
    }
    [self removeConfigurations:managers from:index + 1];
  }];
}

- (void)printConfiguration {
  [self loadConfigurations:^(NSArray<NETransparentProxyManager*>* managers, NSError* error) {
    if (error != nil) {
      fail("load the configuration", error);
    }
    NETransparentProxyManager* const manager = [self ownOf:managers];
    const NEVPNStatus status = manager != nil ? [[manager connection] status] : NEVPNStatusInvalid;
    std::printf("proxy: %s%s\n", printable(status),
                manager != nil && ![manager isEnabled] ? ", disabled in the settings" : "");
    if (NSString* const path = monitoringSocketOf(manager)) {
      std::printf("monitoring socket: %s\n", printable(path));
    }
    std::exit(EXIT_SUCCESS);
  }];
}

@end
