/// Issues tickets as the connection server does.
#pragma once

#include <ctime>
#include <string>

/// The encrypted ticket (16 bytes) for `nClientID` at `sAddress`, issued at `ttIssued`, under the
/// session key of this process.
std::string sEncryptedTicket(unsigned nClientID, std::time_t ttIssued,
                             const std::string& sAddress = "127.0.0.1");

/// The image of a log-in with that ticket, which claims `nClaimedID`.
std::string sLoginImage(unsigned nClaimedID, const std::string& sTicket);
