/*
 * vss.h - endpoint texts and the socket addresses they resolve to.
 *
 * An endpoint is "host:port", "host port", "[v6addr]:port", ":port" (any
 * address) or a bare host.  VSS_resolve turns one into self-contained address
 * records; the VSS_*Addr calls and VSS_open turn records into sockets.
 *
 * Error classes written to the optional int outputs:
 *   1 malformed bracketed address     2 connect time limit (or select failed)
 *   3 socket() failed                 4 connect() failed
 *   5 name lookup failed              6 lookup gave no address
 */
#ifndef KOB_VSS_H
#define KOB_VSS_H

#include <sys/socket.h>

#ifdef __cplusplus
extern "C" {
#endif

/* One resolved address, ready for socket(), bind() or connect(). */
struct vss_addr {
    int va_family;   /* AF_INET, AF_INET6 */
    int va_socktype; /* SOCK_STREAM */
    int va_protocol;
    socklen_t va_addrlen; /* valid bytes of va_addr, at most 128 */
    struct sockaddr_storage va_addr;
};

/*
 * Split str into a host and a port, each a new text the caller frees, or
 * NULL where absent.  A blank separates before a colon does ("a b:c" has the
 * port "b:c"), and only the first colon counts, so an IPv6 address must be
 * bracketed.  Returns 0, or -1 with *err = 1 for a malformed bracket form
 * ("[::1", "[]:80", "[::1]x").  err may be NULL.
 */
int VSS_parse(const char *str, char **addr, char **port, int *err);

/*
 * Resolve str (def_port, which may be NULL, when str has no port) into
 * stream-socket addresses in the resolver's order.  A missing host means the
 * wildcard addresses.  Returns the count and sets *vap to an array of that
 * many records; the caller frees each record and then the array.  On failure
 * returns 0 with *vap NULL and *err 1, 5 or 6.  Trap: without a port the
 * whole text is looked up as it stands, brackets included.
 */
int VSS_resolve(const char *str, const char *def_port, struct vss_addr ***vap, int *err);

/*
 * A socket bound to va with SO_REUSEADDR, or -1 after a perror() line
 * ("socket()", "setsockopt(SO_REUSEADDR, 1)" or "bind()") on stderr.
 */
int VSS_bindAddr(const struct vss_addr *va);

/* VSS_bindAddr, then listen(depth); -1 after perror("listen()"). */
int VSS_listenAddr(const struct vss_addr *va, int depth);

/*
 * A socket connected, or with nonblock still connecting, to va.  Either way
 * it is returned in blocking mode.  -1 on failure with *err 3 (socket; no
 * message for EPROTONOSUPPORT, anything else is perror'ed) or 4 (connect) and
 * *errnum = errno.  err and errnum may be NULL.
 */
int VSS_connectAddr(const struct vss_addr *va, int nonblock, int *err, int *errnum);

/*
 * Connect to the endpoint str, which must carry a port, trying each address
 * in turn with the full limit tmo (seconds, whole ones; 0 for a plain
 * blocking connect).  With a limit the connection also gets send and receive
 * timeouts of tmo.  Returns the descriptor or -1.  Traps: *err keeps the
 * class of an earlier address's failure even when a later one connects; a
 * refused connection counts as connected when tmo is set; a tmo below one
 * second fails the assertion "sec > 0" once a connection is made.
 */
int VSS_open(const char *str, int *err, int *errnum, double tmo);

#ifdef __cplusplus
}
#endif

#endif
