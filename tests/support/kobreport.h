// Helpers for the tests of a whole diagnostic run: the upload's request
// (upload_request.h), koblab as a child process, the "dia" log's records,
// and a report cut into its headed sections.

#ifndef KOBREPORT_H
#define KOBREPORT_H

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <poll.h>
#include <regex>
#include <stdexcept>
#include <string>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

#include "upload_request.h"

namespace kobtest {

/* ---- the "dia" log ---------------------------------------------------------- */

// The messages of the lines of the named test log at a level marker ("----"
// for level 0), in order.  A message may span several lines of output; it
// ends where the next line of any log begins.
inline std::vector<std::string> logRecords(const std::string &out, const std::string &lead,
                                           const std::string &name) {
    static const std::regex prefix("(^|\n)(----|#   |##  |### |####) +[0-9]+\\.[0-9]{2} (\\S+) +");
    std::vector<std::string> records;
    struct Start {
        size_t at;  // where the prefix begins (after the line feed)
        size_t msg; // where the message begins
        bool ours;
    };
    std::vector<Start> starts;
    for (auto it = std::sregex_iterator(out.begin(), out.end(), prefix);
         it != std::sregex_iterator(); ++it) {
        const auto &m = *it;
        size_t at = static_cast<size_t>(m.position(0) + m[1].length());
        // The name is padded to four columns, then one space; a message may
        // itself begin with blanks.
        std::string id = m[3].str();
        size_t msg =
            static_cast<size_t>(m.position(3)) + id.size() + (id.size() < 4 ? 5 - id.size() : 1);
        starts.push_back({at, msg, m[2].str() == lead && id == name});
    }
    for (size_t i = 0; i < starts.size(); i++) {
        if (!starts[i].ours)
            continue;
        size_t end = i + 1 < starts.size() ? starts[i + 1].at - 1 : out.size() - 1;
        records.push_back(out.substr(starts[i].msg, end - starts[i].msg));
    }
    return records;
}

/* ---- koblab ------------------------------------------------------------------- */

// koblab in a child process: started, waited for until it says it is ready,
// stopped with SIGTERM.
class Koblab {
  public:
    Koblab(const std::string &bin, std::vector<std::string> args) {
        int p[2];
        if (pipe(p) != 0)
            throw std::runtime_error("pipe failed");
        args.insert(args.begin(), bin);
        fflush(nullptr);
        pid_ = fork();
        if (pid_ < 0)
            throw std::runtime_error("fork failed");
        if (pid_ == 0) {
            dup2(p[1], 1);
            dup2(p[1], 2);
            close(p[0]);
            close(p[1]);
            std::vector<char *> argv;
            for (auto &a : args)
                argv.push_back(a.data());
            argv.push_back(nullptr);
            execv(argv[0], argv.data());
            _exit(127);
        }
        close(p[1]);
        fd_ = p[0];
        while (out_.find("koblab: ready\n") == std::string::npos) {
            if (!readSome(30000)) {
                stop();
                throw std::runtime_error("koblab did not start: " + out_);
            }
        }
    }
    ~Koblab() { stop(); }
    Koblab(const Koblab &) = delete;
    Koblab &operator=(const Koblab &) = delete;

    // Stop it with sig and return its wait status; idempotent.
    int stop(int sig = SIGTERM) {
        if (pid_ > 0) {
            kill(pid_, sig);
            while (readSome(30000)) {
            }
            while (waitpid(pid_, &status_, 0) < 0 && errno == EINTR) {
            }
            pid_ = -1;
            close(fd_);
            fd_ = -1;
        }
        return status_;
    }
    // Everything it printed so far (all of it once stopped).
    const std::string &output() const { return out_; }

  private:
    bool readSome(int ms) {
        pollfd pfd = {fd_, POLLIN, 0};
        if (poll(&pfd, 1, ms) <= 0)
            return false;
        char buf[4096];
        ssize_t n = read(fd_, buf, sizeof buf);
        if (n <= 0)
            return false;
        out_.append(buf, static_cast<size_t>(n));
        return true;
    }

    pid_t pid_ = -1;
    int fd_ = -1;
    int status_ = -1;
    std::string out_;
};

/* ---- the report's sections ---------------------------------------------------- */

struct Section {
    std::string heading; // the "==> " line with its line feed
    std::string body;    // everything up to the next heading
};

// The report cut at every line that begins with "==> ".  What precedes the
// first heading is returned as a section with an empty heading.
inline std::vector<Section> sections(const std::string &report) {
    std::vector<Section> out;
    Section cur;
    size_t pos = 0;
    while (pos < report.size()) {
        size_t nl = report.find('\n', pos);
        size_t end = nl == std::string::npos ? report.size() : nl + 1;
        std::string line = report.substr(pos, end - pos);
        if (line.rfind("==> ", 0) == 0) {
            out.push_back(cur);
            cur = Section{line, ""};
        } else {
            cur.body += line;
        }
        pos = end;
    }
    out.push_back(cur);
    return out;
}

} // namespace kobtest

#endif
