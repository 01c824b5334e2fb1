/// The standard descriptors and the limit on open descriptors. Call both functions once, before any
/// other descriptor is opened. Main thread only.
#pragma once

/// Makes sure that 0, 1 and 2 are open, so that no connection gets one of these numbers, and
/// replaces standard input with a descriptor that is never ready: the event loop may watch
/// descriptor 0, and a closed pipe or a terminal must not keep it busy.
void occupyStandardDescriptors();

/// Raises the soft limit on open descriptors to the hard limit.
void raiseDescriptorLimit();
