// Helpers shared by the test programs: running code in a child process with
// its output captured, capturing a stream of this process, temporary
// directories and files.

#ifndef KOBTEST_H
#define KOBTEST_H

#include <cstdint>
#include <functional>
#include <string>
#include <sys/types.h>
#include <vector>

namespace kobtest {

// Whether this program was built with a sanitizer, and so the tree it came
// from: such a tree's programs run several times slower, and most of their
// memory is the sanitizer's own.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool kSanitized = true;
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
constexpr bool kSanitized = true;
#else
constexpr bool kSanitized = false;
#endif
#else
constexpr bool kSanitized = false;
#endif

struct ChildResult {
    int status = 0;  // as from waitpid
    std::string out; // everything the child wrote to standard output
    std::string err; // ... and to standard error

    bool exited(int code) const;
    bool killedBy(int sig) const;
    bool aborted() const;
};

// Run fn in a forked child with unbuffered standard output and error going
// to pipes; the child exits 0 when fn returns.  Waits for the child.
ChildResult runChild(const std::function<void()> &fn);

// Run a program (argv[0] is the path) with standard input from /dev/null,
// capturing both output streams.  env entries "NAME=value" are added.
ChildResult runProgram(const std::vector<std::string> &argv, const std::string &cwd = "",
                       const std::vector<std::string> &env = {});

// Everything written to fd (1 or 2) while fn runs, through a pipe.
std::string captureFd(int fd, const std::function<void()> &fn);

// A fresh directory under $TMPDIR, removed with its contents at the end.
class TempDir {
  public:
    TempDir();
    ~TempDir();
    TempDir(const TempDir &) = delete;
    TempDir &operator=(const TempDir &) = delete;
    const std::string &path() const { return path_; }
    std::string file(const std::string &name) const { return path_ + "/" + name; }

  private:
    std::string path_;
};

void writeFile(const std::string &path, const std::string &data);
std::string readFile(const std::string &path);
bool fileExists(const std::string &path);
// A process's memory in bytes, from a field of /proc/PID/status: "VmRSS:"
// for what is resident now, "VmHWM:" for its peak; 0 without the field.
uint64_t processMemory(pid_t pid, const std::string &field);

// A child process that takes something (a lock, a PID file) and holds it
// until the holder is destroyed.  take runs in the child and says whether it
// got it; held() is what it said, known once the constructor returns.
class ChildHolder {
  public:
    explicit ChildHolder(const std::function<bool()> &take);
    ~ChildHolder();
    ChildHolder(const ChildHolder &) = delete;
    ChildHolder &operator=(const ChildHolder &) = delete;
    bool held() const { return held_; }
    pid_t pid() const { return pid_; }
    // The end whose closing lets the holder go; a child forked by the test
    // closes its copy, so that only the test lets it go.
    int releaseFd() const { return release_; }

  private:
    pid_t pid_ = -1;
    int release_ = -1;
    bool held_ = false;
};

// The libkob assertion line for a failed check.
std::string vasLine(const std::string &func, const std::string &file, int line,
                    const std::string &cond);

} // namespace kobtest

// GoogleTest checks for a child that ended in a libkob assertion: exactly one
// line on standard output and an abort.  Without a pinned line any line
// number is accepted.
#include <gtest/gtest.h>

namespace kobtest {

::testing::AssertionResult vasAbort(const ChildResult &r, const std::string &func,
                                    const std::string &file, const std::string &cond,
                                    int line = -1);

// A child that ended in the platform's standard assertion: the message on
// standard error names the expression (and the line, when given).
::testing::AssertionResult platformAssert(const ChildResult &r, const std::string &func,
                                          const std::string &file, const std::string &cond,
                                          int line = -1);

} // namespace kobtest

#endif
