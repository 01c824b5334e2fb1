/// How the process ends. Main thread only.
#pragma once

/// Ends the process at once, but lets the lines logged so far reach the log. For ends that do not
/// return from `main`.
[[noreturn]] void quitProcess(int nStatus);

/// The orderly end: logs it, closes the listeners and ends with status 0. Connections of clients
/// and to the database are left to the operating system.
[[noreturn]] void shutDown();
