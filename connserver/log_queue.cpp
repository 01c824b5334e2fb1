#include "connserver/log_queue.h"

#include <semaphore.h>

#include <atomic>

#include "base/string_format.h"
#include "connserver/semaphore_lock.h"

namespace {

struct LogQueue {
    LogQueue() {
        sem_init(&semLogQueueSafe, 0, 1);
        sem_init(&semLogQueueMsgWaiting, 0, 0);
    }

    sem_t semLogQueueSafe;        ///< Guards the plain members below.
    sem_t semLogQueueMsgWaiting;  ///< Counts wake-ups; the logging thread sleeps on it.
    std::deque<std::string> logMsgQueue;
    bool bOpen = false;
    LogQueueCounts counts{0, 0};
    std::size_t nLost = 0;  ///< Lines dropped since the last fetch.

    std::atomic<bool> bStopping{false};  ///< The logging thread must end.
};

LogQueue& theQueue() {
    // Deliberately never deleted; see the header.
    static LogQueue& queue = *new LogQueue;
    return queue;
}

}  // namespace

void openLogQueue() {
    LogQueue& queue = theQueue();
    const SemaphoreLock lock(queue.semLogQueueSafe);
    queue.bOpen = true;
    queue.bStopping = false;
}

std::deque<std::string> closeLogQueue() {
    LogQueue& queue = theQueue();
    std::deque<std::string> rest;
    const SemaphoreLock lock(queue.semLogQueueSafe);
    queue.bOpen = false;
    rest.swap(queue.logMsgQueue);
    return rest;
}

bool bQueueLogLine(std::string& sLine) {
    LogQueue& queue = theQueue();
    const SemaphoreLock lock(queue.semLogQueueSafe);
    if (!queue.bOpen) {
        return false;
    }
    if (queue.logMsgQueue.size() >= kMaxQueuedLogLines) {
        ++queue.nLost;
        return true;
    }
    const bool bFirst = queue.logMsgQueue.empty();
    queue.logMsgQueue.push_back(std::move(sLine));
    ++queue.counts.nQueued;
    if (bFirst) {
        sem_post(&queue.semLogQueueMsgWaiting);  // one wake-up fetches the lines after it as well
    }
    return true;
}

LogWait awaitLogLine() {
    LogQueue& queue = theQueue();
    if (sem_wait(&queue.semLogQueueMsgWaiting) != 0) {
        return LogWait::kFailed;
    }
    return queue.bStopping ? LogWait::kStopped : LogWait::kLines;
}

void stopLogWaits() {
    LogQueue& queue = theQueue();
    queue.bStopping = true;
    sem_post(&queue.semLogQueueMsgWaiting);
}

void fetchLogLines(std::deque<std::string>& batch) {
    LogQueue& queue = theQueue();
    const SemaphoreLock lock(queue.semLogQueueSafe);
    batch.swap(queue.logMsgQueue);
    if (queue.nLost != 0) {
        batch.push_back(
            string_format("WARNING: the log was too slow, %zu lines are lost\n", queue.nLost));
        ++queue.counts.nQueued;
        queue.nLost = 0;
    }
}

void noteLogLinesWritten(std::size_t nLines) {
    LogQueue& queue = theQueue();
    const SemaphoreLock lock(queue.semLogQueueSafe);
    queue.counts.nWritten += nLines;
}

std::size_t nLogQueueSize() {
    LogQueue& queue = theQueue();
    const SemaphoreLock lock(queue.semLogQueueSafe);
    return queue.logMsgQueue.size();
}

LogQueueCounts logQueueCounts() {
    LogQueue& queue = theQueue();
    const SemaphoreLock lock(queue.semLogQueueSafe);
    return queue.counts;
}
