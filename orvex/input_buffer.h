/// The unprocessed input of one connection: a stream of frames.
///   0  u8         L, 1..255; a 0 is never sent and empties the buffer
///   1  2*L - 1    the message image (1..509 bytes)
///
/// Allocates memory only while it holds bytes, or for what `nMakeRoom` was last asked for.
/// Main thread only.
#pragma once

#include <memory>
#include <optional>
#include <string_view>

namespace Orvex {

class InputBuffer {
  public:
    /// The size for reading from busy senders. A block of this size is not freed but kept for the
    /// next buffer that needs one.
    static constexpr int kBlockSize = 65536;

    /// Empty, without memory.
    InputBuffer() = default;
    /// Copies only the bytes held.
    InputBuffer(const InputBuffer& other);
    /// Takes everything over; `other` is empty then.
    InputBuffer(InputBuffer&& other) noexcept { swap(other); }
    /// Replaces what is held.
    InputBuffer& operator=(InputBuffer other) noexcept {
        swap(other);
        return *this;
    }
    ~InputBuffer();

    /// Bytes held.
    [[nodiscard]] int size() const { return nLength; }

    /// Makes room for `nCapacity` bytes in all and returns how many more may be added; 0 when at
    /// least that many are already held.
    [[nodiscard]] int nMakeRoom(int nCapacity);
    /// Where to write the next bytes after `nMakeRoom`; then call `added`.
    [[nodiscard]] unsigned char* pTail() { return pMemory.get() + nStart + nLength; }
    /// Says that `nBytes` were written at `pTail`, at most the room that `nMakeRoom` returned.
    void added(int nBytes) { nLength += nBytes; }

    /// The image of the oldest complete frame; empty if there is none. A zero length byte at the
    /// head empties the buffer. The view is valid until `nMakeRoom` or `putAside`; its length byte
    /// is directly before it, and the next frame directly after it.
    [[nodiscard]] std::optional<std::string_view> peekView();
    /// Removes the frame that `peekView` has just returned.
    void pop();

    /// `peekView` and, if there is a frame, `pop`; the view stays valid as there.
    [[nodiscard]] std::optional<std::string_view> dequeueView();

    /// Whether a complete frame or a zero length byte is at the head.
    [[nodiscard]] bool bFrameWaits() const { return nLength > 0 && nLength >= 2 * pMemory[nStart]; }

    /// Moves what is held to as little memory as it needs, or frees the memory if nothing is held.
    /// Views are invalid then.
    void putAside();

    /// Exchanges content and memory; views stay valid.
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
