// The classes of the SystemExtensions framework, over the state of a StandInMac.

#import <SystemExtensions/SystemExtensions.h>

#import <objc/runtime.h>

#include <mutex>
#include <set>

#import "Platform/macOS/Foundation/Reference.h"
#import "Tests/StandInMac/StandInMac.h"

using ostravel::macos::Reference;
using ostravel::standin::endForBrokenRule;
using ostravel::standin::makeError;
using ostravel::standin::stateOf;

namespace {

NSString* const kErrorDomain = @"OSSystemExtensionErrorDomain";
constexpr NSInteger kExtensionNotFound = 4;
constexpr NSInteger kRequestCanceled = 11;

enum class RequestKind { activation, deactivation, properties };

struct RequestState {
  RequestKind kind;
  Reference<NSString*> identifier;
  Reference<dispatch_queue_t> queue;
  // Not retained, as the framework does not.
  id<OSSystemExtensionRequestDelegate> delegate = nil;
};

// Which delegates have been deallocated. On a Mac a request forgets such a delegate and calls
// nothing back any more.
class GoneDelegates {
 public:
  void watch(id delegate) {
    const std::lock_guard guard(lock_);
    const Class type = [delegate class];
    if (watched_.insert(type).second) {
      const SEL dealloc = @selector(dealloc);
      const Method method = class_getInstanceMethod(type, dealloc);
      originalDealloc_ = method_getImplementation(method);
      class_replaceMethod(type, dealloc, reinterpret_cast<IMP>(&deallocWatched),
                          method_getTypeEncoding(method));
    }
    gone_.erase(delegate);
  }

  void endIfGone(const void* delegate) {
    const std::lock_guard guard(lock_);
    if (gone_.count(delegate) != 0) {
      endForBrokenRule("the delegate of a request has to be kept");
    }
  }

  static GoneDelegates& shared() {
    static auto* const delegates = new GoneDelegates;
    return *delegates;
  }

 private:
  static void deallocWatched(id delegate, SEL command) {
    GoneDelegates& self = shared();
    {
      const std::lock_guard guard(self.lock_);
      self.gone_.insert(delegate);
    }
    reinterpret_cast<void (*)(id, SEL)>(self.originalDealloc_)(delegate, command);
  }

  std::mutex lock_;
  std::set<Class> watched_;
  std::set<const void*> gone_;
  // Of the only class of delegates in a program here.
  IMP originalDealloc_ = nullptr;
};

NSMutableDictionary* carriedExtension() {
  NSDictionary* const carried = [[StandInMac mac] valueOf:@"carried"];
  return [NSMutableDictionary dictionaryWithDictionary:carried];
}

BOOL flagOf(NSDictionary* extension, NSString* key) {
  return [[extension objectForKey:key] boolValue];
}

void setExtensions(NSArray* extensions) {
  [[StandInMac mac] change:^(NSMutableDictionary* state) {
    [state setObject:extensions forKey:@"extensions"];
  }];
}

void setFlag(NSMutableDictionary* extension, NSString* key, BOOL value) {
  [extension setObject:[NSNumber numberWithBool:value] forKey:key];
}

// The enabled one; nil for none.
NSDictionary* installedExtension() {
  for (NSDictionary* extension in [[StandInMac mac] valueOf:@"extensions"]) {
    if (!flagOf(extension, @"uninstalling")) {
      return extension;
    }
  }
  return nil;
}

OSSystemExtensionProperties* makeProperties(NSDictionary* extension) {
  OSSystemExtensionProperties* const properties =
      [[[OSSystemExtensionProperties alloc] init] autorelease];
  properties->_standInStorage =
      std::make_shared<Reference<NSDictionary*>>(Reference<NSDictionary*>::retaining(extension));
  return properties;
}

}  // namespace

@implementation OSSystemExtensionProperties
- (NSDictionary*)extension {
  return stateOf<Reference<NSDictionary*>>(self)->get();
}
- (NSString*)bundleIdentifier {
  return [[StandInMac mac] extensionIdentifier];
}
- (NSString*)bundleVersion {
  return [[self extension] objectForKey:@"version"];
}
- (NSString*)bundleShortVersion {
  return [[self extension] objectForKey:@"shortVersion"];
}
- (BOOL)isEnabled {
  return flagOf([self extension], @"enabled");
}
- (BOOL)isAwaitingUserApproval {
  return flagOf([self extension], @"awaitingApproval");
}
- (BOOL)isUninstalling {
  return flagOf([self extension], @"uninstalling");
}
@end

@interface OSSystemExtensionRequest (StandIn)
- (void)carryOut;
@end

@implementation OSSystemExtensionRequest

+ (instancetype)requestOfKind:(RequestKind)kind
                 forExtension:(NSString*)identifier
                        queue:(dispatch_queue_t)queue {
  if (identifier == nil || queue == nil) {
    endForBrokenRule("a request needs an identifier and a queue");
  }
  OSSystemExtensionRequest* const request = [[[self alloc] init] autorelease];
  request->_standInStorage =
      std::make_shared<RequestState>(RequestState{kind, Reference<NSString*>::retaining(identifier),
                                                  Reference<dispatch_queue_t>::retaining(queue)});
  return request;
}
+ (instancetype)activationRequestForExtension:(NSString*)identifier queue:(dispatch_queue_t)queue {
  return [self requestOfKind:RequestKind::activation forExtension:identifier queue:queue];
}
+ (instancetype)deactivationRequestForExtension:(NSString*)identifier
                                          queue:(dispatch_queue_t)queue {
  return [self requestOfKind:RequestKind::deactivation forExtension:identifier queue:queue];
}
+ (instancetype)propertiesRequestForExtension:(NSString*)identifier queue:(dispatch_queue_t)queue {
  if (![self respondsToSelector:_cmd]) {
    endForBrokenRule("this system has no requests for properties");
  }
  return [self requestOfKind:RequestKind::properties forExtension:identifier queue:queue];
}
+ (BOOL)respondsToSelector:(SEL)selector {
  NSNumber* const version = [[StandInMac mac] valueOf:@"systemVersion"];
  if (sel_isEqual(selector, @selector(propertiesRequestForExtension:queue:)) && version != nil &&
      [version intValue] < 12) {
    return NO;
  }
  return [super respondsToSelector:selector];
}

- (NSString*)identifier {
  return stateOf<RequestState>(self)->identifier.get();
}
- (id<OSSystemExtensionRequestDelegate>)delegate {
  const auto delegate = stateOf<RequestState>(self)->delegate;
  GoneDelegates::shared().endIfGone(delegate);
  return delegate;
}
- (void)setDelegate:(id<OSSystemExtensionRequestDelegate>)delegate {
  GoneDelegates::shared().watch(delegate);
  stateOf<RequestState>(self)->delegate = delegate;
}

- (void)callBack:(dispatch_block_t)block {
  dispatch_async(stateOf<RequestState>(self)->queue.get(), block);
}

- (void)failWith:(NSError*)error {
  [self callBack:^{
    [[self delegate] request:self didFailWithError:error];
  }];
}

- (void)failWithCode:(NSInteger)code text:(NSString*)text {
  [self failWith:makeError(kErrorDomain, code, text)];
}

- (void)finishWith:(OSSystemExtensionRequestResult)result {
  [self callBack:^{
    [[self delegate] request:self didFinishWithResult:result];
  }];
}

// Runs on the queue of the system from here on.

- (void)carryOut {
  if (![[self identifier] isEqual:[[StandInMac mac] extensionIdentifier]]) {
    [self failWithCode:kExtensionNotFound text:@"Extension not found in App bundle"];
    return;
  }
  switch (stateOf<RequestState>(self)->kind) {
    case RequestKind::activation:
      [self beginActivation];
      break;
    case RequestKind::deactivation:
      [self deactivate];
      break;
    case RequestKind::properties:
      [self findProperties];
      break;
  }
}

- (void)beginActivation {
  StandInMac* const mac = [StandInMac mac];
  [mac noteCall:@"activate"];
  NSDictionary* const installed = installedExtension();
  NSDictionary* const carried = carriedExtension();
  const BOOL isEqual =
      [[installed objectForKey:@"version"] isEqual:[carried objectForKey:@"version"]];
  if (installed == nil || (isEqual && ![[mac valueOf:@"replacementTold"] boolValue])) {
    [self askForApproval];
    return;
  }
  [self callBack:^{
    const auto action = [[self delegate] request:self
                     actionForReplacingExtension:makeProperties(installed)
                                   withExtension:makeProperties(carried)];
    dispatch_async([mac queue], ^{
      if (action == OSSystemExtensionReplacementActionReplace) {
        [self askForApproval];
      } else {
        [self failWithCode:kRequestCanceled text:@"Request canceled"];
      }
    });
  }];
}

- (void)askForApproval {
  if (![[StandInMac mac] says:@"approval" is:@"needed"]) {
    [self finishActivation];
    return;
  }
  NSMutableDictionary* const waiting = carriedExtension();
  setFlag(waiting, @"awaitingApproval", YES);
  setExtensions([NSArray arrayWithObject:waiting]);
  [self callBack:^{
    [[self delegate] requestNeedsUserApproval:self];
  }];
  [self awaitApproval];
}

- (void)awaitApproval {
  [[StandInMac mac] readAgain:@"approval"];
  if ([[StandInMac mac] says:@"approval" is:@"given"]) {
    [self finishActivation];
    return;
  }
  dispatch_after_f(dispatch_time(DISPATCH_TIME_NOW, 20 * NSEC_PER_MSEC), [[StandInMac mac] queue],
                   [self retain], [](void* context) {
                     auto* const request = static_cast<OSSystemExtensionRequest*>(context);
                     [request awaitApproval];
                     [request release];
                   });
}

- (void)finishActivation {
  StandInMac* const mac = [StandInMac mac];
  if (NSError* const failure = [mac failureOf:@"activate"]) {
    [self failWith:failure];
    return;
  }
  if ([[mac valueOf:@"rebootNeeded"] boolValue]) {
    [self finishWith:OSSystemExtensionRequestWillCompleteAfterReboot];
    return;
  }
  NSMutableDictionary* const extension = carriedExtension();
  setFlag(extension, @"enabled", YES);
  setExtensions([NSArray arrayWithObject:extension]);
  [self finishWith:OSSystemExtensionRequestCompleted];
}

- (void)deactivate {
  StandInMac* const mac = [StandInMac mac];
  [mac noteCall:@"deactivate"];
  if (NSError* const failure = [mac failureOf:@"deactivate"]) {
    [self failWith:failure];
    return;
  }
  NSDictionary* const installed = installedExtension();
  if (installed == nil) {
    [self failWithCode:kExtensionNotFound text:@"Extension not found"];
    return;
  }
  if ([[mac valueOf:@"rebootNeeded"] boolValue]) {
    NSMutableDictionary* const leaving = [NSMutableDictionary dictionaryWithDictionary:installed];
    setFlag(leaving, @"uninstalling", YES);
    setExtensions([NSArray arrayWithObject:leaving]);
    [self finishWith:OSSystemExtensionRequestWillCompleteAfterReboot];
    return;
  }
  setExtensions([NSArray array]);
  [self finishWith:OSSystemExtensionRequestCompleted];
}

- (void)findProperties {
  StandInMac* const mac = [StandInMac mac];
  [mac noteCall:@"properties"];
  if ([mac leavesUnanswered:@"properties"]) {
    return;
  }
  if (NSError* const failure = [mac failureOf:@"properties"]) {
    [self failWith:failure];
    return;
  }
  NSMutableArray* const found = [NSMutableArray array];
  for (NSDictionary* extension in [mac valueOf:@"extensions"]) {
    [found addObject:makeProperties(extension)];
  }
  if (![mac leavesUnanswered:@"foundProperties"]) {
    [self callBack:^{
      [[self delegate] request:self foundProperties:found];
    }];
  }
  [self finishWith:OSSystemExtensionRequestCompleted];
}

@end

@implementation OSSystemExtensionManager
+ (OSSystemExtensionManager*)sharedManager {
  static OSSystemExtensionManager* const manager = [[self alloc] init];
  return manager;
}
- (void)submitRequest:(OSSystemExtensionRequest*)request {
  dispatch_async([[StandInMac mac] queue], ^{
    [request carryOut];
  });
}
@end
