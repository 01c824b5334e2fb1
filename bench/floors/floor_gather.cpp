// A floor: the least that a relay can do that gathers what one wake-up brings for a receiver. A
// receiver has one source, so that what is gathered for it is the run of frames that was read.
//   floor_gather ADDRESS PORT
#include "bench/floors/loop.h"
#include "bench/floors/plain_io.h"

int main(int argc, char** argv) {
    if (argc != 3) {
        return 2;
    }
    Floor::PlainIo<262144> io;
    Floor::serve<decltype(io), Floor::Delivery::kRuns>(io, argv[1], argv[2]);
}
