/// Checks tickets. Main thread only.
#pragma once

#include <netinet/in.h>

#include "genner/output/RelayConnectNetMessage.h"

/// A ticket is refused if its time differs from ours by this many seconds or more, either way.
constexpr int kTicketMaxAgeSecs = 300;

/// Whether a rejection is logged: a flood of bad tickets must not fill the log.
enum class TicketLog { kTell, kQuiet };

/// Whether the ticket in `rcnm` was issued for the client id in it, less than 300 s from now by our
/// clock, and the id has not logged in too often recently (each valid ticket counts as one log-in).
/// Logs why not, except for a time that is wrong by 300 s to 600 s. `iaPeer` is only logged.
[[nodiscard]] bool CheckTicket(const Orvex::RelayConnectNetMessage& rcnm, in_addr iaPeer,
                               TicketLog log = TicketLog::kTell);
