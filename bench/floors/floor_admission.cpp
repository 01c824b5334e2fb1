// A floor: the least that a relay can do to admit clients. Accepts, reads a log-in, decrypts and
// checks its ticket, answers. With a certificate and its key, over TLS.
//   floor_admission ADDRESS PORT [CERTIFICATE KEY]
#define OPENSSL_SUPPRESS_DEPRECATED
#include <sys/epoll.h>

#include <algorithm>
#include <array>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <string_view>

#include "bench/floors/plain_io.h"
#include "bench/floors/ticket.h"
#include "bench/floors/ticket_key.h"
#include "bench/floors/tls_io.h"

namespace {

using namespace std::string_view_literals;

/// A relay's answer, byte for byte: type 0, sender 1000, no destination, "1000" and "OK".
constexpr std::string_view kAnswer =
    "\x09\x00\xE8\x03\x00\x00\x00\x00\x00\x00"
    "1000~OK~"sv;

DES_key_schedule makeSchedule() {
    DES_cblock dcbKey;
    std::copy(Floor::kTicketKey.begin(), Floor::kTicketKey.end(), dcbKey);
    DES_key_schedule schedule;
    DES_set_key_unchecked(&dcbKey, &schedule);
    return schedule;
}

template <class Io>
void admitOne(Io& rIo, int fd, DES_key_schedule& rSchedule) {
    static std::array<char, 1024> achInput;
    const ssize_t nRead = rIo.nRead(fd, achInput.data(), achInput.size());
    if (nRead <= 0) {
        return;
    }
    const std::string_view svInput(achInput.data(), static_cast<std::size_t>(nRead));
    if (Floor::nWholeFrame(svInput) != svInput.size() || !Floor::bAdmits(svInput, rSchedule)) {
        std::fprintf(stderr, "missing or invalid ticket\n");
        std::exit(EXIT_FAILURE);
    }
    rIo.sendAll(fd, kAnswer);
}

template <class Io>
[[noreturn]] void serve(Io& rIo, const char* sAddress, const char* sPort) {
    const int fdListener = Floor::fdListenAt(sAddress, sPort);
    const int fdEpoll = epoll_create1(0);
    Floor::watch(fdEpoll, fdListener);
    DES_key_schedule schedule = makeSchedule();
    static std::array<epoll_event, 1024> events;
    while (true) {
        const int nReady = epoll_wait(fdEpoll, events.data(), static_cast<int>(events.size()), -1);
        for (int i = 0; i < nReady; ++i) {
            const int fd = events[static_cast<std::size_t>(i)].data.fd;
            if (fd != fdListener) {
                admitOne(rIo, fd, schedule);
                continue;
            }
            for (int fdNew; (fdNew = Floor::fdAcceptOne(fdListener)) >= 0;) {
                rIo.take(fdNew);
                Floor::watch(fdEpoll, fdNew);
            }
        }
    }
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 3 && argc != 5) {
        return 2;
    }
    std::signal(SIGPIPE, SIG_IGN);
    if (argc == 5) {
        Floor::TlsIo io(argv[3], argv[4]);
        serve(io, argv[1], argv[2]);
    }
    Floor::PlainIo<1024> io;
    serve(io, argv[1], argv[2]);
}
