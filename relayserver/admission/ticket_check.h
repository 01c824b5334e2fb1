/// Whether a ticket admits. Main thread only.
#pragma once

#include <netinet/in.h>

#include "genner/output/RelayConnectNetMessage.h"

/// Seconds by which a ticket's time may differ from ours, either way; at this difference it is
/// refused.
constexpr int kTicketMaxAgeSecs = 300;

/// Whether a rejection is told to the log; a flood of bad tickets may be met in silence.
enum class TicketLog { kTell, kQuiet };

/// Whether the ticket in `rcnm` was issued for the client id in it, within the last 300 s by our
/// clock, and the id has not logged in too often lately (each valid ticket counts as one log-in).
/// Logs why not, apart from a time that is wrong by 300 s to 600 s. `iaPeer` is for the log only.
[[nodiscard]] bool CheckTicket(const Orvex::RelayConnectNetMessage& rcnm, in_addr iaPeer,
                               TicketLog log = TicketLog::kTell);
