/// The first frame that a client sends to a floor. It is framed like all others:
///   0  u8   3: an image of 5 bytes follows
///   1  u8   role: 'S' source, 'R' receiver, 'I' neither
///   2  u32  group, in host order
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>

namespace Floor {

constexpr char kSource = 'S';
constexpr char kReceiver = 'R';
constexpr char kIdle = 'I';
constexpr std::size_t kIntroductionLen = 6;

inline std::array<char, kIntroductionLen> makeIntroduction(char chRole, std::uint32_t nGroup) {
    std::array<char, kIntroductionLen> achFrame{3, chRole};
    std::memcpy(achFrame.data() + 2, &nGroup, sizeof nGroup);
    return achFrame;
}

}  // namespace Floor
