/// printf into a string of any length.
#pragma once

#include <cstdarg>
#include <string>

/// The text that printf would print. Texts up to 1023 characters are formatted without a second
/// pass. Empty when the C library cannot format (for example an invalid wide character). Any
/// thread.
std::string string_format(const char* fmt, ...) __attribute__((format(printf, 1, 2)));

/// The same for an argument list, which stays the caller's to end.
std::string vstring_format(const char* fmt, va_list args) __attribute__((format(printf, 1, 0)));
