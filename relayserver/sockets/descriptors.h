/// The process's own descriptors and how many it may have. Called once, before any other is opened.
#pragma once

/// Makes sure that 0, 1 and 2 are open, so that no connection gets such a number, and puts a
/// descriptor that is never ready in place of standard input: the loop may watch number 0, and
/// neither the end of a pipe nor a terminal may keep it busy.
void occupyStandardDescriptors();

/// Raises the soft limit of open descriptors to the hard one.
void raiseDescriptorLimit();
