#pragma once

#import <NetworkExtension/NetworkExtension.h>

namespace ostravel::host {

// A text of the system, which may be nil, for printf. Valid in the current autorelease pool.
const char* printable(NSString* text);

const char* printable(NEVPNStatus status);

// Prints the failure on standard error, with the system's text, domain and code.
void printFailure(const char* what, NSError* error);

// Does the same, then ends the process.
[[noreturn]] void fail(const char* what, NSError* error);

}  // namespace ostravel::host
