#pragma once

// The part of Foundation that this system uses, declared as the framework declares it; all of it is
// older than any macOS that is supported, and not deprecated in any. Only for compiling sources for
// the real target; programs that run here use another Foundation.

#include <cstddef>
#include <cstdint>

// A macro of the compiler says which of the two the target has.
#if __OBJC_BOOL_IS_BOOL
typedef bool BOOL;
#else
typedef signed char BOOL;
#endif
#define YES __objc_yes
#define NO __objc_no
#define nil nullptr

typedef long NSInteger;
typedef unsigned long NSUInteger;
typedef double NSTimeInterval;
typedef unsigned short unichar;

// The layout of the framework's own macros: a plain enumeration with a fixed type.
#define NS_ENUM(type, name) \
  enum name : type name;    \
  enum name : type
#define NS_OPTIONS(type, name) \
  enum name : type name;       \
  enum name : type

@class NSString, NSArray<ObjectType>, NSDictionary<KeyType, ObjectType>, NSData, NSDate, NSError;
struct _NSZone;
typedef struct {
  unsigned long state;
  __unsafe_unretained id _Nullable* _Nullable itemsPtr;
  unsigned long* _Nullable mutationsPtr;
  unsigned long extra[5];
} NSFastEnumerationState;

#pragma clang assume_nonnull begin

@protocol NSObject
- (BOOL)isEqual:(id _Nullable)object;
- (BOOL)isKindOfClass:(Class)aClass;
- (BOOL)respondsToSelector:(SEL)aSelector;
- (instancetype)retain;
- (oneway void)release;
- (instancetype)autorelease;
@property(readonly, copy) NSString* description;
@end

__attribute__((objc_root_class))
@interface NSObject<NSObject> {
  Class isa;
}
- (instancetype)init;
+ (instancetype)alloc;
+ (Class)class;
- (void)dealloc;
@end

@protocol NSFastEnumeration
- (NSUInteger)countByEnumeratingWithState:(NSFastEnumerationState*)state
                                  objects:(id _Nullable __unsafe_unretained[_Nonnull])buffer
                                    count:(NSUInteger)len;
@end

typedef NSUInteger NSStringEncoding;
enum : NSStringEncoding { NSUTF8StringEncoding = 4, NSISOLatin1StringEncoding = 5 };

@interface NSLocale : NSObject
@end

@interface NSString : NSObject
+ (instancetype _Nullable)stringWithUTF8String:(const char*)nullTerminatedCString;
+ (instancetype)stringWithFormat:(NSString*)format, ... __attribute__((format(__NSString__, 1, 2)));
- (instancetype _Nullable)initWithBytes:(const void*)bytes
                                 length:(NSUInteger)len
                               encoding:(NSStringEncoding)encoding;
- (BOOL)isEqualToString:(NSString*)aString;
- (NSUInteger)lengthOfBytesUsingEncoding:(NSStringEncoding)enc;
- (NSString*)lowercaseStringWithLocale:(NSLocale* _Nullable)locale;
@property(readonly) NSUInteger length;
@property(nullable, readonly) const char* UTF8String __attribute__((objc_returns_inner_pointer));
@end

@interface NSCharacterSet : NSObject
@property(readonly, class, copy) NSCharacterSet* whitespaceAndNewlineCharacterSet;
- (BOOL)characterIsMember:(unichar)aCharacter;
@end

@interface NSNumber : NSObject
+ (NSNumber*)numberWithBool:(BOOL)value;
+ (NSNumber*)numberWithInt:(int)value;
@property(readonly) double doubleValue;
@property(readonly) BOOL boolValue;
@property(readonly) long long longLongValue;
@property(readonly) const char* objCType __attribute__((objc_returns_inner_pointer));
@end

@interface NSData : NSObject
+ (instancetype)dataWithBytes:(const void* _Nullable)bytes length:(NSUInteger)length;
@property(readonly) NSUInteger length;
@property(readonly) const void* bytes __attribute__((objc_returns_inner_pointer));
@end

@interface NSDate : NSObject
+ (instancetype)date;
@property(readonly) NSTimeInterval timeIntervalSince1970;
@end

@interface NSArray<__covariant ObjectType> : NSObject <NSFastEnumeration>
@property(readonly) NSUInteger count;
@property(nullable, readonly) ObjectType firstObject;
- (ObjectType)objectAtIndex:(NSUInteger)index;
@end
@interface NSMutableArray<ObjectType> : NSArray <ObjectType>
+ (instancetype)arrayWithCapacity:(NSUInteger)numItems;
- (void)addObject:(ObjectType)anObject;
@end

@interface NSDictionary<__covariant KeyType, __covariant ObjectType> : NSObject <NSFastEnumeration>
+ (instancetype)dictionaryWithObject:(ObjectType)object forKey:(KeyType)key;
+ (instancetype)dictionaryWithObjectsAndKeys:(id)firstObject, ... __attribute__((sentinel));
- (ObjectType _Nullable)objectForKey:(KeyType)aKey;
@end

typedef NSString* NSErrorDomain;
typedef NSString* NSErrorUserInfoKey;
extern "C" NSErrorDomain const NSPOSIXErrorDomain;
extern "C" NSErrorUserInfoKey const NSLocalizedDescriptionKey;
extern "C" NSErrorUserInfoKey const NSUnderlyingErrorKey;
@interface NSError : NSObject
+ (instancetype)errorWithDomain:(NSErrorDomain)domain
                           code:(NSInteger)code
                       userInfo:(NSDictionary<NSErrorUserInfoKey, id>* _Nullable)dict;
@property(readonly, copy) NSErrorDomain domain;
@property(readonly) NSInteger code;
@property(readonly, copy) NSDictionary<NSErrorUserInfoKey, id>* userInfo;
@property(readonly, copy) NSString* localizedDescription;
@end

@interface NSUUID : NSObject
+ (instancetype)UUID;
@property(readonly, copy) NSString* UUIDString;
@end

@interface NSBundle : NSObject
@property(class, readonly, strong) NSBundle* mainBundle;
@property(readonly, copy, nullable) NSString* bundleIdentifier;
- (id _Nullable)objectForInfoDictionaryKey:(NSString*)key;
@end

typedef NSString* NSNotificationName;
@class NSNotification, NSOperationQueue;
@interface NSNotificationCenter : NSObject
@property(class, readonly, strong) NSNotificationCenter* defaultCenter;
- (id<NSObject>)addObserverForName:(NSNotificationName _Nullable)name
                            object:(id _Nullable)obj
                             queue:(NSOperationQueue* _Nullable)queue
                        usingBlock:(void (^)(NSNotification* notification))block;
@end

typedef NSString* NSKeyValueChangeKey;
typedef NS_OPTIONS(NSUInteger, NSKeyValueObservingOptions) {
  NSKeyValueObservingOptionNew = 0x01,
  NSKeyValueObservingOptionOld = 0x02,
  NSKeyValueObservingOptionInitial = 0x04,
  NSKeyValueObservingOptionPrior = 0x08,
};
@interface NSObject (NSKeyValueObserving)
- (void)observeValueForKeyPath:(NSString* _Nullable)keyPath
                      ofObject:(id _Nullable)object
                        change:(NSDictionary<NSKeyValueChangeKey, id>* _Nullable)change
                       context:(void* _Nullable)context;
@end
@interface NSObject (NSKeyValueObserverRegistration)
- (void)addObserver:(NSObject*)observer
         forKeyPath:(NSString*)keyPath
            options:(NSKeyValueObservingOptions)options
            context:(void* _Nullable)context;
- (void)removeObserver:(NSObject*)observer forKeyPath:(NSString*)keyPath;
@end

extern "C" void NSLog(NSString* format, ...) __attribute__((format(__NSString__, 1, 2)));

#pragma clang assume_nonnull end
