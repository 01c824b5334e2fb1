#include "orvex/input_buffer.h"

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <utility>

namespace Orvex {

namespace {

using memory_t = std::unique_ptr<unsigned char[]>;

/// The block that connections use in turn, while none is using it.
memory_t pSpareBlock;

memory_t takeMemory(int nBytes) {
    if (nBytes == InputBuffer::kBlockSize && pSpareBlock) {
        return std::move(pSpareBlock);
    }
    // Not initialised: only bytes that were read in are ever looked at.
    return memory_t(new unsigned char[static_cast<std::size_t>(nBytes)]);
}

void giveMemoryBack(memory_t pMemory, int nBytes) {
    if (nBytes == InputBuffer::kBlockSize) {
        pSpareBlock = std::move(pMemory);
    }
}

}  // namespace

InputBuffer::InputBuffer(const InputBuffer& other) {
    if (other.nLength > 0) {
        (void)nMakeRoom(other.nLength);
        std::memcpy(pTail(), other.pHead(), static_cast<std::size_t>(other.nLength));
        added(other.nLength);
    }
}

InputBuffer::~InputBuffer() {
    giveMemoryBack(std::move(pMemory), nMemorySize);
}

void InputBuffer::swap(InputBuffer& other) noexcept {
    std::swap(pMemory, other.pMemory);
    std::swap(nMemorySize, other.nMemorySize);
    std::swap(nStart, other.nStart);
    std::swap(nLength, other.nLength);
}

void InputBuffer::moveTo(int nNewSize) {
    memory_t pNew = takeMemory(nNewSize);
    if (nLength > 0) {
        std::memcpy(pNew.get(), pHead(), static_cast<std::size_t>(nLength));
    }
    giveMemoryBack(std::exchange(pMemory, std::move(pNew)), std::exchange(nMemorySize, nNewSize));
    nStart = 0;
}

int InputBuffer::nMakeRoom(int nCapacity) {
    if (nMemorySize < nCapacity) {
        moveTo(nCapacity);
    } else if (nStart > 0) {
        std::memmove(pMemory.get(), pHead(), static_cast<std::size_t>(nLength));
        nStart = 0;
    }
    return std::max(0, nCapacity - nLength);
}

std::optional<std::string_view> InputBuffer::peekView() {
    if (nLength < 1) {
        return std::nullopt;
    }
    const unsigned char* const pFrame = pHead();
    const int nFrame = 2 * *pFrame;
    if (nFrame == 0) {
        nLength = 0;  // the only way to resynchronise a stream that has lost its framing
        return std::nullopt;
    }
    if (nLength < nFrame) {
        return std::nullopt;
    }
    return std::string_view(reinterpret_cast<const char*>(pFrame) + 1,
                            static_cast<std::size_t>(nFrame - 1));
}

void InputBuffer::pop() {
    const int nFrame = 2 * *pHead();
    nStart += nFrame;
    nLength -= nFrame;
}

std::optional<std::string_view> InputBuffer::dequeueView() {
    const auto image = peekView();
    if (image) {
        pop();
    }
    return image;
}

void InputBuffer::putAside() {
    if (nLength > 0) {
        if (nLength < nMemorySize) {
            moveTo(nLength);
        }
        return;
    }
    giveMemoryBack(std::move(pMemory), std::exchange(nMemorySize, 0));
    nStart = 0;
}

}  // namespace Orvex
