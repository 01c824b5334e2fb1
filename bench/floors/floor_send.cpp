// A floor: the least that a relay can do which writes every message to every receiver by itself.
//   floor_send ADDRESS PORT
#include "bench/floors/plain_loop.h"

int main(int argc, char** argv) {
    if (argc != 3) {
        return 2;
    }
    return Floor::serve<64 * 1024, false>(argv[1], argv[2],
                                          [](std::uint32_t nGroup, std::string_view svFrame) {
                                              for (const int fd : Floor::groups[nGroup]) {
                                                  Floor::sendAll(fd, svFrame);
                                              }
                                          });
}
