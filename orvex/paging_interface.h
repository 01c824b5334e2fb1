/// Paging of long payloads: a message that is one page of several says which one of how many.
#pragma once

#include <cstdint>

namespace Orvex {

/// How many of the `len` bytes at `data` fit in the next page, when a page's header and other
/// fields take 28 of its 499 payload bytes and a byte to be escaped takes two.
unsigned nBytesOfNextPage(const char* data, unsigned len);
/// The pages that `len` bytes at `data` need; none for no bytes.
unsigned nPagesNeeded(const char* data, unsigned len);

/// Base of a paged `Message`. Pages count from 1, so that the last one carries the total.
template <class Message>
class PagingInterface {
  public:
    static constexpr unsigned MAX_PAYLOAD_LEN_PER_PAGE = 400;

    void SetPageMarker(std::uint8_t nThisPage, std::uint8_t nTotalPages) {
        thisPage = nThisPage;
        totalPages = nTotalPages;
        static_cast<Message*>(this)->MarkNotInSync();
    }
    [[nodiscard]] std::uint8_t GetPageNumber() const { return thisPage; }
    [[nodiscard]] std::uint8_t GetTotalPages() const { return totalPages; }
    [[nodiscard]] bool bIsLast() const { return thisPage == totalPages; }

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
