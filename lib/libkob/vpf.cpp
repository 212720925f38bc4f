// PID files.

#include "vpf.h"

#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "odr.h"
#include "vas.h"

struct vpf_fh {
    int pf_fd;
    char pf_path[1024 + 1];
    dev_t pf_dev;
    ino_t pf_ino;
};

namespace {

// 0 with the PID of a file that holds a clean decimal number, EINVAL for
// anything else, EAGAIN for an empty file, or the errno of open or read.
int vpfRead(const char *path, pid_t *pidptr) {
    int fd = open(path, O_RDONLY);
    if (fd == -1)
        return errno;
    char buf[16];
    ssize_t i = read(fd, buf, sizeof(buf) - 1);
    int error = errno;
    close(fd);
    if (i == -1)
        return error;
    if (i == 0)
        return EAGAIN;
    buf[i] = '\0';
    char *endptr;
    errno = 0;
    long pid = strtol(buf, &endptr, 10);
    if (errno != 0 || endptr != &buf[i])
        return EINVAL;
    *pidptr = static_cast<pid_t>(pid);
    return 0;
}

// 0 while the handle's descriptor still names the file that was opened,
// else an errno value.
int vpfVerify(const vpf_fh *pfh) {
    if (pfh == nullptr || pfh->pf_fd < 0)
        return EINVAL;
    struct stat sb;
    if (fstat(pfh->pf_fd, &sb) == -1)
        return errno;
    if (sb.st_dev != pfh->pf_dev || sb.st_ino != pfh->pf_ino)
        return EINVAL;
    return 0;
}

int vpfRemove(vpf_fh *pfh, bool freeit) {
    int error = vpfVerify(pfh);
    if (error != 0) {
        errno = error;
        return -1;
    }
    if (unlink(pfh->pf_path) == -1)
        error = errno;
    if (close(pfh->pf_fd) == -1 && error == 0)
        error = errno;
    if (freeit)
        free(pfh);
    else
        pfh->pf_fd = -1;
    if (error != 0) {
        errno = error;
        return -1;
    }
    return 0;
}

} // namespace

extern "C" {

vpf_fh *VPF_Open(const char *path, mode_t mode, pid_t *pidptr) {
    auto pfh = static_cast<vpf_fh *>(malloc(sizeof(vpf_fh)));
    if (pfh == nullptr)
        return nullptr;
    VAS_CHECK_LINE(path != nullptr, "path != NULL", 115);
    int len = snprintf(pfh->pf_path, sizeof(pfh->pf_path), "%s", path);
    if (len >= static_cast<int>(sizeof(pfh->pf_path))) {
        free(pfh);
        errno = ENAMETOOLONG;
        return nullptr;
    }
    int fd = ODR_lockedopen(pfh->pf_path, O_WRONLY | O_CREAT | O_TRUNC | O_NONBLOCK, mode);
    if (fd == -1) {
        if (errno == EAGAIN && pidptr != nullptr) {
            // The holder truncates under its lock and writes right after;
            // give an empty file a moment to receive its number.
            int error = vpfRead(pfh->pf_path, pidptr);
            for (int tries = 0; error == EAGAIN && tries < 20; tries++) {
                struct timespec pause = {0, 5000000};
                nanosleep(&pause, nullptr);
                error = vpfRead(pfh->pf_path, pidptr);
            }
            errno = error == 0 ? EEXIST : error;
        }
        int error = errno;
        free(pfh);
        errno = error;
        return nullptr;
    }
    struct stat sb;
    if (fstat(fd, &sb) == -1) {
        int error = errno;
        unlink(pfh->pf_path);
        close(fd);
        free(pfh);
        errno = error;
        return nullptr;
    }
    pfh->pf_fd = fd;
    pfh->pf_dev = sb.st_dev;
    pfh->pf_ino = sb.st_ino;
    return pfh;
}

int VPF_Write(vpf_fh *pfh) {
    int error = vpfVerify(pfh);
    if (error != 0) {
        errno = error;
        return -1;
    }
    if (ftruncate(pfh->pf_fd, 0) == -1) {
        error = errno;
        (void)vpfRemove(pfh, false);
        errno = error;
        return -1;
    }
    char pidstr[16];
    error = snprintf(pidstr, sizeof(pidstr), "%ju", static_cast<uintmax_t>(getpid()));
    VAS_CHECK_LINE(static_cast<size_t>(error) < sizeof pidstr, "error < sizeof pidstr", 192);
    if (pwrite(pfh->pf_fd, pidstr, strlen(pidstr), 0) != static_cast<ssize_t>(strlen(pidstr))) {
        error = errno;
        (void)vpfRemove(pfh, false);
        errno = error;
        return -1;
    }
    return 0;
}

int VPF_Close(vpf_fh *pfh) {
    int error = vpfVerify(pfh);
    if (error != 0) {
        errno = error;
        return -1;
    }
    if (close(pfh->pf_fd) == -1)
        error = errno;
    free(pfh);
    if (error != 0) {
        errno = error;
        return -1;
    }
    return 0;
}

int VPF_Remove(vpf_fh *pfh) {
    return vpfRemove(pfh, true);
}

} // extern "C"
