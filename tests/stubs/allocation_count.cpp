#include "tests/stubs/allocation_count.h"

#include <atomic>
#include <cstdlib>
#include <new>

namespace {

std::atomic<std::size_t> nCalls{0};

void* allocateOrNull(std::size_t nBytes) noexcept {
    nCalls.fetch_add(1, std::memory_order_relaxed);
    return std::malloc(nBytes == 0 ? 1 : nBytes);
}

void* allocate(std::size_t nBytes) {
    void* const pMemory = allocateOrNull(nBytes);
    if (pMemory == nullptr) {
        throw std::bad_alloc();
    }
    return pMemory;
}

}  // namespace

std::size_t nAllocations() {
    return nCalls.load(std::memory_order_relaxed);
}

// All plain forms, so that memory of one of them is never freed by the runtime's own counterpart.

void* operator new(std::size_t nBytes) {
    return allocate(nBytes);
}

void* operator new[](std::size_t nBytes) {
    return allocate(nBytes);
}

void* operator new(std::size_t nBytes, const std::nothrow_t& /*tag*/) noexcept {
    return allocateOrNull(nBytes);
}

void* operator new[](std::size_t nBytes, const std::nothrow_t& /*tag*/) noexcept {
    return allocateOrNull(nBytes);
}

void operator delete(void* pMemory) noexcept {
    std::free(pMemory);
}

void operator delete[](void* pMemory) noexcept {
    std::free(pMemory);
}

void operator delete(void* pMemory, std::size_t /*nBytes*/) noexcept {
    std::free(pMemory);
}

void operator delete[](void* pMemory, std::size_t /*nBytes*/) noexcept {
    std::free(pMemory);
}

void operator delete(void* pMemory, const std::nothrow_t& /*tag*/) noexcept {
    std::free(pMemory);
}

void operator delete[](void* pMemory, const std::nothrow_t& /*tag*/) noexcept {
    std::free(pMemory);
}
