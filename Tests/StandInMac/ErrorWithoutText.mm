#import "Tests/StandInMac/ErrorWithoutText.h"

@implementation ErrorWithoutText
- (NSString*)localizedDescription {
  return nil;
}
@end
