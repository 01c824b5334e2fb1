/// How a test waits: for a condition, up to a deadline, and never for a fixed time.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <fstream>
#include <string>
#include <thread>

/// Waits until `condition()` holds; false when it does not within ten seconds.
template <typename Condition>
[[nodiscard]] bool bEventually(Condition condition) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    while (!condition()) {
        if (std::chrono::steady_clock::now() > deadline) {
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    return true;
}

/// Whether the thread `tid` of this process (see `gettid`) sleeps in a system call that a signal
/// can interrupt.
[[nodiscard]] inline bool bIsAsleep(pid_t tid) {
    std::ifstream stat("/proc/self/task/" + std::to_string(tid) + "/stat");
    std::string sId;
    std::string sName;
    std::string sState;
    stat >> sId >> sName >> sState;
    return sState == "S";
}
