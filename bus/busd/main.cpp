/// tarn-busd, the bundled bus daemon: options, signals, and the life of its socket.
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <exception>
#include <getopt.h>
#include <stdexcept>
#include <string>
#include <sys/resource.h>
#include <sys/signalfd.h>

#include "listener.h"
#include "server.h"

namespace {

constexpr int exit_failure = 1;
constexpr int exit_usage = 2;

void print_usage(std::FILE* to) {
    std::fprintf(to,
                 "Usage: tarn-busd [-s SOCKET]\n"
                 "The message bus daemon of libtarn's bundled bus.\n"
                 "\n"
                 "  -s SOCKET   listen on this path (default: %s)\n"
                 "  -h, --help  show this help\n"
                 "  --version   show the version\n",
                 TARN_BUS_SOCKET);
}

// Every client costs a descriptor, and the usual soft limit is made for programs that use
// select(), which this one does not.
void raise_descriptor_limit() {
    rlimit limit{};
    if (::getrlimit(RLIMIT_NOFILE, &limit) == 0 && limit.rlim_cur < limit.rlim_max) {
        limit.rlim_cur = limit.rlim_max;
        ::setrlimit(RLIMIT_NOFILE, &limit);
    }
}

// From here on SIGINT and SIGTERM are read from the returned descriptor.
busd::descriptor take_stop_signals() {
    sigset_t stopping;
    sigemptyset(&stopping);
    sigaddset(&stopping, SIGINT);
    sigaddset(&stopping, SIGTERM);
    ::sigprocmask(SIG_BLOCK, &stopping, nullptr);
    busd::descriptor made(::signalfd(-1, &stopping, SFD_CLOEXEC | SFD_NONBLOCK));
    if (!made) {
        throw std::runtime_error(std::string("signalfd: ") + std::strerror(errno));
    }
    return made;
}

void serve(const std::string& path) {
    raise_descriptor_limit();
    // Before the socket appears, so that no signal can leave it behind.
    const busd::descriptor stop = take_stop_signals();
    const busd::listener listening(path);
    busd::server server(listening.fd(), stop.get());
    std::printf("tarn-busd: listening on %s\n", path.c_str());
    std::fflush(stdout);
    server.run();
}

} // namespace

int main(int argc, char** argv) {
    std::string path = TARN_BUS_SOCKET;
    constexpr int version_option = 'v';
    const option long_options[] = {{"help", no_argument, nullptr, 'h'},
                                   {"version", no_argument, nullptr, version_option},
                                   {nullptr, 0, nullptr, 0}};
    int given = 0;
    while ((given = ::getopt_long(argc, argv, "s:h", long_options, nullptr)) != -1) {
        switch (given) {
        case 's':
            path = optarg;
            break;
        case 'h':
            print_usage(stdout);
            return 0;
        case version_option:
            std::puts("tarn-busd " TARN_VERSION);
            return 0;
        default:
            print_usage(stderr);
            return exit_usage;
        }
    }
    if (optind < argc) {
        std::fprintf(stderr, "tarn-busd: unexpected argument '%s'\n", argv[optind]);
        print_usage(stderr);
        return exit_usage;
    }
    try {
        serve(path);
        return 0;
    } catch (const std::exception& error) {
        std::fprintf(stderr, "tarn-busd: %s\n", error.what());
        return exit_failure;
    }
}
