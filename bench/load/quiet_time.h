/// Keeps repetitions clear of the heartbeats that relays send every four seconds.
#pragma once

namespace Load {

/// Seconds to wait until no relay will send heartbeats for `dSeconds`; 0 if none will anyway. Also
/// applies to the repetitions of other daemons, because a relay shares the core with them.
[[nodiscard]] double dSecondsUntilQuiet(double dSeconds);

}  // namespace Load
