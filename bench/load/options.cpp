#include "bench/load/options.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <map>
#include <sstream>
#include <string_view>

namespace Load {

namespace {

using setter_t = std::function<void(Options&, const char*)>;

/// Comma-separated numbers.
std::vector<int> readNumbers(const char* sList) {
    std::vector<int> numbers;
    std::istringstream list(sList);
    for (std::string sNumber; std::getline(list, sNumber, ',');) {
        numbers.push_back(std::atoi(sNumber.c_str()));
    }
    return numbers;
}

const std::map<std::string_view, setter_t>& setters() {
    static const std::map<std::string_view, setter_t> table = {
        {"--cell", [](Options& o, const char* s) { o.sCell = s; }},
        {"--daemon", [](Options& o, const char* s) { o.sDaemon = s; }},
        {"--address", [](Options& o, const char* s) { o.sAddress = s; }},
        {"--port",
         [](Options& o, const char* s) { o.nPort = static_cast<std::uint16_t>(std::atoi(s)); }},
        {"--audio-port",
         [](Options& o, const char* s) {
             o.nAudioPort = static_cast<std::uint16_t>(std::atoi(s));
         }},
        {"--fec", [](Options& o, const char* s) { o.bFec = std::atoi(s) != 0; }},
        {"--tls", [](Options& o, const char* s) { o.bTls = std::atoi(s) != 0; }},
        {"--server-address", [](Options& o, const char* s) { o.sServerAddress = s; }},
        {"--server-key", [](Options& o, const char* s) { o.sServerKeyFile = s; }},
        {"--client-net", [](Options& o, const char* s) { o.nClientNet = std::atoi(s); }},
        {"--pace",
         [](Options& o, const char* s) {
             o.pace = std::string_view(s) == "flat-out" ? Pace::kFlatOut : Pace::kModerate;
         }},
        {"--sources", [](Options& o, const char* s) { o.nSources = std::atoi(s); }},
        {"--fanout", [](Options& o, const char* s) { o.fanouts = readNumbers(s); }},
        {"--idle", [](Options& o, const char* s) { o.nIdle = std::atoi(s); }},
        {"--payload",
         [](Options& o, const char* s) { o.nPayload = static_cast<std::size_t>(std::atoi(s)); }},
        {"--peer", [](Options& o, const char* s) { o.bPeer = std::atoi(s) != 0; }},
        {"--rate", [](Options& o, const char* s) { o.dRate = std::atof(s); }},
        {"--seconds", [](Options& o, const char* s) { o.dSeconds = std::atof(s); }},
        {"--repeats", [](Options& o, const char* s) { o.nRepeats = std::atoi(s); }},
        {"--window",
         [](Options& o, const char* s) { o.nWindow = static_cast<std::size_t>(std::atol(s)); }},
        {"--logins", [](Options& o, const char* s) { o.nLogins = std::atoi(s); }},
        {"--in-flight", [](Options& o, const char* s) { o.nInFlight = std::atoi(s); }},
        {"--source-limit", [](Options& o, const char* s) { o.dSourceLimit = std::atof(s); }},
    };
    return table;
}

/// The first error, or null.
const char* findFault(const Options& options) {
    if (options.sAddress.empty() || options.nPort == 0) {
        return "--address and --port are required";
    }
    if (options.nPayload < 24 || options.nPayload > 490) {
        return "--payload must be from 24 to 490";
    }
    const bool bFanouts = std::all_of(options.fanouts.begin(), options.fanouts.end(),
                                      [](int n) { return n >= 1 && n <= 10000; });
    if (options.nSources < 1 || options.nSources > 10000 || !bFanouts || options.nIdle < 0 ||
        options.nIdle > 60000) {
        return "--sources, --fanout or --idle is out of range";
    }
    if (options.dRate < 1 || options.dSeconds <= 0 || options.nRepeats < 1 ||
        options.nWindow < 4096 || options.dSourceLimit < 0 || options.nClientNet < 1 ||
        options.nClientNet > 254) {
        return "--rate, --seconds, --repeats, --window, --source-limit or --client-net is out of "
               "range";
    }
    if (options.nLogins < 1 || options.nLogins > 10000 || options.nInFlight < 1 ||
        options.nInFlight > 400) {
        return "--logins or --in-flight is out of range";
    }
    return nullptr;
}

/// Additional rules for UDP: a relay has six programs, and a datagram has a header.
const char* findUdpFault(const Options& options) {
    if (options.nPayload < 40) {
        return "--payload must be at least 40 for UDP";
    }
    if (options.nSources > 6 || options.fanouts.size() != 1) {
        return "at most six --sources, and one --fanout for UDP";
    }
    if (options.sDaemon == "relay" && options.nAudioPort == 0) {
        return "--audio-port is required for a relay and UDP";
    }
    return nullptr;
}

}  // namespace

bool bParseOptions(int nArgs, const char* const* arguments, Options& rOptions) {
    for (int i = 1; i < nArgs; i += 2) {
        const auto itSetter = setters().find(arguments[i]);
        if (itSetter == setters().end() || i + 1 == nArgs) {
            std::fprintf(stderr, "relay_load: unknown option or no value: %s\n", arguments[i]);
            return false;
        }
        itSetter->second(rOptions, arguments[i + 1]);
    }
    const char* sFault = findFault(rOptions);
    if (sFault == nullptr && rOptions.sCell == "udp") {
        sFault = findUdpFault(rOptions);
    }
    if (sFault != nullptr) {
        std::fprintf(stderr, "relay_load: %s\n", sFault);
    }
    return sFault == nullptr;
}

}  // namespace Load
