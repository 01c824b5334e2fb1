/// Holding a semaphore that serves as a mutex for the length of a scope.
#pragma once

#include <semaphore.h>

#include <cerrno>

class SemaphoreLock {
  public:
    /// Waits until `sem` can be taken. A signal handler that interrupts the wait does not end it.
    explicit SemaphoreLock(sem_t& sem) : sem_(sem) {
        while (sem_wait(&sem_) != 0 && errno == EINTR) {
        }
    }
    ~SemaphoreLock() { sem_post(&sem_); }

    SemaphoreLock(const SemaphoreLock&) = delete;
    SemaphoreLock& operator=(const SemaphoreLock&) = delete;

  private:
    sem_t& sem_;
};
