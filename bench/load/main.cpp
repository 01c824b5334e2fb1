// The load program: measures one daemon in one cell of the table.
//   relay_load --daemon relay --address 127.0.0.1 --port 4000 ...
// It prints "ready" when the daemon may be started, reads the daemon's process id from standard
// input, and prints its results as lines of JSON.
#include <sys/resource.h>

#include <csignal>
#include <cstdio>

#include "bench/load/admission_cell.h"
#include "bench/load/give_up.h"
#include "bench/load/make_adapter.h"
#include "bench/load/make_udp_adapter.h"
#include "bench/load/options.h"
#include "bench/load/reconnect_cell.h"
#include "bench/load/tcp_cell.h"
#include "bench/load/udp_cell.h"

namespace {

void raiseDescriptorLimit() {
    rlimit rlLimit{};
    if (getrlimit(RLIMIT_NOFILE, &rlLimit) == 0) {
        rlLimit.rlim_cur = rlLimit.rlim_max;
        (void)setrlimit(RLIMIT_NOFILE, &rlLimit);
    }
}

pid_t nReadPid() {
    int nPid = 0;
    if (std::scanf("%d", &nPid) != 1 || std::getchar() != '\n' || nPid <= 0) {
        Load::giveUp("expected a process id on standard input");
    }
    return nPid;
}

/// Runs from before the daemon starts to the last result.
template <class Cell, class AdapterOfCell>
void measure(const Load::Options& options, AdapterOfCell& rAdapter) {
    rAdapter.prepare();
    std::puts("ready");
    std::fflush(stdout);
    const pid_t nPid = nReadPid();
    rAdapter.awaitDaemon();
    Cell(options, rAdapter, nPid).run();
}

}  // namespace

int main(int argc, char** argv) {
    Load::Options options;
    if (!Load::bParseOptions(argc, argv, options)) {
        return 2;
    }
    raiseDescriptorLimit();
    std::signal(SIGPIPE, SIG_IGN);
    if (options.sCell == "tcp") {
        measure<Load::TcpCell>(options, *Load::makeAdapter(options));
    } else if (options.sCell == "admission") {
        measure<Load::AdmissionCell>(options, *Load::makeAdapter(options));
    } else if (options.sCell == "reconnect") {
        measure<Load::ReconnectCell>(options, *Load::makeAdapter(options));
    } else if (options.sCell == "udp") {
        measure<Load::UdpCell>(options, *Load::makeUdpAdapter(options));
    } else {
        Load::giveUp("no such kind of cell: '%s'", options.sCell.c_str());
    }
    return 0;
}
