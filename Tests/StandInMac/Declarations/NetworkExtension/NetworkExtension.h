#pragma once

// The part of the NetworkExtension framework that this system uses, declared as the framework
// declares it, so that sources for macOS can be compiled where its headers are not. Conformances to
// protocols, and members, that nothing here uses are left out.

#import <Foundation/Foundation.h>
#include <os/availability.h>

// Room for the state of an implementation, under a runtime that cannot add any.
#ifndef OV_OBJECT_STORAGE
#define OV_OBJECT_STORAGE
#endif

#pragma clang assume_nonnull begin

@class NWTCPConnection, NWTLSParameters, NWEndpoint, NWHostEndpoint, NEVPNProtocol;
@class NETunnelNetworkSettings, NEAppProxyFlow, NEAppProxyUDPFlow, NEFlowMetaData, NENetworkRule;

typedef NS_ENUM(NSInteger, NEProviderStopReason) {
  NEProviderStopReasonNone = 0,
  NEProviderStopReasonUserInitiated = 1,
  NEProviderStopReasonProviderFailed = 2,
  NEProviderStopReasonNoNetworkAvailable = 3,
  NEProviderStopReasonUnrecoverableNetworkChange = 4,
  NEProviderStopReasonProviderDisabled = 5,
  NEProviderStopReasonAuthenticationCanceled = 6,
  NEProviderStopReasonConfigurationFailed = 7,
  NEProviderStopReasonIdleTimeout = 8,
  NEProviderStopReasonConfigurationDisabled = 9,
  NEProviderStopReasonConfigurationRemoved = 10,
  NEProviderStopReasonSuperceded = 11,
  NEProviderStopReasonUserLogout = 12,
  NEProviderStopReasonUserSwitch = 13,
  NEProviderStopReasonConnectionFailed = 14,
  NEProviderStopReasonSleep OV_MACOS(10.15) = 15,
  NEProviderStopReasonAppUpdate OV_MACOS(10.15) = 16,
  NEProviderStopReasonInternalError = 17,
};

OV_MACOS(10.11)
@interface NEProvider : NSObject
OV_OBJECT_STORAGE
- (NWTCPConnection *)createTCPConnectionToEndpoint:(NWEndpoint *)remoteEndpoint
                                         enableTLS:(BOOL)enableTLS
                                     TLSParameters:(NWTLSParameters *_Nullable)TLSParameters
                                          delegate:(id _Nullable)delegate
    OV_MACOS_DEPRECATED(10.11, 15.0, "Use the Network framework instead");
+ (void)startSystemExtensionMode OV_MACOS(10.15);
@end

typedef NS_ENUM(NSInteger, NETunnelProviderError) {
  NETunnelProviderErrorNetworkSettingsInvalid = 1,
  NETunnelProviderErrorNetworkSettingsCanceled = 2,
  NETunnelProviderErrorNetworkSettingsFailed = 3,
};
extern "C" NSString *const NETunnelProviderErrorDomain;

OV_MACOS(10.11)
@interface NETunnelProvider : NEProvider
- (void)setTunnelNetworkSettings:(NETunnelNetworkSettings *_Nullable)tunnelNetworkSettings
               completionHandler:(void (^_Nullable)(NSError *_Nullable error))completionHandler;
@property(readonly) NEVPNProtocol *protocolConfiguration;
@end

OV_MACOS_DEPRECATED(10.11, 15.0, "Use the Network framework instead")
@interface NWEndpoint : NSObject
OV_OBJECT_STORAGE
@end
OV_MACOS_DEPRECATED(10.11, 15.0, "Use the Network framework instead")
@interface NWHostEndpoint : NWEndpoint
+ (instancetype)endpointWithHostname:(NSString *)hostname port:(NSString *)port;
@property(readonly) NSString *hostname;
@property(readonly) NSString *port;
@end

OV_MACOS(10.11)
@interface NETunnelNetworkSettings : NSObject
OV_OBJECT_STORAGE
- (instancetype)initWithTunnelRemoteAddress:(NSString *)address;
@property(readonly) NSString *tunnelRemoteAddress;
@end

OV_MACOS(10.15)
@interface NETransparentProxyNetworkSettings : NETunnelNetworkSettings
@property(copy, nullable) NSArray<NENetworkRule *> *includedNetworkRules;
@property(copy, nullable) NSArray<NENetworkRule *> *excludedNetworkRules;
@end

typedef NS_ENUM(NSInteger, NENetworkRuleProtocol) {
  NENetworkRuleProtocolAny = 0,
  NENetworkRuleProtocolTCP = 1,
  NENetworkRuleProtocolUDP = 2,
};
typedef NS_ENUM(NSInteger, NETrafficDirection) {
  NETrafficDirectionAny = 0,
  NETrafficDirectionInbound = 1,
  NETrafficDirectionOutbound = 2,
};

OV_MACOS(10.15)
@interface NENetworkRule : NSObject
OV_OBJECT_STORAGE
- (instancetype)initWithDestinationNetwork:(NWHostEndpoint *)networkEndpoint
                                    prefix:(NSUInteger)destinationPrefix
                                  protocol:(NENetworkRuleProtocol)protocol
    OV_MACOS_DEPRECATED(10.15, 15.0, "Use the Network framework's endpoints instead");
@property(readonly, nullable) NWHostEndpoint *matchRemoteEndpoint OV_MACOS_DEPRECATED(
    10.15, 15.0, "Use the Network framework's endpoints instead");
@property(readonly) NSUInteger matchRemotePrefix;
@property(readonly) NENetworkRuleProtocol matchProtocol;
@property(readonly) NETrafficDirection matchDirection;
@end

OV_MACOS(10.11)
@interface NEVPNProtocol : NSObject
OV_OBJECT_STORAGE
@property(copy, nullable) NSString *serverAddress;
@end

OV_MACOS(10.11)
@interface NETunnelProviderProtocol : NEVPNProtocol
@property(copy, nullable) NSDictionary<NSString *, id> *providerConfiguration;
@property(copy, nullable) NSString *providerBundleIdentifier;
@end

typedef NS_ENUM(NSInteger, NEAppProxyFlowError) {
  NEAppProxyFlowErrorNotConnected = 1,
  NEAppProxyFlowErrorPeerReset = 2,
  NEAppProxyFlowErrorHostUnreachable = 3,
  NEAppProxyFlowErrorInvalidArgument = 4,
  NEAppProxyFlowErrorAborted = 5,
  NEAppProxyFlowErrorRefused = 6,
  NEAppProxyFlowErrorTimedOut = 7,
  NEAppProxyFlowErrorInternal = 8,
  NEAppProxyFlowErrorDatagramTooLarge = 9,
  NEAppProxyFlowErrorReadAlreadyPending = 10,
};
extern "C" NSString *const NEAppProxyErrorDomain;

OV_MACOS(10.11)
@interface NEAppProxyFlow : NSObject
OV_OBJECT_STORAGE
- (void)openWithLocalEndpoint:(NWHostEndpoint *_Nullable)localEndpoint
            completionHandler:(void (^)(NSError *_Nullable error))completionHandler
    OV_MACOS_DEPRECATED(10.11, 15.0, "Use the Network framework's endpoints instead");
- (void)closeReadWithError:(NSError *_Nullable)error;
- (void)closeWriteWithError:(NSError *_Nullable)error;
@property(readonly) NEFlowMetaData *metaData;
@end

OV_MACOS(10.11)
@interface NEAppProxyTCPFlow : NEAppProxyFlow
- (void)readDataWithCompletionHandler:(void (^)(NSData *_Nullable data,
                                                NSError *_Nullable error))completionHandler;
- (void)writeData:(NSData *)data
    withCompletionHandler:(void (^)(NSError *_Nullable error))completionHandler;
@property(readonly) NWEndpoint *remoteEndpoint OV_MACOS_DEPRECATED(
    10.11, 15.0, "Use the Network framework's endpoints instead");
@end

OV_MACOS(10.11)
@interface NEAppProxyUDPFlow : NEAppProxyFlow
@property(readonly, nullable) NWEndpoint *localEndpoint OV_MACOS_DEPRECATED(
    10.11, 15.0, "Use the Network framework's endpoints instead");
@end

OV_MACOS(10.11)
@interface NEFlowMetaData : NSObject
OV_OBJECT_STORAGE
@property(readonly) NSString *sourceAppSigningIdentifier;
@end

typedef NS_ENUM(NSInteger, NWTCPConnectionState) {
  NWTCPConnectionStateInvalid = 0,
  NWTCPConnectionStateConnecting = 1,
  NWTCPConnectionStateWaiting = 2,
  NWTCPConnectionStateConnected = 3,
  NWTCPConnectionStateDisconnected = 4,
  NWTCPConnectionStateCancelled = 5,
};

OV_MACOS_DEPRECATED(10.11, 15.0, "Use the Network framework instead")
@interface NWTCPConnection : NSObject
OV_OBJECT_STORAGE
@property(readonly) NWTCPConnectionState state;
@property(readonly, nullable) NSError *error;
- (void)cancel;
- (void)readMinimumLength:(NSUInteger)minimum
            maximumLength:(NSUInteger)maximum
        completionHandler:(void (^)(NSData *_Nullable data, NSError *_Nullable error))completion;
- (void)write:(NSData *)data completionHandler:(void (^)(NSError *_Nullable error))completion;
@end

OV_MACOS(10.11)
@interface NEAppProxyProvider : NETunnelProvider
- (void)startProxyWithOptions:(NSDictionary<NSString *, id> *_Nullable)options
            completionHandler:(void (^)(NSError *_Nullable error))completionHandler;
- (void)stopProxyWithReason:(NEProviderStopReason)reason
          completionHandler:(void (^)(void))completionHandler;
- (BOOL)handleNewFlow:(NEAppProxyFlow *)flow;
- (BOOL)handleNewUDPFlow:(NEAppProxyUDPFlow *)flow
    initialRemoteEndpoint:(NWEndpoint *)remoteEndpoint
    OV_MACOS_DEPRECATED(10.15, 15.0, "Use the Network framework's endpoints instead");
@end
OV_MACOS(11.0)
@interface NETransparentProxyProvider : NEAppProxyProvider
@end

typedef NS_ENUM(NSInteger, NEVPNStatus) {
  NEVPNStatusInvalid = 0,
  NEVPNStatusDisconnected = 1,
  NEVPNStatusConnecting = 2,
  NEVPNStatusConnected = 3,
  NEVPNStatusReasserting = 4,
  NEVPNStatusDisconnecting = 5,
};
typedef NS_ENUM(NSInteger, NEVPNError) {
  NEVPNErrorConfigurationInvalid = 1,
  NEVPNErrorConfigurationDisabled = 2,
  NEVPNErrorConnectionFailed = 3,
  NEVPNErrorConfigurationStale = 4,
  NEVPNErrorConfigurationReadWriteFailed = 5,
  NEVPNErrorConfigurationUnknown = 6,
};
extern "C" NSString *const NEVPNErrorDomain;
extern "C" NSString *const NEVPNStatusDidChangeNotification;

OV_MACOS(10.11)
@interface NEVPNConnection : NSObject
OV_OBJECT_STORAGE
- (BOOL)startVPNTunnelAndReturnError:(NSError *_Nullable __autoreleasing *_Nullable)error;
- (BOOL)startVPNTunnelWithOptions:(NSDictionary<NSString *, NSObject *> *_Nullable)options
                   andReturnError:(NSError *_Nullable __autoreleasing *_Nullable)error;
- (void)stopVPNTunnel;
@property(readonly) NEVPNStatus status;
@property(readonly, nullable) NSDate *connectedDate;
@end

OV_MACOS(10.11)
@interface NEVPNManager : NSObject
OV_OBJECT_STORAGE
- (void)loadFromPreferencesWithCompletionHandler:
    (void (^)(NSError *_Nullable error))completionHandler;
- (void)saveToPreferencesWithCompletionHandler:
    (void (^_Nullable)(NSError *_Nullable error))completionHandler;
- (void)removeFromPreferencesWithCompletionHandler:
    (void (^_Nullable)(NSError *_Nullable error))completionHandler;
@property(copy, nullable) NSString *localizedDescription;
@property(strong, nullable) NEVPNProtocol *protocolConfiguration;
@property(readonly) NEVPNConnection *connection;
@property(getter=isEnabled) BOOL enabled;
@property(getter=isOnDemandEnabled) BOOL onDemandEnabled;
@end
OV_MACOS(10.15)
@interface NETransparentProxyManager : NEVPNManager
+ (void)loadAllFromPreferencesWithCompletionHandler:
    (void (^)(NSArray<NETransparentProxyManager *> *_Nullable managers,
              NSError *_Nullable error))completionHandler;
@end

#pragma clang assume_nonnull end
