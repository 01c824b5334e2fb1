/// What one connection has sent and nobody has taken yet: a stream of frames.
///   0  u8         L, 1..255; a 0 is never sent and empties the buffer
///   1  2*L - 1    the message image (1..509 bytes)
///
/// Has memory only while it holds something, apart from what `nMakeRoom` was asked for last.
/// Event-loop thread only.
#pragma once

#include <memory>
#include <optional>
#include <string_view>

namespace Orvex {

class InputBuffer {
  public:
    /// What a busy sender is read into. A block of this size is not freed but kept for the next
    /// one.
    static constexpr int kBlockSize = 65536;

    InputBuffer() = default;
    /// Copies only the bytes held.
    InputBuffer(const InputBuffer& other);
    InputBuffer(InputBuffer&& other) noexcept { swap(other); }
    InputBuffer& operator=(InputBuffer other) noexcept {
        swap(other);
        return *this;
    }
    ~InputBuffer();

    /// Bytes held.
    [[nodiscard]] int size() const { return nLength; }

    /// Makes room for holding `nCapacity` bytes in all and returns how many more that are; 0 when
    /// so many are held already.
    [[nodiscard]] int nMakeRoom(int nCapacity);
    /// Where the next bytes go, after `nMakeRoom`; `added` tells how many came.
    [[nodiscard]] unsigned char* pTail() { return pMemory.get() + nStart + nLength; }
    void added(int nBytes) { nLength += nBytes; }

    /// The image of the oldest complete frame, nothing if there is none; `pop` then takes that
    /// frame out.
    [[nodiscard]] std::optional<std::string_view> peekView();
    void pop();

    /// Both together. The view is good until `nMakeRoom` or `putAside`; before it lies its length
    /// byte, and behind it the next frame.
    [[nodiscard]] std::optional<std::string_view> dequeueView();

    /// Whether a complete frame or a zero length byte waits.
    [[nodiscard]] bool bFrameWaits() const { return nLength > 0 && nLength >= 2 * pMemory[nStart]; }

    /// Moves what is left to as little memory as it needs. Views are no longer good.
    void putAside();

    void swap(InputBuffer& other) noexcept;

  private:
    [[nodiscard]] const unsigned char* pHead() const { return pMemory.get() + nStart; }
    void moveTo(int nNewSize);

    std::unique_ptr<unsigned char[]> pMemory;
    int nMemorySize = 0;
    int nStart = 0;
    int nLength = 0;
};

}  // namespace Orvex
