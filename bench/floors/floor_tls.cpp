// A floor: the same as floor_send, or with "gather" as floor_gather, over TLS.
//   floor_tls ADDRESS PORT CERTIFICATE KEY [gather]
#include <csignal>

#include "bench/floors/loop.h"
#include "bench/floors/tls_io.h"

int main(int argc, char** argv) {
    if (argc != 5 && argc != 6) {
        return 2;
    }
    std::signal(SIGPIPE, SIG_IGN);
    Floor::TlsIo io(argv[3], argv[4]);
    if (argc == 6) {
        Floor::serve<Floor::TlsIo, Floor::Delivery::kRuns>(io, argv[1], argv[2]);
    }
    Floor::serve<Floor::TlsIo, Floor::Delivery::kFrames>(io, argv[1], argv[2]);
}
