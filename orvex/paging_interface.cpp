#include "orvex/paging_interface.h"

#include "orvex/net_message.h"

namespace Orvex {

namespace {

// Numbers and a short format text before the bytes of a page.
constexpr unsigned kAssumedOtherFieldsLen = 28;

unsigned nEscapedSize(char ch) {
    return ch == NetMessage::chESC || ch == NetMessage::chDELIM || ch == '\0' ? 2 : 1;
}

}  // namespace

unsigned nBytesOfNextPage(const char* data, unsigned len) {
    unsigned nUsed = kAssumedOtherFieldsLen;
    unsigned nFitting = 0;
    while (nFitting < len &&
           nUsed + nEscapedSize(data[nFitting]) <= NetMessage::nMAX_MSG_DATA_LEN) {
        nUsed += nEscapedSize(data[nFitting]);
        ++nFitting;
    }
    return nFitting;
}

unsigned nPagesNeeded(const char* data, unsigned len) {
    unsigned nPages = 0;
    for (unsigned nDone = 0; nDone < len; ++nPages) {
        nDone += nBytesOfNextPage(data + nDone, len - nDone);
    }
    return nPages;
}

}  // namespace Orvex
