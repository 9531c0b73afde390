#import "Tests/macOS/Support/ErrorWithoutText.h"

@implementation ErrorWithoutText
- (NSString*)localizedDescription {
  return nil;
}
@end
