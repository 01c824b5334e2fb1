/// Repetitions of several load programs take turns, one daemon after the other, so that a machine
/// that becomes faster or slower does so for all of them.
#pragma once

#include <functional>

namespace Load {

/// Says on standard output that everything is ready for a repetition, and waits for a line on
/// standard input. Call before preparing the repetition; nothing is measured meanwhile.
/// `keepAlive` is called now and then while others take so long that clients could be given up,
/// which they do while they connect theirs, but not while they are measured.
void awaitTurn(const std::function<void()>& keepAlive);

}  // namespace Load
