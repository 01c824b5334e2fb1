/// Paging of long payloads: each page of a message carries its number and the number of pages.
#pragma once

#include <cstdint>

namespace Orvex {

/// How many of the `len` bytes at `data` fit in the next page, if the other fields take 28 of a
/// page's 499 payload bytes and a byte that needs escaping takes two. Any thread.
unsigned nBytesOfNextPage(const char* data, unsigned len);
/// The pages that `len` bytes at `data` need; 0 for no bytes. Any thread.
unsigned nPagesNeeded(const char* data, unsigned len);

/// Base of a paged `Message`. Pages are numbered from 1, so that the number of the last one is the
/// total. For the thread that owns the message.
template <class Message>
class PagingInterface {
  public:
    /// Payload bytes that a sender puts into one page at most.
    static constexpr unsigned MAX_PAYLOAD_LEN_PER_PAGE = 400;

    /// Sets both numbers; the message is packed again before it is sent.
    void SetPageMarker(std::uint8_t nThisPage, std::uint8_t nTotalPages) {
        thisPage = nThisPage;
        totalPages = nTotalPages;
        static_cast<Message*>(this)->MarkNotInSync();
    }
    [[nodiscard]] std::uint8_t GetPageNumber() const { return thisPage; }
    [[nodiscard]] std::uint8_t GetTotalPages() const { return totalPages; }
    /// Whether this is the last page of its message.
    [[nodiscard]] bool bIsLast() const { return thisPage == totalPages; }

    /// `nBytesOfNextPage` and `nPagesNeeded` under the names that senders of paged messages use.
    static unsigned NumUnescapedBytesToPutInNextPage(const char* data, unsigned len) {
        return nBytesOfNextPage(data, len);
    }
    static unsigned NumPagesNeeded(const char* data, unsigned len) {
        return nPagesNeeded(data, len);
    }

  protected:
    ~PagingInterface() = default;

    /// The number that the paging field carries: this page * 256 + total pages.
    [[nodiscard]] int nPageMarker() const { return thisPage * 256 + totalPages; }
    void setPageMarkerFrom(int nMarker) {
        const auto nBits = static_cast<unsigned>(nMarker);
        SetPageMarker(static_cast<std::uint8_t>(nBits >> 8U), static_cast<std::uint8_t>(nBits));
    }

  private:
    std::uint8_t thisPage = 0;
    std::uint8_t totalPages = 0;
};

}  // namespace Orvex
