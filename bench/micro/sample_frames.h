/// Stream frames with captions of one length, as in a sender's burst.
#pragma once

#include <string>

namespace Micro {

/// The id of their sender.
constexpr unsigned kSampleSender = 1001;

/// A caption of `nBytes`, none of which needs an escape.
[[nodiscard]] std::string sSampleCaption(std::size_t nBytes);

/// The frame of one caption.
[[nodiscard]] std::string sSampleFrame(std::size_t nCaptionBytes);

/// As many such frames as fit in `nBytes`, in sequence.
[[nodiscard]] std::string sSampleBurst(std::size_t nCaptionBytes, std::size_t nBytes);

}  // namespace Micro
