/// How the ports of forward error correction lie beside those of audio.
#pragma once

/// A relay's own FEC sockets of channel 1 and 2 are this far, and twice this far, above the audio
/// socket of their program.
constexpr int kFecSocketPortOffset = 100;

/// A station hears FEC of channel 1 and 2 this far, and twice this far, above its receive port.
constexpr int kFecCopyPortOffset = 2;
