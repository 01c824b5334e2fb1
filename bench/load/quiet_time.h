/// When relays have nothing to do but what is measured: every four seconds they send heartbeats.
#pragma once

namespace Load {

/// Seconds to wait until no relay will send heartbeats for `dSeconds`; 0 when none will anyway.
/// Also for the repetitions of other daemons, because those of a relay take turns with them on one
/// core.
[[nodiscard]] double dSecondsUntilQuiet(double dSeconds);

}  // namespace Load
