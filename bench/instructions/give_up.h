/// Ends a program that cannot count what it was asked to.
#pragma once

/// Prints the reason to standard error and ends the process with status 1.
[[noreturn]] void giveUp(const char* sReason);

/// Does so, with the system's error text, unless `bSucceeded`.
void require(bool bSucceeded, const char* sWhat);
