// The managers of the NetworkExtension framework, over the state of a StandInMac.

#import <NetworkExtension/NetworkExtension.h>
#include <dispatch/dispatch.h>

#include <atomic>
#include <memory>
#include <mutex>

#import "Platform/macOS/Foundation/Reference.h"
#import "Tests/StandInMac/StandInMac.h"

using ostravel::macos::Reference;
using ostravel::standin::endForBrokenRule;
using ostravel::standin::makeError;
using ostravel::standin::stateOf;

NSString* const NEVPNErrorDomain = @"NEVPNErrorDomain";
NSString* const NEVPNStatusDidChangeNotification = @"com.apple.networkextension.statusdidchange";

using ErrorHandler = void (^)(NSError* error);
using ManagersHandler = void (^)(NSArray<NETransparentProxyManager*>* managers, NSError* error);

namespace {

// What a manager and its connection know about their configuration.
struct ConfigurationState {
  // nil: not saved yet.
  Reference<NSString*> identifier;
  // Saved, and not loaded since.
  std::atomic<bool> isStale = false;
};

struct ManagerState {
  std::shared_ptr<ConfigurationState> configuration = std::make_shared<ConfigurationState>();
  Reference<NEVPNConnection*> connection;
  Reference<NSString*> localizedDescription;
  Reference<NEVPNProtocol*> protocol;
  bool isEnabled = false;
  bool isOnDemandEnabled = false;
};

// A process that has loaded nothing may save nothing.
std::atomic<bool> somethingWasLoaded = false;

void requireMainQueue() {
  // Dispatch does not report the current queue; here, only the main thread runs the main queue.
  if (![NSThread isMainThread]) {
    endForBrokenRule("managers are used on the main queue");
  }
}

NSError* makeManagerError(NEVPNError code, NSString* text) {
  return makeError(NEVPNErrorDomain, code, text);
}

void setIfAny(NSMutableDictionary* dictionary, NSString* key, id value) {
  if (value != nil) {
    [dictionary setObject:value forKey:key];
  }
}

NSDictionary* configurationIn(NSArray* configurations, NSString* identifier) {
  for (NSDictionary* configuration in configurations) {
    if ([[configuration objectForKey:@"identifier"] isEqual:identifier]) {
      return configuration;
    }
  }
  return nil;
}

// nil when there is none of this identifier (any more).
NSDictionary* savedConfiguration(NSString* identifier) {
  return configurationIn([[StandInMac mac] valueOf:@"configurations"], identifier);
}

// The function is given what is saved, nil for nothing, and returns what is to be saved instead.
void changeConfiguration(NSString* identifier, NSDictionary* (^change)(NSDictionary* earlier)) {
  [[StandInMac mac] change:^(NSMutableDictionary* state) {
    NSMutableArray* const configurations =
        [NSMutableArray arrayWithArray:[state objectForKey:@"configurations"]];
    NSDictionary* const earlier = configurationIn(configurations, identifier);
    NSDictionary* const later = change(earlier);
    if (earlier == nil && later != nil) {
      [configurations addObject:later];
    } else if (earlier != nil && later != nil) {
      [configurations replaceObjectAtIndex:[configurations indexOfObjectIdenticalTo:earlier]
                                withObject:later];
    } else if (earlier != nil) {
      [configurations removeObjectIdenticalTo:earlier];
    }
    [state setObject:configurations forKey:@"configurations"];
  }];
}

void removeConfiguration(NSString* identifier) {
  changeConfiguration(identifier, ^NSDictionary*(NSDictionary* earlier) {
    (void)earlier;
    return nil;
  });
}

NEVPNStatus statusOf(NSString* identifier) {
  NSDictionary* const configuration = savedConfiguration(identifier);
  return static_cast<NEVPNStatus>([[configuration objectForKey:@"status"] intValue]);
}

void tellStatus(NEVPNConnection* connection) {
  [[NSNotificationCenter defaultCenter] postNotificationName:NEVPNStatusDidChangeNotification
                                                      object:connection];
}

void changeStatus(NEVPNConnection* connection, NEVPNStatus status, bool isTold = true) {
  NSString* const identifier =
      stateOf<std::shared_ptr<ConfigurationState>>(connection)->get()->identifier.get();
  changeConfiguration(identifier, ^NSDictionary*(NSDictionary* earlier) {
    // It has been removed meanwhile.
    if (earlier == nil) {
      return nil;
    }
    NSMutableDictionary* const later = [NSMutableDictionary dictionaryWithDictionary:earlier];
    [later setObject:[NSNumber numberWithInt:static_cast<int>(status)] forKey:@"status"];
    return later;
  });
  if (isTold) {
    tellStatus(connection);
  }
}

bool isIdle(NEVPNStatus status) {
  return status == NEVPNStatusInvalid || status == NEVPNStatusDisconnected;
}

// The system's answers come on the main queue, later.
void answer(ErrorHandler handler, NSError* error) {
  const auto held = Reference<ErrorHandler>::retaining(handler);
  dispatch_async(dispatch_get_main_queue(), ^{
    if (held.get()) {
      held.get()(error);
    }
  });
}

}  // namespace

@implementation NEVPNConnection

- (ConfigurationState*)configuration {
  return stateOf<std::shared_ptr<ConfigurationState>>(self)->get();
}

- (NEVPNStatus)status {
  return statusOf([self configuration]->identifier.get());
}

- (NSDate*)connectedDate {
  return nil;
}

- (BOOL)startVPNTunnelAndReturnError:(NSError**)error {
  return [self startVPNTunnelWithOptions:nil andReturnError:error];
}

- (BOOL)startVPNTunnelWithOptions:(NSDictionary<NSString*, NSObject*>*)options
                   andReturnError:(NSError**)error {
  requireMainQueue();
  StandInMac* const mac = [StandInMac mac];
  [mac noteCall:@"start"];
  ConfigurationState* const state = [self configuration];
  NSDictionary* const configuration = savedConfiguration(state->identifier.get());
  NSError* failure = [mac failureOf:@"start"];
  if (configuration == nil) {
    failure = makeManagerError(NEVPNErrorConfigurationInvalid, @"there is no configuration");
  } else if (state->isStale) {
    failure = makeManagerError(NEVPNErrorConfigurationStale, @"the configuration is not loaded");
  } else if (![[configuration objectForKey:@"enabled"] boolValue]) {
    failure = makeManagerError(NEVPNErrorConfigurationDisabled, @"the configuration is disabled");
  }
  if (failure != nil) {
    *error = failure;
    return NO;
  }
  if (isIdle([self status])) {
    dispatch_async([mac queue], ^{
      [self bringUp];
    });
  }
  (void)options;
  return YES;
}

- (void)bringUp {
  StandInMac* const mac = [StandInMac mac];
  if ([mac says:@"starting" is:@"runsUnnotified"]) {
    changeStatus(self, NEVPNStatusConnected, false);
    return;
  }
  // A notification of an earlier change, such as a save, may arrive late.
  tellStatus(self);
  changeStatus(self, NEVPNStatusConnecting);
  if ([mac says:@"starting" is:@"hangs"]) {
    return;
  }
  if ([mac says:@"starting" is:@"disappears"]) {
    // As when the user removes it in the settings.
    removeConfiguration([self configuration]->identifier.get());
    tellStatus(self);
    return;
  }
  if ([mac says:@"starting" is:@"stops"]) {
    changeStatus(self, NEVPNStatusDisconnecting);
    changeStatus(self, NEVPNStatusDisconnected);
    return;
  }
  changeStatus(self, NEVPNStatusConnected);
}

- (void)stopVPNTunnel {
  requireMainQueue();
  StandInMac* const mac = [StandInMac mac];
  [mac noteCall:@"stop"];
  dispatch_async([mac queue], ^{
    if (isIdle([self status])) {
      return;
    }
    changeStatus(self, NEVPNStatusDisconnecting);
    if (![mac says:@"stopping" is:@"hangs"]) {
      changeStatus(self, NEVPNStatusDisconnected);
    }
  });
}

@end

@implementation NEVPNManager

- (instancetype)init {
  self = [super init];
  requireMainQueue();
  const auto state = std::make_shared<ManagerState>();
  NEVPNConnection* const connection = [[NEVPNConnection alloc] init];
  connection->_standInStorage =
      std::make_shared<std::shared_ptr<ConfigurationState>>(state->configuration);
  state->connection = Reference<NEVPNConnection*>::adopting(connection);
  _standInStorage = state;
  return self;
}

- (void)takeOver:(NSDictionary*)configuration {
  const auto state = stateOf<ManagerState>(self);
  NETunnelProviderProtocol* const protocol = [[[NETunnelProviderProtocol alloc] init] autorelease];
  [protocol setServerAddress:[configuration objectForKey:@"serverAddress"]];
  [protocol setProviderBundleIdentifier:[configuration objectForKey:@"providerBundleIdentifier"]];
  [protocol setProviderConfiguration:[configuration objectForKey:@"providerConfiguration"]];
  [self setProtocolConfiguration:protocol];
  [self setLocalizedDescription:[configuration objectForKey:@"localizedDescription"]];
  [self setEnabled:[[configuration objectForKey:@"enabled"] boolValue]];
  state->configuration->identifier =
      Reference<NSString*>::retaining([configuration objectForKey:@"identifier"]);
  state->configuration->isStale = false;
}

- (void)loadFromPreferencesWithCompletionHandler:(ErrorHandler)completionHandler {
  requireMainQueue();
  StandInMac* const mac = [StandInMac mac];
  [mac noteCall:@"load"];
  NSError* const failure = [mac failureOf:@"load"];
  if (failure == nil) {
    somethingWasLoaded = true;
    NSDictionary* const configuration =
        savedConfiguration(stateOf<ManagerState>(self)->configuration->identifier.get());
    if (configuration != nil) {
      [self takeOver:configuration];
    }
  }
  answer(completionHandler, failure);
}

- (NSError*)whyNotToBeSaved {
  if (NSError* const failure = [[StandInMac mac] failureOf:@"save"]) {
    return failure;
  }
  if (!somethingWasLoaded) {
    return makeManagerError(NEVPNErrorConfigurationStale, @"nothing has been loaded");
  }
  auto* const protocol = static_cast<NETunnelProviderProtocol*>([self protocolConfiguration]);
  if ([[protocol serverAddress] length] == 0) {
    return makeManagerError(NEVPNErrorConfigurationInvalid, @"the server address is missing");
  }
  if ([[protocol providerBundleIdentifier] length] == 0) {
    return makeManagerError(NEVPNErrorConfigurationInvalid, @"the provider is missing");
  }
  return nil;
}

- (void)saveToPreferencesWithCompletionHandler:(ErrorHandler)completionHandler {
  requireMainQueue();
  [[StandInMac mac] noteCall:@"save"];
  NSError* const failure = [self whyNotToBeSaved];
  if (failure == nil) {
    [self save];
  }
  answer(completionHandler, failure);
}

- (void)save {
  ConfigurationState& state = *stateOf<ManagerState>(self)->configuration;
  if (state.identifier.get() == nil) {
    state.identifier = Reference<NSString*>::retaining([[NSUUID UUID] UUIDString]);
  }
  auto* const protocol = static_cast<NETunnelProviderProtocol*>([self protocolConfiguration]);
  NSMutableDictionary* const configuration = [NSMutableDictionary dictionary];
  setIfAny(configuration, @"identifier", state.identifier.get());
  setIfAny(configuration, @"localizedDescription", [self localizedDescription]);
  setIfAny(configuration, @"serverAddress", [protocol serverAddress]);
  setIfAny(configuration, @"providerBundleIdentifier", [protocol providerBundleIdentifier]);
  setIfAny(configuration, @"providerConfiguration", [protocol providerConfiguration]);
  setIfAny(configuration, @"enabled", [NSNumber numberWithBool:[self isEnabled]]);
  changeConfiguration(state.identifier.get(), ^NSDictionary*(NSDictionary* earlier) {
    NSNumber* const status = [earlier objectForKey:@"status"];
    [configuration
        setObject:status != nil ? status : [NSNumber numberWithInt:NEVPNStatusDisconnected]
           forKey:@"status"];
    return configuration;
  });
  state.isStale = true;
}

- (void)removeFromPreferencesWithCompletionHandler:(ErrorHandler)completionHandler {
  requireMainQueue();
  StandInMac* const mac = [StandInMac mac];
  [mac noteCall:@"remove"];
  NSString* const identifier = stateOf<ManagerState>(self)->configuration->identifier.get();
  NSError* failure = [mac failureOf:@"remove"];
  if (failure == nil && savedConfiguration(identifier) == nil) {
    failure = makeManagerError(NEVPNErrorConfigurationInvalid, @"there is no configuration");
  }
  if (failure == nil) {
    removeConfiguration(identifier);
  }
  answer(completionHandler, failure);
}

- (NSString*)localizedDescription {
  return stateOf<ManagerState>(self)->localizedDescription.get();
}
- (void)setLocalizedDescription:(NSString*)description {
  stateOf<ManagerState>(self)->localizedDescription =
      Reference<NSString*>::adopting([description copy]);
}
- (NEVPNProtocol*)protocolConfiguration {
  return stateOf<ManagerState>(self)->protocol.get();
}
- (void)setProtocolConfiguration:(NEVPNProtocol*)protocol {
  stateOf<ManagerState>(self)->protocol = Reference<NEVPNProtocol*>::retaining(protocol);
}
- (NEVPNConnection*)connection {
  return stateOf<ManagerState>(self)->connection.get();
}
- (BOOL)isEnabled {
  return stateOf<ManagerState>(self)->isEnabled;
}
- (void)setEnabled:(BOOL)enabled {
  stateOf<ManagerState>(self)->isEnabled = enabled;
}
- (BOOL)isOnDemandEnabled {
  return stateOf<ManagerState>(self)->isOnDemandEnabled;
}
- (void)setOnDemandEnabled:(BOOL)enabled {
  stateOf<ManagerState>(self)->isOnDemandEnabled = enabled;
}

@end

@implementation NETransparentProxyManager

+ (void)loadAllFromPreferencesWithCompletionHandler:(ManagersHandler)completionHandler {
  requireMainQueue();
  StandInMac* const mac = [StandInMac mac];
  [mac noteCall:@"loadAll"];
  if ([mac leavesUnanswered:@"loadAll"]) {
    return;
  }
  const auto handler = Reference<ManagersHandler>::retaining(completionHandler);
  if (NSError* const failure = [mac failureOf:@"loadAll"]) {
    dispatch_async(dispatch_get_main_queue(), ^{
      handler.get()(nil, failure);
    });
    return;
  }
  somethingWasLoaded = true;
  NSMutableArray* const managers = [NSMutableArray array];
  for (NSDictionary* configuration in [mac valueOf:@"configurations"]) {
    NETransparentProxyManager* const manager = [[[self alloc] init] autorelease];
    [manager takeOver:configuration];
    [managers addObject:manager];
  }
  dispatch_async(dispatch_get_main_queue(), ^{
    handler.get()(managers, nil);
  });
}

@end
