#import "Platform/macOS/Foundation/FoundationText.h"

namespace ostravel::macos {

NSString* makeString(std::string_view text) {
  NSString* string = [[NSString alloc] initWithBytes:text.data()
                                              length:text.size()
                                            encoding:NSUTF8StringEncoding];
  if (string == nil) {
    string = [[NSString alloc] initWithBytes:text.data()
                                      length:text.size()
                                    encoding:NSISOLatin1StringEncoding];
  }
  return [string autorelease];
}

std::string textOf(NSString* string) {
  const char* const bytes = [string UTF8String];
  if (bytes == nullptr) {
    return "";
  }
  // Not up to the first NUL: the text may contain some.
  return {bytes, [string lengthOfBytesUsingEncoding:NSUTF8StringEncoding]};
}

}  // namespace ostravel::macos
