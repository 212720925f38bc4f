#include "routes.h"

#include <algorithm>
#include <sodium.h>
#include <strings.h>

#include "auth_proxy.h"
#include "html.h"
#include "pages.h"

namespace kobreportd {

const char *methodName(Method m) {
    switch (m) {
    case Method::Get:
        return "GET";
    case Method::Post:
        return "POST";
    case Method::Delete:
        return "DELETE";
    }
    return "?";
}

const char *listenerName(Listener l) {
    return l == Listener::Intake ? "intake" : "staff";
}

const char *accessName(Access a) {
    switch (a) {
    case Access::Open:
        return "open";
    case Access::Upload:
        return "upload";
    case Access::Page:
        return "page";
    case Access::Api:
        return "api";
    }
    return "?";
}

bool Caseless::operator()(const std::string &a, const std::string &b) const {
    return strcasecmp(a.c_str(), b.c_str()) < 0;
}

std::string Request::header(const std::string &name) const {
    auto it = headers.find(name);
    return it == headers.end() ? std::string() : it->second;
}

std::vector<std::string> Request::headerValues(const std::string &name) const {
    std::vector<std::string> out;
    auto [from, to] = headers.equal_range(name);
    for (auto it = from; it != to; ++it)
        out.push_back(it->second);
    return out;
}

std::string Request::param(const std::string &name) const {
    auto it = params.find(name);
    return it == params.end() ? std::string() : it->second;
}

void Response::setHeader(const std::string &name, const std::string &value) {
    for (auto &h : headers)
        if (strcasecmp(h.first.c_str(), name.c_str()) == 0) {
            h.second = value;
            return;
        }
    headers.emplace_back(name, value);
}

void Response::addHeader(const std::string &name, const std::string &value) {
    headers.emplace_back(name, value);
}

void Response::setContent(std::string content, const std::string &type) {
    body = std::move(content);
    setHeader("Content-Type", type);
}

void answer(Response &res, int status, const std::string &text) {
    res.status = status;
    res.setContent(text, "text/plain; charset=utf-8");
}

bool matchPath(const std::string &pattern, const std::string &path,
               std::vector<std::string> &matches) {
    matches.assign(1, path);
    size_t p = 0, q = 0;
    while (p < pattern.size()) {
        if (pattern[p] == '{') {
            size_t close = pattern.find('}', p);
            size_t end = path.find('/', q);
            if (end == std::string::npos)
                end = path.size();
            if (end == q)
                return false;
            matches.push_back(path.substr(q, end - q));
            p = close + 1;
            q = end;
            continue;
        }
        if (q >= path.size() || path[q] != pattern[p])
            return false;
        p++;
        q++;
    }
    return q == path.size();
}

const Route *RouteTable::find(Listener l, const std::string &method, const std::string &path,
                              std::vector<std::string> &matches, std::string &allowed) const {
    allowed.clear();
    std::vector<std::string> m;
    for (const auto &r : rows_) {
        if (r.listener != l || !matchPath(r.pattern, path, m))
            continue;
        if (method == methodName(r.method)) {
            matches = std::move(m);
            return &r;
        }
        if (allowed.find(methodName(r.method)) == std::string::npos)
            allowed += std::string(allowed.empty() ? "" : ", ") + methodName(r.method);
    }
    return nullptr;
}

std::string RouteTable::text() const {
    std::string out;
    for (const auto &r : rows_) {
        bool credentials = r.access == Access::Page || r.access == Access::Api;
        out += std::string(methodName(r.method)) + " " + r.pattern + " " +
               listenerName(r.listener) + " " + accessName(r.access) + " " +
               (credentials ? roleName(r.role) : "-") + "\n";
    }
    return out;
}

std::string cookie(const Request &req, const std::string &name) {
    for (const std::string &h : req.headerValues("Cookie")) {
        size_t pos = 0;
        while (pos < h.size()) {
            size_t end = h.find(';', pos);
            if (end == std::string::npos)
                end = h.size();
            size_t start = h.find_first_not_of(' ', pos);
            if (start < end) {
                size_t eq = h.find('=', start);
                if (eq < end && eq - start == name.size() &&
                    h.compare(start, eq - start, name) == 0)
                    return h.substr(eq + 1, end - eq - 1);
            }
            pos = end + 1;
        }
    }
    return "";
}

bool sameSecret(const std::string &a, const std::string &b) {
    return !a.empty() && a.size() == b.size() && sodium_memcmp(a.data(), b.data(), a.size()) == 0;
}

void seeOther(Response &res, const std::string &where) {
    res.status = 303;
    res.setHeader("Location", where);
}

std::string Guard::cookieAttributes() const {
    return "; HttpOnly; SameSite=Strict; Path=" + links_.prefix() + (secure() ? "; Secure" : "");
}

std::string Guard::origin(const Request &req) const {
    if (!public_.url.empty())
        return public_.origin;
    return std::string(tls_ ? "https://" : "http://") + req.header("Host");
}

bool Guard::sameOrigin(const Request &req) const {
    std::string site = req.header("Sec-Fetch-Site");
    if (!site.empty() && site != "same-origin" && site != "none")
        return false;
    // Under "Referrer-Policy: no-referrer" a browser names the origin of
    // this server's own forms "null"; Sec-Fetch-Site has said where they
    // came from.
    std::string origin = req.header("Origin");
    if (!req.hasHeader("Origin") || (origin == "null" && site == "same-origin"))
        return true;
    if (!public_.url.empty())
        return origin == public_.origin;
    return origin == std::string(tls_ ? "https://" : "http://") + req.header("Host");
}

namespace {

void refusePage(Response &res, const std::string &why, const Principal &who, const Links &links) {
    pages::Viewer v{&who, Accounts::csrfToken(who.session), links};
    res.status = 403;
    res.setContent(pages::frame("Not allowed", v, "", pages::message(why)),
                   "text/html; charset=utf-8");
}

void jsonError(Response &res, int status, const std::string &what) {
    res.status = status;
    // The texts are ours and need no escaping.
    res.setContent("{\"error\":\"" + what + "\"}", "application/json");
}

} // namespace

// The person the identity provider's proxy names, else the session's.  A
// refusal is answered on res, with refused set.
std::optional<Principal> Guard::pageCaller(const Request &req, Response &res, bool &refused) const {
    std::optional<Principal> who;
    std::string why;
    if (proxy_) {
        switch (proxy_->check(req, res, cookieAttributes(), who, why)) {
        case AuthProxy::Outcome::SignedIn:
            return who;
        case AuthProxy::Outcome::Refused: {
            pages::Viewer v;
            v.links = links_;
            res.status = 403;
            res.setContent(pages::frame("Not allowed", v, "", pages::message(why)),
                           "text/html; charset=utf-8");
            refused = true;
            return std::nullopt;
        }
        case AuthProxy::Outcome::NotNamed:
            break;
        }
    }
    return accounts_.session(cookie(req, kSessionCookie));
}

std::optional<Principal> Guard::check(const Route &route, const Request &req, Response &res,
                                      bool &ok) const {
    ok = false;
    std::optional<Principal> who;
    bool refused = false;
    switch (route.access) {
    case Access::Open:
    case Access::Upload:
        ok = true;
        return std::nullopt;
    case Access::Page:
        // Without a session the browser goes to the sign-in page; a form
        // that changes something must also carry the session's form token
        // and come from this server's own pages.
        who = pageCaller(req, res, refused);
        if (refused)
            return std::nullopt;
        if (!who) {
            // next is the route's path; the sign-in adds the prefix when it
            // sends the browser there.
            seeOther(res, route.method == Method::Get
                              ? links_.path("/signin") + "?next=" + html::percentEncode(req.path)
                              : links_.path("/signin"));
            return std::nullopt;
        }
        if (route.method != Method::Get &&
            (!sameOrigin(req) ||
             !sameSecret(req.param("csrf"), Accounts::csrfToken(who->session)))) {
            refusePage(res,
                       "This form has expired or did not come from this server. Go back,"
                       " reload the page and try again.",
                       *who, links_);
            return std::nullopt;
        }
        if (!who->second_factor && !who->via_proxy && secondFactorRequired(rule_, who->role) &&
            route.pattern.rfind(kSecondFactorPage, 0) != 0 && route.pattern != "/signout") {
            if (route.method == Method::Get)
                seeOther(res, links_.path(kSecondFactorPage));
            else
                refusePage(res,
                           "Set up a second factor first: this server requires one for your "
                           "account.",
                           *who, links_);
            return std::nullopt;
        }
        if (route.role == Role::Admin && who->role != Role::Admin) {
            refusePage(res, "Only an admin may do this.", *who, links_);
            return std::nullopt;
        }
        break;
    case Access::Api: {
        std::string auth = req.header("Authorization");
        if (auth.rfind("Bearer ", 0) == 0) {
            who = accounts_.bearer(auth.substr(7));
        } else if (!req.hasHeader("Authorization")) {
            // A signed-in browser reads the API as its pages do (the report
            // page links its JSON); a change it asks for needs the form
            // token and this server's origin, as a page's form does.
            who = accounts_.session(cookie(req, kSessionCookie));
            if (who && route.method != Method::Get &&
                (!sameOrigin(req) ||
                 !sameSecret(req.param("csrf"), Accounts::csrfToken(who->session)))) {
                jsonError(res, 403, "a change from a browser session needs its form token");
                return std::nullopt;
            }
        }
        if (!who) {
            res.setHeader("WWW-Authenticate", "Bearer realm=\"kobreportd\"");
            jsonError(res, 401, "a valid API token is required");
            return std::nullopt;
        }
        if (route.role == Role::Admin && who->role != Role::Admin) {
            jsonError(res, 403, "this needs an admin token");
            return std::nullopt;
        }
        if (who->role == Role::Metrics && route.role != Role::Metrics) {
            jsonError(res, 403, "a metrics token reads /metrics and nothing else");
            return std::nullopt;
        }
        break;
    }
    }
    ok = true;
    return who;
}

} // namespace kobreportd
