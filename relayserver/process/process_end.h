/// Exit of the process. Main thread only.
#pragma once

/// Exits at once with status `nStatus`, after giving the lines logged so far up to 2 s to reach the
/// log. For exits that do not return from `main`.
[[noreturn]] void quitProcess(int nStatus);

/// Orderly shutdown: logs it, closes the listeners and exits with status 0. The operating system
/// closes the connections to clients and to the database.
[[noreturn]] void shutDown();
