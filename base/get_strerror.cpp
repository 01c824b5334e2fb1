#include "base/get_strerror.h"

#include <cstring>

std::string get_strerror(int err) {
    char achBuffer[1024];
    // The GNU variant: the text need not be in our buffer.
    const char* pszText = strerror_r(err, achBuffer, sizeof achBuffer);
    return pszText != nullptr ? pszText : std::strerror(err);
}
