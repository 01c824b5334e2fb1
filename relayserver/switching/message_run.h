/// Runs of consecutive messages from one sender to the same destinations, which need only one route
/// look-up and one write per destination. Main thread only.
#pragma once

#include <string_view>

/// One run.
struct MessageRun {
    /// The stream frames, back to back, as received. Not owned.
    std::string_view svFrames;
    /// The number of messages.
    unsigned nCount = 0;
    /// The sender's client id.
    unsigned nSource = 0;
    /// The pipe of their type, which selects the route.
    int nPipe = 0;
    /// Whether the sender is a relay peer.
    bool bFromRelayPeer = false;

    [[nodiscard]] bool bEmpty() const { return nCount == 0; }
};

/// Whether a message with this image may travel in a run: its type is only ever routed, whatever
/// its contents, and it is small enough to forward. The sender is not checked.
[[nodiscard]] bool bTravelsInRuns(std::string_view svImage);

/// Adds the message with this image, which must lie in a stream frame. Returns false and changes
/// nothing if its sender or pipe differs from the run's, or its frame does not directly follow the
/// others.
[[nodiscard]] bool bAddToRun(MessageRun& rRun, std::string_view svImage);
