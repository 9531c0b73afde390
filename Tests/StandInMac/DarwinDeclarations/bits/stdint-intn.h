#pragma once

// Instead of this machine's: where long and long long are of the same size, the Mac's 64-bit
// integers are the latter, and overloads tell the two apart.
typedef signed char int8_t;
typedef short int16_t;
typedef int int32_t;
typedef long long int64_t;
