/// The end of a program that cannot count what it was asked for.
#pragma once

/// Says why to standard error and ends the process with status 1.
[[noreturn]] void giveUp(const char* sReason);

/// Does so, with the system's reason, unless `bSucceeded`.
void require(bool bSucceeded, const char* sWhat);
