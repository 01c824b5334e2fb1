// A floor: the least that a relay can do which gathers what one wake-up brings for a receiver. A
// receiver hears one source, so that what is gathered for it is the run of frames that was read.
//   floor_gather ADDRESS PORT
#include "bench/floors/plain_loop.h"

int main(int argc, char** argv) {
    if (argc != 3) {
        return 2;
    }
    return Floor::serve<256 * 1024, true>(argv[1], argv[2],
                                          [](std::uint32_t nGroup, std::string_view svFrames) {
                                              for (const int fd : Floor::groups[nGroup]) {
                                                  Floor::sendAll(fd, svFrames);
                                              }
                                          });
}
