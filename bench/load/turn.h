/// Repetitions of several load programs take turns, so that a machine that becomes faster or slower
/// does so for all daemons.
#pragma once

#include <functional>

namespace Load {

/// Reports on standard output that everything is ready for a repetition, and waits for a line on
/// standard input. Call before preparing the repetition. `keepAlive` is called from time to time
/// when the others take so long that daemons could drop our clients: they do while connecting their
/// clients, but not while they are measured.
void awaitTurn(const std::function<void()>& keepAlive);

}  // namespace Load
