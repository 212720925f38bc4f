// kobreportd: receives the problem reports kobdiag uploads, keeps them, and
// shows them to support staff.

#include <csignal>
#include <unistd.h>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <pthread.h>
#include <string>
#include <thread>

#include "server.h"
#include "store.h"

namespace {

int usage() {
    std::fprintf(stderr, "usage: kobreportd --listen ADDR:PORT --db PATH_OR_URL "
                         "[--max-body BYTES]\n"
                         "                  [--read-timeout SECONDS] [--request-timeout "
                         "SECONDS] [--threads N]\n");
    return 1;
}

bool number(const char *s, unsigned long long max, unsigned long long &out) {
    if (!*s)
        return false;
    char *end = nullptr;
    errno = 0;
    unsigned long long v = std::strtoull(s, &end, 10);
    if (*end || errno || v > max || s[0] == '-')
        return false;
    out = v;
    return true;
}

// "127.0.0.1:8080", "[::1]:8080" or "localhost:0" (0: any free port).
bool splitListen(const std::string &s, std::string &host, int &port) {
    auto colon = s.rfind(':');
    if (colon == std::string::npos || colon == 0)
        return false;
    host = s.substr(0, colon);
    if (host.size() > 2 && host.front() == '[' && host.back() == ']')
        host = host.substr(1, host.size() - 2);
    unsigned long long p;
    if (!number(s.c_str() + colon + 1, 65535, p))
        return false;
    port = static_cast<int>(p);
    return true;
}

} // namespace

int main(int argc, char *argv[]) {
    std::string listen, db;
    kobreportd::Limits limits;
    for (int i = 1; i < argc; i++) {
        std::string a = argv[i];
        if (i + 1 >= argc)
            return usage();
        const char *v = argv[++i];
        unsigned long long n;
        if (a == "--listen")
            listen = v;
        else if (a == "--db")
            db = v;
        else if (a == "--max-body" && number(v, 1ull << 40, n) && n > 0)
            limits.max_body = n;
        else if (a == "--read-timeout" && number(v, 3600, n) && n > 0)
            limits.read_timeout_s = static_cast<int>(n);
        else if (a == "--request-timeout" && number(v, 86400, n) && n > 0)
            limits.request_timeout_s = static_cast<int>(n);
        else if (a == "--threads" && number(v, 1024, n) && n > 0)
            limits.threads = static_cast<int>(n);
        else
            return usage();
    }
    std::string host;
    int port = 0;
    if (listen.empty() || db.empty() || !splitListen(listen, host, port))
        return usage();

    // Writes to clients that went away must fail, not end the server.
    std::signal(SIGPIPE, SIG_IGN);
    // The workers inherit this mask; only the waiting thread below takes
    // SIGINT and SIGTERM, and it stops the server in an orderly way.
    sigset_t stopSignals;
    sigemptyset(&stopSignals);
    sigaddset(&stopSignals, SIGINT);
    sigaddset(&stopSignals, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &stopSignals, nullptr);

    std::unique_ptr<kobreportd::Store> store;
    try {
        if (db.rfind("postgresql://", 0) == 0 || db.rfind("postgres://", 0) == 0)
            store = kobreportd::openPostgres(db);
        else
            store = kobreportd::openSqlite(db);
    } catch (const kobreportd::StoreError &e) {
        std::fprintf(stderr, "kobreportd: %s\n", e.what());
        return 1;
    }

    kobreportd::IntakeServer svr(*store, limits);
    if (port == 0) {
        port = svr.bind_to_any_port(host);
        if (port < 0) {
            std::fprintf(stderr, "kobreportd: cannot listen on %s\n", listen.c_str());
            return 1;
        }
    } else if (!svr.bind_to_port(host, port)) {
        std::fprintf(stderr, "kobreportd: cannot listen on %s: %s\n", listen.c_str(),
                     std::strerror(errno));
        return 1;
    }

    svr.widenBacklog();
    svr.warmUp();

    std::thread stopper([&svr, stopSignals] {
        int sig = 0;
        sigwait(&stopSignals, &sig);
        svr.stop();
    });

    std::string shown = host.find(':') != std::string::npos ? "[" + host + "]" : host;
    std::printf("kobreportd: serving http://%s:%d/\n", shown.c_str(), port);
    std::fflush(stdout);
    bool ok = svr.listen_after_bind();
    // The server may only go once the stopping thread is done with it; wake
    // that thread if the server ended for another reason.  Every thread
    // blocks SIGTERM, so the signal goes to the one waiting for it.
    kill(getpid(), SIGTERM);
    stopper.join();
    return ok ? 0 : 1;
}
