// Breaks one rule of the frameworks that the host application uses, named by the argument, and
// prints the result. This shows that the stand-in notices what the host application must not do.

#import <NetworkExtension/NetworkExtension.h>
#import <SystemExtensions/SystemExtensions.h>

#include <cstdio>
#include <cstdlib>
#include <string_view>

namespace {

NSString* const kExtension = @"com.ostravel.desktop.extension";

// On the main queue, or nothing is printed.
void finish(NSError* error) {
  if ([NSThread isMainThread]) {
    std::printf("%s %ld\n", error != nil ? [[error domain] UTF8String] : "no error",
                static_cast<long>([error code]));
  }
  std::exit(EXIT_SUCCESS);
}

NETransparentProxyManager* makeManager(NSString* address, NSString* provider) {
  NETunnelProviderProtocol* const protocol = [[[NETunnelProviderProtocol alloc] init] autorelease];
  [protocol setServerAddress:address];
  [protocol setProviderBundleIdentifier:provider];
  NETransparentProxyManager* const manager = [[NETransparentProxyManager alloc] init];
  [manager setProtocolConfiguration:protocol];
  [manager setEnabled:YES];
  return manager;
}

void loadAndSave(NETransparentProxyManager* manager) {
  [NETransparentProxyManager loadAllFromPreferencesWithCompletionHandler:^(
                                 NSArray<NETransparentProxyManager*>* managers, NSError* error) {
    (void)managers;
    (void)error;
    [manager saveToPreferencesWithCompletionHandler:^(NSError* saveError) {
      if (saveError != nil) {
        finish(saveError);
      }
      NSError* startError = nil;
      [[manager connection] startVPNTunnelAndReturnError:&startError];
      finish(startError);
    }];
  }];
}

}  // namespace

@interface RuleBreaker : NSObject <OSSystemExtensionRequestDelegate>
@end
@implementation RuleBreaker
- (OSSystemExtensionReplacementAction)request:(OSSystemExtensionRequest*)request
                  actionForReplacingExtension:(OSSystemExtensionProperties*)existing
                                withExtension:(OSSystemExtensionProperties*)ext {
  (void)request;
  (void)existing;
  (void)ext;
  return OSSystemExtensionReplacementActionCancel;
}
- (void)requestNeedsUserApproval:(OSSystemExtensionRequest*)request {
  (void)request;
}
- (void)request:(OSSystemExtensionRequest*)request
    didFinishWithResult:(OSSystemExtensionRequestResult)result {
  (void)request;
  (void)result;
  finish(nil);
}
- (void)request:(OSSystemExtensionRequest*)request didFailWithError:(NSError*)error {
  (void)request;
  finish(error);
}
@end

namespace {

void activate(NSString* identifier, id<OSSystemExtensionRequestDelegate> delegate) {
  OSSystemExtensionRequest* const request =
      [OSSystemExtensionRequest activationRequestForExtension:identifier
                                                        queue:dispatch_get_main_queue()];
  [request setDelegate:delegate];
  [[OSSystemExtensionManager sharedManager] submitRequest:request];
}

bool breakRule(std::string_view rule) {
  if (rule == "delegate-released") {
    RuleBreaker* const delegate = [[RuleBreaker alloc] init];
    activate(kExtension, delegate);
    [delegate release];
  } else if (rule == "replacement-refused") {
    activate(kExtension, [[RuleBreaker alloc] init]);
  } else if (rule == "other-extension") {
    activate(@"com.example.extension", [[RuleBreaker alloc] init]);
  } else if (rule == "no-identifier") {
    NSString* const nothing = nil;
    activate(nothing, nil);
  } else if (rule == "unknown-request") {
    [OSSystemExtensionRequest propertiesRequestForExtension:kExtension
                                                      queue:dispatch_get_main_queue()];
  } else if (rule == "saved-before-loaded") {
    [makeManager(@"127.0.0.1", kExtension)
        saveToPreferencesWithCompletionHandler:^(NSError* error) {
          finish(error);
        }];
  } else if (rule == "started-before-loaded") {
    loadAndSave(makeManager(@"127.0.0.1", kExtension));
  } else if (rule == "no-address") {
    loadAndSave(makeManager(@"", kExtension));
  } else if (rule == "no-provider") {
    loadAndSave(makeManager(@"127.0.0.1", nil));
  } else if (rule == "removed-unsaved") {
    [makeManager(@"127.0.0.1", kExtension)
        removeFromPreferencesWithCompletionHandler:^(NSError* error) {
          finish(error);
        }];
  } else if (rule == "other-queue") {
    dispatch_async(dispatch_queue_create("other", DISPATCH_QUEUE_SERIAL), ^{
      makeManager(nil, nil);
    });
  } else {
    return false;
  }
  return true;
}

}  // namespace

int main(int argc, const char* const* argv) {
  @autoreleasepool {
    if (argc != 2 || !breakRule(argv[1])) {
      return 2;
    }
  }
  dispatch_main();
}
