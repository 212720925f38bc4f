// kobreportd: receives the problem reports kobdiag uploads, keeps them, and
// shows them to signed-in support staff on a listener of their own.

#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <pthread.h>
#include <string>
#include <thread>
#include <unistd.h>
#include <vector>

#include "accounts.h"
#include "alerts.h"
#include "audit.h"
#include "clock.h"
#include "commands.h"
#include "fleet.h"
#include "intake.h"
#include "retention.h"
#include "staff.h"
#include "store.h"

namespace {

using namespace kobreportd;

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

std::string shownHost(const std::string &host) {
    return host.find(':') != std::string::npos ? "[" + host + "]" : host;
}

// Binds to host:port (port 0: any); returns the port, or -1.
int bindServer(httplib::Server &svr, const std::string &host, int port) {
    if (port == 0)
        return svr.bind_to_any_port(host);
    return svr.bind_to_port(host, port) ? port : -1;
}

} // namespace

int main(int argc, char *argv[]) {
    if (argc > 1 && argv[1][0] != '-')
        return command(std::vector<std::string>(argv + 1, argv + argc));

    std::string listen, staffListen, db, webhook;
    int alertCheck = 60, minSenders = 5;
    std::string targets;
    Limits limits;
    StaffOptions staff;
    for (int i = 1; i < argc; i++) {
        std::string a = argv[i];
        if (i + 1 >= argc)
            return usage();
        const char *v = argv[++i];
        unsigned long long n;
        if (a == "--listen")
            listen = v;
        else if (a == "--staff-listen")
            staffListen = v;
        else if (a == "--db")
            db = v;
        else if (a == "--alert-webhook" && (std::string(v).rfind("http://", 0) == 0 ||
                                            std::string(v).rfind("https://", 0) == 0))
            webhook = v;
        else if (a == "--alert-check" && number(v, 86400, n) && n > 0)
            alertCheck = static_cast<int>(n);
        else if (a == "--alert-min-senders" && number(v, 1000000, n) && n > 0)
            minSenders = static_cast<int>(n);
        else if (a == "--targets")
            targets = v;
        else if (a == "--tls-cert")
            staff.tls_cert = v;
        else if (a == "--tls-key")
            staff.tls_key = v;
        else if (a == "--retain-days" && number(v, 100000, n))
            staff.retain_days = static_cast<int>(n);
        else if (a == "--rate" && number(v, 1000000, n))
            limits.rate_per_minute = static_cast<int>(n);
        else if (a == "--max-inflight" && number(v, 100000, n) && n > 0)
            limits.max_inflight = static_cast<int>(n);
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
    std::string host, staffHost;
    int port = 0, staffPort = 0;
    if (listen.empty() || db.empty() || !splitListen(listen, host, port) ||
        (!staffListen.empty() && !splitListen(staffListen, staffHost, staffPort)) ||
        staff.tls_cert.empty() != staff.tls_key.empty() ||
        (!staff.tls_cert.empty() && staffListen.empty()))
        return usage();

    // Writes to clients that went away must fail, not end the server.
    std::signal(SIGPIPE, SIG_IGN);
    // The workers inherit this mask; only the waiting thread below takes
    // SIGINT and SIGTERM, and it stops the servers in an orderly way.
    sigset_t stopSignals;
    sigemptyset(&stopSignals);
    sigaddset(&stopSignals, SIGINT);
    sigaddset(&stopSignals, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &stopSignals, nullptr);

    if (testClock())
        std::fprintf(stderr, "kobreportd: the time comes from KOBREPORTD_TEST_CLOCK\n");

    // Before any thread: the fleet's targets and how many networks make
    // a target broken.
    FleetPolicy policy = FleetPolicy::builtIn();
    if (!targets.empty()) {
        std::string error;
        auto fromFile = FleetPolicy::fromFile(targets, error);
        if (!fromFile)
            return fail(error);
        policy = std::move(*fromFile);
    }
    policy.min_senders = minSenders;
    setFleetPolicy(std::move(policy));

    std::unique_ptr<sql::Db> database;
    std::unique_ptr<Store> store;
    std::unique_ptr<Audit> audit;
    std::unique_ptr<Accounts> accounts;
    std::unique_ptr<RetentionTask> retention;
    try {
        database = openDatabase(db);
        store = std::make_unique<Store>(*database);
        audit = std::make_unique<Audit>(*database);
        accounts = std::make_unique<Accounts>(*database, *audit);
        retention = std::make_unique<RetentionTask>(*store, *audit, staff.retain_days);
    } catch (const StoreError &e) {
        return fail(e.what());
    }

    Metrics metrics;
    AlertTask alerts(*database, metrics, webhook, alertCheck);
    IntakeServer svr(*store, limits, metrics);
    port = bindServer(svr, host, port);
    if (port < 0)
        return fail("cannot listen on " + listen + ": " + std::strerror(errno));
    svr.widenBacklog();
    svr.warmUp();

    std::unique_ptr<StaffServer> staffSvr;
    if (!staffListen.empty()) {
        staff.threads = std::min(limits.threads, 16);
        std::string error;
        staffSvr = makeStaffServer(staff, *store, *accounts, *audit, metrics, error);
        if (!staffSvr)
            return fail(error);
        staffPort = bindServer(*staffSvr->http, staffHost, staffPort);
        if (staffPort < 0)
            return fail("cannot listen on " + staffListen + ": " + std::strerror(errno));
    }

    std::thread stopper([&svr, &staffSvr, stopSignals] {
        int sig = 0;
        sigwait(&stopSignals, &sig);
        svr.stop();
        if (staffSvr)
            staffSvr->http->stop();
    });
    std::thread staffThread;
    if (staffSvr)
        staffThread = std::thread([&staffSvr] { staffSvr->http->listen_after_bind(); });

    std::string ready =
        "kobreportd: intake on http://" + shownHost(host) + ":" + std::to_string(port) + "/";
    if (staffSvr)
        ready += "; staff on " + std::string(staff.tls_cert.empty() ? "http" : "https") + "://" +
                 shownHost(staffHost) + ":" + std::to_string(staffPort) + "/";
    std::printf("%s\n", ready.c_str());
    std::fflush(stdout);
    bool ok = svr.listen_after_bind();
    // The servers may only go once the stopping thread is done with them;
    // wake that thread if the intake ended for another reason.  Every
    // thread blocks SIGTERM, so the signal goes to the one waiting for it.
    kill(getpid(), SIGTERM);
    stopper.join();
    if (staffThread.joinable())
        staffThread.join();
    return ok ? 0 : 1;
}
