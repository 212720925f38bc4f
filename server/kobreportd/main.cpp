// kobreportd: receives the problem reports kobdiag uploads, keeps them, and
// shows them to signed-in support staff on a listener of their own.

#include <atomic>
#include <mutex>
#include <utility>
#include <chrono>
#include <cmath>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <memory>
#include <sys/resource.h>
#include <pthread.h>
#include <string>
#include <thread>
#include <unistd.h>
#include <vector>

#include "accounts.h"
#include "alerts.h"
#include "auth_proxy.h"
#include "networks.h"
#include "webhook.h"
#include "audit.h"
#include "clock.h"
#include "commands.h"
#include "passwords.h"
#include "fleet.h"
#include "health.h"
#include "intake.h"
#include "log.h"
#include "metrics.h"
#include "migrations.h"
#include "proxies.h"
#include "public_url.h"
#include "quotas.h"
#include "retention.h"
#include "routes.h"
#include "second_factor.h"
#include "server.h"
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

bool readFile(const std::string &path, std::string &out) {
    std::ifstream in(path, std::ios::binary);
    if (!in)
        return false;
    out.assign(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
    return true;
}

// Every connection costs descriptors; the soft limit is raised as far as
// the hard one allows, so that the default connection cap follows the
// unit's LimitNOFILE.
void raiseFileLimit() {
    struct rlimit rl {};
    if (getrlimit(RLIMIT_NOFILE, &rl) == 0 && rl.rlim_cur < rl.rlim_max) {
        rl.rlim_cur = std::min<rlim_t>(rl.rlim_max, 1u << 20);
        setrlimit(RLIMIT_NOFILE, &rl);
    }
}

// The route table of both listeners, printed for the tests that walk it:
// made over a database in memory, whose handlers are never called.
int printRoutes() {
    auto database = openDatabase(":memory:");
    Store store(*database);
    Audit audit(*database);
    Accounts accounts(*database, audit);
    Metrics metrics;
    Guard guard(accounts, false);
    Intake intake(store, Limits{}, metrics);
    Staff staff(store, accounts, audit, metrics, guard, false, 90);
    Health health(*database, nullptr);
    SecondFactors factors(*database, audit, "");
    staff.useSecondFactors(factors, SecondFactorRule::Optional);
    RouteTable table;
    intake.addRoutes(table);
    health.addRoutes(table);
    staff.addPageRoutes(table);
    staff.addApiRoutes(table);
    std::fputs(table.text().c_str(), stdout);
    return 0;
}

// What the server is started with.
struct Settings {
    std::string listen, staffListen, db, webhook, webhookSecret, targets, publicUrl,
        commonPasswords, ticketUrl;
    std::string asnDb, countryDb;
    int alertCheck = 60, minSenders = 5, minBaseline = 20;
    Limits limits;
    StaffOptions staff;
    QuotaOptions quotas;
    TrustedProxies proxies;
    bool proxyIntake = false, proxyStaff = false; // PROXY prefaces expected
    bool accessLog = false;
    log::Level logLevel = log::Level::Info;
    SecondFactorRule secondFactors = SecondFactorRule::Optional;
    std::string secondFactorKey;
    AuthProxyOptions authProxy;
};

// The TOTP secrets' key: beside an SQLite database, else in the working
// directory (the service's state directory).
std::string secondFactorKeyFile(const Settings &o, const sql::Db &db) {
    if (!o.secondFactorKey.empty())
        return o.secondFactorKey;
    std::string file = db.file();
    auto slash = file.rfind('/');
    return slash == std::string::npos ? "second-factor.key"
                                      : file.substr(0, slash + 1) + "second-factor.key";
}

// The --auth-proxy-* options go with the header's, and the header is
// believed only from the proxies named: 0 when so, else the exit status
// after saying why.
int checkProxySignIn(const Settings &o) {
    const AuthProxyOptions &a = o.authProxy;
    if (a.user_header.empty())
        return a.autocreate || !a.email_header.empty() || !a.role_header.empty() ? usage() : 0;
    if (o.proxies.empty() || o.staffListen.empty())
        return fail("--auth-proxy-header needs --staff-listen and --trusted-proxy: the header is "
                    "believed only from the proxies named there");
    return 0;
}

// "5" or "5%" of the disk, below 100.
bool percent(std::string v, double &out) {
    if (!v.empty() && v.back() == '%')
        v.pop_back();
    unsigned long long n;
    if (!number(v.c_str(), 99, n))
        return false;
    out = static_cast<double>(n) / 100;
    return true;
}

// The server's options; false for anything else.
bool parseOptions(int argc, char *argv[], Settings &o) {
    for (int i = 1; i < argc; i++) {
        std::string a = argv[i];
        if (a == "--access-log") {
            o.accessLog = true;
            continue;
        }
        if (a == "--auth-proxy-autocreate") {
            o.authProxy.autocreate = true;
            continue;
        }
        if (i + 1 >= argc)
            return false;
        const char *v = argv[++i];
        unsigned long long n;
        if (a == "--listen")
            o.listen = v;
        else if (a == "--staff-listen")
            o.staffListen = v;
        else if (a == "--db")
            o.db = v;
        else if (a == "--alert-webhook" && (std::string(v).rfind("http://", 0) == 0 ||
                                            std::string(v).rfind("https://", 0) == 0))
            o.webhook = v;
        else if (a == "--alert-webhook-secret")
            o.webhookSecret = v;
        else if (a == "--alert-check" && number(v, 86400, n) && n > 0)
            o.alertCheck = static_cast<int>(n);
        else if (a == "--alert-min-senders" && number(v, 1000000, n) && n > 0)
            o.minSenders = static_cast<int>(n);
        else if (a == "--alert-min-baseline" && number(v, 100000000, n))
            o.minBaseline = static_cast<int>(n);
        else if (a == "--targets")
            o.targets = v;
        else if (a == "--common-passwords")
            o.commonPasswords = v;
        else if (a == "--asn-db")
            o.asnDb = v;
        else if (a == "--country-db")
            o.countryDb = v;
        else if (a == "--public-url")
            o.publicUrl = v;
        else if (a == "--ticket-url" && validTicketPattern(v))
            o.ticketUrl = v;
        else if (a == "--tls-cert")
            o.staff.tls_cert = v;
        else if (a == "--tls-key")
            o.staff.tls_key = v;
        else if (a == "--retain-days" && number(v, 100000, n))
            o.staff.retain_days = static_cast<int>(n);
        else if (a == "--rate" && number(v, 1000000, n))
            o.limits.rate_per_minute = static_cast<int>(n);
        else if (a == "--max-inflight" && number(v, 100000, n) && n > 0)
            o.limits.max_inflight = static_cast<int>(n);
        else if (a == "--max-body" && number(v, 1ull << 40, n) && n > 0)
            o.limits.max_body = n;
        else if (a == "--read-timeout" && number(v, 3600, n) && n > 0)
            o.limits.read_timeout_s = static_cast<int>(n);
        else if (a == "--request-timeout" && number(v, 86400, n) && n > 0)
            o.limits.request_timeout_s = static_cast<int>(n);
        else if (a == "--threads" && number(v, 1024, n) && n > 0)
            o.limits.threads = static_cast<int>(n);
        else if (a == "--max-conns-per-address" && number(v, 1000000, n) && n > 0)
            o.limits.max_conns_per_address = static_cast<int>(n);
        else if (a == "--max-conns" && number(v, 1u << 20, n) && n > 0)
            o.limits.max_conns = static_cast<int>(n);
        else if (a == "--quota-per-address" && number(v, 1ull << 50, n))
            o.quotas.per_address_per_day = n;
        else if (a == "--max-db-size" && number(v, 1ull << 60, n))
            o.quotas.max_db_size = n;
        else if ((a == "--min-free-disk" && percent(v, o.quotas.min_free_disk)) ||
                 (a == "--trusted-proxy" && o.proxies.add(v)) ||
                 (a == "--log-level" && log::parseLevel(v, o.logLevel)))
            continue; // taken where they are read
        else if (a == "--require-2fa" && parseSecondFactorRule(v))
            o.secondFactors = *parseSecondFactorRule(v);
        else if (a == "--second-factor-key" && *v)
            o.secondFactorKey = v;
        else if (a == "--auth-proxy-header" && *v)
            o.authProxy.user_header = v;
        else if (a == "--auth-proxy-email-header" && *v)
            o.authProxy.email_header = v;
        else if (a == "--auth-proxy-role-header" && *v)
            o.authProxy.role_header = v;
        else if (a == "--proxy-protocol" && std::string(v) == "intake")
            o.proxyIntake = true;
        else if (a == "--proxy-protocol" && std::string(v) == "staff")
            o.proxyStaff = true;
        else
            return false;
    }
    return true;
}

// The database's file system for the scrape, when the probe can tell.
std::function<Metrics::DiskSpace()> diskSpace(sql::Db &database, const std::string &db) {
    return [probe = diskProbe(database, db)]() -> Metrics::DiskSpace {
        auto d = probe();
        if (!d.free_bytes || !d.total_bytes)
            return std::nullopt;
        return std::pair{*d.free_bytes, *d.total_bytes};
    };
}

// The webhook's secret and the network files; false with error set when
// one cannot be read.
bool readAlertFiles(const Settings &o, WebhookOptions &hook, Networks &networks,
                    std::string &error) {
    if (!o.webhookSecret.empty() && !readWebhookSecret(o.webhookSecret, hook.secret)) {
        error = "cannot read a secret from " + o.webhookSecret;
        return false;
    }
    return networks.open(o.asnDb, o.countryDb, error);
}

// Before any thread: the fleet's targets and how many networks make a
// target broken.  False with error set when the list cannot be read.
bool setFleet(const Settings &o, std::string &error) {
    FleetPolicy policy = FleetPolicy::builtIn();
    if (!o.targets.empty()) {
        auto fromFile = FleetPolicy::fromFile(o.targets, error);
        if (!fromFile)
            return false;
        policy = std::move(*fromFile);
    }
    policy.min_senders = o.minSenders;
    policy.min_baseline = o.minBaseline;
    setFleetPolicy(std::move(policy));
    return true;
}

EdgeLimits edgeLimits(const Limits &limits) {
    EdgeLimits edge;
    edge.read_timeout_s = limits.read_timeout_s;
    edge.request_timeout_s = limits.request_timeout_s;
    edge.max_conns_per_address = limits.max_conns_per_address;
    edge.max_conns = limits.max_conns;
    edge.max_body = limits.max_body;
    return edge;
}

ServerOptions intakeOptions(const Settings &o, const std::string &host, int port, Intake &intake) {
    ServerOptions io;
    io.listener = Listener::Intake;
    io.host = host;
    io.port = port;
    io.limits = edgeLimits(o.limits);
    io.workers = o.limits.threads;
    io.upload = intake.hooks();
    io.not_allowed_text = "Method not allowed: the report is sent with POST\n";
    io.proxies = o.proxies.empty() ? nullptr : &o.proxies;
    io.proxy_protocol = o.proxyIntake;
    return io;
}

ServerOptions staffOptions(const Settings &o, const std::string &host, int port, bool secure) {
    ServerOptions so;
    so.listener = Listener::Staff;
    so.host = host;
    so.port = port;
    so.limits = edgeLimits(o.limits);
    so.limits.max_body = size_t{64} * 1024; // forms are small
    so.workers = std::min(o.limits.threads, 16);
    so.close_each = false;
    so.default_headers = staffHeaders(secure);
    so.proxies = o.proxies.empty() ? nullptr : &o.proxies;
    so.proxy_protocol = o.proxyStaff;
    return so;
}

// Another instance on the same database may move it to a newer layout,
// whose rows this one cannot read: from then on both listeners answer 503
// instead of serving them, and the operator is told once.
// The layout is read at most once a second, not for every request: a
// flood of requests must not become a flood of queries.
std::function<std::optional<std::string>()> layoutGate(sql::Db &db) {
    struct Seen {
        std::mutex mutex;
        std::chrono::steady_clock::time_point next{};
        std::optional<int> newer;
        bool told = false;
    };
    auto seen = std::make_shared<Seen>();
    return [&db, seen]() -> std::optional<std::string> {
        std::optional<int> newer;
        bool tell = false;
        {
            std::lock_guard<std::mutex> hold(seen->mutex);
            auto t = std::chrono::steady_clock::now();
            if (!seen->newer && t >= seen->next) {
                seen->newer = newerLayout(db);
                seen->next = t + std::chrono::seconds(1);
            }
            newer = seen->newer;
            tell = newer && !std::exchange(seen->told, true);
        }
        if (!newer)
            return std::nullopt;
        if (tell)
            log::error("layout_newer",
                       {{"layout", *newer},
                        {"own_layout", currentLayout()},
                        {"message", newerLayoutMessage(*newer) + "; not serving until upgraded"}});
        return "Service unavailable: the database was upgraded to layout " +
               std::to_string(*newer) + " by a newer kobreportd; this one reads layout " +
               std::to_string(currentLayout()) + "\n";
    };
}

// Each request of a listener, counted under its route's pattern, and with
// --access-log written as one line: the route's pattern rather than the
// path, so that no query and no reference or name from the path is kept.
// This is the one line that names the client.
std::function<void(const Request &, const Route *, int, size_t, double)>
observer(Metrics &metrics, const char *listener, bool accessLog) {
    return [&metrics, listener, accessLog](const Request &req, const Route *route, int status,
                                           size_t bytes, double seconds) {
        metrics.request(listener, route ? route->pattern : "", status, seconds);
        if (accessLog)
            log::info("request", {{"listener", listener},
                                  {"method", req.method},
                                  {"route", route ? route->pattern : ""},
                                  {"status", status},
                                  {"bytes", bytes},
                                  {"duration_ms", std::round(seconds * 1e6) / 1e3},
                                  {"client", req.client_address}});
    };
}

// Reads the certificate and key files into the store the handshakes use.
bool loadCertificates(const StaffOptions &staff, Certificates &into) {
    std::string certPem, keyPem, error;
    return readFile(staff.tls_cert, certPem) && readFile(staff.tls_key, keyPem) &&
           into.load(certPem, keyPem, error);
}

// SIGHUP: a renewed certificate is read again; one that cannot be used is
// said so and the one in use kept, so that a mistake never stops TLS.  The
// other settings come from the command line and stay as they are.
void reload(const StaffOptions &staff, Certificates *certificates) {
    if (!certificates) {
        log::info("reload", {{"certificate", "none in use"}});
        return;
    }
    if (loadCertificates(staff, *certificates))
        log::info("reload", {{"certificate", staff.tls_cert}});
    else
        log::error("reload_failed", {{"certificate", staff.tls_cert},
                                     {"key", staff.tls_key},
                                     {"reason", "cannot use the certificate with the key; "
                                                "the one loaded before stays in use"}});
}

// SIGTERM or SIGINT: no new connections, ten seconds for the requests
// under way (an upload being received is answered, not cut), then out.
void stopServing(HttpServer &intake, HttpServer *staff, Health &health, int sig) {
    health.shuttingDown();
    log::info("stopping", {{"signal", sig == SIGTERM ? "SIGTERM" : "SIGINT"}});
    auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    bool done = intake.drain(deadline);
    if (staff)
        done = staff->drain(deadline) && done;
    intake.stop();
    if (staff)
        staff->stop();
    if (done)
        log::info("stopped");
    else
        log::warn("stopped", {{"reason", "requests still under way after 10 s were cut"}});
}

} // namespace

// What the options name, read before anything starts: the public URL, the
// proxy's sign-in, the alert and network files.  0, or the exit status.
int prepare(const Settings &o, PublicUrl &publicUrl, WebhookOptions &hook, Networks &networks) {
    if (!o.publicUrl.empty()) {
        std::string why;
        auto parsed = parsePublicUrl(o.publicUrl, why);
        if (!parsed)
            return fail(why + " (for example https://staff.example.net/kob/)");
        publicUrl = std::move(*parsed);
    }
    if (int status = checkProxySignIn(o))
        return status;
    hook = WebhookOptions{o.webhook, "", publicUrl.url};
    if (std::string why; !readAlertFiles(o, hook, networks, why))
        return fail(why);
    if ((o.proxyIntake || o.proxyStaff) && o.proxies.empty())
        return fail("--proxy-protocol needs --trusted-proxy: a preface is believed only from the "
                    "proxies named there");
    return 0;
}

int main(int argc, char *argv[]) {
    if (argc == 2 && std::string(argv[1]) == "routes")
        return printRoutes();
    if (argc == 2 && std::string(argv[1]) == "--version") {
        std::printf("kobreportd %s (database layout %d)\n", KOB_VERSION, currentLayout());
        return 0;
    }
    if (argc > 1 && argv[1][0] != '-')
        return command(std::vector<std::string>(argv + 1, argv + argc));

    Settings o;
    if (!parseOptions(argc, argv, o))
        return usage();
    const std::string &listen = o.listen, &staffListen = o.staffListen, &db = o.db;
    const Limits &limits = o.limits;
    const StaffOptions &staff = o.staff;
    std::string host, staffHost;
    int port = 0, staffPort = 0;
    if (listen.empty() || db.empty() || !splitListen(listen, host, port) ||
        (!staffListen.empty() && !splitListen(staffListen, staffHost, staffPort)) ||
        staff.tls_cert.empty() != staff.tls_key.empty() ||
        (!staff.tls_cert.empty() && staffListen.empty()) || (o.proxyStaff && staffListen.empty()) ||
        (!o.publicUrl.empty() && staffListen.empty()))
        return usage();
    PublicUrl publicUrl;
    WebhookOptions hook;
    Networks networks;
    if (int status = prepare(o, publicUrl, hook, networks))
        return status;

    // Writes to clients that went away must fail, not end the server.
    std::signal(SIGPIPE, SIG_IGN);
    // Every thread inherits this mask; only the main thread waits for
    // SIGINT and SIGTERM, and stops the servers in an orderly way, and for
    // SIGHUP, which reloads the certificate.
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGINT);
    sigaddset(&signals, SIGTERM);
    sigaddset(&signals, SIGHUP);
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);
    raiseFileLimit();

    log::setLevel(o.logLevel);
    if (testClock())
        log::warn("test_clock", {{"reason", "the time comes from KOBREPORTD_TEST_CLOCK"}});

    if (std::string error; !setFleet(o, error))
        return fail(error);
    std::string listError;
    auto passwordRules = PasswordRules::fromFile(
        o.commonPasswords.empty() ? PasswordRules::defaultPath() : o.commonPasswords, listError);
    if (!passwordRules)
        return fail(listError + "; name one with --common-passwords FILE");

    bool tls = !staff.tls_cert.empty();
    std::string badCert =
        "cannot use the certificate " + staff.tls_cert + " with the key " + staff.tls_key;
    Certificates certificates;
    if (tls && !loadCertificates(staff, certificates))
        return fail(badCert);

    // Before everything that counts into it, so that it outlives them.
    Metrics metrics;
    std::unique_ptr<sql::Db> database;
    std::unique_ptr<Store> store;
    std::unique_ptr<Audit> audit;
    std::unique_ptr<Accounts> accounts;
    std::unique_ptr<RetentionTask> retention;
    std::unique_ptr<Quotas> quotas;
    try {
        database = openDatabase(db);
        database->observe(
            [&metrics](double seconds, bool failed) { metrics.databaseCall(seconds, failed); });
        store = std::make_unique<Store>(*database);
        audit = std::make_unique<Audit>(*database);
        accounts = std::make_unique<Accounts>(*database, *audit);
        retention = std::make_unique<RetentionTask>(*store, *audit, staff.retain_days, &metrics);
        quotas = std::make_unique<Quotas>(o.quotas, diskProbe(*database, db));
        metrics.setBuild(KOB_VERSION, currentLayout());
        metrics.setStoreSize([probe = diskProbe(*database, db)] { return probe().db_bytes; });
        metrics.setWalSize(walProbe(*database, db));
        metrics.setDiskGuard(diskSpace(*database, db), o.quotas.min_free_disk,
                             o.quotas.max_db_size);
    } catch (const StoreError &e) {
        return fail(e.what());
    }

    AlertTask alerts(*database, metrics, std::move(hook), o.alertCheck);
    Health health(*database, quotas.get());
    Guard guard(*accounts, tls, publicUrl);
    guard.requireSecondFactor(o.secondFactors);
    AuthProxy authProxy(o.authProxy, o.proxies, *accounts, *audit);
    if (!o.authProxy.user_header.empty())
        guard.signInThroughProxy(&authProxy);
    SecondFactors factors(*database, *audit, secondFactorKeyFile(o, *database));
    Intake intake(*store, limits, metrics, quotas.get(), &networks);
    Staff staffSide(*store, *accounts, *audit, metrics, guard, tls, staff.retain_days);
    staffSide.setPasswordRules(std::move(*passwordRules));
    staffSide.useSecondFactors(factors, o.secondFactors);
    staffSide.setTicketUrl(o.ticketUrl);
    RouteTable table;
    intake.addRoutes(table);
    health.addRoutes(table);
    staffSide.addPageRoutes(table);
    staffSide.addApiRoutes(table);

    ServerOptions io = intakeOptions(o, host, port, intake);
    io.observed = observer(metrics, "intake", o.accessLog);
    io.unavailable = layoutGate(*database);
    HttpServer intakeServer(table, nullptr, io);
    std::string error;
    if (!intakeServer.start(error))
        return fail("cannot listen on " + listen + ": " + error);

    std::unique_ptr<HttpServer> staffServer;
    if (!staffListen.empty()) {
        ServerOptions so = staffOptions(o, staffHost, staffPort, guard.secure());
        so.observed = observer(metrics, "staff", o.accessLog);
        so.unavailable = io.unavailable;
        so.certificates = tls ? &certificates : nullptr;
        staffServer = std::make_unique<HttpServer>(table, &guard, so);
        if (!staffServer->start(error))
            return fail("cannot listen on " + staffListen + ": " + error);
        staffPort = staffServer->port();
    }

    std::string ready = "kobreportd: intake on http://" + shownHost(host) + ":" +
                        std::to_string(intakeServer.port()) + "/";
    if (staffServer)
        ready += "; staff on " + std::string(tls ? "https" : "http") + "://" +
                 shownHost(staffHost) + ":" + std::to_string(staffPort) + "/" +
                 (publicUrl.url.empty() ? "" : ", public at " + publicUrl.url);
    std::printf("%s\n", ready.c_str());
    std::fflush(stdout);
    log::info("ready", {{"version", KOB_VERSION},
                        {"layout", currentLayout()},
                        {"intake", intakeServer.port()},
                        {"staff", staffServer ? staffPort : 0},
                        {"tls", tls}});

    int sig = 0;
    for (;;) {
        sigwait(&signals, &sig);
        if (sig != SIGHUP)
            break;
        reload(staff, tls ? &certificates : nullptr);
    }
    stopServing(intakeServer, staffServer.get(), health, sig);
    return 0;
}
