/// Stream frames with captions of one length, as a sender's burst brings them.
#pragma once

#include <string>

namespace Micro {

/// The id under which all of them are sent.
constexpr unsigned kSampleSender = 1001;

/// `nBytes` of a caption, none of which needs an escape.
[[nodiscard]] std::string sSampleCaption(std::size_t nBytes);

/// The frame of one caption.
[[nodiscard]] std::string sSampleFrame(std::size_t nCaptionBytes);

/// As many such frames as fit into `nBytes`, one behind the other.
[[nodiscard]] std::string sSampleBurst(std::size_t nCaptionBytes, std::size_t nBytes);

}  // namespace Micro
