// Numbers read alike on the 32-bit and the 64-bit build. Any thread may call.
#pragma once

#include <cstdint>

// What does not fit becomes the nearest limit of the type.
std::int32_t clamp_to_int32(long value);

// strtol(3) in base 10 as a 32-bit long gives it: leading white space and a sign are taken, the
// first non-digit ends the number, no digits give 0, and what does not fit is clamped.
std::int32_t text_to_int32(const char* text);
