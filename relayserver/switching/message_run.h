/// Messages that came from one sender in one piece and travel to the same destinations: one look-up
/// of the route and one write for each destination serve them all.
#pragma once

#include <string_view>

struct MessageRun {
    /// Their stream frames, one behind the other, as they came. Not owned.
    std::string_view svFrames;
    unsigned nCount = 0;
    unsigned nSource = 0;
    int nPipe = 0;
    bool bFromRelayPeer = false;

    [[nodiscard]] bool bEmpty() const { return nCount == 0; }
};

/// Whether messages like the one with this image go to the destinations of their route and nowhere
/// else, whatever they say: then they may travel in a run. Their sender is not judged.
[[nodiscard]] bool bTravelsInRuns(std::string_view svImage);

/// Adds the message that stands with this image in a stream frame. False, and nothing happens, when
/// it is not of the run's sender and pipe or its frame does not lie behind the others.
[[nodiscard]] bool bAddToRun(MessageRun& rRun, std::string_view svImage);
