// koblab: the operator's network on loopback addresses, for kobdiag-lab.
//
// It serves what a diagnostic run probes: a one-byte UDP echo on the
// pass-through server, TCP listeners on the probed public ports, the four
// intranet gateways (one answering, one whose handshake never completes, two
// refused), and the problem-report server, which stores every POST it gets,
// byte for byte, as one file per report.  Everything runs in one thread
// around poll(); SIGINT and SIGTERM stop it cleanly.
//
// With -s the report server is kobreportd instead, the operator's real
// intake, run as a child on the same address with its database in the
// report directory: the user then gets a reference to quote, and the report
// can be browsed and triaged.
//
// The default addresses are those of the lab build; options move any of
// them, so that the same program can play the shipped build's network
// inside a network namespace.

#include <arpa/inet.h>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <string>
#include <sys/socket.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

#include "kobdiag_config.h"
#include "koblab_request.h"
#include "kobrun.h"

namespace {

enum class Kind {
    UdpEcho,        // answer every datagram with one byte
    AcceptAndClose, // a probed port: take the connection, close it
    ReportListener, // the problem-report server's listening socket
    ReportClient,   // one request being read
    Wake,           // the self-pipe that a stop signal writes to
};

struct Endpoint {
    std::string addr;
    int port;
};

struct Conn {
    Kind kind;
    int fd;
    std::string peer;
    std::string data; // what a report client sent so far
};

struct Options {
    std::string dir;
    std::string passthrough = KOBDIAG_PASSTHROUGH_ADDR;
    std::string auth = KOBDIAG_AUTH_ADDR;
    std::string ktidc = KOBDIAG_KTIDC_ADDR;
    std::string jp = KOBDIAG_JP_ADDR;
    std::vector<std::string> intranet = {KOBDIAG_INTRANET_ADDR_1, KOBDIAG_INTRANET_ADDR_2,
                                         KOBDIAG_INTRANET_ADDR_3, KOBDIAG_INTRANET_ADDR_4};
    Endpoint report = {KOBDIAG_REPORT_HOST, KOBDIAG_REPORT_PORT};
    std::string reportd; // kobreportd to run as the report server, if any
};

constexpr int kIntranetPort = kobrun::kIntranetPort;
constexpr int kPassThroughPort = kobrun::kUdpPort;
constexpr char kAnswer[] = "HTTP/1.1 200 OK\r\n"
                           "Content-Type: text/plain\r\n"
                           "Content-Length: 9\r\n"
                           "Connection: close\r\n"
                           "\r\n"
                           "received\n";

int wakePipe[2] = {-1, -1};

void onStop(int) {
    int saved = errno;
    (void)!write(wakePipe[1], "x", 1);
    errno = saved;
}

[[noreturn]] void usage() {
    fprintf(stderr,
            "usage: koblab [-d dir] [-p addr] [-a addr] [-k addr] [-j addr]\n"
            "              [-i addr,addr,addr,addr] [-r addr[:port]] [-s kobreportd]\n"
            "    -d dir    store reports here (default: a new directory under /tmp)\n"
            "    -p addr   pass-through test server (UDP echo %d, TCP 10007, 10008)\n"
            "    -a addr   authentication server (TCP 80)\n"
            "    -k addr   old authentication server / KT IDC node (TCP 10009, 80, 443)\n"
            "    -j addr   JP node (TCP 10008)\n"
            "    -i list   intranet gateways on %d: answering, never completing, refused,"
            " refused\n"
            "    -r ep     problem-report server (default %s:%d)\n"
            "    -s path   serve reports with this kobreportd (database reports.db in dir)\n",
            kPassThroughPort, kIntranetPort, KOBDIAG_REPORT_HOST, KOBDIAG_REPORT_PORT);
    exit(2);
}

[[noreturn]] void die(const std::string &what) {
    fprintf(stderr, "koblab: %s: %s\n", what.c_str(), strerror(errno));
    exit(1);
}

sockaddr_in ipv4(const std::string &addr, int port) {
    sockaddr_in sin{};
    sin.sin_family = AF_INET;
    sin.sin_port = htons(static_cast<uint16_t>(port));
    if (inet_pton(AF_INET, addr.c_str(), &sin.sin_addr) != 1) {
        fprintf(stderr, "koblab: '%s' is not a dotted IPv4 address\n", addr.c_str());
        exit(2);
    }
    return sin;
}

std::string text(const std::string &addr, int port) {
    return addr + ":" + std::to_string(port);
}

int boundSocket(int type, const std::string &addr, int port) {
    int fd = socket(AF_INET, type | SOCK_CLOEXEC, 0);
    if (fd < 0)
        die("socket");
    int one = 1;
    (void)setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
    sockaddr_in sin = ipv4(addr, port);
    if (bind(fd, reinterpret_cast<sockaddr *>(&sin), sizeof sin) != 0)
        die("bind " + text(addr, port));
    return fd;
}

int listener(const std::string &addr, int port, int backlog) {
    int fd = boundSocket(SOCK_STREAM, addr, port);
    if (listen(fd, backlog) != 0)
        die("listen " + text(addr, port));
    return fd;
}

// A listener whose accept queue is full and never drained, so that a
// further handshake never completes: its SYN is dropped, and the client
// waits until its own limit.  A backlog of 0 still admits one connection;
// filling stops at the first attempt that does not complete within half a
// second, which shows that the queue has no room left.
void stalledListener(const std::string &addr, int port, std::vector<int> &keep) {
    int fd = listener(addr, port, 0);
    keep.push_back(fd);
    sockaddr_in sin = ipv4(addr, port);
    for (int i = 0; i < 16; i++) {
        int c = socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
        if (c < 0)
            die("socket");
        keep.push_back(c);
        if (connect(c, reinterpret_cast<sockaddr *>(&sin), sizeof sin) != 0 && errno != EINPROGRESS)
            die("connect " + text(addr, port));
        pollfd p = {c, POLLOUT, 0};
        if (poll(&p, 1, 500) == 0)
            return;
    }
    fprintf(stderr, "koblab: the accept queue of %s never filled\n", text(addr, port).c_str());
    exit(1);
}

Endpoint parseEndpoint(const char *s) {
    std::string t = s;
    auto colon = t.rfind(':');
    if (colon == std::string::npos)
        return {t, KOBDIAG_REPORT_PORT};
    char *end = nullptr;
    long port = strtol(t.c_str() + colon + 1, &end, 10);
    if (*end != '\0' || port < 1 || port > 65535)
        usage();
    return {t.substr(0, colon), static_cast<int>(port)};
}

std::vector<std::string> splitList(const char *s) {
    std::vector<std::string> out;
    std::string t = s;
    size_t start = 0;
    for (;;) {
        auto comma = t.find(',', start);
        out.push_back(t.substr(start, comma - start));
        if (comma == std::string::npos)
            return out;
        start = comma + 1;
    }
}

Options parseOptions(int argc, char *argv[]) {
    Options o;
    int ch;
    while ((ch = getopt(argc, argv, "d:p:a:k:j:i:r:s:h")) != -1) {
        switch (ch) {
        case 'd':
            o.dir = optarg;
            break;
        case 'p':
            o.passthrough = optarg;
            break;
        case 'a':
            o.auth = optarg;
            break;
        case 'k':
            o.ktidc = optarg;
            break;
        case 'j':
            o.jp = optarg;
            break;
        case 'i':
            o.intranet = splitList(optarg);
            if (o.intranet.size() != 4)
                usage();
            break;
        case 'r':
            o.report = parseEndpoint(optarg);
            break;
        case 's':
            o.reportd = optarg;
            break;
        default:
            usage();
        }
    }
    if (optind != argc)
        usage();
    return o;
}

class Lab {
  public:
    explicit Lab(Options o) : opt_(std::move(o)) {}

    void start() {
        if (opt_.dir.empty()) {
            char tmpl[] = "/tmp/koblab-reports.XXXXXX";
            if (mkdtemp(tmpl) == nullptr)
                die("mkdtemp");
            opt_.dir = tmpl;
        } else if (mkdir(opt_.dir.c_str(), 0755) != 0 && errno != EEXIST) {
            die("mkdir " + opt_.dir);
        }

        add(Kind::UdpEcho, boundSocket(SOCK_DGRAM, opt_.passthrough, kPassThroughPort));
        printf("koblab: UDP echo (one byte)    %s\n",
               text(opt_.passthrough, kPassThroughPort).c_str());
        for (const auto &probe : kobrun::kTcpProbes) {
            Endpoint e = {roleAddress(probe.role), probe.port};
            add(Kind::AcceptAndClose, listener(e.addr, e.port, 64));
            printf("koblab: TCP listener           %s\n", text(e.addr, e.port).c_str());
        }
        add(Kind::AcceptAndClose, listener(opt_.intranet[0], kIntranetPort, 64));
        printf("koblab: intranet, answering    %s\n",
               text(opt_.intranet[0], kIntranetPort).c_str());
        stalledListener(opt_.intranet[1], kIntranetPort, stalled_);
        printf("koblab: intranet, no handshake %s\n",
               text(opt_.intranet[1], kIntranetPort).c_str());
        for (int i = 2; i < 4; i++)
            printf("koblab: intranet, refused      %s\n",
                   text(opt_.intranet[i], kIntranetPort).c_str());
        if (opt_.reportd.empty()) {
            add(Kind::ReportListener, listener(opt_.report.addr, opt_.report.port, 64));
            printf("koblab: report server          %s, storing reports in %s\n",
                   text(opt_.report.addr, opt_.report.port).c_str(), opt_.dir.c_str());
        } else {
            startReportd();
        }
        printf("koblab: ready\n");
    }

    void run() {
        add(Kind::Wake, wakePipe[0]);
        for (;;) {
            std::vector<pollfd> pfds;
            for (const auto &c : conns_)
                pfds.push_back({c.fd, POLLIN, 0});
            if (poll(pfds.data(), pfds.size(), -1) < 0) {
                if (errno == EINTR)
                    continue;
                die("poll");
            }
            // Handling may add or drop entries: walk a snapshot by descriptor.
            for (const auto &p : pfds) {
                if (p.revents == 0)
                    continue;
                size_t i = find(p.fd);
                if (i == conns_.size())
                    continue;
                if (conns_[i].kind == Kind::Wake)
                    return;
                serve(i);
            }
        }
    }

    void stop() {
        for (const auto &c : conns_)
            if (c.kind != Kind::Wake)
                (void)close(c.fd);
        for (int fd : stalled_)
            (void)close(fd);
        if (reportdPid_ > 0) {
            (void)kill(reportdPid_, SIGTERM);
            int st = 0;
            while (waitpid(reportdPid_, &st, 0) < 0 && errno == EINTR) {
            }
            printf("koblab: kobreportd stopped (%s)\n",
                   WIFEXITED(st) && WEXITSTATUS(st) == 0 ? "exit status 0" : "failed");
        }
        if (reportdPid_ > 0)
            printf("koblab: stopped after %lu UDP echoes, %lu TCP connections (reports went to "
                   "kobreportd)\n",
                   echoes_, accepts_);
        else
            printf("koblab: stopped after %lu UDP echoes, %lu TCP connections, %lu reports\n",
                   echoes_, accepts_, reports_);
    }

  private:
    // Where the lab plays the server of a probe's role.
    const std::string &roleAddress(kobrun::Role role) const {
        switch (role) {
        case kobrun::Role::Auth:
            return opt_.auth;
        case kobrun::Role::KtIdc:
            return opt_.ktidc;
        case kobrun::Role::Jp:
            return opt_.jp;
        case kobrun::Role::PassThrough:
        case kobrun::Role::None:
            break;
        }
        return opt_.passthrough;
    }

    // kobreportd on the report server's address; koblab is ready only once
    // it has said that it accepts connections.  It goes when koblab goes,
    // even when koblab is killed.
    void startReportd() {
        std::string listen = text(opt_.report.addr, opt_.report.port);
        std::string db = opt_.dir + "/reports.db";
        int p[2];
        if (pipe(p) != 0)
            die("pipe");
        fflush(nullptr);
        reportdPid_ = fork();
        if (reportdPid_ < 0)
            die("fork");
        if (reportdPid_ == 0) {
            (void)prctl(PR_SET_PDEATHSIG, SIGTERM);
            dup2(p[1], 1);
            close(p[0]);
            close(p[1]);
            close(wakePipe[0]);
            close(wakePipe[1]);
            signal(SIGINT, SIG_DFL);
            signal(SIGTERM, SIG_DFL);
            signal(SIGPIPE, SIG_DFL);
            // The staff side stays on loopback, on a port of its own.
            execl(opt_.reportd.c_str(), opt_.reportd.c_str(), "--listen", listen.c_str(),
                  "--staff-listen", "127.0.0.1:0", "--db", db.c_str(),
                  static_cast<char *>(nullptr));
            fprintf(stderr, "koblab: cannot run %s: %s\n", opt_.reportd.c_str(), strerror(errno));
            _exit(127);
        }
        close(p[1]);
        std::string line;
        char c;
        pollfd pfd = {p[0], POLLIN, 0};
        while (line.empty() || line.back() != '\n') {
            if (poll(&pfd, 1, 30000) <= 0 || read(p[0], &c, 1) != 1)
                break;
            line.push_back(c);
        }
        close(p[0]);
        const std::string ready = "kobreportd: intake on ", staff = "; staff on ";
        auto staffAt = line.find(staff);
        if (line.rfind(ready, 0) != 0 || line.back() != '\n' || staffAt == std::string::npos) {
            fprintf(stderr, "koblab: kobreportd did not start\n");
            (void)kill(reportdPid_, SIGTERM);
            (void)waitpid(reportdPid_, nullptr, 0);
            exit(1);
        }
        std::string url =
            line.substr(staffAt + staff.size(), line.size() - staffAt - staff.size() - 1);
        printf("koblab: report server          %s, kobreportd with %s\n", listen.c_str(),
               db.c_str());
        printf("koblab: browser view           %s\n", url.c_str());
    }

    void add(Kind kind, int fd, std::string peer = "") {
        conns_.push_back({kind, fd, std::move(peer), {}});
    }

    size_t find(int fd) const {
        size_t i = 0;
        while (i < conns_.size() && conns_[i].fd != fd)
            i++;
        return i;
    }

    void drop(size_t i) {
        (void)close(conns_[i].fd);
        conns_.erase(conns_.begin() + static_cast<long>(i));
    }

    void serve(size_t i) {
        Conn &c = conns_[i];
        switch (c.kind) {
        case Kind::UdpEcho: {
            char buf[2048];
            sockaddr_in from{};
            socklen_t fl = sizeof from;
            ssize_t n =
                recvfrom(c.fd, buf, sizeof buf, 0, reinterpret_cast<sockaddr *>(&from), &fl);
            if (n < 0)
                return;
            // An echo of one byte, whatever came.
            char one = n > 0 ? buf[0] : 'P';
            (void)sendto(c.fd, &one, 1, 0, reinterpret_cast<sockaddr *>(&from), fl);
            echoes_++;
            return;
        }
        case Kind::AcceptAndClose: {
            int fd = accept(c.fd, nullptr, nullptr);
            if (fd >= 0) {
                (void)close(fd);
                accepts_++;
            }
            return;
        }
        case Kind::ReportListener: {
            sockaddr_in from{};
            socklen_t fl = sizeof from;
            int fd = accept4(c.fd, reinterpret_cast<sockaddr *>(&from), &fl,
                             SOCK_NONBLOCK | SOCK_CLOEXEC);
            if (fd >= 0) {
                char a[INET_ADDRSTRLEN] = "?";
                (void)inet_ntop(AF_INET, &from.sin_addr, a, sizeof a);
                add(Kind::ReportClient, fd, text(a, ntohs(from.sin_port)));
            }
            return;
        }
        case Kind::ReportClient:
            readReport(i);
            return;
        case Kind::Wake:
            return;
        }
    }

    void readReport(size_t i) {
        Conn &c = conns_[i];
        char buf[65536];
        for (;;) {
            ssize_t n = read(c.fd, buf, sizeof buf);
            if (n > 0) {
                c.data.append(buf, static_cast<size_t>(n));
                continue;
            }
            if (n < 0 && (errno == EAGAIN || errno == EINTR))
                break;
            // The client closed (or failed) before the request was whole.
            printf("koblab: %s closed after %zu bytes of an incomplete request; not stored\n",
                   c.peer.c_str(), c.data.size());
            drop(i);
            return;
        }
        if (!koblab::requestComplete(c.data))
            return;
        std::string path = store(c.data);
        printf("koblab: report %lu from %s: %zu bytes stored in %s\n", reports_, c.peer.c_str(),
               c.data.size(), path.c_str());
        // A short answer, then the connection ends.
        (void)!write(c.fd, kAnswer, sizeof kAnswer - 1);
        (void)shutdown(c.fd, SHUT_WR);
        drop(i);
    }

    // The request as received, under the next free name; written aside and
    // renamed so that a reader never sees half a report.
    std::string store(const std::string &data) {
        std::string path;
        struct stat st;
        do {
            char name[32];
            snprintf(name, sizeof name, "report-%04lu.http", ++seq_);
            path = opt_.dir + "/" + name;
        } while (stat(path.c_str(), &st) == 0);
        std::string tmp = opt_.dir + "/.incoming.http";
        int fd = open(tmp.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
        if (fd < 0)
            die("open " + tmp);
        size_t off = 0;
        while (off < data.size()) {
            ssize_t n = write(fd, data.data() + off, data.size() - off);
            if (n < 0)
                die("write " + tmp);
            off += static_cast<size_t>(n);
        }
        if (close(fd) != 0 || rename(tmp.c_str(), path.c_str()) != 0)
            die("store " + path);
        reports_++;
        return path;
    }

    Options opt_;
    std::vector<Conn> conns_;
    std::vector<int> stalled_;
    unsigned long echoes_ = 0;
    unsigned long accepts_ = 0;
    unsigned long reports_ = 0;
    unsigned long seq_ = 0;
    pid_t reportdPid_ = -1;
};

} // namespace

int main(int argc, char *argv[]) {
    Options o = parseOptions(argc, argv);
    setvbuf(stdout, nullptr, _IOLBF, 0);
    if (pipe(wakePipe) != 0)
        die("pipe");
    struct sigaction sa {};
    sa.sa_handler = onStop;
    sigemptyset(&sa.sa_mask);
    (void)sigaction(SIGINT, &sa, nullptr);
    (void)sigaction(SIGTERM, &sa, nullptr);
    signal(SIGPIPE, SIG_IGN);

    Lab lab(std::move(o));
    lab.start();
    lab.run();
    lab.stop();
    return 0;
}
