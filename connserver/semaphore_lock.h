/// Holds a semaphore that serves as a mutex for a scope. Any thread.
#pragma once

#include <semaphore.h>

#include <cerrno>

class SemaphoreLock {
  public:
    /// Waits until `sem` can be taken, also when signal handlers interrupt the wait.
    explicit SemaphoreLock(sem_t& sem) : sem_(sem) {
        while (sem_wait(&sem_) != 0 && errno == EINTR) {
        }
    }
    /// Posts the semaphore.
    ~SemaphoreLock() { sem_post(&sem_); }

    SemaphoreLock(const SemaphoreLock&) = delete;
    SemaphoreLock& operator=(const SemaphoreLock&) = delete;

  private:
    sem_t& sem_;
};
