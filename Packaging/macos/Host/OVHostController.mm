#import "Packaging/macos/Host/OVHostController.h"

#include <dispatch/dispatch.h>

#include <cstdio>
#include <cstdlib>

using ostravel::host::HostAction;

namespace {

// The system shows it among its network services.
NSString* const kConfigurationName = @"Ostravel";

[[noreturn]] void finish(int status) {
  std::exit(status);
}

[[noreturn]] void fail(const char* what, NSError* error) {
  std::fprintf(stderr, "ostravel-host: %s: %s (%s %ld)\n", what,
               [[error localizedDescription] UTF8String], [[error domain] UTF8String],
               static_cast<long>([error code]));
  finish(EXIT_FAILURE);
}

const char* textOf(NEVPNStatus status) {
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
  return "unknown";
}

}  // namespace

@implementation OVHostController

- (instancetype)initWithCommand:(const ostravel::host::HostCommand&)command {
  self = [super init];
  if (self != nil) {
    _command = command;
    _identifier =
        [[[NSBundle mainBundle] objectForInfoDictionaryKey:@"OSTRAVELExtensionIdentifier"] retain];
  }
  return self;
}

- (void)run {
  switch (_command.action) {
    case HostAction::activate:
      [self submit:[OSSystemExtensionRequest
                       activationRequestForExtension:_identifier
                                               queue:dispatch_get_main_queue()]];
      break;
    case HostAction::deactivate:
      [self removeConfiguration];
      break;
    case HostAction::status:
      [self requestProperties];
      break;
  }
}

- (void)requestProperties {
  // The first system that knows this request is macOS 12.
  if (![OSSystemExtensionRequest respondsToSelector:@selector(propertiesRequestForExtension:
                                                                                      queue:)]) {
    std::printf("extension: see systemextensionsctl list\n");
    [self printConfiguration];
    return;
  }
  [self submit:[OSSystemExtensionRequest propertiesRequestForExtension:_identifier
                                                                 queue:dispatch_get_main_queue()]];
}

- (void)submit:(OSSystemExtensionRequest*)request {
  [request setDelegate:self];
  [[OSSystemExtensionManager sharedManager] submitRequest:request];
}

// The extension

- (OSSystemExtensionReplacementAction)request:(OSSystemExtensionRequest*)request
                  actionForReplacingExtension:(OSSystemExtensionProperties*)existing
                                withExtension:(OSSystemExtensionProperties*)ext {
  std::printf("replacing version %s (%s) with %s (%s)\n",
              [[existing bundleShortVersion] UTF8String], [[existing bundleVersion] UTF8String],
              [[ext bundleShortVersion] UTF8String], [[ext bundleVersion] UTF8String]);
  (void)request;
  return OSSystemExtensionReplacementActionReplace;
}

- (void)requestNeedsUserApproval:(OSSystemExtensionRequest*)request {
  (void)request;
  std::printf("waiting for you to allow the extension in the system's settings\n");
  std::fflush(stdout);
}

- (void)request:(OSSystemExtensionRequest*)request
    didFinishWithResult:(OSSystemExtensionRequestResult)result {
  (void)request;
  if (result == OSSystemExtensionRequestWillCompleteAfterReboot) {
    std::printf("restart this Mac to finish\n");
    finish(EXIT_SUCCESS);
  }
  switch (_command.action) {
    case HostAction::activate:
      std::printf("extension activated\n");
      [self installConfiguration];
      break;
    case HostAction::deactivate:
      std::printf("extension deactivated\n");
      finish(EXIT_SUCCESS);
    case HostAction::status:
      // Goes on when the properties come.
      break;
  }
}

- (void)request:(OSSystemExtensionRequest*)request didFailWithError:(NSError*)error {
  (void)request;
  fail("system extension", error);
}

- (void)request:(OSSystemExtensionRequest*)request
    foundProperties:(NSArray<OSSystemExtensionProperties*>*)properties {
  (void)request;
  if ([properties count] == 0) {
    std::printf("extension: not activated\n");
  }
  for (OSSystemExtensionProperties* found in properties) {
    std::printf("extension: version %s (%s)%s%s%s\n", [[found bundleShortVersion] UTF8String],
                [[found bundleVersion] UTF8String], [found isEnabled] ? ", enabled" : "",
                [found isAwaitingUserApproval] ? ", waiting for approval" : "",
                [found isUninstalling] ? ", being removed" : "");
  }
  [self printConfiguration];
}

// The configuration

// Calls back with the one configuration of this application, or with a new one.
- (void)loadConfiguration:(void (^)(NETransparentProxyManager* manager))completion {
  [NETransparentProxyManager loadAllFromPreferencesWithCompletionHandler:^(
                                 NSArray<NETransparentProxyManager*>* managers, NSError* error) {
    if (error != nil) {
      fail("load configurations", error);
    }
    NETransparentProxyManager* manager = [managers firstObject];
    if (manager == nil) {
      manager = [[[NETransparentProxyManager alloc] init] autorelease];
    }
    completion(manager);
  }];
}

- (void)installConfiguration {
  [self loadConfiguration:^(NETransparentProxyManager* manager) {
    NETunnelProviderProtocol* const protocol =
        [[[NETunnelProviderProtocol alloc] init] autorelease];
    [protocol setProviderBundleIdentifier:_identifier];
    // Shown in the settings, and not allowed to be empty.
    [protocol setServerAddress:@"127.0.0.1"];
    [protocol setProviderConfiguration:[self providerConfiguration]];
    [manager setProtocolConfiguration:protocol];
    [manager setLocalizedDescription:kConfigurationName];
    [manager setEnabled:YES];
    [manager saveToPreferencesWithCompletionHandler:^(NSError* error) {
      if (error != nil) {
        fail("save the configuration", error);
      }
      [self start:manager];
    }];
  }];
}

- (NSDictionary*)providerConfiguration {
  if (!_command.monitoringSocketPath) {
    return nil;
  }
  return [NSDictionary
      dictionaryWithObject:[NSString stringWithUTF8String:_command.monitoringSocketPath->c_str()]
                    forKey:@"monitoringSocketPath"];
}

- (void)start:(NETransparentProxyManager*)manager {
  // What was just saved counts as out of date until it is loaded again.
  [manager loadFromPreferencesWithCompletionHandler:^(NSError* loadError) {
    if (loadError != nil) {
      fail("load the configuration", loadError);
    }
    NSError* startError = nil;
    if (![[manager connection] startVPNTunnelWithOptions:nil andReturnError:&startError]) {
      fail("start", startError);
    }
    std::printf("proxy starting\n");
    finish(EXIT_SUCCESS);
  }];
}

- (void)removeConfiguration {
  [self loadConfiguration:^(NETransparentProxyManager* manager) {
    [[manager connection] stopVPNTunnel];
    [manager removeFromPreferencesWithCompletionHandler:^(NSError* error) {
      // There may have been none; the extension is to go all the same.
      if (error != nil) {
        std::printf("no configuration removed: %s\n", [[error localizedDescription] UTF8String]);
      }
      [self submit:[OSSystemExtensionRequest
                       deactivationRequestForExtension:_identifier
                                                 queue:dispatch_get_main_queue()]];
    }];
  }];
}

- (void)printConfiguration {
  [self loadConfiguration:^(NETransparentProxyManager* manager) {
    std::printf("proxy: %s\n", textOf([[manager connection] status]));
    auto* const protocol = static_cast<NETunnelProviderProtocol*>([manager protocolConfiguration]);
    NSString* const path =
        [protocol isKindOfClass:[NETunnelProviderProtocol class]]
            ? [[protocol providerConfiguration] objectForKey:@"monitoringSocketPath"]
            : nil;
    if (path != nil) {
      std::printf("monitoring socket: %s\n", [path UTF8String]);
    }
    finish(EXIT_SUCCESS);
  }];
}

@end
