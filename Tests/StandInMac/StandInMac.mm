#import "Tests/StandInMac/StandInMac.h"

#include <cstdio>
#include <cstdlib>
#include <string>

#import "Tests/StandInMac/ErrorWithoutText.h"

using ostravel::standin::endForBrokenRule;
using ostravel::standin::makeError;

namespace {

NSMutableDictionary* readPropertyList(NSString* path) {
  NSString* problem = nil;
  id const list =
      [NSPropertyListSerialization propertyListFromData:[NSData dataWithContentsOfFile:path]
                                       mutabilityOption:NSPropertyListMutableContainers
                                                 format:nullptr
                                       errorDescription:&problem];
  if (![list isKindOfClass:[NSMutableDictionary class]]) {
    endForBrokenRule("STANDIN_MAC names no property list");
  }
  return list;
}

}  // namespace

@implementation StandInMac

+ (StandInMac*)mac {
  static StandInMac* const mac = [[self alloc] init];
  return mac;
}

- (instancetype)init {
  self = [super init];
  const char* const path = std::getenv("STANDIN_MAC");
  if (path == nullptr) {
    endForBrokenRule("STANDIN_MAC is not set");
  }
  _path = [[NSString alloc] initWithUTF8String:path];
  _state = [readPropertyList(_path) retain];
  _lock = [[NSRecursiveLock alloc] init];
  _queue = dispatch_queue_create("system", DISPATCH_QUEUE_SERIAL);
  return self;
}

- (dispatch_queue_t)queue {
  return _queue;
}

- (NSString*)extensionIdentifier {
  return @"com.ostravel.desktop.extension";
}

- (id)valueOf:(NSString*)key {
  [_lock lock];
  id const value = [[[_state objectForKey:key] copy] autorelease];
  [_lock unlock];
  return value;
}

- (BOOL)says:(NSString*)key is:(NSString*)text {
  return [[self valueOf:key] isEqual:text];
}

- (void)change:(void (^)(NSMutableDictionary* state))change {
  [_lock lock];
  change(_state);
  NSString* problem = nil;
  NSData* const data =
      [NSPropertyListSerialization dataFromPropertyList:_state
                                                 format:NSPropertyListXMLFormat_v1_0
                                       errorDescription:&problem];
  if (![data writeToFile:_path atomically:YES]) {
    endForBrokenRule("the state cannot be written");
  }
  [_lock unlock];
}

- (void)readAgain:(NSString*)key {
  id const value = [readPropertyList(_path) objectForKey:key];
  [_lock lock];
  [_state setObject:value forKey:key];
  [_lock unlock];
}

- (void)noteCall:(NSString*)name {
  [self change:^(NSMutableDictionary* state) {
    if ([state objectForKey:@"calls"] == nil) {
      [state setObject:[NSMutableArray array] forKey:@"calls"];
    }
    [[state objectForKey:@"calls"] addObject:name];
  }];
}

- (BOOL)leavesUnanswered:(NSString*)name {
  return [[self valueOf:@"unanswered"] containsObject:name];
}

- (NSError*)failureOf:(NSString*)name {
  NSDictionary* const failure = [[self valueOf:@"failures"] objectForKey:name];
  if (failure == nil) {
    return nil;
  }
  return makeError([failure objectForKey:@"domain"],
                   static_cast<NSInteger>([[failure objectForKey:@"code"] longLongValue]),
                   [failure objectForKey:@"text"]);
}

@end

namespace ostravel::standin {

NSError* makeError(NSString* domain, NSInteger code, NSString* text) {
  if (text == nil) {
    return [ErrorWithoutText errorWithDomain:domain code:code userInfo:nil];
  }
  return [NSError errorWithDomain:domain
                             code:code
                         userInfo:[NSDictionary dictionaryWithObject:text
                                                              forKey:NSLocalizedDescriptionKey]];
}

void endForBrokenRule(std::string_view rule) {
  std::fprintf(stderr, "BROKEN RULE: %s\n", std::string(rule).c_str());
  std::abort();
}

}  // namespace ostravel::standin
