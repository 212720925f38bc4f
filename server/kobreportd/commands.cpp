#include "commands.h"

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <iostream>
#include <termios.h>
#include <unistd.h>

#include "accounts.h"
#include "audit.h"
#include "fleet.h"
#include "kobrules.h"
#include "passwords.h"
#include "retention.h"
#include "store.h"

namespace kobreportd {

int usage() {
    std::fprintf(
        stderr,
        "usage: kobreportd --listen ADDR:PORT --db PATH_OR_URL [--staff-listen ADDR:PORT]\n"
        "                  [--tls-cert FILE --tls-key FILE] [--retain-days N]\n"
        "                  [--rate PER_MINUTE] [--max-inflight N] [--max-body BYTES]\n"
        "                  [--read-timeout SECONDS] [--request-timeout SECONDS] [--threads N]\n"
        "                  [--max-conns-per-address N] [--max-conns N]\n"
        "                  [--quota-per-address BYTES] [--min-free-disk PERCENT]\n"
        "                  [--max-db-size BYTES] [--trusted-proxy CIDR]...\n"
        "                  [--proxy-protocol intake|staff]... [--public-url URL]\n"
        "                  [--alert-webhook URL] [--alert-check SECONDS]\n"
        "                  [--alert-webhook-secret FILE]\n"
        "                  [--asn-db FILE] [--country-db FILE]\n"
        "                  [--alert-min-senders N] [--alert-min-baseline N]\n"
        "                  [--targets FILE] [--ticket-url PATTERN]\n"
        "                  [--log-level debug|info|warn|error] [--access-log]\n"
        "                  [--common-passwords FILE]\n"
        "                  [--require-2fa admin|all] [--second-factor-key FILE]\n"
        "                  [--auth-proxy-header NAME [--auth-proxy-email-header NAME]\n"
        "                   [--auth-proxy-role-header NAME] [--auth-proxy-autocreate]]\n"
        "       kobreportd user add NAME --role viewer|admin --db PATH_OR_URL\n"
        "       kobreportd user passwd NAME --db PATH_OR_URL\n"
        "       kobreportd user role NAME --role viewer|admin --db PATH_OR_URL\n"
        "       kobreportd user disable|enable|del NAME --db PATH_OR_URL\n"
        "       kobreportd user list --db PATH_OR_URL\n"
        "       kobreportd token add NAME [--role viewer|admin|metrics] --db PATH_OR_URL\n"
        "       kobreportd token disable|enable|del NAME --db PATH_OR_URL\n"
        "       kobreportd token list --db PATH_OR_URL\n"
        "       kobreportd purge --older-than DAYS --db PATH_OR_URL\n"
        "       kobreportd retriage [--targets FILE] --db PATH_OR_URL\n"
        "       kobreportd backup --db PATH --to FILE\n"
        "       kobreportd --version\n");
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

namespace {

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

// A copy of a live SQLite database, taken while the server goes on storing
// uploads.  Nothing is migrated: the copy is the database as it is.
int backup(const std::string &db, const std::string &to) {
    if (isDatabaseUrl(db))
        return fail("backup copies an SQLite file; back up PostgreSQL with pg_dump -Fc and "
                    "restore it with pg_restore (see kobreportd(8))");
    if (::access(db.c_str(), F_OK) != 0)
        return fail("no database at " + db);
    try {
        auto database = sql::openSqlite(db);
        int64_t reports = 0;
        database->copyTo(to, [&reports](sql::Conn &c) {
            reports = c.query("SELECT count(*) AS n FROM reports").integer(0, "n");
        });
        std::printf("kobreportd: backed up %lld %s to %s\n", static_cast<long long>(reports),
                    reports == 1 ? "report" : "reports", to.c_str());
        return 0;
    } catch (const StoreError &e) {
        return fail(std::string("backup failed: ") + e.what());
    }
}

} // namespace

int command(const std::vector<std::string> &args) {
    std::string db, role, olderThan, targets, to, common;
    std::vector<std::string> words;
    for (size_t i = 0; i < args.size(); i++) {
        if ((args[i] == "--db" || args[i] == "--role" || args[i] == "--older-than" ||
             args[i] == "--targets" || args[i] == "--to" || args[i] == "--common-passwords") &&
            i + 1 < args.size()) {
            (args[i] == "--db"           ? db
             : args[i] == "--role"       ? role
             : args[i] == "--older-than" ? olderThan
             : args[i] == "--to"         ? to
             : args[i] == "--targets"    ? targets
                                         : common) = args[i + 1];
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
    if (what == "backup" || !to.empty())
        return what == "backup" && words.size() == 1 && !to.empty() && role.empty() &&
                       olderThan.empty() && targets.empty()
                   ? backup(db, to)
                   : usage();
    std::string verb = words.size() > 1 ? words[1] : "";
    std::string name = words.size() > 2 ? words[2] : "";
    bool changesUser = verb == "passwd" || verb == "role";
    bool named = words.size() == 3 && (verb == "add" || verb == "del" || verb == "disable" ||
                                       verb == "enable" || (what == "user" && changesUser));
    bool listing = words.size() == 2 && verb == "list";
    bool setsPassword = what == "user" && (verb == "add" || verb == "passwd");
    if (what == "retriage" ? words.size() != 1 || !olderThan.empty()
        : what == "purge"  ? words.size() != 1 || olderThan.empty()
                           : (what != "user" && what != "token") || !(named || listing))
        return usage();
    if ((!role.empty() && !(named && (verb == "add" || verb == "role"))) ||
        (!targets.empty() && what != "retriage") || (!common.empty() && !setsPassword))
        return usage();
    std::optional<Role> r = parseRole(role.empty() ? "viewer" : role);
    if (!r || (what == "user" && (verb == "add" || verb == "role") &&
               (role.empty() || *r == Role::Metrics)))
        return usage();
    if (named && !Accounts::validName(name))
        return fail("a name is 1 to 64 letters, digits, '.', '_', '-' or '@'");
    unsigned long long days = 0;
    if (what == "purge" && !number(olderThan.c_str(), 1000000, days))
        return usage();

    std::string password;
    if (setsPassword) {
        std::string error;
        auto rules =
            PasswordRules::fromFile(common.empty() ? PasswordRules::defaultPath() : common, error);
        if (!rules)
            return fail(error + "; name one with --common-passwords FILE");
        if (!readPassword(password))
            return fail("no password on standard input");
        std::string problem = rules->problem(password, name);
        if (!problem.empty())
            return fail(problem);
    }
    try {
        auto database = openDatabase(db);
        Store store(*database);
        Audit audit(*database);
        Accounts accounts(*database, audit);
        const char *who = "kobreportd (command line)";
        if (what == "retriage") {
            // Outcomes are kept for the targets the server counts.
            if (!targets.empty()) {
                std::string error;
                auto policy = FleetPolicy::fromFile(targets, error);
                if (!policy)
                    return fail(error);
                setFleetPolicy(std::move(*policy));
            }
            return retriage(store, audit, who);
        }
        if (what == "purge") {
            int64_t n = expireOldReports(store, audit, static_cast<int>(days), who);
            std::printf("%lld %s expired\n", static_cast<long long>(n),
                        n == 1 ? "report" : "reports");
            return 0;
        }
        if (listing) {
            for (const auto &a : what == "user" ? accounts.users() : accounts.tokens())
                std::printf("%s\t%s%s\n", a.name.c_str(), roleName(a.role),
                            a.disabled ? "\tdisabled" : "");
            return 0;
        }
        if (what == "user" && verb != "add") {
            Change c = Change::NoSuchAccount;
            std::string action = "user." + verb, detail = name;
            if (verb == "passwd") {
                c = accounts.setPassword(name, password) ? Change::Done : Change::NoSuchAccount;
                action = "user.password.set";
            } else if (verb == "role") {
                c = accounts.setRole(name, *r);
                action = "user.role.changed";
                detail = name + " (" + roleName(*r) + ")";
            } else if (verb == "del") {
                c = accounts.deleteUser(name);
                action = "user.deleted";
            } else {
                c = accounts.setDisabled(name, verb == "disable");
                action += "d";
            }
            if (c == Change::NoSuchAccount)
                return fail("no user " + name);
            if (c == Change::LastAdmin)
                return fail(name + " is the last enabled admin account; make another admin first");
            audit.record(who, "", action, "", detail);
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
            bool found = verb == "del" ? accounts.deleteToken(name)
                                       : accounts.setTokenDisabled(name, verb == "disable");
            if (!found)
                return fail("no token " + name);
            audit.record(who, "", verb == "del" ? "token.deleted" : "token." + verb + "d", "",
                         name);
        }
        return 0;
    } catch (const StoreError &e) {
        return fail(e.what());
    }
}

} // namespace kobreportd
