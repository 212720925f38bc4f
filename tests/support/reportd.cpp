#include "reportd.h"

#include <arpa/inet.h>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <netinet/in.h>
#include <poll.h>
#include <pwd.h>
#include <sstream>
#include <stdexcept>
#include <sys/socket.h>
#include <sys/wait.h>
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

Server::Server(const std::string &binary, const std::string &db,
               const std::vector<std::string> &extra) {
    char tmpl[] = "/tmp/kobreportd-err.XXXXXX";
    int efd = mkstemp(tmpl);
    errFile_ = tmpl;
    int pfd[2];
    if (efd < 0 || pipe(pfd) != 0)
        throw std::runtime_error("kobreportd: no pipe");
    pid_ = fork();
    if (pid_ == 0) {
        dup2(pfd[1], 1);
        dup2(efd, 2);
        close(pfd[0]);
        close(pfd[1]);
        std::vector<std::string> argv = {binary, "--listen", "127.0.0.1:0", "--db", db};
        argv.insert(argv.end(), extra.begin(), extra.end());
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
    auto colon = got.rfind(':');
    if (colon == std::string::npos || got.empty() || got.back() != '\n') {
        kill();
        throw std::runtime_error("kobreportd did not start: " + got + slurp(errFile_));
    }
    port_ = std::atoi(got.c_str() + colon + 1);
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
    return r;
}

Response exchange(int port, const std::vector<std::string> &pieces, int timeoutSeconds) {
    return exchangeAt("127.0.0.1", port, pieces, timeoutSeconds);
}

Response exchangeAt(const std::string &host, int port, const std::vector<std::string> &pieces,
                    int timeoutSeconds) {
    int fd = socket(AF_INET, SOCK_STREAM, 0);
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
    std::string raw;
    char buf[65536];
    ssize_t n;
    while ((n = recv(fd, buf, sizeof buf, 0)) > 0)
        raw.append(buf, static_cast<size_t>(n));
    close(fd);
    return parse(raw);
}

Response upload(int port, const std::string &desc, const char *username, const char *why) {
    std::string body =
        reportgen::body(desc, username ? std::optional<std::string>(username) : std::nullopt,
                        why ? std::optional<std::string>(why) : std::nullopt);
    return exchange(port, {reportgen::head("report.kobvane.example", body.size()), body});
}

Response get(int port, const std::string &path) {
    return getAt("127.0.0.1", port, path);
}

Response getAt(const std::string &host, int port, const std::string &path) {
    return exchangeAt(host, port, {"GET " + path + " HTTP/1.1\r\nHost: " + host + "\r\n\r\n"});
}

std::string reference(const Response &r) {
    const std::string prefix = "Report received: ";
    if (r.status != 200 || r.body.rfind(prefix, 0) != 0)
        return "";
    return r.body.substr(prefix.size());
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

} // namespace reportd
