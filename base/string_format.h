/// printf into a string of any length.
#pragma once

#include <cstdarg>
#include <string>

/// The text that printf would print. Up to 1023 characters are formatted in one pass. Empty when
/// the C library cannot format it (for example an invalid wide character). Any thread.
std::string string_format(const char* fmt, ...) __attribute__((format(printf, 1, 2)));

/// The same for an argument list; the caller calls `va_end`.
std::string vstring_format(const char* fmt, va_list args) __attribute__((format(printf, 1, 0)));
