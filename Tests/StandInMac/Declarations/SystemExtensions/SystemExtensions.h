#pragma once

// The part of the SystemExtensions framework that this system uses, declared as the framework
// declares it.

#import <Foundation/Foundation.h>
#include <dispatch/dispatch.h>
#include <os/availability.h>

// Room for the state of an implementation, under a runtime that cannot add any.
#ifndef OV_OBJECT_STORAGE
#define OV_OBJECT_STORAGE
#endif

#pragma clang assume_nonnull begin

@class OSSystemExtensionRequest, OSSystemExtensionProperties;
typedef NS_ENUM(NSInteger, OSSystemExtensionRequestResult) {
  OSSystemExtensionRequestCompleted = 0,
  OSSystemExtensionRequestWillCompleteAfterReboot = 1,
};
typedef NS_ENUM(NSInteger, OSSystemExtensionReplacementAction) {
  OSSystemExtensionReplacementActionCancel = 0,
  OSSystemExtensionReplacementActionReplace = 1,
};
OV_MACOS(10.15)
@protocol OSSystemExtensionRequestDelegate <NSObject>
- (OSSystemExtensionReplacementAction)request:(OSSystemExtensionRequest *)request
                  actionForReplacingExtension:(OSSystemExtensionProperties *)existing
                                withExtension:(OSSystemExtensionProperties *)ext;
- (void)requestNeedsUserApproval:(OSSystemExtensionRequest *)request;
- (void)request:(OSSystemExtensionRequest *)request
    didFinishWithResult:(OSSystemExtensionRequestResult)result;
- (void)request:(OSSystemExtensionRequest *)request didFailWithError:(NSError *)error;
@optional
- (void)request:(OSSystemExtensionRequest *)request
    foundProperties:(NSArray<OSSystemExtensionProperties *> *)properties OV_MACOS(12.0);
@end
OV_MACOS(10.15)
@interface OSSystemExtensionProperties : NSObject
OV_OBJECT_STORAGE
@property(readonly) NSString *bundleIdentifier;
@property(readonly) NSString *bundleVersion;
@property(readonly) NSString *bundleShortVersion;
@property(readonly) BOOL isEnabled OV_MACOS(12.0);
@property(readonly) BOOL isAwaitingUserApproval OV_MACOS(12.0);
@property(readonly) BOOL isUninstalling OV_MACOS(12.0);
@end
OV_MACOS(10.15)
@interface OSSystemExtensionRequest : NSObject
OV_OBJECT_STORAGE
+ (instancetype)activationRequestForExtension:(NSString *)identifier queue:(dispatch_queue_t)queue;
+ (instancetype)deactivationRequestForExtension:(NSString *)identifier
                                          queue:(dispatch_queue_t)queue;
+ (instancetype)propertiesRequestForExtension:(NSString *)identifier
                                        queue:(dispatch_queue_t)queue OV_MACOS(12.0);
@property(assign) id<OSSystemExtensionRequestDelegate> delegate;
@property(readonly) NSString *identifier;
@end
OV_MACOS(10.15)
@interface OSSystemExtensionManager : NSObject
@property(class, readonly) OSSystemExtensionManager *sharedManager;
- (void)submitRequest:(OSSystemExtensionRequest *)request;
@end

#pragma clang assume_nonnull end
