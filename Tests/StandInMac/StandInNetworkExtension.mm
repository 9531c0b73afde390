// The classes of the NetworkExtension framework, over real sockets.

#import "Tests/StandInMac/StandInNetworkExtension.h"

#include <arpa/inet.h>
#include <netinet/in.h>

#include <atomic>
#include <cerrno>
#include <cstddef>
#include <optional>
#include <span>
#include <utility>

#import "Platform/macOS/Foundation/FoundationText.h"
#import "Tests/StandInMac/ConnectionState.h"
#import "Tests/StandInMac/FlowState.h"
#import "Tests/StandInMac/ProviderState.h"

using ostravel::macos::ErrorBlock;
using ostravel::macos::ReadBlock;
using ostravel::macos::Reference;
using ostravel::macos::textOf;
using ostravel::standin::ConnectionState;
using ostravel::standin::FlowState;
using ostravel::standin::ProviderState;
using ostravel::standin::stateOf;
using ostravel::standin::StreamSocket;

NSString* const NETunnelProviderErrorDomain = @"NETunnelProviderErrorDomain";
// The value differs from the name of the constant.
NSString* const NEAppProxyErrorDomain = @"NEAppProxyFlowErrorDomain";

namespace {

struct HostEndpointState {
  Reference<NSString*> hostname;
  Reference<NSString*> port;
};

struct SettingsState {
  Reference<NSString*> remoteAddress;
  Reference<NSArray*> included;
  Reference<NSArray*> excluded;
};

struct RuleState {
  Reference<NWHostEndpoint*> endpoint;
  NSUInteger prefix;
  NENetworkRuleProtocol protocol;
};

struct ProtocolState {
  Reference<NSString*> serverAddress;
  Reference<NSDictionary*> providerConfiguration;
  Reference<NSString*> providerBundleIdentifier;
};

template <typename Object>
Reference<Object*> copied(Object* object) {
  return Reference<Object*>::adopting([object copy]);
}

std::atomic<bool> connectionCreationFails = false;

template <typename Address>
std::vector<std::byte> bytesOf(const Address& address) {
  const auto bytes = std::as_bytes(std::span(&address, 1));
  return {bytes.begin(), bytes.end()};
}

// Names are not resolved: the extension uses none.
std::optional<std::vector<std::byte>> addressOf(NWEndpoint* endpoint) {
  if (![endpoint isKindOfClass:[NWHostEndpoint class]]) {
    return std::nullopt;
  }
  auto* const host = static_cast<NWHostEndpoint*>(endpoint);
  const auto port = htons(static_cast<std::uint16_t>([[host port] intValue]));
  sockaddr_in ipv4{};
  ipv4.sin_family = AF_INET;
  ipv4.sin_port = port;
  if (::inet_pton(AF_INET, [[host hostname] UTF8String], &ipv4.sin_addr) == 1) {
    return bytesOf(ipv4);
  }
  sockaddr_in6 ipv6{};
  ipv6.sin6_family = AF_INET6;
  ipv6.sin6_port = port;
  if (::inet_pton(AF_INET6, [[host hostname] UTF8String], &ipv6.sin6_addr) == 1) {
    return bytesOf(ipv6);
  }
  return std::nullopt;
}

}  // namespace

// Endpoints

@implementation NWEndpoint
@end

@implementation NWHostEndpoint
+ (instancetype)endpointWithHostname:(NSString*)hostname port:(NSString*)port {
  NWHostEndpoint* const endpoint = [[[self alloc] init] autorelease];
  endpoint->_standInStorage =
      std::make_shared<HostEndpointState>(HostEndpointState{copied(hostname), copied(port)});
  return endpoint;
}
- (NSString*)hostname {
  return stateOf<HostEndpointState>(self)->hostname.get();
}
- (NSString*)port {
  return stateOf<HostEndpointState>(self)->port.get();
}
@end

@interface StandInOtherEndpoint : NWEndpoint
@end
@implementation StandInOtherEndpoint
@end

// Settings

@implementation NETunnelNetworkSettings
- (instancetype)initWithTunnelRemoteAddress:(NSString*)address {
  self = [super init];
  _standInStorage = std::make_shared<SettingsState>(SettingsState{copied(address), {}, {}});
  return self;
}
- (NSString*)tunnelRemoteAddress {
  return stateOf<SettingsState>(self)->remoteAddress.get();
}
@end

@implementation NETransparentProxyNetworkSettings
- (NSArray<NENetworkRule*>*)includedNetworkRules {
  return stateOf<SettingsState>(self)->included.get();
}
- (void)setIncludedNetworkRules:(NSArray<NENetworkRule*>*)rules {
  stateOf<SettingsState>(self)->included = copied<NSArray>(rules);
}
- (NSArray<NENetworkRule*>*)excludedNetworkRules {
  return stateOf<SettingsState>(self)->excluded.get();
}
- (void)setExcludedNetworkRules:(NSArray<NENetworkRule*>*)rules {
  stateOf<SettingsState>(self)->excluded = copied<NSArray>(rules);
}
@end

@implementation NENetworkRule
- (instancetype)initWithDestinationNetwork:(NWHostEndpoint*)networkEndpoint
                                    prefix:(NSUInteger)destinationPrefix
                                  protocol:(NENetworkRuleProtocol)protocol {
  self = [super init];
  _standInStorage = std::make_shared<RuleState>(RuleState{
      Reference<NWHostEndpoint*>::retaining(networkEndpoint), destinationPrefix, protocol});
  return self;
}
- (NWHostEndpoint*)matchRemoteEndpoint {
  return stateOf<RuleState>(self)->endpoint.get();
}
- (NSUInteger)matchRemotePrefix {
  return stateOf<RuleState>(self)->prefix;
}
- (NENetworkRuleProtocol)matchProtocol {
  return stateOf<RuleState>(self)->protocol;
}
- (NETrafficDirection)matchDirection {
  return NETrafficDirectionOutbound;
}
@end

// Configuration

@implementation NEVPNProtocol
- (instancetype)init {
  self = [super init];
  _standInStorage = std::make_shared<ProtocolState>();
  return self;
}
- (NSString*)serverAddress {
  return stateOf<ProtocolState>(self)->serverAddress.get();
}
- (void)setServerAddress:(NSString*)address {
  stateOf<ProtocolState>(self)->serverAddress = copied(address);
}
@end

@implementation NETunnelProviderProtocol
- (NSDictionary<NSString*, id>*)providerConfiguration {
  return stateOf<ProtocolState>(self)->providerConfiguration.get();
}
- (void)setProviderConfiguration:(NSDictionary<NSString*, id>*)configuration {
  stateOf<ProtocolState>(self)->providerConfiguration = copied<NSDictionary>(configuration);
}
- (NSString*)providerBundleIdentifier {
  return stateOf<ProtocolState>(self)->providerBundleIdentifier.get();
}
- (void)setProviderBundleIdentifier:(NSString*)identifier {
  stateOf<ProtocolState>(self)->providerBundleIdentifier = copied(identifier);
}
@end

// Flows

@implementation NEFlowMetaData
- (NSString*)sourceAppSigningIdentifier {
  return stateOf<Reference<NSString*>>(self)->get();
}
@end

@implementation NEAppProxyFlow
- (void)dealloc {
  stateOf<FlowState>(self)->objectWasReleased();
  [super dealloc];
}
- (NEFlowMetaData*)metaData {
  return stateOf<FlowState>(self)->metaData();
}
- (void)openWithLocalEndpoint:(NWHostEndpoint*)localEndpoint
            completionHandler:(void (^)(NSError* error))completionHandler {
  stateOf<FlowState>(self)->open(localEndpoint,
                                 Reference<ErrorBlock>::retaining(completionHandler));
}
- (void)closeReadWithError:(NSError*)error {
  stateOf<FlowState>(self)->closeRead(error);
}
- (void)closeWriteWithError:(NSError*)error {
  stateOf<FlowState>(self)->closeWrite(error);
}
@end

@implementation NEAppProxyTCPFlow
- (NWEndpoint*)remoteEndpoint {
  return stateOf<FlowState>(self)->endpoint();
}
- (void)readDataWithCompletionHandler:(void (^)(NSData* data, NSError* error))completionHandler {
  stateOf<FlowState>(self)->read(Reference<ReadBlock>::retaining(completionHandler));
}
- (void)writeData:(NSData*)data withCompletionHandler:(void (^)(NSError* error))completionHandler {
  stateOf<FlowState>(self)->write(data, Reference<ErrorBlock>::retaining(completionHandler));
}
@end

@implementation NEAppProxyUDPFlow
- (NWEndpoint*)localEndpoint {
  return stateOf<FlowState>(self)->endpoint();
}
@end

@interface StandInUnknownFlow : NEAppProxyFlow
@end
@implementation StandInUnknownFlow
@end

// Connections

@implementation NWTCPConnection
// Counted by its state, so that operations in flight can hold the object weakly.
- (id)retain {
  stateOf<ConnectionState>(self)->retainObject();
  return self;
}
- (oneway void)release {
  if (stateOf<ConnectionState>(self)->releaseObject()) {
    [self dealloc];
  }
}
- (void)dealloc {
  stateOf<ConnectionState>(self)->objectWasReleased();
  [super dealloc];
}
- (void)addObserver:(NSObject*)observer
         forKeyPath:(NSString*)keyPath
            options:(NSKeyValueObservingOptions)options
            context:(void*)context {
  // Not in the middle of a change: an observer added then would not be notified of it.
  const auto guard = stateOf<ConnectionState>(self)->holdChanges();
  [super addObserver:observer forKeyPath:keyPath options:options context:context];
}
- (NWTCPConnectionState)state {
  return stateOf<ConnectionState>(self)->state();
}
- (NSError*)error {
  return stateOf<ConnectionState>(self)->error();
}
- (void)cancel {
  stateOf<ConnectionState>(self)->cancel();
}
- (void)readMinimumLength:(NSUInteger)minimum
            maximumLength:(NSUInteger)maximum
        completionHandler:(void (^)(NSData* data, NSError* error))completion {
  stateOf<ConnectionState>(self)->read(minimum, maximum,
                                       Reference<ReadBlock>::retaining(completion));
}
- (void)write:(NSData*)data completionHandler:(void (^)(NSError* error))completion {
  stateOf<ConnectionState>(self)->write(data, Reference<ErrorBlock>::retaining(completion));
}
@end

// Providers

@implementation NEProvider
// Counted by its state, so that the object can be referred to weakly.
- (id)retain {
  stateOf<ProviderState>(self)->life().retain();
  return self;
}
- (oneway void)release {
  if (stateOf<ProviderState>(self)->life().release()) {
    [self dealloc];
  }
}
- (instancetype)init {
  self = [super init];
  _standInStorage = std::make_shared<ProviderState>();
  return self;
}
- (NWTCPConnection*)createTCPConnectionToEndpoint:(NWEndpoint*)remoteEndpoint
                                        enableTLS:(BOOL)enableTLS
                                    TLSParameters:(NWTLSParameters*)TLSParameters
                                         delegate:(id)delegate {
  NSAssert(!enableTLS && TLSParameters == nil && delegate == nil, @"not used by the extension");
  if (connectionCreationFails) {
    return nil;
  }
  auto address = addressOf(remoteEndpoint);
  NSAssert(address, @"an endpoint that cannot be reached");
  return ConnectionState::makeConnection(*std::move(address));
}
+ (void)startSystemExtensionMode {
  // A program here has no bundle around it.
  NSDictionary* const info =
      [NSDictionary dictionaryWithContentsOfFile:[[[NSProcessInfo processInfo] environment]
                                                     objectForKey:@"STANDIN_INFO_PLIST"]];
  NSDictionary* const classes =
      [[info objectForKey:@"NetworkExtension"] objectForKey:@"NEProviderClasses"];
  NSString* const name = [classes objectForKey:@"com.apple.networkextension.app-proxy"];
  ostravel::standin::runSystemExtensionMode(textOf(name));
}
@end

@implementation NETunnelProvider
- (void)setTunnelNetworkSettings:(NETunnelNetworkSettings*)tunnelNetworkSettings
               completionHandler:(void (^)(NSError* error))completionHandler {
  stateOf<ProviderState>(self)->apply(tunnelNetworkSettings,
                                      Reference<ErrorBlock>::retaining(completionHandler));
}
- (NEVPNProtocol*)protocolConfiguration {
  return stateOf<ProviderState>(self)->configuration();
}
@end

@implementation NEAppProxyProvider
- (void)startProxyWithOptions:(NSDictionary<NSString*, id>*)options
            completionHandler:(void (^)(NSError* error))completionHandler {
  [self doesNotRecognizeSelector:_cmd];
}
- (void)stopProxyWithReason:(NEProviderStopReason)reason
          completionHandler:(void (^)(void))completionHandler {
  [self doesNotRecognizeSelector:_cmd];
}
- (BOOL)handleNewFlow:(NEAppProxyFlow*)flow {
  [self doesNotRecognizeSelector:_cmd];
  return NO;
}
- (BOOL)handleNewUDPFlow:(NEAppProxyUDPFlow*)flow
    initialRemoteEndpoint:(NWEndpoint*)remoteEndpoint {
  return [self handleNewFlow:flow];
}
@end

@implementation NETransparentProxyProvider
@end

namespace ostravel::standin {

namespace {

template <typename Flow>
Flow* makeFlow(const FlowDescription& description, std::shared_ptr<StreamSocket> socket) {
  Flow* const flow = [[[Flow alloc] init] autorelease];
  flow->_standInStorage = std::make_shared<FlowState>(description, std::move(socket));
  return flow;
}

}  // namespace

NEAppProxyTCPFlow* makeTCPFlow(const FlowDescription& description, int descriptor) {
  return makeFlow<NEAppProxyTCPFlow>(description, std::make_shared<StreamSocket>(descriptor));
}

NEAppProxyUDPFlow* makeUDPFlow(const FlowDescription& description) {
  return makeFlow<NEAppProxyUDPFlow>(description, nullptr);
}

NEAppProxyFlow* makeUnknownFlow(const FlowDescription& description) {
  return makeFlow<StandInUnknownFlow>(description, nullptr);
}

std::shared_ptr<FlowRecord> recordOf(NEAppProxyFlow* flow) {
  return stateOf<FlowState>(flow);
}

NWEndpoint* makeOtherEndpoint() {
  return [[[StandInOtherEndpoint alloc] init] autorelease];
}

NWHostEndpoint* makeHostEndpoint(NSString* hostname, NSString* port) {
  return [NWHostEndpoint endpointWithHostname:hostname port:port];
}

void setConnectionCreationFailure(bool fails) {
  connectionCreationFails = fails;
}

NWTCPConnection* makeScriptedConnection() {
  return ConnectionState::makeConnection();
}

void setState(NWTCPConnection* connection, NWTCPConnectionState state, NSError* error) {
  stateOf<ConnectionState>(connection)->setState(state, error);
}

void setNextRead(NWTCPConnection* connection, NSData* data, NSError* error) {
  stateOf<ConnectionState>(connection)->setNextRead(data, error);
}

void setProtocolConfiguration(NETunnelProvider* provider, NEVPNProtocol* configuration) {
  stateOf<ProviderState>(provider)->setConfiguration(configuration);
}

std::vector<AppliedSettings> appliedSettings(NETunnelProvider* provider) {
  return stateOf<ProviderState>(provider)->applied();
}

void failSettings(NETunnelProvider* provider, NSError* error) {
  stateOf<ProviderState>(provider)->fail(error);
}

std::shared_ptr<SettingsHold> holdSettings(NETunnelProvider* provider) {
  const auto state = stateOf<ProviderState>(provider);
  state->hold();
  return state;
}

void onSettings(NETunnelProvider* provider, std::function<void()> function) {
  stateOf<ProviderState>(provider)->onSettings(std::move(function));
}

}  // namespace ostravel::standin
