#include "connserver/log_queue.h"

#include <semaphore.h>

#include "connserver/semaphore_lock.h"

namespace {

struct LogQueue {
    LogQueue() {
        sem_init(&semLogQueueSafe, 0, 1);
        sem_init(&semLogQueueMsgWaiting, 0, 0);
    }

    sem_t semLogQueueSafe;        ///< Guards all members below.
    sem_t semLogQueueMsgWaiting;  ///< Counts the lines pushed; the logging thread sleeps on it.
    std::deque<std::string> logMsgQueue;
    bool bOpen = false;
    LogQueueCounts counts{0, 0};
};

LogQueue& theQueue() {
    // Deliberately never deleted: see the header.
    static LogQueue& queue = *new LogQueue;
    return queue;
}

}  // namespace

void openLogQueue() {
    LogQueue& queue = theQueue();
    const SemaphoreLock lock(queue.semLogQueueSafe);
    queue.bOpen = true;
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
    queue.logMsgQueue.push_back(std::move(sLine));
    ++queue.counts.nQueued;
    sem_post(&queue.semLogQueueMsgWaiting);
    return true;
}

bool bAwaitLogLine() {
    return sem_wait(&theQueue().semLogQueueMsgWaiting) == 0;
}

void fetchLogLines(std::deque<std::string>& batch) {
    LogQueue& queue = theQueue();
    const SemaphoreLock lock(queue.semLogQueueSafe);
    batch.swap(queue.logMsgQueue);
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
