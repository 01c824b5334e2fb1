/// Offsets of the forward-error-correction (FEC) ports from the audio ports.
#pragma once

/// A relay's FEC sockets for channels 1 and 2 are this far, and twice this far, above the audio
/// socket of their program.
constexpr int kFecSocketPortOffset = 100;

/// A station receives FEC of channels 1 and 2 this far, and twice this far, above its receive port.
constexpr int kFecCopyPortOffset = 2;
