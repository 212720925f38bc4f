/*
 * vpf.h - PID files.
 *
 * A PID file is created, locked and filled with the process ID so that a
 * second instance cannot run at the same time.  The lock lives as long as the
 * descriptor: closing the handle, or the process's end, releases it.
 */
#ifndef KOB_VPF_H
#define KOB_VPF_H

#include <sys/types.h>

#ifdef __cplusplus
extern "C" {
#endif

struct vpf_fh;

/*
 * Create and lock path with mode.  Returns the handle, or NULL with errno
 * set: ENAMETOOLONG for paths over 1024 characters; when another process
 * holds the lock, EAGAIN, or, when pidptr is given, EEXIST with the holder's
 * PID in *pidptr (EINVAL if its file holds no clean number).  The file is
 * truncated only once the lock is held.
 */
struct vpf_fh *VPF_Open(const char *path, mode_t mode, pid_t *pidptr);
/*
 * Write our PID (no line feed).  0, or -1 with errno: EINVAL when the
 * handle's descriptor no longer names the file it opened; on a failed
 * truncate or write the file is removed and the handle kept.  Trap: Close
 * and Remove verify the same way and do not free a handle that fails.
 */
int VPF_Write(struct vpf_fh *pfh);
/* Close and free the handle; the file stays on disk.  0 or -1/errno. */
int VPF_Close(struct vpf_fh *pfh);
/* Remove the file, close and free the handle.  0 or -1/errno. */
int VPF_Remove(struct vpf_fh *pfh);

#ifdef __cplusplus
}
#endif

#endif
