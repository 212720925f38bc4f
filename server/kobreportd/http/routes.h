// The requests and answers the handlers see, independent of the HTTP
// library, and the route table: every route of both listeners is one row
// (method, path pattern, listener, access, role, handler), and the sign-in,
// form-token and role checks are applied from the row in one place.

#ifndef KOBREPORTD_ROUTES_H
#define KOBREPORTD_ROUTES_H

#include <functional>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "accounts.h"
#include "public_url.h"
#include "second_factor.h"

namespace kobreportd {

enum class Method { Get, Post, Delete };
const char *methodName(Method m);

enum class Listener { Intake, Staff };
const char *listenerName(Listener l);

// What a route asks of its caller: nothing (Open), kobdiag's upload form
// (Upload), a signed-in session with the form token on changes (Page), or
// a bearer token (Api).
enum class Access { Open, Upload, Page, Api };
const char *accessName(Access a);

// Names compared without regard to case, as HTTP compares field names.
struct Caseless {
    bool operator()(const std::string &a, const std::string &b) const;
};

struct Request {
    std::string method, path;
    std::vector<std::string> matches; // matches[1..]: the pattern's {names}
    std::multimap<std::string, std::string, Caseless> headers;
    // The query's and the form's fields, the query's first.
    std::multimap<std::string, std::string> params;
    // The caller's address: the peer's, or the client one of the operator's
    // proxies names.
    std::string client_address;
    // The address of the machine that connected (a proxy's, when one is
    // in front), whatever it says of its client.
    std::string peer_address;
    bool tls = false;
    // Upload routes: the form's fields (a handler may take them), and the
    // body's bytes as received.
    mutable std::map<std::string, std::string> form;
    size_t body_bytes = 0;

    bool hasHeader(const std::string &name) const { return headers.count(name) != 0; }
    // The first value, or "".
    std::string header(const std::string &name) const;
    std::vector<std::string> headerValues(const std::string &name) const;
    bool hasParam(const std::string &name) const { return params.count(name) != 0; }
    std::string param(const std::string &name) const;
};

struct Response {
    int status = 200;
    std::vector<std::pair<std::string, std::string>> headers;
    std::string body;
    // Replaces a header of this name, if one is set.
    void setHeader(const std::string &name, const std::string &value);
    // Adds one more (Set-Cookie may come several times).
    void addHeader(const std::string &name, const std::string &value);
    void setContent(std::string content, const std::string &type);
    // The staff side's answers carry the user's data as it came and are
    // masked on their way out, unless this says the caller asked for it
    // (an admin's reveal) or the body holds none of it; keep lists the
    // addresses left readable beside the operator's own.
    bool unmasked = false;
    std::set<std::string, std::less<>> keep;
    // A body too large to hold: when set, it is sent in pieces as this
    // gives them (at most `max` bytes each; 0 at the end) instead of body.
    std::function<std::size_t(char *buf, std::size_t max)> stream;
};

// A plain-text answer.
void answer(Response &res, int status, const std::string &text);

// who is nullptr on Open and Upload routes.
using Handler = std::function<void(const Request &, Response &, const Principal *who)>;

struct Route {
    Method method;
    std::string pattern; // literal segments and {name} for one segment
    Listener listener;
    Access access;
    Role role; // the least role (Page and Api routes)
    Handler handler;
};

// Whether path fits pattern; fills matches (matches[0] is the path).
bool matchPath(const std::string &pattern, const std::string &path,
               std::vector<std::string> &matches);

// The table of both listeners.  The rows' handlers hold on to the stores
// given to the functions that make them.
class RouteTable {
  public:
    void add(Route r) { rows_.push_back(std::move(r)); }
    const std::vector<Route> &rows() const { return rows_; }
    // The row for this method and path on this listener; nullptr when none.
    // allowed lists the methods the path has there, for 405's Allow.
    const Route *find(Listener l, const std::string &method, const std::string &path,
                      std::vector<std::string> &matches, std::string &allowed) const;
    // One line per row: "METHOD PATTERN LISTENER ACCESS ROLE".
    std::string text() const;

  private:
    std::vector<Route> rows_;
};

// The session, form-token and role checks of Page routes and the bearer
// token of Api routes, applied from the row.  Returns who may go ahead, or
// nothing with res already holding the refusal.
class Guard {
  public:
    // publicUrl: where browsers reach the staff side, when a proxy that
    // ends TLS or strips a path prefix stands in front of it.
    Guard(Accounts &accounts, bool tls, PublicUrl publicUrl = {})
        : accounts_(accounts), tls_(tls), public_(std::move(publicUrl)), links_(public_.prefix) {}
    // Open and Upload routes pass with ok set and no one.
    std::optional<Principal> check(const Route &route, const Request &req, Response &res,
                                   bool &ok) const;
    // Browsers name the page a form came from; another site's may not post.
    // Behind a public URL, the page is one of the public URL's origin.
    bool sameOrigin(const Request &req) const;
    std::string cookieAttributes() const;
    // Where browsers reach this side: the public URL's origin, or the
    // scheme and Host the request came with.
    std::string origin(const Request &req) const;
    // Browsers speak HTTPS to this side: it has TLS, or the public URL is https.
    bool secure() const { return tls_ || public_.https; }
    const Links &links() const { return links_; }
    // People of the roles rule names may do nothing but set up a second
    // factor (and sign out) until they have one; proxy sign-ins are exempt,
    // their identity provider having asked for its own.
    void requireSecondFactor(SecondFactorRule rule) { rule_ = rule; }
    // Pages also accept the person an identity provider's proxy names.
    void signInThroughProxy(const class AuthProxy *proxy) { proxy_ = proxy; }

  private:
    std::optional<Principal> pageCaller(const Request &req, Response &res, bool &refused) const;
    Accounts &accounts_;
    bool tls_;
    PublicUrl public_;
    Links links_;
    SecondFactorRule rule_ = SecondFactorRule::Optional;
    const class AuthProxy *proxy_ = nullptr;
};

// Where a person without a required second factor is sent.
constexpr const char *kSecondFactorPage = "/account/second-factor";

constexpr const char *kSessionCookie = "kob_session";
constexpr const char *kSignInCookie = "kob_signin";
// A sign-in waiting for its second factor's code: no session yet.
constexpr const char *kPendingCookie = "kob_pending";

// One cookie's value from the request's Cookie headers, or "".
std::string cookie(const Request &req, const std::string &name);
bool sameSecret(const std::string &a, const std::string &b);
void seeOther(Response &res, const std::string &where);

} // namespace kobreportd

#endif
