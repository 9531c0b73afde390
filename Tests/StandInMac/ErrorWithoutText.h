#pragma once

#import <Foundation/Foundation.h>

// An error that has no description, which the framework's own always have.
@interface ErrorWithoutText : NSError
@end
