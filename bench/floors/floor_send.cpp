// A floor: the least that a relay can do that writes every message to every receiver separately.
//   floor_send ADDRESS PORT
#include "bench/floors/loop.h"
#include "bench/floors/plain_io.h"

int main(int argc, char** argv) {
    if (argc != 3) {
        return 2;
    }
    Floor::PlainIo<65536> io;
    Floor::serve<decltype(io), Floor::Delivery::kFrames>(io, argv[1], argv[2]);
}
