// kobreportd: receives the problem reports kobdiag uploads, keeps them, and
// shows them to signed-in support staff on a listener of their own.

#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <pthread.h>
#include <string>
#include <termios.h>
#include <thread>
#include <unistd.h>
#include <vector>

#include "accounts.h"
#include "alerts.h"
#include "audit.h"
#include "clock.h"
#include "fleet.h"
#include "intake.h"
#include "kobrules.h"
#include "retention.h"
#include "staff.h"
#include "store.h"

namespace {

using namespace kobreportd;

int usage() {
    std::fprintf(
        stderr,
        "usage: kobreportd --listen ADDR:PORT --db PATH_OR_URL [--staff-listen ADDR:PORT]\n"
        "                  [--tls-cert FILE --tls-key FILE] [--retain-days N]\n"
        "                  [--rate PER_MINUTE] [--max-inflight N] [--max-body BYTES]\n"
        "                  [--read-timeout SECONDS] [--request-timeout SECONDS] [--threads N]\n"
        "                  [--alert-webhook URL] [--alert-check SECONDS]\n"
        "       kobreportd user add NAME --role viewer|admin --db PATH_OR_URL\n"
        "       kobreportd user del NAME --db PATH_OR_URL\n"
        "       kobreportd user list --db PATH_OR_URL\n"
        "       kobreportd token add NAME [--role viewer|admin] --db PATH_OR_URL\n"
        "       kobreportd token del NAME --db PATH_OR_URL\n"
        "       kobreportd token list --db PATH_OR_URL\n"
        "       kobreportd purge --older-than DAYS --db PATH_OR_URL\n"
        "       kobreportd retriage --db PATH_OR_URL\n");
    return 1;
}

int fail(const std::string &what) {
    std::fprintf(stderr, "kobreportd: %s\n", what.c_str());
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

std::string shownHost(const std::string &host) {
    return host.find(':') != std::string::npos ? "[" + host + "]" : host;
}

// Binds to host:port (port 0: any); returns the port, or -1.
int bindServer(httplib::Server &svr, const std::string &host, int port) {
    if (port == 0)
        return svr.bind_to_any_port(host);
    return svr.bind_to_port(host, port) ? port : -1;
}

// The password comes from standard input, never from the command line: at
// a terminal it is asked for twice without echo, else it is the first line.
bool readPassword(std::string &out) {
    auto line = [](std::string &s) {
        if (!std::getline(std::cin, s))
            return false;
        if (!s.empty() && s.back() == '\r')
            s.pop_back();
        return true;
    };
    if (!isatty(0))
        return line(out);
    termios old{};
    tcgetattr(0, &old);
    termios quiet = old;
    quiet.c_lflag &= ~static_cast<tcflag_t>(ECHO);
    tcsetattr(0, TCSAFLUSH, &quiet);
    std::string again;
    std::fprintf(stderr, "Password: ");
    bool ok = line(out);
    std::fprintf(stderr, "\nAgain: ");
    ok = ok && line(again);
    std::fprintf(stderr, "\n");
    tcsetattr(0, TCSAFLUSH, &old);
    if (ok && out != again) {
        std::fprintf(stderr, "kobreportd: the two passwords differ\n");
        return false;
    }
    return ok;
}

// Re-judges every stored report that older rules judged, batch by batch.
// Each batch is committed on its own, so a run that is stopped goes on
// where it stood when started again.
int retriage(Store &store, Audit &audit, const char *who) {
    using Clock = std::chrono::steady_clock;
    int rules = kobtriage::rulesVersion();
    auto before = store.countByRules(rules);
    std::fprintf(stderr, "retriage: %lld reports to re-judge with rules version %d\n",
                 static_cast<long long>(before.older), rules);
    auto start = Clock::now(), shown = start;
    int64_t done = 0, after = 0;
    auto seconds = [&start] { return std::chrono::duration<double>(Clock::now() - start).count(); };
    for (;;) {
        auto step = store.retriage(after, rules, triage);
        done += step.retriaged;
        after = step.last_id;
        if (!step.more || Clock::now() - shown >= std::chrono::seconds(1)) {
            shown = Clock::now();
            double s = seconds();
            std::fprintf(stderr, "retriage: %lld of %lld reports, %.0f reports/s\n",
                         static_cast<long long>(done), static_cast<long long>(before.older),
                         s > 0 ? static_cast<double>(done) / s : 0.0);
        }
        if (!step.more)
            break;
    }
    audit.record(who, "", "reports.retriaged", "",
                 std::to_string(done) + " to rules version " + std::to_string(rules));
    std::printf("%lld %s re-judged with rules version %d in %.1f s", static_cast<long long>(done),
                done == 1 ? "report" : "reports", rules, seconds());
    if (before.expired)
        std::printf("; %lld kept as they were (raw text expired)",
                    static_cast<long long>(before.expired));
    std::printf("\n");
    return 0;
}

// user ..., token ..., purge ..., retriage: one change to the database, then
// exit.
int command(const std::vector<std::string> &args) {
    std::string db, role, olderThan;
    std::vector<std::string> words;
    for (size_t i = 0; i < args.size(); i++) {
        if ((args[i] == "--db" || args[i] == "--role" || args[i] == "--older-than") &&
            i + 1 < args.size()) {
            (args[i] == "--db" ? db : args[i] == "--role" ? role : olderThan) = args[i + 1];
            i++;
        } else if (args[i].rfind("--", 0) == 0) {
            return usage();
        } else {
            words.push_back(args[i]);
        }
    }
    if (db.empty() || words.empty())
        return usage();
    const std::string &what = words[0];
    std::string verb = words.size() > 1 ? words[1] : "";
    std::string name = words.size() > 2 ? words[2] : "";
    bool named = words.size() == 3 && (verb == "add" || verb == "del");
    bool listing = words.size() == 2 && verb == "list";
    if (what == "retriage" ? words.size() != 1 || !olderThan.empty()
        : what == "purge"  ? words.size() != 1 || olderThan.empty()
                           : (what != "user" && what != "token") || !(named || listing))
        return usage();
    if (!role.empty() && !(named && verb == "add"))
        return usage();
    std::optional<Role> r = parseRole(role.empty() ? "viewer" : role);
    if (!r || (what == "user" && verb == "add" && role.empty()))
        return usage();
    if (named && !Accounts::validName(name))
        return fail("a name is 1 to 64 letters, digits, '.', '_', '-' or '@'");
    unsigned long long days = 0;
    if (what == "purge" && !number(olderThan.c_str(), 1000000, days))
        return usage();

    std::string password;
    if (what == "user" && verb == "add") {
        if (!readPassword(password))
            return fail("no password on standard input");
        if (password.size() < 12)
            return fail("a password needs 12 or more characters");
    }
    try {
        auto database = openDatabase(db);
        Store store(*database);
        Audit audit(*database);
        Accounts accounts(*database, audit);
        const char *who = "kobreportd (command line)";
        if (what == "retriage")
            return retriage(store, audit, who);
        if (what == "purge") {
            int64_t n = expireOldReports(store, audit, static_cast<int>(days), who);
            std::printf("%lld %s expired\n", static_cast<long long>(n),
                        n == 1 ? "report" : "reports");
            return 0;
        }
        if (listing) {
            for (const auto &a : what == "user" ? accounts.users() : accounts.tokens())
                std::printf("%s\t%s\n", a.name.c_str(), roleName(a.role));
            return 0;
        }
        if (verb == "add" && what == "user") {
            accounts.addUser(name, *r, password);
            audit.record(who, "", "user.added", "", name + " (" + roleName(*r) + ")");
        } else if (verb == "add") {
            std::string token = accounts.addToken(name, *r);
            audit.record(who, "", "token.added", "", name + " (" + roleName(*r) + ")");
            std::printf("%s\n", token.c_str());
        } else {
            bool found = what == "user" ? accounts.deleteUser(name) : accounts.deleteToken(name);
            if (!found)
                return fail("no " + what + " " + name);
            audit.record(who, "", what + ".deleted", "", name);
        }
        return 0;
    } catch (const StoreError &e) {
        return fail(e.what());
    }
}

} // namespace

int main(int argc, char *argv[]) {
    if (argc > 1 && argv[1][0] != '-')
        return command(std::vector<std::string>(argv + 1, argv + argc));

    std::string listen, staffListen, db, webhook;
    int alertCheck = 60;
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
