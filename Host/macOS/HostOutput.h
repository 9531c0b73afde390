#pragma once

#import <NetworkExtension/NetworkExtension.h>

namespace ostravel::host {

// For printf: a text of the system, which may be missing. Valid in the current autorelease pool.
const char* printable(NSString* text);

const char* printable(NEVPNStatus status);

// Prints on standard error what failed, and why: with the system's text, domain and code.
void printFailure(const char* what, NSError* error);

// Does the same, then ends the process.
[[noreturn]] void fail(const char* what, NSError* error);

}  // namespace ostravel::host
