#pragma once

// The part of Dispatch that this system uses, declared as its headers declare it for Objective-C++
// on macOS, where queues and sources are Objective-C objects.

#import <Foundation/Foundation.h>

#include <os/availability.h>

#include <cstdint>

#pragma clang assume_nonnull begin

@protocol OS_dispatch_object <NSObject>
@end
typedef NSObject<OS_dispatch_object> *dispatch_object_t;
@protocol OS_dispatch_queue <OS_dispatch_object>
@end
typedef NSObject<OS_dispatch_queue> *dispatch_queue_t;
@protocol OS_dispatch_queue_attr <OS_dispatch_object>
@end
typedef NSObject<OS_dispatch_queue_attr> *dispatch_queue_attr_t;
@protocol OS_dispatch_source <OS_dispatch_object>
@end
typedef NSObject<OS_dispatch_source> *dispatch_source_t;

typedef void (*dispatch_function_t)(void *_Nullable);
typedef void (^dispatch_block_t)(void);
typedef uint64_t dispatch_time_t;
typedef const struct dispatch_source_type_s *dispatch_source_type_t;
struct timespec;

extern "C" {
struct dispatch_queue_s;
struct dispatch_queue_attr_s;
struct dispatch_source_type_s;
extern struct dispatch_queue_attr_s _dispatch_queue_attr_concurrent;
extern const struct dispatch_source_type_s _dispatch_source_type_timer;

__attribute__((ns_returns_retained)) dispatch_queue_t dispatch_queue_create(
    const char *_Nullable label, dispatch_queue_attr_t _Nullable attr);
__attribute__((ns_returns_retained)) dispatch_queue_t dispatch_queue_create_with_target(
    const char *_Nullable label, dispatch_queue_attr_t _Nullable attr,
    dispatch_queue_t _Nullable target) OV_MACOS(10.12);
dispatch_queue_t dispatch_get_global_queue(intptr_t identifier, uintptr_t flags);
void dispatch_async(dispatch_queue_t queue, dispatch_block_t block);
void dispatch_async_f(dispatch_queue_t queue, void *_Nullable context, dispatch_function_t work);
void dispatch_sync_f(dispatch_queue_t queue, void *_Nullable context, dispatch_function_t work);
void dispatch_barrier_async_f(dispatch_queue_t queue, void *_Nullable context,
                              dispatch_function_t work);
void dispatch_barrier_sync_f(dispatch_queue_t queue, void *_Nullable context,
                             dispatch_function_t work);
void dispatch_after_f(dispatch_time_t when, dispatch_queue_t queue, void *_Nullable context,
                      dispatch_function_t work);
extern struct dispatch_queue_s _dispatch_main_q;

void dispatch_main(void) __attribute__((noreturn));

__attribute__((ns_returns_retained)) dispatch_source_t dispatch_source_create(
    dispatch_source_type_t type, uintptr_t handle, uintptr_t mask,
    dispatch_queue_t _Nullable queue);
void dispatch_source_set_timer(dispatch_source_t source, dispatch_time_t start, uint64_t interval,
                               uint64_t leeway);
void dispatch_source_set_event_handler_f(dispatch_source_t source,
                                         dispatch_function_t _Nullable handler);
void dispatch_source_set_cancel_handler_f(dispatch_source_t source,
                                          dispatch_function_t _Nullable handler);
void dispatch_source_cancel(dispatch_source_t source);
intptr_t dispatch_source_testcancel(dispatch_source_t source);

void dispatch_resume(dispatch_object_t object);
void dispatch_suspend(dispatch_object_t object);
void dispatch_activate(dispatch_object_t object) OV_MACOS(10.12);
void dispatch_set_context(dispatch_object_t object, void *_Nullable context);
void *_Nullable dispatch_get_context(dispatch_object_t object);
void dispatch_set_finalizer_f(dispatch_object_t object, dispatch_function_t _Nullable finalizer);

dispatch_time_t dispatch_time(dispatch_time_t when, int64_t delta);
dispatch_time_t dispatch_walltime(const struct timespec *_Nullable when, int64_t delta);
}
#define DISPATCH_QUEUE_PRIORITY_DEFAULT 0
#define DISPATCH_QUEUE_SERIAL NULL
#define DISPATCH_QUEUE_CONCURRENT ((dispatch_queue_attr_t)&_dispatch_queue_attr_concurrent)
#define DISPATCH_SOURCE_TYPE_TIMER (&_dispatch_source_type_timer)
#define DISPATCH_TIME_NOW (0ull)
#define DISPATCH_TIME_FOREVER (~0ull)
#define NSEC_PER_SEC 1000000000ull
#define NSEC_PER_MSEC 1000000ull
#define NSEC_PER_USEC 1000ull

#pragma clang assume_nonnull end

static inline dispatch_queue_t _Nonnull dispatch_get_main_queue() {
  return (dispatch_queue_t)&_dispatch_main_q;
}
