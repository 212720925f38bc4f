#include "nginx.h"

#include <cerrno>
#include <chrono>
#include <csignal>
#include <fcntl.h>
#include <fstream>
#include <pwd.h>
#include <sstream>
#include <stdexcept>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

#include "kobtest.h"

namespace nginx {

namespace {

constexpr const char *kNginx = "/usr/sbin/nginx";
constexpr const char *kOpenssl = "/usr/bin/openssl";
// What nginx's master says once its sockets listen and its workers start.
constexpr const char *kStarted = "start worker process";

// Replaces every `from` in text; throws when there is none, so that a site
// that no longer has what the test replaces fails the test.
void replace(std::string &text, const std::string &from, const std::string &to) {
    size_t at = text.find(from);
    if (at == std::string::npos)
        throw std::runtime_error("nginx: the example site has no \"" + from + "\"");
    for (; at != std::string::npos; at = text.find(from, at + to.size()))
        text.replace(at, from.size(), to);
}

// The example site on the test's ports and certificate, and on loopback
// only: its listeners on every IPv6 address go.
std::string site(const std::string &path, const Ports &p, const Certificate &c) {
    std::string text = kobtest::readFile(path);
    if (text.empty())
        throw std::runtime_error("nginx: no example site at " + path);
    replace(text, "    listen [::]:80;\n", "");
    replace(text, "    listen [::]:443 ssl http2;\n", "");
    replace(text, "listen 80;", "listen 127.0.0.1:" + std::to_string(p.intake) + ";");
    replace(text, "listen 443 ssl http2;",
            "listen 127.0.0.1:" + std::to_string(p.staff) + " ssl http2;");
    replace(text, "127.0.0.1:8080", "127.0.0.1:" + std::to_string(p.upstreamIntake));
    replace(text, "127.0.0.1:8081", "127.0.0.1:" + std::to_string(p.upstreamStaff));
    replace(text, "/etc/ssl/certs/staff.example.net.pem", c.cert);
    replace(text, "/etc/ssl/private/staff.example.net.key", c.key);
    return text;
}

} // namespace

std::string missing() {
    if (access(kNginx, X_OK) != 0)
        return std::string(kNginx) + " is not installed (Debian package nginx)";
    if (access(kOpenssl, X_OK) != 0)
        return std::string(kOpenssl) + " is not installed (Debian package openssl)";
    return "";
}

Certificate selfSigned(const std::string &dir) {
    Certificate c{dir + "/staff.pem", dir + "/staff.key"};
    auto made = kobtest::runProgram({kOpenssl, "req", "-x509", "-newkey", "rsa:2048", "-nodes",
                                     "-keyout", c.key, "-out", c.cert, "-days", "2", "-subj",
                                     "/CN=127.0.0.1", "-addext", "subjectAltName=IP:127.0.0.1"});
    if (!made.exited(0))
        throw std::runtime_error("openssl req: " + made.err);
    return c;
}

std::string publicKeyHash(const Certificate &c) {
    std::string pem = c.cert + ".pub.pem", der = c.cert + ".pub.der", hash = c.cert + ".sha256";
    auto run = [](const std::vector<std::string> &argv) {
        auto r = kobtest::runProgram(argv);
        if (!r.exited(0))
            throw std::runtime_error("openssl " + argv[1] + ": " + r.err);
        return r.out;
    };
    kobtest::writeFile(pem, run({kOpenssl, "x509", "-in", c.cert, "-pubkey", "-noout"}));
    run({kOpenssl, "pkey", "-pubin", "-in", pem, "-outform", "der", "-out", der});
    run({kOpenssl, "dgst", "-sha256", "-binary", "-out", hash, der});
    return run({kOpenssl, "base64", "-A", "-in", hash});
}

Proxy::Proxy(const std::string &dir, const std::string &sitePath, const Ports &ports,
             const Certificate &certificate) {
    std::ostringstream conf;
    // Run as root, the workers stay root: a worker of another user could
    // not reach the test's private directory.
    if (geteuid() == 0)
        conf << "user root;\n";
    conf << "worker_processes 1;\npid " << dir << "/nginx.pid;\nerror_log stderr notice;\n"
         << "events { worker_connections 512; }\nhttp {\n"
         << "access_log " << dir << "/access.log;\n";
    for (const char *temp : {"client_body", "proxy", "fastcgi", "uwsgi", "scgi"})
        conf << temp << "_temp_path " << dir << "/" << temp << ";\n";
    conf << site(sitePath, ports, certificate) << "}\n";
    config_ = conf.str();
    std::string file = dir + "/nginx.conf";
    kobtest::writeFile(file, config_);

    // Everything the child needs is made before the fork: it runs nothing
    // but system calls until it execs.
    std::string prefix = dir + "/";
    std::vector<const char *> argv = {kNginx, "-p",     prefix.c_str(), "-c",          file.c_str(),
                                      "-e",   "stderr", "-g",           "daemon off;", nullptr};
    int err[2];
    if (pipe2(err, O_CLOEXEC) != 0)
        throw std::runtime_error("nginx: no pipe");
    pid_ = fork();
    if (pid_ == 0) {
        // nginx goes when the test goes, however it ends.
        prctl(PR_SET_PDEATHSIG, SIGTERM);
        int devnull = open("/dev/null", O_RDWR);
        dup2(devnull, 0);
        dup2(devnull, 1);
        dup2(err[1], 2);
        execv(kNginx, const_cast<char *const *>(argv.data()));
        _exit(127);
    }
    close(err[1]);
    if (pid_ < 0) {
        close(err[0]);
        throw std::runtime_error("nginx: cannot fork");
    }
    reader_ = std::thread([this, fd = err[0]] { readLog(fd); });
    std::unique_lock<std::mutex> lock(mutex_);
    bool up = changed_.wait_for(lock, std::chrono::seconds(30), [this] {
        return ended_ || log_.find(kStarted) != std::string::npos;
    });
    if (!up || log_.find(kStarted) == std::string::npos) {
        std::string said = log_;
        lock.unlock();
        stop();
        throw std::runtime_error("nginx did not start: " + said + "\nwith\n" + config_);
    }
}

void Proxy::readLog(int fd) {
    char buf[4096];
    for (;;) {
        ssize_t n = read(fd, buf, sizeof buf);
        if (n < 0 && errno == EINTR)
            continue;
        std::lock_guard<std::mutex> lock(mutex_);
        if (n <= 0) {
            ended_ = true;
            changed_.notify_all();
            break;
        }
        log_.append(buf, static_cast<size_t>(n));
        changed_.notify_all();
    }
    close(fd);
}

Proxy::~Proxy() {
    stop();
}

void Proxy::stop() {
    if (pid_ > 0) {
        // A fast stop: the master ends its workers and waits for them.
        kill(pid_, SIGTERM);
        waitpid(pid_, nullptr, 0);
        pid_ = -1;
    }
    if (reader_.joinable())
        reader_.join();
}

std::string Proxy::log() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return log_;
}

} // namespace nginx
