/// One message in its envelope.
#pragma once

#include <cstddef>
#include <string>

namespace Load {

struct Frame {
    std::string sBytes;
    std::size_t nPayloadAt = 0;  ///< offset of the payload in it
};

}  // namespace Load
