#pragma once

// The part of the unified log that this system uses, declared as its header declares it for
// Objective-C++ on macOS.

#import <Foundation/Foundation.h>
#include <os/availability.h>

#include <cstdint>

@protocol OS_os_log <NSObject>
@end
typedef NSObject<OS_os_log>* os_log_t;
typedef std::uint8_t os_log_type_t;
enum {
  OS_LOG_TYPE_DEFAULT = 0x00,
  OS_LOG_TYPE_INFO = 0x01,
  OS_LOG_TYPE_DEBUG = 0x02,
  OS_LOG_TYPE_ERROR = 0x10,
  OS_LOG_TYPE_FAULT = 0x11,
};

extern "C" {
struct mach_header;
extern struct mach_header __dso_handle;
struct os_log_s;
extern struct os_log_s _os_log_default;
__attribute__((ns_returns_retained)) os_log_t os_log_create(const char* subsystem,
                                                            const char* category) OV_MACOS(10.12);
bool os_log_type_enabled(os_log_t oslog, os_log_type_t type) OV_MACOS(10.12);
void _os_log_impl(void* dso, os_log_t log, os_log_type_t type, const char* format,
                  std::uint8_t* buf, std::uint32_t size);
}
#define OS_LOG_DEFAULT ((os_log_t)&_os_log_default)

// A macro on macOS too: the compiler checks and encodes the arguments against the format, which has
// to be a literal.
#define os_log_with_type(log, type, format, ...)                                                 \
  do {                                                                                           \
    static const char ovLogFormat[] = format;                                                    \
    alignas(16)                                                                                  \
        std::uint8_t ovLogBuffer[__builtin_os_log_format_buffer_size(format, ##__VA_ARGS__)];    \
    _os_log_impl(                                                                                \
        &__dso_handle, (log), (type), ovLogFormat,                                               \
        static_cast<std::uint8_t*>(__builtin_os_log_format(ovLogBuffer, format, ##__VA_ARGS__)), \
        static_cast<std::uint32_t>(sizeof ovLogBuffer));                                         \
  } while (false)
