#include "reportd.h"

#include <zstd.h>

#include <arpa/inet.h>
#include <algorithm>
#include <cctype>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <memory>
#include <netinet/in.h>
#include <poll.h>
#include <pwd.h>
#include <sqlite3.h>
#include <sstream>
#include <stdexcept>
#include <sys/socket.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

#include "reportgen.h"

namespace reportd {

namespace {

std::string slurp(const std::string &path) {
    std::ifstream f(path, std::ios::binary);
    std::ostringstream ss;
    ss << f.rdbuf();
    return ss.str();
}

// Runs argv, returns exit status (or -1) with standard output in out.
int run(const std::vector<std::string> &argv, std::string *out = nullptr) {
    int pfd[2];
    if (pipe(pfd) != 0)
        return -1;
    pid_t pid = fork();
    if (pid == 0) {
        dup2(pfd[1], 1);
        int devnull = open("/dev/null", O_RDWR);
        dup2(devnull, 0);
        if (!out)
            dup2(devnull, 1);
        close(pfd[0]);
        close(pfd[1]);
        std::vector<char *> args;
        for (const auto &a : argv)
            args.push_back(const_cast<char *>(a.c_str()));
        args.push_back(nullptr);
        execvp(args[0], args.data());
        _exit(127);
    }
    close(pfd[1]);
    std::string got;
    char buf[4096];
    ssize_t n;
    while ((n = read(pfd[0], buf, sizeof buf)) > 0)
        got.append(buf, static_cast<size_t>(n));
    close(pfd[0]);
    int st = 0;
    waitpid(pid, &st, 0);
    if (out)
        *out = got;
    return WIFEXITED(st) ? WEXITSTATUS(st) : -1;
}

} // namespace

int freePort() {
    int fd = socket(AF_INET, SOCK_STREAM, 0);
    struct sockaddr_in a {};
    a.sin_family = AF_INET;
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    bind(fd, reinterpret_cast<sockaddr *>(&a), sizeof a);
    socklen_t len = sizeof a;
    getsockname(fd, reinterpret_cast<sockaddr *>(&a), &len);
    close(fd);
    return ntohs(a.sin_port);
}

Command command(const std::string &binary, const std::vector<std::string> &args,
                const std::string &input, const std::vector<std::string> &env) {
    Command c;
    char outT[] = "/tmp/kobreportd-out.XXXXXX", errT[] = "/tmp/kobreportd-err.XXXXXX";
    int ofd = mkstemp(outT), efd = mkstemp(errT);
    int in[2];
    if (ofd < 0 || efd < 0 || pipe(in) != 0)
        throw std::runtime_error("kobreportd: no temporary file");
    pid_t pid = fork();
    if (pid == 0) {
        dup2(in[0], 0);
        dup2(ofd, 1);
        dup2(efd, 2);
        close(in[0]);
        close(in[1]);
        for (const auto &e : env)
            putenv(const_cast<char *>(e.c_str()));
        std::vector<std::string> argv = {binary};
        argv.insert(argv.end(), args.begin(), args.end());
        std::vector<char *> cargs;
        for (auto &a : argv)
            cargs.push_back(a.data());
        cargs.push_back(nullptr);
        execv(cargs[0], cargs.data());
        _exit(127);
    }
    close(in[0]);
    size_t off = 0;
    while (off < input.size()) {
        ssize_t n = write(in[1], input.data() + off, input.size() - off);
        if (n <= 0)
            break;
        off += static_cast<size_t>(n);
    }
    close(in[1]);
    int st = 0;
    waitpid(pid, &st, 0);
    c.status = WIFEXITED(st) ? WEXITSTATUS(st) : -1;
    c.out = slurp(outT);
    c.err = slurp(errT);
    close(ofd);
    close(efd);
    unlink(outT);
    unlink(errT);
    return c;
}

Server::Server(const std::string &binary, const std::string &db,
               const std::vector<std::string> &extra, bool staff,
               const std::vector<std::string> &env)
    : binary_(binary), db_(db), env_(env) {
    static int made = 0;
    std::string name = "test-" + std::to_string(getpid()) + "-" + std::to_string(++made);
    auto t = command(binary, {"token", "add", name, "--role", "admin", "--db", db}, "", env);
    if (t.status == 0 && !t.out.empty())
        token_ = t.out.substr(0, t.out.size() - 1);
    char tmpl[] = "/tmp/kobreportd-err.XXXXXX";
    int efd = mkstemp(tmpl);
    errFile_ = tmpl;
    int pfd[2];
    if (efd < 0 || pipe(pfd) != 0)
        throw std::runtime_error("kobreportd: no pipe");
    std::vector<std::string> argv = {binary, "--listen", "127.0.0.1:0", "--db", db};
    if (staff)
        argv.insert(argv.end(), {"--staff-listen", "127.0.0.1:0"});
    if (std::find(extra.begin(), extra.end(), "--rate") == extra.end())
        argv.insert(argv.end(), {"--rate", "0"});
    if (std::find(extra.begin(), extra.end(), "--quota-per-address") == extra.end())
        argv.insert(argv.end(), {"--quota-per-address", "0"});
    argv.insert(argv.end(), extra.begin(), extra.end());
    pid_ = fork();
    if (pid_ == 0) {
        dup2(pfd[1], 1);
        dup2(efd, 2);
        close(pfd[0]);
        close(pfd[1]);
        for (const auto &e : env)
            putenv(const_cast<char *>(e.c_str()));
        std::vector<char *> args;
        for (auto &a : argv)
            args.push_back(a.data());
        args.push_back(nullptr);
        execv(args[0], args.data());
        _exit(127);
    }
    close(pfd[1]);
    close(efd);
    // The ready line is the one sign that it accepts connections.
    std::string got;
    char c;
    struct pollfd p = {pfd[0], POLLIN, 0};
    while (got.empty() || got.back() != '\n') {
        if (poll(&p, 1, 30000) <= 0 || read(pfd[0], &c, 1) != 1)
            break;
        got.push_back(c);
    }
    close(pfd[0]);
    line_ = got;
    auto portAfter = [&got](const std::string &what) {
        auto at = got.find(what);
        if (at == std::string::npos)
            return 0;
        auto colon = got.find(':', got.find("//", at) + 2);
        return std::atoi(got.c_str() + colon + 1);
    };
    port_ = portAfter("intake on ");
    staffPort_ = portAfter("staff on ");
    if (got.empty() || got.back() != '\n' || port_ <= 0 || (staff && staffPort_ <= 0)) {
        kill();
        throw std::runtime_error("kobreportd did not start: " + got + slurp(errFile_) + t.err);
    }
}

Command Server::addUser(const std::string &name, const std::string &role,
                        const std::string &password) const {
    return command(binary_, {"user", "add", name, "--role", role, "--db", db_}, password + "\n",
                   env_);
}

Browser Server::signedIn(const std::string &role, std::string *nameOut) const {
    static int made = 0;
    std::string name = "staff" + std::to_string(++made);
    if (nameOut)
        *nameOut = name;
    auto c = addUser(name, role, "password of " + name);
    Browser b(staffPort_);
    auto r = b.signIn(name, "password of " + name);
    if (c.status != 0 || r.status != 303)
        throw std::runtime_error("signing in " + name + " (" + role + ") failed: " + c.err + r.raw);
    return b;
}

Response Server::api(const std::string &path, const std::string &method) const {
    return request(staffPort_, method, path, "Authorization: Bearer " + token_ + "\r\n");
}

Server::~Server() {
    if (pid_ > 0)
        kill();
    if (!errFile_.empty())
        unlink(errFile_.c_str());
}

int Server::stop() {
    int st = 0;
    if (pid_ > 0) {
        ::kill(pid_, SIGTERM);
        waitpid(pid_, &st, 0);
        pid_ = -1;
    }
    return st;
}

void Server::kill() {
    if (pid_ > 0) {
        ::kill(pid_, SIGKILL);
        waitpid(pid_, nullptr, 0);
        pid_ = -1;
    }
}

std::string Server::errors() const {
    return slurp(errFile_);
}

namespace {

// A chunked body as the server sent it, joined; what does not parse ends
// it (a test compares the result with what it expected).
std::string dechunk(const std::string &chunked) {
    std::string out;
    for (size_t at = 0; at < chunked.size();) {
        size_t eol = chunked.find("\r\n", at);
        if (eol == std::string::npos)
            break;
        size_t n = std::strtoul(chunked.substr(at, eol - at).c_str(), nullptr, 16);
        if (n == 0 || eol + 2 + n > chunked.size())
            break;
        out += chunked.substr(eol + 2, n);
        at = eol + 2 + n + 2;
    }
    return out;
}

} // namespace

Response parse(const std::string &raw) {
    Response r;
    r.raw = raw;
    if (raw.rfind("HTTP/1.1 ", 0) != 0 || raw.size() < 12)
        return r;
    r.ok = true;
    r.status = std::atoi(raw.c_str() + 9);
    auto end = raw.find("\r\n\r\n");
    if (end != std::string::npos)
        r.body = raw.substr(end + 4);
    if (header(r, "Transfer-Encoding") == "chunked")
        r.body = dechunk(r.body);
    return r;
}

Response exchange(int port, const std::vector<std::string> &pieces, int timeoutSeconds) {
    return exchangeAt("127.0.0.1", port, pieces, timeoutSeconds);
}

Response exchangeAt(const std::string &host, int port, const std::vector<std::string> &pieces,
                    int timeoutSeconds, const std::string &source) {
    int fd = socket(AF_INET, SOCK_STREAM, 0);
    if (!source.empty()) {
        struct sockaddr_in from {};
        from.sin_family = AF_INET;
        if (inet_pton(AF_INET, source.c_str(), &from.sin_addr) != 1 ||
            bind(fd, reinterpret_cast<sockaddr *>(&from), sizeof from) != 0) {
            close(fd);
            return {};
        }
    }
    struct sockaddr_in a {};
    a.sin_family = AF_INET;
    a.sin_port = htons(static_cast<uint16_t>(port));
    if (inet_pton(AF_INET, host.c_str(), &a.sin_addr) != 1) {
        close(fd);
        return {};
    }
    if (connect(fd, reinterpret_cast<sockaddr *>(&a), sizeof a) != 0) {
        Response r;
        r.raw = std::string("connect: ") + std::strerror(errno);
        close(fd);
        return r;
    }
    struct timeval tv = {timeoutSeconds, 0};
    setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
    setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &tv, sizeof tv);
    for (const auto &p : pieces) {
        size_t off = 0;
        while (off < p.size()) {
            ssize_t n = send(fd, p.data() + off, p.size() - off, MSG_NOSIGNAL);
            if (n <= 0)
                break;
            off += static_cast<size_t>(n);
        }
        if (off < p.size())
            break;
    }
    std::string raw = readAll(fd);
    close(fd);
    return parse(raw);
}

std::string readAll(int fd) {
    std::string raw;
    char buf[65536];
    ssize_t n;
    while ((n = recv(fd, buf, sizeof buf, 0)) > 0)
        raw.append(buf, static_cast<size_t>(n));
    return raw;
}

std::vector<std::string> uploadTogether(int port, const std::vector<std::string> &descs) {
    std::vector<std::string> refs(descs.size());
    std::vector<std::thread> threads;
    for (size_t i = 0; i < descs.size(); i++)
        threads.emplace_back([&, i] { refs[i] = reference(upload(port, descs[i])); });
    for (auto &t : threads)
        t.join();
    return refs;
}

Response upload(int port, const std::string &desc, const char *username, const char *why) {
    std::string body =
        reportgen::body(desc, username ? std::optional<std::string>(username) : std::nullopt,
                        why ? std::optional<std::string>(why) : std::nullopt);
    return exchange(port, {reportgen::head("report.kobvane.example", body.size()), body});
}

Response uploadFrom(const std::string &source, int port, const std::string &desc) {
    std::string body = reportgen::body(desc, std::nullopt, std::nullopt);
    return exchangeAt("127.0.0.1", port,
                      {reportgen::head("report.kobvane.example", body.size()), body}, 30, source);
}

Response get(int port, const std::string &path) {
    return getAt("127.0.0.1", port, path);
}

Response getAt(const std::string &host, int port, const std::string &path) {
    return exchangeAt(
        host, port,
        {"GET " + path + " HTTP/1.1\r\nHost: " + host + "\r\nConnection: close\r\n\r\n"});
}

Response request(int port, const std::string &method, const std::string &path,
                 const std::string &headers, const std::string &body) {
    std::string head = method + " " + path +
                       " HTTP/1.1\r\nHost: 127.0.0.1:" + std::to_string(port) +
                       "\r\nConnection: close\r\n" + headers;
    if (!body.empty() || method == "POST")
        head += "Content-Length: " + std::to_string(body.size()) + "\r\n";
    return exchange(port, {head + "\r\n" + body});
}

std::string header(const Response &r, const std::string &name) {
    auto end = r.raw.find("\r\n\r\n");
    std::string head = r.raw.substr(0, end);
    std::string lower = name;
    for (auto &ch : lower)
        ch = static_cast<char>(std::tolower(static_cast<unsigned char>(ch)));
    size_t pos = head.find("\r\n");
    while (pos != std::string::npos && pos < head.size()) {
        size_t next = head.find("\r\n", pos + 2);
        std::string line =
            head.substr(pos + 2, next == std::string::npos ? std::string::npos : next - pos - 2);
        auto colon = line.find(':');
        std::string key = line.substr(0, colon);
        for (auto &ch : key)
            ch = static_cast<char>(std::tolower(static_cast<unsigned char>(ch)));
        if (colon != std::string::npos && key == lower) {
            size_t v = line.find_first_not_of(' ', colon + 1);
            return v == std::string::npos ? "" : line.substr(v);
        }
        pos = next;
    }
    return "";
}

std::string formEncode(const std::vector<std::pair<std::string, std::string>> &fields) {
    static const char hex[] = "0123456789ABCDEF";
    std::string out;
    for (const auto &[k, v] : fields) {
        if (!out.empty())
            out += '&';
        for (const std::string *part : {&k, &v}) {
            for (unsigned char c : *part) {
                if (std::isalnum(c) || c == '-' || c == '_' || c == '.' || c == '~') {
                    out += static_cast<char>(c);
                } else {
                    out += '%';
                    out += hex[c >> 4];
                    out += hex[c & 15];
                }
            }
            if (part == &k)
                out += '=';
        }
    }
    return out;
}

std::string Browser::cookie(const std::string &name) const {
    for (const auto &[k, v] : cookies_)
        if (k == name)
            return v;
    return "";
}

void Browser::setCookie(const std::string &name, const std::string &value) {
    for (auto &[k, v] : cookies_)
        if (k == name) {
            v = value;
            return;
        }
    cookies_.emplace_back(name, value);
}

void Browser::keep(const Response &r) {
    auto end = r.raw.find("\r\n\r\n");
    std::string head = r.raw.substr(0, end);
    size_t pos = 0;
    const std::string key = "\r\nSet-Cookie: ";
    while ((pos = head.find(key, pos)) != std::string::npos) {
        pos += key.size();
        std::string line = head.substr(pos, head.find("\r\n", pos) - pos);
        auto eq = line.find('='), semi = line.find(';');
        std::string name = line.substr(0, eq), value = line.substr(eq + 1, semi - eq - 1);
        bool gone = line.find("Max-Age=0") != std::string::npos;
        for (auto it = cookies_.begin(); it != cookies_.end();)
            it = it->first == name ? cookies_.erase(it) : it + 1;
        if (!gone)
            cookies_.emplace_back(name, value);
    }
    const std::string field = "name=\"csrf\" value=\"";
    auto at = r.body.find(field);
    if (at != std::string::npos)
        csrf_ = r.body.substr(at + field.size(),
                              r.body.find('"', at + field.size()) - at - field.size());
}

Response Browser::get(const std::string &path) {
    std::string c;
    for (const auto &[k, v] : cookies_)
        c += (c.empty() ? "" : "; ") + k + "=" + v;
    auto r = request(port_, "GET", path, c.empty() ? "" : "Cookie: " + c + "\r\n");
    keep(r);
    return r;
}

Response Browser::post(const std::string &path,
                       const std::vector<std::pair<std::string, std::string>> &fields,
                       const std::string &extraHeaders) {
    auto all = fields;
    all.emplace_back("csrf", csrf_);
    std::string c;
    for (const auto &[k, v] : cookies_)
        c += (c.empty() ? "" : "; ") + k + "=" + v;
    auto r = request(port_, "POST", path,
                     "Content-Type: application/x-www-form-urlencoded\r\n" +
                         (c.empty() ? "" : "Cookie: " + c + "\r\n") + extraHeaders,
                     formEncode(all));
    keep(r);
    return r;
}

Response Browser::signIn(const std::string &name, const std::string &password) {
    get("/signin");
    auto r = post("/signin", {{"name", name}, {"password", password}, {"next", "/"}});
    // Where the browser lands carries the session's own form token.
    if (r.status == 303)
        get(header(r, "Location"));
    return r;
}

std::string reference(const Response &r) {
    const std::string prefix = "Report received: ";
    if (r.status != 200 || r.body.rfind(prefix, 0) != 0)
        return "";
    return r.body.substr(prefix.size());
}

long long referenceNumber(const std::string &ref, const std::string &day) {
    const std::string prefix = "KOB-" + day + "-";
    if (ref.rfind(prefix, 0) != 0 || ref.size() < prefix.size() + 9 ||
        ref.size() > prefix.size() + 18)
        return -1;
    long long n = 0;
    for (size_t i = prefix.size(); i < ref.size(); i++) {
        if (ref[i] < '0' || ref[i] > '9')
            return -1;
        n = n * 10 + (ref[i] - '0');
    }
    return n;
}

Postgres::Postgres() {
    namespace fs = std::filesystem;
    std::error_code ec;
    if (fs::exists("/usr/lib/postgresql", ec)) {
        for (const auto &e : fs::directory_iterator("/usr/lib/postgresql", ec))
            if (fs::exists(e.path() / "bin/initdb"))
                bin_ = (e.path() / "bin").string();
    }
    if (bin_.empty()) {
        reason_ = "PostgreSQL server programs not installed (Debian package postgresql)";
        return;
    }
    struct passwd *pw = getpwnam("postgres");
    if (!pw) {
        reason_ = "no user \"postgres\" to run the server as";
        return;
    }
    char tmpl[] = "/tmp/kobpg.XXXXXX";
    if (!mkdtemp(tmpl)) {
        reason_ = "no temporary directory";
        return;
    }
    dir_ = tmpl;
    if (chown(dir_.c_str(), pw->pw_uid, pw->pw_gid) != 0) {
        reason_ = "cannot give the data directory to postgres";
        return;
    }
    // Root may not run the server; as someone else, run it directly.
    std::vector<std::string> as = geteuid() == 0
                                      ? std::vector<std::string>{"runuser", "-u", "postgres", "--"}
                                      : std::vector<std::string>{};
    auto cmd = [&](std::vector<std::string> argv) {
        argv.insert(argv.begin(), as.begin(), as.end());
        return argv;
    };
    if (run(cmd({bin_ + "/initdb", "-D", dir_ + "/data", "-A", "trust", "-U", "postgres",
                 "--no-sync", "-E", "UTF8", "--locale=C"})) != 0) {
        reason_ = "initdb failed";
        return;
    }
    port_ = freePort();
    if (run(cmd({bin_ + "/pg_ctl", "-D", dir_ + "/data", "-l", dir_ + "/log", "-w", "-t", "60",
                 "-o",
                 "-k " + dir_ + " -c listen_addresses=127.0.0.1 -p " + std::to_string(port_) +
                     " -c max_connections=300 -c shared_buffers=64MB",
                 "start"})) != 0) {
        reason_ = "the server did not start: " + slurp(dir_ + "/log");
        return;
    }
    ok_ = true;
}

Postgres::~Postgres() {
    if (dir_.empty())
        return;
    if (ok_) {
        std::vector<std::string> argv = {bin_ + "/pg_ctl", "-D", dir_ + "/data", "-m",
                                         "immediate",      "-w", "stop"};
        if (geteuid() == 0)
            argv.insert(argv.begin(), {"runuser", "-u", "postgres", "--"});
        run(argv);
    }
    std::error_code ec;
    std::filesystem::remove_all(dir_, ec);
}

std::string Postgres::url(const std::string &db) const {
    return "postgresql://postgres@127.0.0.1:" + std::to_string(port_) + "/" + db;
}

std::string Postgres::psql(const std::string &sql, const std::string &db) const {
    std::string out;
    run({bin_ + "/psql", "-X", "-q", "-A", "-t", "-d", url(db), "-c", sql}, &out);
    return out;
}

std::string zstdFrame(const std::string &text) {
    std::string out(ZSTD_compressBound(text.size()), '\0');
    size_t n = ZSTD_compress(out.data(), out.size(), text.data(), text.size(), 1);
    out.resize(ZSTD_isError(n) ? 0 : n);
    return out;
}

std::string unzstd(const std::string &frame) {
    unsigned long long size = ZSTD_getFrameContentSize(frame.data(), frame.size());
    if (size == ZSTD_CONTENTSIZE_ERROR || size == ZSTD_CONTENTSIZE_UNKNOWN)
        return "<not a zstd frame>";
    std::string out(static_cast<size_t>(size), '\0');
    size_t n = ZSTD_decompress(out.data(), out.size(), frame.data(), frame.size());
    return ZSTD_isError(n) || n != size ? "<not a zstd frame>" : out;
}

std::string sqliteValue(const std::string &db, const std::string &sql) {
    sqlite3 *h = nullptr;
    sqlite3_open_v2(db.c_str(), &h, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE, nullptr);
    sqlite3_stmt *st = nullptr;
    std::string v = "<none>";
    if (sqlite3_prepare_v2(h, sql.c_str(), -1, &st, nullptr) != SQLITE_OK) {
        v = std::string("<error: ") + sqlite3_errmsg(h) + ">";
    } else {
        int rc = sqlite3_step(st);
        if (rc == SQLITE_ROW && sqlite3_column_type(st, 0) != SQLITE_NULL)
            v.assign(static_cast<const char *>(sqlite3_column_blob(st, 0)),
                     static_cast<size_t>(sqlite3_column_bytes(st, 0)));
        else if (rc != SQLITE_ROW && rc != SQLITE_DONE)
            v = std::string("<error: ") + sqlite3_errmsg(h) + ">";
    }
    sqlite3_finalize(st);
    sqlite3_close(h);
    return v;
}

Postgres &sharedPostgres() {
    static auto pg = std::make_unique<Postgres>();
    return *pg;
}

std::string testDatabase(const std::string &store, const std::string &dir, std::string &reason) {
    if (store != "postgres")
        return dir + "/reports.db";
    if (!sharedPostgres().available()) {
        reason = sharedPostgres().reason();
        return "";
    }
    static int n = 0;
    std::string name = "test" + std::to_string(getpid()) + "_" + std::to_string(++n);
    sharedPostgres().psql("CREATE DATABASE " + name);
    return sharedPostgres().url(name);
}

std::string databaseValue(const std::string &db, const std::string &sql) {
    if (db.rfind("postgresql://", 0) != 0)
        return sqliteValue(db, sql);
    std::string out = sharedPostgres().psql(sql, db.substr(db.rfind('/') + 1));
    if (!out.empty() && out.back() == '\n')
        out.pop_back();
    return out.empty() ? "<none>" : out;
}

int connectFrom(const std::string &source, int port) {
    int fd = socket(AF_INET, SOCK_STREAM, 0);
    struct sockaddr_in from {};
    from.sin_family = AF_INET;
    inet_pton(AF_INET, source.c_str(), &from.sin_addr);
    struct sockaddr_in to {};
    to.sin_family = AF_INET;
    to.sin_port = htons(static_cast<uint16_t>(port));
    to.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (bind(fd, reinterpret_cast<sockaddr *>(&from), sizeof from) != 0 ||
        connect(fd, reinterpret_cast<sockaddr *>(&to), sizeof to) != 0) {
        close(fd);
        return -1;
    }
    return fd;
}

std::vector<nlohmann::json> logLines(const std::string &text) {
    std::vector<nlohmann::json> out;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);)
        if (!line.empty() && line[0] == '{')
            out.push_back(nlohmann::json::parse(line));
    return out;
}

std::vector<nlohmann::json> logEvents(const std::string &text, const std::string &event) {
    std::vector<nlohmann::json> out;
    for (auto &line : logLines(text))
        if (line.value("event", "") == event)
            out.push_back(std::move(line));
    return out;
}

std::string unusualLines(const std::string &text) {
    std::string out;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);) {
        auto parsed = nlohmann::json::parse(line, nullptr, false);
        bool routine = parsed.is_object() && (parsed.value("level", "") == "info" ||
                                              parsed.value("level", "") == "debug");
        if (!routine)
            out += line + "\n";
    }
    return out;
}

std::string utcToday() {
    std::time_t t = std::time(nullptr);
    std::tm tm{};
    gmtime_r(&t, &tm);
    char buf[16];
    std::strftime(buf, sizeof buf, "%Y%m%d", &tm);
    return buf;
}

std::vector<std::string> linkTargets(const std::string &html) {
    std::vector<std::string> out;
    for (const std::string attr : {" href=\"", " action=\""})
        for (size_t at = 0; (at = html.find(attr, at)) != std::string::npos;) {
            at += attr.size();
            if (html[at] != '#')
                out.push_back(html.substr(at, html.find('"', at) - at));
        }
    return out;
}

} // namespace reportd
