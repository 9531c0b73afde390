#import "Platform/macOS/Flow/FlowError.h"

#import <NetworkExtension/NetworkExtension.h>

#include <cerrno>

#import "Platform/macOS/Foundation/FoundationError.h"

namespace ostravel::macos {

namespace {

// A failure that neither the network nor the peer caused was the provider's decision.
NEAppProxyFlowError flowErrorOf(NSError* error) {
  if (![[error domain] isEqualToString:NSPOSIXErrorDomain]) {
    return NEAppProxyFlowErrorAborted;
  }
  switch ([error code]) {
    case ENOTCONN:
      return NEAppProxyFlowErrorNotConnected;
    case ECONNRESET:
    case EPIPE:
      return NEAppProxyFlowErrorPeerReset;
    case EHOSTDOWN:
    case EHOSTUNREACH:
    case ENETDOWN:
    case ENETUNREACH:
      return NEAppProxyFlowErrorHostUnreachable;
    case ECONNREFUSED:
      return NEAppProxyFlowErrorRefused;
    case ETIMEDOUT:
      return NEAppProxyFlowErrorTimedOut;
    default:
      return NEAppProxyFlowErrorAborted;
  }
}

}  // namespace

NSError* makeFlowError(const platform::OptionalError& error) {
  NSError* const original = makeNSError(error);
  if (original == nil || [[original domain] isEqualToString:NEAppProxyErrorDomain]) {
    return original;
  }
  // The description last: it may be nil, which ends the list.
  NSDictionary* const userInfo = [NSDictionary
      dictionaryWithObjectsAndKeys:original, NSUnderlyingErrorKey, [original localizedDescription],
                                   NSLocalizedDescriptionKey, nil];
  return [NSError errorWithDomain:NEAppProxyErrorDomain
                             code:flowErrorOf(original)
                         userInfo:userInfo];
}

}  // namespace ostravel::macos
