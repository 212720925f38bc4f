#include "kobtest.h"

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <poll.h>
#include <stdexcept>
#include <sys/stat.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

#include "odr.h"
#include "vsb.h"

namespace kobtest {

bool ChildResult::exited(int code) const {
    return WIFEXITED(status) && WEXITSTATUS(status) == code;
}

bool ChildResult::killedBy(int sig) const {
    return WIFSIGNALED(status) && WTERMSIG(status) == sig;
}

bool ChildResult::aborted() const {
    return killedBy(SIGABRT);
}

namespace {

// Read both pipes until both are closed.
void drain(int outFd, int errFd, std::string &out, std::string &err) {
    struct pollfd fds[2] = {{outFd, POLLIN, 0}, {errFd, POLLIN, 0}};
    int open = 2;
    while (open > 0) {
        if (poll(fds, 2, -1) < 0) {
            if (errno == EINTR)
                continue;
            throw std::runtime_error("poll failed");
        }
        for (int i = 0; i < 2; i++) {
            if (fds[i].fd < 0 || fds[i].revents == 0)
                continue;
            char buf[65536];
            ssize_t n = read(fds[i].fd, buf, sizeof buf);
            if (n > 0) {
                (i == 0 ? out : err).append(buf, static_cast<size_t>(n));
            } else {
                close(fds[i].fd);
                fds[i].fd = -1;
                open--;
            }
        }
    }
}

ChildResult forkWith(const std::function<void()> &child) {
    int outPipe[2];
    int errPipe[2];
    if (pipe(outPipe) != 0 || pipe(errPipe) != 0)
        throw std::runtime_error("pipe failed");
    fflush(nullptr);
    pid_t pid = fork();
    if (pid < 0)
        throw std::runtime_error("fork failed");
    if (pid == 0) {
        dup2(outPipe[1], 1);
        dup2(errPipe[1], 2);
        close(outPipe[0]);
        close(outPipe[1]);
        close(errPipe[0]);
        close(errPipe[1]);
        child();
        fflush(nullptr);
        _exit(0);
    }
    close(outPipe[1]);
    close(errPipe[1]);
    ChildResult r;
    drain(outPipe[0], errPipe[0], r.out, r.err);
    while (waitpid(pid, &r.status, 0) < 0 && errno == EINTR) {
    }
    return r;
}

} // namespace

ChildResult runChild(const std::function<void()> &fn) {
    return forkWith([&fn] {
        // Unbuffered, so that nothing written before an abort is lost.
        setvbuf(stdout, nullptr, _IONBF, 0);
        setvbuf(stderr, nullptr, _IONBF, 0);
        fn();
    });
}

ChildResult runProgram(const std::vector<std::string> &argv, const std::string &cwd,
                       const std::vector<std::string> &env) {
    return forkWith([&] {
        int devnull = open("/dev/null", O_RDONLY);
        if (devnull >= 0) {
            dup2(devnull, 0);
            close(devnull);
        }
        if (!cwd.empty() && chdir(cwd.c_str()) != 0)
            _exit(126);
        for (const auto &e : env)
            putenv(strdup(e.c_str()));
        std::vector<char *> args;
        for (const auto &a : argv)
            args.push_back(const_cast<char *>(a.c_str()));
        args.push_back(nullptr);
        execv(args[0], args.data());
        _exit(127);
    });
}

std::string captureFd(int fd, const std::function<void()> &fn) {
    int p[2];
    if (pipe(p) != 0)
        throw std::runtime_error("pipe failed");
    fflush(nullptr);
    int saved = dup(fd);
    dup2(p[1], fd);
    close(p[1]);
    std::string data;
    std::thread reader([&] {
        char buf[65536];
        ssize_t n;
        while ((n = read(p[0], buf, sizeof buf)) > 0)
            data.append(buf, static_cast<size_t>(n));
    });
    fn();
    fflush(nullptr);
    dup2(saved, fd);
    close(saved);
    reader.join();
    close(p[0]);
    return data;
}

TempDir::TempDir() {
    const char *base = getenv("TMPDIR");
    std::string tmpl = std::string(base != nullptr ? base : "/tmp") + "/kobtest.XXXXXX";
    std::vector<char> buf(tmpl.begin(), tmpl.end());
    buf.push_back('\0');
    if (mkdtemp(buf.data()) == nullptr)
        throw std::runtime_error("mkdtemp failed");
    path_ = buf.data();
}

TempDir::~TempDir() {
    std::error_code ec;
    std::filesystem::remove_all(path_, ec);
}

void writeFile(const std::string &path, const std::string &data) {
    std::ofstream f(path, std::ios::binary | std::ios::trunc);
    f.write(data.data(), static_cast<std::streamsize>(data.size()));
    if (!f)
        throw std::runtime_error("cannot write " + path);
}

std::string readFile(const std::string &path) {
    struct vsb *file = ODR_readFile(path.c_str(), -1);
    if (file == nullptr)
        throw std::runtime_error("cannot read " + path);
    std::string text(vsb_data(file), static_cast<size_t>(vsb_len(file)));
    vsb_delete(file);
    return text;
}

uint64_t processMemory(pid_t pid, const std::string &field) {
    std::string status = readFile("/proc/" + std::to_string(pid) + "/status");
    auto at = status.find(field);
    return at == std::string::npos ? 0 : std::stoull(status.substr(at + field.size())) * 1024;
}

ChildHolder::ChildHolder(const std::function<bool()> &take) {
    int ready[2];
    int go[2];
    if (pipe(ready) != 0 || pipe(go) != 0)
        throw std::runtime_error("pipe failed");
    fflush(nullptr);
    pid_ = fork();
    if (pid_ < 0)
        throw std::runtime_error("fork failed");
    if (pid_ == 0) {
        close(ready[0]);
        close(go[1]);
        char c = take() ? 'y' : 'n';
        (void)!write(ready[1], &c, 1);
        // Held until the parent closes its end.
        (void)!read(go[0], &c, 1);
        _exit(0);
    }
    close(ready[1]);
    close(go[0]);
    release_ = go[1];
    char c = 0;
    held_ = read(ready[0], &c, 1) == 1 && c == 'y';
    close(ready[0]);
}

ChildHolder::~ChildHolder() {
    close(release_);
    while (waitpid(pid_, nullptr, 0) < 0 && errno == EINTR) {
    }
}

bool fileExists(const std::string &path) {
    struct stat st;
    return stat(path.c_str(), &st) == 0;
}

std::string vasLine(const std::string &func, const std::string &file, int line,
                    const std::string &cond) {
    return "assert fail! " + func + " " + file + ":" + std::to_string(line) + " " + cond + " 0\n";
}

} // namespace kobtest

#include <regex>

namespace kobtest {

namespace {

std::string regexEscape(const std::string &s) {
    static const std::regex special(R"([.^$|()\[\]{}*+?\\])");
    return std::regex_replace(s, special, R"(\$&)");
}

} // namespace

::testing::AssertionResult vasAbort(const ChildResult &r, const std::string &func,
                                    const std::string &file, const std::string &cond, int line) {
    if (!r.aborted())
        return ::testing::AssertionFailure()
               << "child did not abort (status " << r.status << "), stdout: " << r.out;
    std::string lineRe = line < 0 ? "[0-9]+" : std::to_string(line);
    std::regex re("assert fail! " + regexEscape(func) + " " + regexEscape(file) + ":" + lineRe +
                  " " + regexEscape(cond) + " 0\n");
    if (!std::regex_match(r.out, re))
        return ::testing::AssertionFailure() << "stdout was: [" << r.out << "]";
    return ::testing::AssertionSuccess();
}

::testing::AssertionResult platformAssert(const ChildResult &r, const std::string &func,
                                          const std::string &file, const std::string &cond,
                                          int line) {
    if (!r.aborted())
        return ::testing::AssertionFailure()
               << "child did not abort (status " << r.status << "), stderr: " << r.err;
    std::string lineRe = line < 0 ? "[0-9]+" : std::to_string(line);
#ifdef __APPLE__
    // macOS: "Assertion failed: (<expr>), function <name>, file <file>, line <line>.\n",
    // where assert() gives the bare name, not the signature.
    std::string name = func.substr(0, func.find('('));
    name = name.substr(name.rfind(' ') == std::string::npos ? 0 : name.rfind(' ') + 1);
    std::regex re("(.*\n)?Assertion failed: \\(" + regexEscape(cond) + "\\), function " +
                  regexEscape(name) + ", file " + regexEscape(file) + ", line " + lineRe + "\\.\n");
#else
    // glibc: "<prog>: <file>:<line>: <function>: Assertion `<expr>' failed.\n"
    std::regex re("(.*\n)?[^\n]*: " + regexEscape(file) + ":" + lineRe + ": " + regexEscape(func) +
                  ": Assertion `" + regexEscape(cond) + "' failed\\.\n");
#endif
    if (!std::regex_match(r.err, re))
        return ::testing::AssertionFailure() << "stderr was: [" << r.err << "]";
    return ::testing::AssertionSuccess();
}

} // namespace kobtest
