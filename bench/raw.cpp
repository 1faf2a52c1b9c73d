// What the machine can do without Kesa: the limits that the benchmark of calls is measured against.
//     kesa_bench_raw [seconds per line]
#include "floors.h"

#include <fmt/format.h>

#include <cstdlib>

namespace {

void print(const char* what, const bench::Measured& measured)
{
    fmt::print("{:<44} {:>9.1f} us {:>9.1f} us {:>11.0f}/s {:>9.1f} us\n", what, measured.medianNs / 1e3,
               measured.p99Ns / 1e3, measured.perSecond, measured.cpuNsPerOp / 1e3);
}

} // namespace

int main(int argc, char** argv)
{
    const double seconds = argc > 1 ? std::atof(argv[1]) : 1.0;
    fmt::print("{:<44} {:>12} {:>12} {:>13} {:>12}\n", "two processes, Unix stream socket, 64 bytes", "median", "p99",
               "rate", "CPU of both");
    print("(1)  blocking ping-pong", bench::blockingPingPong(seconds));
    print("(2)  I/O thread, handed over to the caller", bench::handedOverCall(seconds));
    print("(2c) one loop on each side", bench::callOnOneLoop(seconds));
    print("(3)  64 outstanding, a write per message", bench::outstandingCalls(seconds));
    print("(3b) 64 outstanding, coalesced", bench::outstandingCallsCoalesced(seconds));
    print("(3m) 1 MiB ping-pong", bench::largeMessages(seconds));
    print("connect and two round trips", bench::connectAndTwoRoundTrips(seconds));
    print("pushed stream, a write per message", bench::pushedStream(seconds));
    return 0;
}
