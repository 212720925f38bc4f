// The library's side of a listener: its daemon, its callbacks, and each
// request from head to answer.  The library parses; what is checked here
// is policy on what it parsed.

#include <algorithm>
#include <cctype>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <optional>
#include <strings.h>
#include <sys/socket.h>
#include <microhttpd.h>
#include <stdexcept>
#include <sys/eventfd.h>
#include <sys/mman.h>
#include <unistd.h>

#include "edge.h"
#include "log.h"

namespace kobreportd {

using namespace edge;

namespace {

using Impl = HttpServer::Impl;

Conn *connOf(MHD_Connection *mc) {
    const union MHD_ConnectionInfo *i =
        MHD_get_connection_info(mc, MHD_CONNECTION_INFO_SOCKET_CONTEXT);
    return i ? static_cast<Conn *>(i->socket_context) : nullptr;
}

void notifyConnection(void *cls, MHD_Connection *mc, void **socketContext,
                      enum MHD_ConnectionNotificationCode code) {
    auto *s = static_cast<Impl *>(cls);
    if (code == MHD_CONNECTION_NOTIFY_STARTED) {
        const union MHD_ConnectionInfo *i =
            MHD_get_connection_info(mc, MHD_CONNECTION_INFO_CONNECTION_FD);
        std::lock_guard<std::mutex> lock(s->mutex);
        auto it = i ? s->byLibraryFd.find(i->connect_fd) : s->byLibraryFd.end();
        if (it != s->byLibraryFd.end()) {
            *socketContext = it->second;
            s->byLibraryFd.erase(it);
        }
        return;
    }
    auto *c = static_cast<Conn *>(*socketContext);
    if (!c)
        return;
    std::lock_guard<std::mutex> lock(s->mutex);
    c->phase = Lingering;
    shutdown(c->fd, SHUT_WR);
    s->closedByLibrary.push_back(c);
    uint64_t one = 1;
    (void)!write(s->wakeFd, &one, sizeof one);
}

void *uriLog(void *, const char *uri, MHD_Connection *mc) {
    if (Conn *c = connOf(mc))
        c->rawUriLength = std::strlen(uri);
    return nullptr;
}

int hexValue(char c) {
    if (c >= '0' && c <= '9')
        return c - '0';
    c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    return c >= 'a' && c <= 'f' ? c - 'a' + 10 : -1;
}

// %HH decoded in place, except %00: a path or field is a C string to the
// library, and a NUL would cut it short into another name.
size_t unescape(void *, MHD_Connection *, char *s) {
    char *w = s;
    for (const char *r = s; *r;) {
        int hi = r[0] == '%' ? hexValue(r[1]) : -1, lo = hi >= 0 ? hexValue(r[2]) : -1;
        if (lo >= 0 && (hi | lo) != 0) {
            *w++ = static_cast<char>(hi * 16 + lo);
            r += 3;
        } else {
            *w++ = *r++;
        }
    }
    *w = '\0';
    return static_cast<size_t>(w - s);
}

// A field's name and value are where the library found them in the head:
// "Name:", optional blanks, the value.  The library takes a folded line
// (obs-fold) as more of the previous field's name, which it then copies
// elsewhere: "Content-Length: 5\r\n 0" would lose its length to a field
// "Content-Length0".  Such a name is not where it was read, and that is
// how a fold is known.
bool readInPlace(const char *key, size_t keySize, const char *value) {
    auto k = reinterpret_cast<uintptr_t>(key), v = reinterpret_cast<uintptr_t>(value);
    if (v < k + keySize + 1 || v - (k + keySize + 1) > 16384)
        return false;
    for (const char *p = key + keySize + 1; p < value; p++)
        if (*p != ' ' && *p != '\t')
            return false;
    return true;
}

MHD_Result collectHeader(void *cls, enum MHD_ValueKind, const char *key, size_t keySize,
                         const char *value, size_t valueSize) {
    auto *ex = static_cast<Exchange *>(cls);
    if (!value || !readInPlace(key, keySize, value))
        ex->folded = true;
    ex->req.headers.emplace(std::string(key, keySize),
                            value ? std::string(value, valueSize) : std::string());
    return MHD_YES;
}

MHD_Result collectArgument(void *cls, enum MHD_ValueKind, const char *key, const char *value) {
    auto *req = static_cast<Request *>(cls);
    req->params.emplace(key, value ? value : "");
    return MHD_YES;
}

// A streamed body's source, owned by the library's response until it is
// freed.
using Source = std::function<std::size_t(char *, std::size_t)>;

ssize_t readSource(void *cls, uint64_t, char *buf, size_t max) {
    try {
        std::size_t n = (*static_cast<Source *>(cls))(buf, max);
        return n ? static_cast<ssize_t>(n) : MHD_CONTENT_READER_END_OF_STREAM;
    } catch (const std::exception &e) {
        // Too late for an error status: the answer is cut short instead.
        log::error("answer_cut_short", {{"error", e.what()}});
        return MHD_CONTENT_READER_END_WITH_ERROR;
    }
}

void freeSource(void *cls) {
    delete static_cast<Source *>(cls);
}

MHD_Result queue(Impl &s, MHD_Connection *mc, Exchange &ex, Response &res) {
    ex.status = res.status;
    ex.conn->phase = Answering;
    MHD_Response *r = nullptr;
    if (res.stream) {
        // Counted as it goes, for the access log; the count outlives
        // whichever of the two ends first.
        ex.streamed = std::make_shared<std::atomic<size_t>>(0);
        auto *source = new Source(
            [inner = std::move(res.stream), counted = ex.streamed](char *buf, std::size_t max) {
                std::size_t n = inner(buf, max);
                *counted += n;
                return n;
            });
        r = MHD_create_response_from_callback(MHD_SIZE_UNKNOWN, size_t{64} * 1024, readSource,
                                              source, freeSource);
        if (!r)
            delete source;
    } else {
        ex.bodyBytes = res.body.size();
        r = MHD_create_response_from_buffer(res.body.size(), const_cast<char *>(res.body.data()),
                                            MHD_RESPMEM_MUST_COPY);
    }
    if (!r)
        return MHD_NO;
    for (const auto &[name, value] : s.opt.default_headers)
        MHD_add_response_header(r, name.c_str(), value.c_str());
    for (const auto &[name, value] : res.headers)
        MHD_add_response_header(r, name.c_str(), value.c_str());
    if (s.opt.close_each)
        MHD_add_response_header(r, "Connection", "close");
    MHD_Result ok = MHD_queue_response(mc, static_cast<unsigned>(res.status), r);
    MHD_destroy_response(r);
    return ok;
}

MHD_Result refuse(Impl &s, MHD_Connection *mc, Exchange &ex, int status, const std::string &text) {
    Response res;
    answer(res, status, text);
    return queue(s, mc, ex, res);
}

bool strictLength(const std::string &v, size_t &out) {
    if (v.empty() || v.size() > 19)
        return false;
    size_t n = 0;
    for (char c : v) {
        if (c < '0' || c > '9')
            return false;
        n = n * 10 + static_cast<size_t>(c - '0');
    }
    out = n;
    return true;
}

// What RFC 9112 forbids and the library lets through, checked on what it
// parsed: a name with whitespace before its colon, CR, LF or NUL left in a
// field, two lengths, a length beside a transfer coding; and any content
// coding, which would have the body counted as claimed and not as received.
// Returns 0 when the head may go on.
int headPolicy(const Impl &s, Exchange &ex, size_t headBytes, std::string &text) {
    const Request &req = ex.req;
    const EdgeLimits &l = s.opt.limits;
    if (headBytes > l.max_head || req.headers.size() + 1 > static_cast<size_t>(l.max_head_lines)) {
        text = "Request header fields too large: at most " + std::to_string(l.max_head) +
               " bytes in " + std::to_string(l.max_head_lines) + " lines\n";
        return 431;
    }
    if (ex.conn->rawUriLength > l.max_uri) {
        text = "URI too long\n";
        return 414;
    }
    if (ex.folded) {
        text = "Bad request: a folded header line\n";
        return 400;
    }
    for (const auto &[name, value] : req.headers) {
        bool bad = name.empty();
        for (char c : name)
            bad = bad || c == ' ' || c == '\t' || c == '\r' || c == '\n' || c == '\0';
        for (char c : value)
            bad = bad || c == '\r' || c == '\n' || c == '\0';
        if (bad) {
            text = "Bad request: malformed header field\n";
            return 400;
        }
    }
    auto lengths = req.headerValues("Content-Length");
    bool chunked = req.hasHeader("Transfer-Encoding");
    if (lengths.size() > 1 ||
        (lengths.size() == 1 && !strictLength(lengths[0], ex.contentLength))) {
        text = "Bad request: Content-Length\n";
        return 400;
    }
    if (chunked && !lengths.empty()) {
        text = "Bad request: Content-Length with Transfer-Encoding\n";
        return 400;
    }
    for (const std::string &coding : req.headerValues("Content-Encoding"))
        if (strcasecmp(coding.c_str(), "identity") != 0) {
            text = "Unsupported Content-Encoding: only identity is accepted\n";
            return 415;
        }
    ex.hasBody = chunked || ex.contentLength > 0;
    return 0;
}

// A large field's reserved room is fresh memory, each page of it a fault
// when first written.  Mapping it a stretch at a time as the body comes in
// costs a fraction of that, and maps no more than has nearly arrived: a
// client that claims a large body and sends nothing holds no memory.
void mapAhead(Exchange &ex, size_t coming) {
    constexpr size_t kPage = 4096, kStretch = size_t{256} * 1024;
    std::string &f = *ex.field;
    if (ex.mappedRoom != f.data()) {
        // Another field, or this one moved as it grew: what it holds is
        // written, so mapped; the rest of its room is not yet.
        ex.mappedRoom = f.data();
        ex.mapped = f.size();
    }
    size_t need = f.size() + coming;
    if (f.capacity() < kStretch || need <= ex.mapped)
        return;
    // Whole pages only, from the first that starts after what is mapped.
    auto pageOffset = [&f](size_t at) {
        return reinterpret_cast<uintptr_t>(f.data() + at) % kPage;
    };
    size_t upto = std::min(f.capacity(), need + kStretch);
    size_t from = ex.mapped + (kPage - pageOffset(ex.mapped)) % kPage, to = upto - pageOffset(upto);
    // Only a hint: where it fails, the pages fault in one by one as before.
    if (to > from)
        madvise(f.data() + from, to - from, MADV_POPULATE_WRITE);
    ex.mapped = upto;
}

// kobdiag's form, field by field, from the library's multipart parser.  A
// field begins at offset 0; an empty one is announced once with no data.
MHD_Result uploadField(void *cls, enum MHD_ValueKind, const char *key, const char *, const char *,
                       const char *, const char *data, uint64_t off, size_t size) {
    auto *ex = static_cast<Exchange *>(cls);
    bool fresh = off == 0 && (!ex->fieldOpen || ex->currentName != key || ex->field->size() != 0);
    if (fresh) {
        size_t reserve = 0;
        if (!ex->server->opt.upload.field(key, ex->req, ex->problem, reserve))
            return MHD_NO;
        ex->fieldOpen = true;
        ex->currentName = key;
        ex->field = &ex->req.form[key];
        if (reserve)
            ex->field->reserve(reserve);
    }
    mapAhead(*ex, size);
    ex->field->append(data, size);
    return MHD_YES;
}

// A form of the staff pages: its fields join the query's.
MHD_Result formField(void *cls, enum MHD_ValueKind, const char *key, const char *, const char *,
                     const char *, const char *data, uint64_t off, size_t size) {
    auto *ex = static_cast<Exchange *>(cls);
    if (off == 0 || ex->currentName != key) {
        ex->currentName = key;
        ex->field = &ex->req.params.emplace(key, "")->second;
    }
    ex->field->append(data, size);
    return MHD_YES;
}

// The guard and the handler, on a worker: both may wait for the database.
void work(Impl &s, MHD_Connection *mc, Exchange &ex) {
    try {
        bool ok = false;
        // Alive is alive, whatever the database holds.
        std::optional<std::string> down = s.opt.unavailable && ex.route->pattern != "/healthz"
                                              ? s.opt.unavailable()
                                              : std::nullopt;
        std::optional<Principal> who =
            !down && s.guard ? s.guard->check(*ex.route, ex.req, ex.res, ok) : std::nullopt;
        if (down)
            answer(ex.res, 503, *down);
        else if (ok || !s.guard)
            ex.route->handler(ex.req, ex.res, who ? &*who : nullptr);
    } catch (const std::exception &e) {
        // The operator needs to know why; the client does not.
        log::error("request_failed",
                   {{"method", ex.req.method}, {"route", ex.route->pattern}, {"error", e.what()}});
        ex.res = Response();
        answer(ex.res, 500, "Internal error\n");
    }
    ex.ready = true;
    MHD_resume_connection(mc);
}

MHD_Result firstCall(Impl &s, MHD_Connection *mc, Exchange &ex, const char *url,
                     const char *method) {
    Conn *c = ex.conn;
    ex.req.method = method;
    ex.req.path = url;
    ex.req.tls = !s.plain;
    MHD_get_connection_values_n(mc, MHD_HEADER_KIND, collectHeader, &ex);
    ex.req.peer_address = c->peer;
    // Our proxies say who their client is; anyone else's say is ignored.
    ex.req.client_address =
        s.opt.proxies ? s.opt.proxies->client(c->address, ex.req.headerValues("X-Forwarded-For"),
                                              ex.req.headerValues("Forwarded"))
                      : c->address;
    MHD_get_connection_values(mc, MHD_GET_ARGUMENT_KIND, collectArgument, &ex.req);
    const union MHD_ConnectionInfo *hs =
        MHD_get_connection_info(mc, MHD_CONNECTION_INFO_REQUEST_HEADER_SIZE);
    std::string text;
    int status = headPolicy(s, ex, hs ? hs->header_size : 0, text);
    if (status)
        return refuse(s, mc, ex, status, text);
    std::string allowed;
    ex.route = s.routes.find(s.opt.listener, ex.req.method, ex.req.path, ex.req.matches, allowed);
    if (!ex.route) {
        if (allowed.empty())
            return refuse(s, mc, ex, 404, "Not found\n");
        Response res;
        answer(res, 405, s.opt.not_allowed_text);
        res.setHeader("Allow", allowed);
        return queue(s, mc, ex, res);
    }
    bool upload = ex.route->access == Access::Upload;
    if (upload) {
        Response res;
        ex.admitted = s.opt.upload.admit(ex.req, res);
        if (!ex.admitted)
            return queue(s, mc, ex, res);
    }
    size_t maxBody = upload ? s.opt.limits.max_body : size_t{64} * 1024;
    if (ex.contentLength > maxBody)
        return refuse(s, mc, ex, 413, "Request too large\n");
    if (ex.hasBody) {
        ex.pp = MHD_create_post_processor(mc, 16384, upload ? uploadField : formField, &ex);
        if (!ex.pp && upload)
            return refuse(s, mc, ex, 400, "Bad request: expected multipart/form-data\n");
    }
    // The head is whole: the body, if any, must now keep coming.
    int64_t now = nowNs();
    c->windowStart = now;
    c->windowBytes = 0;
    c->lastActivity = now;
    c->phase = Body;
    return MHD_YES;
}

// The library takes an answer only on the head or once the whole request is
// in: a refusal found in the body waits for the rest, which is dropped as
// it comes (within the watchdog's limits).
MHD_Result refuseLater(Exchange &ex, int status, const std::string &text) {
    ex.res = Response();
    answer(ex.res, status, text);
    ex.refused = true;
    return MHD_YES;
}

MHD_Result bodyData(Impl &s, Exchange &ex, const char *data, size_t size) {
    Conn *c = ex.conn;
    c->bodyBytes += size;
    c->lastActivity = nowNs();
    ex.req.body_bytes += size;
    if (ex.refused)
        return MHD_YES;
    bool upload = ex.route->access == Access::Upload;
    size_t maxBody = upload ? s.opt.limits.max_body : size_t{64} * 1024;
    if (ex.req.body_bytes > maxBody)
        return refuseLater(ex, 413, "Request too large\n");
    if (ex.pp && MHD_post_process(ex.pp, data, size) != MHD_YES) {
        MHD_destroy_post_processor(ex.pp);
        ex.pp = nullptr;
        if (upload)
            return refuseLater(
                ex, 400,
                "Bad request: " + (ex.problem.empty() ? "malformed multipart body" : ex.problem) +
                    "\n");
        return refuseLater(ex, 400, "Bad request: malformed form\n");
    }
    return MHD_YES;
}

MHD_Result access(void *cls, MHD_Connection *mc, const char *url, const char *method, const char *,
                  const char *data, size_t *dataSize, void **context) {
    auto &s = *static_cast<Impl *>(cls);
    auto *ex = static_cast<Exchange *>(*context);
    if (!ex) {
        Conn *c = connOf(mc);
        if (!c)
            return MHD_NO;
        ex = new Exchange;
        s.exchanges++;
        ex->server = &s;
        ex->conn = c;
        ex->start = nowNs();
        *context = ex;
        return firstCall(s, mc, *ex, url, method);
    }
    if (*dataSize) {
        size_t n = *dataSize;
        *dataSize = 0;
        // Once an answer is queued, what still comes is dropped.
        return ex->status ? MHD_YES : bodyData(s, *ex, data, n);
    }
    if (ex->status)
        return MHD_YES;
    if (ex->ready || ex->refused)
        return queue(s, mc, *ex, ex->res);
    if (ex->submitted)
        return MHD_YES;
    if (ex->pp) {
        bool whole = MHD_destroy_post_processor(ex->pp) == MHD_YES;
        ex->pp = nullptr;
        if (!whole && ex->route->access == Access::Upload)
            return refuse(s, mc, *ex, 400, "Bad request: malformed multipart body\n");
    }
    // The connection waits, suspended, for its answer; it must be
    // suspended before the worker can resume it.
    ex->conn->phase = Working;
    ex->submitted = true;
    MHD_suspend_connection(mc);
    if (!s.workers.submit([&s, mc, ex] { work(s, mc, *ex); })) {
        // Stopping: the workers are gone.
        answer(ex->res, 503, "Stopping, please send again shortly\n");
        ex->ready = true;
        MHD_resume_connection(mc);
    }
    return MHD_YES;
}

void completed(void *cls, MHD_Connection *, void **context, enum MHD_RequestTerminationCode toe) {
    auto &s = *static_cast<Impl *>(cls);
    auto *ex = static_cast<Exchange *>(*context);
    if (!ex)
        return;
    *context = nullptr;
    if (ex->pp)
        MHD_destroy_post_processor(ex->pp);
    Conn *c = ex->conn;
    int status = ex->status;
    if (!status)
        status = c->cannedStatus.load();
    if (!status && c->phase.load() == Body && s.plain &&
        (toe == MHD_REQUEST_TERMINATED_CLIENT_ABORT || toe == MHD_REQUEST_TERMINATED_READ_ERROR) &&
        !c->ended.exchange(true)) {
        // The client shut its side in the middle of the body but may still
        // read: it hears why before the connection closes.
        std::string text =
            cannedAnswer(400, "Bad Request", "Bad request: the body ended early\n", "");
        if (send(c->fd, text.data(), text.size(), MSG_NOSIGNAL | MSG_DONTWAIT) > 0)
            status = 400;
    }
    double seconds = static_cast<double>(nowNs() - ex->start) / 1e9;
    if (ex->route && ex->route->access == Access::Upload && s.opt.upload.finished)
        s.opt.upload.finished(ex->req, status, ex->admitted, seconds);
    if (s.opt.observed)
        s.opt.observed(ex->req, ex->route, status,
                       ex->streamed ? ex->streamed->load() : ex->bodyBytes, seconds);
    delete ex;
    s.exchanges--;
    // A kept connection's next request has the same limits from now on.
    if (!s.opt.close_each && toe == MHD_REQUEST_TERMINATED_COMPLETED_OK) {
        c->startRequest(nowNs(), s.opt.limits);
        c->phase = Head;
    }
}

} // namespace

bool HttpServer::Impl::startLibrary(std::string &error) {
    unsigned flags = MHD_USE_NO_LISTEN_SOCKET | MHD_USE_INTERNAL_POLLING_THREAD | MHD_USE_EPOLL |
                     MHD_ALLOW_SUSPEND_RESUME | MHD_USE_ITC;
    if (!plain)
        flags |= MHD_USE_TLS;
    std::vector<MHD_OptionItem> o = {
        {MHD_OPTION_THREAD_POOL_SIZE, std::max(1, opt.io_threads), nullptr},
        {MHD_OPTION_CONNECTION_LIMIT, maxConns + 16, nullptr},
        // A backstop: the watchdog says 408 first.
        {MHD_OPTION_CONNECTION_TIMEOUT, opt.limits.read_timeout_s + 1, nullptr},
        // The head is parsed in place: room for the largest head we take,
        // its fields' records, and the answer's head.
        {MHD_OPTION_CONNECTION_MEMORY_LIMIT, intptr_t{32} * 1024, nullptr},
        {MHD_OPTION_STRICT_FOR_CLIENT, 0, nullptr},
        {MHD_OPTION_NOTIFY_CONNECTION, reinterpret_cast<intptr_t>(notifyConnection), this},
        {MHD_OPTION_NOTIFY_COMPLETED, reinterpret_cast<intptr_t>(completed), this},
        {MHD_OPTION_URI_LOG_CALLBACK, reinterpret_cast<intptr_t>(uriLog), this},
        {MHD_OPTION_UNESCAPE_CALLBACK, reinterpret_cast<intptr_t>(unescape), this},
    };
    if (!plain) {
        // Asked for at each handshake, so that a reload takes effect
        // from the next connection.
        o.push_back({MHD_OPTION_HTTPS_CERT_CALLBACK, 0, Certificates::callback()});
        o.push_back({MHD_OPTION_HTTPS_PRIORITIES, 0,
                     const_cast<char *>("NORMAL:-VERS-ALL:+VERS-TLS1.3:+VERS-TLS1.2")});
    }
    o.push_back({MHD_OPTION_END, 0, nullptr});
    daemon = MHD_start_daemon(flags, 0, nullptr, nullptr, access, this, MHD_OPTION_ARRAY, o.data(),
                              MHD_OPTION_END);
    if (!daemon) {
        error = plain ? "cannot start the HTTP library" : "the certificate or key cannot be used";
        return false;
    }
    return true;
}

} // namespace kobreportd
