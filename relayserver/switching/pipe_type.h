/// Which messages travel down which pipe: the pipe type is the class of a route.
#pragma once

/// The message is not switched at all.
constexpr int kPipeNone = -1;
/// Goes to the destination that its header names.
constexpr int kPipeDirect = 96;
/// Goes to the connection server.
constexpr int kPipeConnServer = 224;

/// The pipe of messages whose type byte is `nTypeByte` (0..255). Types that the table does not name
/// carry their pipe in their upper three bits.
constexpr int nPipeType(unsigned char nTypeByte) {
    switch (nTypeByte) {
        case 1:
            return kPipeNone;
        case 2:
        case 8:
        case 10:
        case 13:
            return kPipeConnServer;
        case 3:
            return 128;
        case 5:
        case 7:
            return 192;
        case 6:
            return 160;
        case 9:
        case 11:
            return kPipeDirect;
        default:
            return nTypeByte & 0xE0;
    }
}
