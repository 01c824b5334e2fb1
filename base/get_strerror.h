/// An errno value in words, safe to ask for in any thread.
#pragma once

#include <string>

/// What the C library says about the error number `err` ("No such file or directory"). Any thread.
std::string get_strerror(int err);
