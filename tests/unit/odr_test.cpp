#include "odr.h"

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <memory>
#include <sched.h>
#include <fcntl.h>
#include <string>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "kobnet.h"
#include "kobtest.h"
#include "vsb.h"

namespace {

const char kOdr[] = "lib/libkob/odr.cpp";

// A pipe whose read end holds exactly `data` followed by end of file.
int pipeWith(const std::string &data) {
    int p[2];
    EXPECT_EQ(pipe(p), 0);
    EXPECT_EQ(write(p[1], data.data(), data.size()), static_cast<ssize_t>(data.size()));
    close(p[1]);
    return p[0];
}

TEST(OdrReadline, EndOfFilePrintsAndFails) {
    int fd = pipeWith("");
    int r = 0;
    std::string err = kobtest::captureFd(2, [&] {
        char buf[16];
        r = ODR_readline(fd, buf, sizeof buf);
    });
    close(fd);
    EXPECT_EQ(r, -1);
    EXPECT_EQ(err, "ODR_read() error\n");
}

TEST(OdrReadline, CountsNewlineAndTerminator) {
    int fd = pipeWith("ab\nc\r\n");
    char buf[16];
    EXPECT_EQ(ODR_readline(fd, buf, sizeof buf), 4);
    EXPECT_STREQ(buf, "ab\n");
    EXPECT_EQ(ODR_readline(fd, buf, sizeof buf), 4);
    EXPECT_STREQ(buf, "c\r\n"); // a carriage return stays in the line
    close(fd);
}

TEST(OdrReadline, OneCharLineNeedsASpareByte) {
    auto r = kobtest::runChild([] {
        int fd = pipeWith("x\n");
        char buf[3];
        (void)ODR_readline(fd, buf, sizeof buf);
    });
    EXPECT_TRUE(kobtest::vasAbort(r, "ODR_readline", kOdr, "off < buflen"));

    int fd = pipeWith("x\n");
    char buf[4];
    EXPECT_EQ(ODR_readline(fd, buf, sizeof buf), 3);
    EXPECT_STREQ(buf, "x\n");
    close(fd);
}

TEST(OdrReadline, FullBufferWithoutNewlineIsENOBUFS) {
    int fd = pipeWith("abcdefgh-rest\n");
    char buf[8];
    errno = 0;
    EXPECT_EQ(ODR_readline(fd, buf, sizeof buf), -1);
    EXPECT_EQ(errno, ENOBUFS);
    // The bytes read so far are consumed.
    char rest[16];
    EXPECT_EQ(ODR_readline(fd, rest, sizeof rest), 7);
    EXPECT_STREQ(rest, "-rest\n");
    close(fd);
}

TEST(OdrReadFile, Limits) {
    kobtest::TempDir dir;
    std::string data;
    for (int i = 0; i < 4000; i++)
        data += static_cast<char>('a' + i % 26);
    kobtest::writeFile(dir.file("f"), data);

    vsb *all = ODR_readFile(dir.file("f").c_str(), -1);
    ASSERT_NE(all, nullptr);
    EXPECT_EQ(std::string(vsb_data(all), vsb_len(all)), data);
    vsb_delete(all);

    vsb *none = ODR_readFile(dir.file("f").c_str(), 0);
    ASSERT_NE(none, nullptr);
    EXPECT_NE(vsb_done(none), 0);
    EXPECT_EQ(vsb_len(none), 0);
    vsb_delete(none);

    vsb *part = ODR_readFile(dir.file("f").c_str(), 1500);
    ASSERT_NE(part, nullptr);
    EXPECT_EQ(std::string(vsb_data(part), vsb_len(part)), data.substr(0, 1500));
    vsb_delete(part);

    vsb *exact = ODR_readFile(dir.file("f").c_str(), 1024);
    ASSERT_NE(exact, nullptr);
    EXPECT_EQ(vsb_len(exact), 1024);
    vsb_delete(exact);

    EXPECT_EQ(ODR_readFile(dir.file("missing").c_str(), -1), nullptr);
}

ODR_HANDLE *newHandle(int fd) {
    auto h = static_cast<ODR_HANDLE *>(calloc(1, sizeof(ODR_HANDLE)));
    h->fp = static_cast<odr_file *>(calloc(1, sizeof(odr_file)));
    h->fp->magic = ODR_HANDLE_MAGIC;
    h->fp->fd = fd;
    h->type = ODR_FILE_HANDLE;
    return h;
}

TEST(OdrCloseHandle, ClosesOnceAndFrees) {
    int fd = open("/dev/null", O_RDONLY);
    ASSERT_GE(fd, 0);
    ODR_CloseHandle(newHandle(fd));
    EXPECT_EQ(fcntl(fd, F_GETFD), -1); // closed
    // An fd of -1 is not closed again (a close(-1) would fail the check).
    ODR_CloseHandle(newHandle(-1));
}

TEST(OdrCloseHandle, ChecksTypeAndMagic) {
    auto type = kobtest::runChild([] {
        ODR_HANDLE *h = newHandle(-1);
        h->type = 1;
        ODR_CloseHandle(h);
    });
    EXPECT_TRUE(kobtest::vasAbort(type, "ODR_CloseHandle", kOdr, "fd->type == ODR_FILE_HANDLE"));
    auto magic = kobtest::runChild([] {
        ODR_HANDLE *h = newHandle(-1);
        h->fp->magic = 0;
        ODR_CloseHandle(h);
    });
    EXPECT_TRUE(
        kobtest::vasAbort(magic, "ODR_CloseHandle", kOdr, "tfp->magic == ODR_HANDLE_MAGIC"));
    auto badClose = kobtest::runChild([] { ODR_CloseHandle(newHandle(999)); });
    EXPECT_TRUE(kobtest::vasAbort(badClose, "ODR_CloseHandle", kOdr, "(close(tfp->fd)) == 0"));
}

TEST(OdrStrnstr, Cases) {
    const char *s = "abcd";
    EXPECT_EQ(ODR_strnstr(s, "", 0), s);
    EXPECT_EQ(ODR_strnstr(s, "", 100), s);
    EXPECT_EQ(ODR_strnstr(s, "cd", 3), nullptr);
    EXPECT_EQ(ODR_strnstr(s, "cd", 4), s + 2);
    EXPECT_EQ(ODR_strnstr(s, "bc", 4), s + 1);
    EXPECT_EQ(ODR_strnstr(s, "x", 4), nullptr);
    const char *t = "aab";
    EXPECT_EQ(ODR_strnstr(t, "ab", 3), t + 1);
    EXPECT_EQ(ODR_strnstr(t, "ab", 2), nullptr);
    EXPECT_EQ(ODR_strnstr("ab\0cd", "cd", 5), nullptr); // stops at the string's end
}

TEST(OdrStrcasecmp, FoldsBytes) {
    EXPECT_EQ(ODR_strcasecmp("Hello", "hELLO"), 0);
    EXPECT_EQ(ODR_strcasecmp("a", "B"), 'a' - 'b');
    EXPECT_EQ(ODR_strcasecmp("ab", "a"), 'b');
    EXPECT_EQ(ODR_strcasecmp("\xe9", "a"), 0xe9 - 'a'); // bytes compare unsigned
    EXPECT_EQ(ODR_strncasecmp("abcX", "ABCy", 3), 0);
    EXPECT_EQ(ODR_strncasecmp("abcX", "ABCy", 4), 'x' - 'y');
    EXPECT_EQ(ODR_strncasecmp("x", "y", 0), 0);
    EXPECT_EQ(ODR_strncasecmp("ab", "AB", 10), 0);
}

TEST(OdrWrappers, Basics) {
    EXPECT_EQ(ODR_getpagesize(), sysconf(_SC_PAGESIZE));
#if defined(__linux__) && defined(__x86_64__)
    EXPECT_EQ(ODR_getpagesize(), 4096);
#endif
    char src[] = "hello";
    char dst[8] = {};
    ODR_bcopy(src, dst, 6); // source first
    EXPECT_STREQ(dst, "hello");
    char dst2[8] = {};
    EXPECT_EQ(ODR_memcpy(dst2, src, 6), dst2);
    EXPECT_STREQ(dst2, "hello");
    ODR_bzero(dst2, 3);
    EXPECT_EQ(std::string(dst2, 6), std::string("\0\0\0lo\0", 6));
    char *d = ODR_strdup("abc");
    EXPECT_STREQ(d, "abc");
    free(d);
    char *n = ODR_strndup("abcdef", 3);
    EXPECT_STREQ(n, "abc");
    free(n);
    EXPECT_EQ(ODR_trunc(-2.7), -2.0);
    EXPECT_EQ(ODR_trunc(2.7), 2.0);
    EXPECT_EQ(ODR_isadmin(nullptr), geteuid() == 0 ? 1 : 0);
    int p[2];
    ASSERT_EQ(pipe(p), 0);
    EXPECT_EQ(ODR_write(p[1], "xy", 2), 2);
    char b[4];
    EXPECT_EQ(ODR_read(p[0], b, sizeof b), 2);
    close(p[1]);
    EXPECT_EQ(ODR_read(p[0], b, sizeof b), 0);
    close(p[0]);
    time_t before = time(nullptr);
    time_t t = 0;
    time_t now = ODR_time(&t);
    time_t after = time(nullptr);
    EXPECT_EQ(now, t);
    EXPECT_GE(now, before);
    EXPECT_LE(now, after);
    EXPECT_GE(ODR_time(nullptr), now);
    time_t zero = 0;
    EXPECT_EQ(strlen(ODR_ctime(&zero)), 25u); // 24 characters and a line feed
}

TEST(OdrStrsep, SplitsAndAdvances) {
    char text[] = "a,b,,c";
    char *p = text;
    EXPECT_STREQ(ODR_strsep(&p, ","), "a");
    EXPECT_STREQ(ODR_strsep(&p, ","), "b");
    EXPECT_STREQ(ODR_strsep(&p, ","), "");
    EXPECT_STREQ(ODR_strsep(&p, ","), "c");
    EXPECT_EQ(p, nullptr);
    EXPECT_EQ(ODR_strsep(&p, ","), nullptr);
}

TEST(OdrStrsplit, KeepsNonEmptyTokensAndCountsEmptyOnes) {
    char text[] = "a,,b,c";
    char *arr[8];
    EXPECT_EQ(ODR_strsplit(arr, 8, text, ","), 4);
    EXPECT_STREQ(arr[0], "a");
    EXPECT_STREQ(arr[1], "b");
    EXPECT_STREQ(arr[2], "c");
    EXPECT_EQ(arr[3], nullptr);

    char full[] = "a,b,c,d";
    char *two[2];
    // The token that fills the array is not counted.
    EXPECT_EQ(ODR_strsplit(two, 2, full, ","), 1);
    EXPECT_STREQ(two[0], "a");
    EXPECT_STREQ(two[1], "b");
}

TEST(OdrShowLastErrorNum, FormatsNumberAndText) {
    std::string err =
        kobtest::captureFd(2, [] { ODR_showLastErrorNum_debug("open()", 2, "myfunc", 42); });
    EXPECT_EQ(err, std::string("Function: myfunc:42\r\nopen() failed with error 0x2: ") +
                       strerror(2) + "\n");
    errno = EACCES;
    err = kobtest::captureFd(2, [] { ODR_showLastError_debug("stat()", "f", 7); });
    EXPECT_EQ(err, std::string("Function: f:7\r\nstat() failed with error 0xd: ") +
                       strerror(EACCES) + "\n");
}

TEST(OdrShowLastErrorNum, OverlongMessageAborts) {
    auto r = kobtest::runChild([] {
        std::string what(1100, 'w');
        ODR_showLastErrorNum_debug(what.c_str(), 2, "f", 1);
    });
    EXPECT_TRUE(kobtest::vasAbort(r, "ODR_showLastErrorNum_debug", kOdr, "l < sizeof(buf)", 158));
}

TEST(OdrShowWSALastError, PrintsAndAborts) {
    auto r = kobtest::runChild([] { ODR_showWSALastError(nullptr); });
    ASSERT_TRUE(r.aborted());
    EXPECT_EQ(r.out, "ODR_showWSALastError: TODO!\n" +
                         kobtest::vasLine("ODR_showWSALastError", kOdr, 611, "0 == 1"));
}

TEST(OdrPrintf, WrappersPassThrough) {
    std::string out = kobtest::captureFd(1, [] { EXPECT_EQ(ODR_dprintf(1, "%d-%s", 5, "x"), 3); });
    EXPECT_EQ(out, "5-x");
    char buf[4];
    EXPECT_EQ(ODR_snprintf(buf, sizeof buf, "%s", "abcdef"), 6);
    EXPECT_STREQ(buf, "abc");
}

TEST(OdrLibinit, MissingDirectoryAbortsAt585) {
    auto r = kobtest::runChild([] {
        odr_appdir = "/nonexistent/kobdiag-test/var/";
        ODR_libinit(0);
    });
    EXPECT_TRUE(kobtest::vasAbort(r, "ODR_libinit", kOdr, "r == 0", 585));
}

TEST(OdrLibinit, EntersDirectoryAndOpensLog) {
    kobtest::TempDir dir;
    std::string appdir = dir.path() + "/";
    auto r = kobtest::runChild([&] {
        odr_appdir = appdir.c_str();
        ODR_libinit(0);
        char cwd[4096];
        printf("%s %d\n", getcwd(cwd, sizeof cwd), odr_vl != nullptr);
    });
    EXPECT_TRUE(r.exited(0));
    EXPECT_EQ(r.out, dir.path() + " 1\n");
}

/* ---- file mapping ------------------------------------------------------------ */

off_t sizeOf(const std::string &path) {
    struct stat st;
    EXPECT_EQ(stat(path.c_str(), &st), 0);
    return st.st_size;
}

TEST(OdrZerofile, SizeZeroMakesEmptyFile) {
    kobtest::TempDir dir;
    std::string path = dir.file("z");
    kobtest::writeFile(path, "old contents");
    int fd = ODR_zerofile(path.c_str(), 0);
    ASSERT_GE(fd, 0);
    EXPECT_EQ(sizeOf(path), 0);
    // Blocking again after creation.
    EXPECT_EQ(fcntl(fd, F_GETFL) & O_NONBLOCK, 0);
    close(fd);
}

TEST(OdrZerofile, OddSizeIsCutBack) {
    kobtest::TempDir dir;
    std::string path = dir.file("z");
    int fd = ODR_zerofile(path.c_str(), 65537);
    ASSERT_GE(fd, 0);
    close(fd);
    EXPECT_EQ(sizeOf(path), 65537);
    EXPECT_EQ(kobtest::readFile(path), std::string(65537, '\0'));
}

TEST(OdrZerofile, MissingDirectory) {
    kobtest::TempDir dir;
    std::string path = dir.path() + "/no/such/file";
    int fd = 0;
    std::string err = kobtest::captureFd(2, [&] { fd = ODR_zerofile(path.c_str(), 10); });
    EXPECT_EQ(fd, -1);
    EXPECT_EQ(err, "ODR_zerofile: Could not create " + path + ": " + strerror(ENOENT) + "\n");

    auto r = kobtest::runChild([&] { (void)ODR_CreateFileMapping(path.c_str(), 10); });
    EXPECT_TRUE(r.exited(1));
    EXPECT_EQ(r.err, "ODR_zerofile: Could not create " + path + ": " + strerror(ENOENT) + "\n");
}

TEST(OdrFileMapping, CreateMapFlushAndReopen) {
    kobtest::TempDir dir;
    std::string path = dir.file("seg");
    ODR_HANDLE *h = ODR_CreateFileMapping(path.c_str(), 8192);
    ASSERT_NE(h, nullptr);
    EXPECT_EQ(h->type, ODR_FILE_HANDLE);
    EXPECT_EQ(h->fp->magic, ODR_HANDLE_MAGIC);
    auto *p = static_cast<char *>(ODR_MapViewOfFile(h, 8192));
    memcpy(p + 100, "hello", 5);
    EXPECT_EQ(ODR_FlushViewOfFile(p, 8192), 1);
    ODR_UnmapViewOfFile(p, 8192);
    ODR_CloseViewOfFile(h);
    EXPECT_EQ(h->fp->fd, -1);
    ODR_CloseHandle(h);
    EXPECT_EQ(kobtest::readFile(path).substr(100, 5), "hello");

    ODR_HANDLE *o = ODR_OpenFileMapping(path.c_str());
    ASSERT_NE(o, nullptr);
    auto *q = static_cast<char *>(ODR_MapViewOfFile(o, 8192));
    EXPECT_EQ(std::string(q + 100, 5), "hello");
    ODR_UnmapViewOfFile(q, 8192);
    ODR_CloseHandle(o);

    EXPECT_EQ(ODR_OpenFileMapping(dir.file("missing").c_str()), nullptr);
}

// A child holding path's write lock.
struct LockHolder : kobtest::ChildHolder {
    explicit LockHolder(const std::string &path)
        : ChildHolder([&] { return ODR_lockedopen(path.c_str(), O_RDWR) >= 0; }) {
        EXPECT_TRUE(held());
    }
};

TEST(OdrFileMapping, OpenFailsAtOnceWhileAnotherHolds) {
    kobtest::TempDir dir;
    std::string path = dir.file("seg");
    kobtest::writeFile(path, std::string(100, 'x'));
    LockHolder holder(path);
    errno = 0;
    EXPECT_EQ(ODR_OpenFileMapping(path.c_str()), nullptr);
    EXPECT_EQ(errno, EAGAIN);
    EXPECT_EQ(ODR_lockedopen(path.c_str(), O_RDONLY | O_NONBLOCK), -1);
    EXPECT_EQ(errno, EAGAIN);
}

TEST(OdrLockedopen, TruncatesOnlyOnceLocked) {
    kobtest::TempDir dir;
    std::string path = dir.file("pid");
    kobtest::writeFile(path, "12345");
    {
        LockHolder holder(path);
        EXPECT_EQ(ODR_lockedopen(path.c_str(), O_WRONLY | O_TRUNC | O_NONBLOCK), -1);
        EXPECT_EQ(kobtest::readFile(path), "12345"); // the holder's data survives
    }
    int fd = ODR_lockedopen(path.c_str(), O_WRONLY | O_TRUNC | O_NONBLOCK);
    ASSERT_GE(fd, 0);
    EXPECT_EQ(kobtest::readFile(path), "");
    close(fd);
}

// True once /proc/locks shows a process blocked waiting for a lock.
bool someoneWaits(pid_t pid) {
    std::string locks = kobtest::readFile("/proc/locks");
    return locks.find("-> POSIX") != std::string::npos &&
           locks.find(" " + std::to_string(pid) + " ") != std::string::npos;
}

TEST(OdrLockedopen, ReopensWhenReplacedWhileWaiting) {
#ifndef __linux__
    GTEST_SKIP() << "needs Linux: /proc/locks shows when the waiter blocks";
#endif
    kobtest::TempDir dir;
    std::string path = dir.file("f");
    kobtest::writeFile(path, "first");
    auto holder = std::make_unique<LockHolder>(path);
    int out[2];
    ASSERT_EQ(pipe(out), 0);
    pid_t waiter = fork();
    if (waiter == 0) {
        close(out[0]);
        close(holder->releaseFd()); // only the parent may let the holder go
        // Blocks: opens "first", then waits for the lock.
        int fd = ODR_lockedopen(path.c_str(), O_RDONLY);
        char buf[16] = {};
        ssize_t n = fd >= 0 ? pread(fd, buf, sizeof buf - 1, 0) : 0;
        (void)!write(out[1], buf, n > 0 ? static_cast<size_t>(n) : 0);
        _exit(0);
    }
    close(out[1]);
    while (!someoneWaits(waiter))
        sched_yield();
    kobtest::writeFile(dir.file("g"), "second");
    ASSERT_EQ(rename(dir.file("g").c_str(), path.c_str()), 0);
    holder.reset(); // lets the waiter have the old file's lock
    std::string got;
    char buf[64];
    ssize_t n;
    while ((n = read(out[0], buf, sizeof buf)) > 0)
        got.append(buf, static_cast<size_t>(n));
    close(out[0]);
    waitpid(waiter, nullptr, 0);
    EXPECT_EQ(got, "second");
}

TEST(OdrFileMapping, CloseViewThenCloseHandleClosesOnce) {
    kobtest::TempDir dir;
    ODR_HANDLE *h = ODR_CreateFileMapping(dir.file("seg").c_str(), 4096);
    int fd = h->fp->fd;
    ODR_CloseViewOfFile(h);
    EXPECT_EQ(fcntl(fd, F_GETFD), -1);
    ODR_CloseHandle(h); // would fail "(close(tfp->fd)) == 0" if it closed again
}

TEST(OdrFileMapping, ChecksHandles) {
    auto r = kobtest::runChild([] {
        ODR_HANDLE *h = newHandle(-1);
        h->type = 0;
        (void)ODR_MapViewOfFile(h, 10);
    });
    EXPECT_TRUE(kobtest::vasAbort(r, "ODR_MapViewOfFile", kOdr, "fd->type == ODR_FILE_HANDLE"));
    auto m = kobtest::runChild([] {
        ODR_HANDLE *h = newHandle(-1);
        h->fp->magic = 1;
        ODR_CloseViewOfFile(h);
    });
    EXPECT_TRUE(
        kobtest::vasAbort(m, "ODR_CloseViewOfFile", kOdr, "tfp->magic == ODR_HANDLE_MAGIC"));
    auto c = kobtest::runChild([] { ODR_CloseViewOfFile(newHandle(999)); });
    EXPECT_TRUE(kobtest::vasAbort(c, "ODR_CloseViewOfFile", kOdr, "(close(tfp->fd)) == 0"));
    auto f = kobtest::runChild([] { (void)ODR_FlushViewOfFile(reinterpret_cast<void *>(8), 1); });
    EXPECT_TRUE(kobtest::vasAbort(f, "ODR_FlushViewOfFile", kOdr, "(msync(p, size, 0x0010)) == 0"));
    auto u = kobtest::runChild([] { ODR_UnmapViewOfFile(reinterpret_cast<void *>(8), 1); });
    EXPECT_TRUE(kobtest::vasAbort(u, "ODR_UnmapViewOfFile", kOdr, "(munmap(ptr, size)) == 0"));
}

TEST(OdrFileMapping, FailedMapExits255) {
    kobtest::TempDir dir;
    std::string path = dir.file("seg");
    auto r = kobtest::runChild([&] {
        ODR_HANDLE *h = newHandle(open("/dev/null", O_RDONLY)); // cannot map shared read-write
        (void)ODR_MapViewOfFile(h, 4096);
    });
    EXPECT_TRUE(r.exited(255));
    EXPECT_EQ(r.err.rfind("Mmap error: ", 0), 0u);
}

using kobtest::Fd;

// ---- socket helpers ----------------------------------------------------------------

TEST(OdrPrefix2mask, LeadingOnesWithZeroWrappingToAFullMask) {
    struct Case {
        int bits;
        const char *mask;
    } cases[] = {{24, "255.255.255.0"}, {0, "255.255.255.255"}, {32, "255.255.255.255"},
                 {1, "128.0.0.0"},      {8, "255.0.0.0"},       {31, "255.255.255.254"},
                 {17, "255.255.128.0"}};
    for (const Case &c : cases) {
        SCOPED_TRACE(c.bits);
        EXPECT_STREQ(ODR_prefix2mask(c.bits), c.mask);
    }
}

TEST(OdrPrefix2mask, NextCallOverwritesTheResult) {
    char *first = ODR_prefix2mask(8);
    char *second = ODR_prefix2mask(16);
    EXPECT_EQ(first, second);
    EXPECT_STREQ(first, "255.255.0.0");
}

TEST(OdrMask2prefix, CountsOneBitsContiguousOrNot) {
    struct Case {
        const char *mask;
        int bits;
    } cases[] = {{"255.255.255.0", 24}, {"0.0.0.0", 0}, {"255.255.255.255", 32},
                 {"255.0.255.0", 16},   {"0.0.0.1", 1}, {"128.0.0.0", 1}};
    for (const Case &c : cases) {
        SCOPED_TRACE(c.mask);
        EXPECT_EQ(ODR_mask2prefix(c.mask), c.bits);
    }
    for (int bits = 1; bits <= 32; bits++) {
        SCOPED_TRACE(bits);
        EXPECT_EQ(ODR_mask2prefix(ODR_prefix2mask(bits)), bits);
    }
}

TEST(OdrNonblocking, SetsNonblockingMode) {
    Fd fd(socket(AF_INET, SOCK_STREAM, 0));
    ODR_nonblocking(fd.get());
    EXPECT_NE(fcntl(fd.get(), F_GETFL) & O_NONBLOCK, 0);
}

TEST(OdrNonblocking, FailureIsFatalWhateverTheErrno) {
    auto r = kobtest::runChild([] { ODR_nonblocking(-1); });
    EXPECT_TRUE(kobtest::vasAbort(r, "ODR_nonblocking", kOdr, "j == 0"));
}

TEST(OdrSetsocktimeout, SetsBothLimitsFromFractionalSeconds) {
    Fd fd(socket(AF_INET, SOCK_STREAM, 0));
    EXPECT_EQ(ODR_setsocktimeout(fd.get(), 1.5), 0);
    for (int o : {SO_SNDTIMEO, SO_RCVTIMEO}) {
        timeval tv = kobtest::sockTimeout(fd.get(), o);
        EXPECT_EQ(tv.tv_sec, 1);
        EXPECT_EQ(tv.tv_usec, 500000);
    }
}

TEST(OdrSetsocktimeout, SendLimitFailureIsMinusOne) {
    int p[2];
    ASSERT_EQ(pipe(p), 0);
    Fd r(p[0]);
    Fd w(p[1]);
    EXPECT_EQ(ODR_setsocktimeout(r.get(), 1.0), -1);
    EXPECT_EQ(ODR_setsocktimeout(-1, 1.0), -1);
}

TEST(OdrSend, PeerGoneIsEpipeNotASignal) {
    auto r = kobtest::runChild([] {
        (void)signal(SIGPIPE, SIG_DFL);
        int sv[2];
        ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, sv), 0);
        EXPECT_EQ(ODR_send(sv[0], "ab", 2), 2);
        (void)close(sv[1]);
        errno = 0;
        EXPECT_EQ(ODR_send(sv[0], "cd", 2), -1);
        EXPECT_EQ(errno, EPIPE);
        printf("alive\n");
    });
    EXPECT_EQ(r.out, "alive\n");
    EXPECT_TRUE(r.exited(0)) << r.err;
}

TEST(OdrStrtoul, ParsesLikeStrtoul) {
    char *end;
    EXPECT_EQ(ODR_strtoul("0x1fz", &end, 0), 31ul);
    EXPECT_STREQ(end, "z");
    EXPECT_EQ(ODR_strtoul("777", nullptr, 8), 511ul);
}

} // namespace
