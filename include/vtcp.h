/*
 * vtcp.h - small helpers for connected sockets: blocking mode, time limits,
 * closing, and printable names.
 */
#ifndef KOB_VTCP_H
#define KOB_VTCP_H

#include <stdbool.h>
#include <sys/socket.h>

#ifdef __cplusplus
extern "C" {
#endif

/*
 * True when j is 0, or when the call failed because the peer has already
 * gone (ECONNRESET, ENOTCONN): that is not the caller's error.
 */
bool VTCP_Check(int j);

/* FIONBIO off; returns the ioctl result.  Failure is "VTCP_Check(j)". */
int VTCP_blocking(int fd);
/* FIONBIO on.  Failure is "VTCP_Check(j)". */
void VTCP_nonblocking(int fd);

/* Receive, then send, time limit of sec seconds; sec must be above 0. */
void VTCP_setTimeout(int fd, int sec);

/* Close *fd, which must succeed ("i == 0"), and set it to -1. */
void VTCP_close(int *fd);

/*
 * Numeric host and port texts of addr into abuf/pbuf (sizes alen/plen).  An
 * IPv4-mapped IPv6 host is shown as the plain dotted address.  On a lookup
 * error prints "getnameinfo = <n> <text>\n" on stdout and stores
 * "Conversion" and "Failed", cut to the buffer sizes.
 */
void VTCP_nameinfo(const void *addr, socklen_t addrlen, char *abuf, size_t alen, char *pbuf,
                   size_t plen);

/* VTCP_nameinfo of the socket's own address; getsockname must succeed. */
void VTCP_myname(int sock, char *abuf, size_t alen, char *pbuf, size_t plen);

/* VTCP_nameinfo of the peer, or "<none>" in both buffers without one. */
void VTCP_peername(int sock, char *abuf, size_t alen, char *pbuf, size_t plen);

/* The port of an AF_INET or AF_INET6 address in host order, else -1. */
int VTCP_sockport(const struct sockaddr_storage *addr);

#ifdef __cplusplus
}
#endif

#endif
