/// The text of an errno value, thread-safe.
#pragma once

#include <string>

/// The C library's text for the error number `err` ("No such file or directory"); an unknown number
/// gives "Unknown error <number>". Any thread.
std::string get_strerror(int err);
