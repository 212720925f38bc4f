#include "staff.h"

#include <algorithm>
#include <cstdio>
#include <nlohmann/json.hpp>

#include "clock.h"
#include "fleet.h"
#include "kobtriage.h"
#include "mask.h"

namespace kobreportd {

namespace {

// A place to go back to after signing in: a path on this server only.
std::string safeNext(const std::string &next) {
    if (next.size() < 1 || next.size() > 512 || next[0] != '/' ||
        (next.size() > 1 && (next[1] == '/' || next[1] == '\\')))
        return "/";
    for (unsigned char c : next)
        if (c < 0x21 || c == 0x7f || c == '\\')
            return "/";
    return next;
}

} // namespace

std::vector<std::pair<std::string, std::string>> staffHeaders(bool secure) {
    std::vector<std::pair<std::string, std::string>> h = {
        {"Content-Security-Policy",
         "default-src 'self'; frame-ancestors 'none'; form-action 'self'"},
        {"X-Content-Type-Options", "nosniff"},
        {"Referrer-Policy", "no-referrer"},
        {"X-Frame-Options", "DENY"},
        {"Cache-Control", "no-store"},
    };
    if (secure)
        h.emplace_back("Strict-Transport-Security", "max-age=31536000");
    return h;
}

int64_t Staff::pageNumber(const Request &req) {
    if (!req.hasParam("page"))
        return 1;
    std::string p = req.param("page");
    int64_t n = 0;
    if (p.empty() || p.size() > 9)
        return 1;
    for (char c : p) {
        if (c < '0' || c > '9')
            return 1;
        n = n * 10 + (c - '0');
    }
    return n < 1 ? 1 : n;
}

namespace {

// The one place the user's data is masked for the staff side: every page and
// every JSON answer on its way out, the operator's targets left readable.
void maskOnTheWayOut(Response &res) {
    if (res.unmasked)
        return;
    static const AddressSet operators = [] {
        std::vector<std::string> names;
        for (const auto &[area, target] : fleetPolicy().targets)
            names.push_back(target);
        return addressesIn(names);
    }();
    res.keep.insert(operators.begin(), operators.end());
    res.body = maskAddresses(res.body, res.keep);
}

} // namespace

void Staff::page(RouteTable &table, Method m, const std::string &pattern, Role need, Signed h) {
    table.add({m, pattern, Listener::Staff, Access::Page, need,
               [h = std::move(h)](const Request &req, Response &res, const Principal *who) {
                   h(req, res, *who);
                   maskOnTheWayOut(res);
               }});
}

void Staff::api(RouteTable &table, Method m, const std::string &pattern, Role need, Signed h) {
    table.add({m, pattern, Listener::Staff, Access::Api, need,
               [h = std::move(h)](const Request &req, Response &res, const Principal *who) {
                   h(req, res, *who);
                   maskOnTheWayOut(res);
               }});
}

pages::Viewer Staff::viewer(const Principal &who) const {
    return {&who, Accounts::csrfToken(who.session), links()};
}

void Staff::show(Response &res, int status, const std::string &title, const Principal *who,
                 const html::Html &body, const std::string &query) {
    pages::Viewer v;
    v.links = links();
    if (who)
        v = viewer(*who);
    res.status = status;
    res.setContent(pages::frame(title, v, query, body), "text/html; charset=utf-8");
}

void Staff::keepTargets(const StoredReport &s, Response &res) {
    if (s.raw_expired)
        return; // its kept findings were masked when it expired
    AddressSet targets = targetAddresses(kobtriage::parse(s.desc));
    res.keep.insert(targets.begin(), targets.end());
}

pages::CompareSide Staff::side(const StoredReport &s) {
    pages::CompareSide c;
    c.report = &s;
    if (s.raw_expired) {
        c.outcomes = store_.outcomes(s.id);
        return c;
    }
    auto r = kobtriage::parse(s.desc);
    c.outcomes = outcomesOf(r);
    for (const auto &cap : r.captures) {
        if (cap.command.find("ifconfig") != std::string::npos)
            c.interfaces = cap.text;
        else if (cap.command.find("netstat -rn") != std::string::npos)
            c.routes = cap.text;
    }
    return c;
}

void Staff::notFound(Response &res, const Principal &who, const std::string &ref) {
    html::Html b;
    b << "<p id=\"message\">No report " << html::text(ref) << ".</p>";
    show(res, 404, "Not found", &who, b);
}

void Staff::reportPage(const Request &req, Response &res, const Principal &who, bool reveal) {
    auto s = store_.get(req.matches[1]);
    if (!s) {
        notFound(res, who, req.matches[1]);
        return;
    }
    audit_.record(who.account, req.client_address, reveal ? "report.revealed" : "report.viewed",
                  s->reference);
    show(res, 200, s->reference, &who,
         pages::report(*s, s->desc, reveal, viewer(who), retainDays_));
    res.unmasked = reveal;
    keepTargets(*s, res);
}

namespace {

// "  9| text", the numbers right-aligned to the widest.
std::string numberedLines(std::string_view text) {
    std::size_t lines = static_cast<std::size_t>(std::count(text.begin(), text.end(), '\n'));
    if (!text.empty() && text.back() != '\n')
        lines++;
    int width = static_cast<int>(std::to_string(std::max<std::size_t>(lines, 1)).size());
    std::string out;
    out.reserve(text.size() + lines * static_cast<std::size_t>(width + 2));
    char number[32];
    std::size_t n = 0;
    for (std::size_t at = 0; at < text.size();) {
        std::size_t nl = text.find('\n', at);
        std::size_t end = nl == std::string_view::npos ? text.size() : nl + 1;
        int len = std::snprintf(number, sizeof number, "%*zu| ", width, ++n);
        out.append(number, static_cast<std::size_t>(len));
        out.append(text.substr(at, end - at));
        at = end;
    }
    return out;
}

} // namespace

void Staff::rawText(const Request &req, Response &res, const Principal &who, bool reveal,
                    bool numbered) {
    auto s = store_.get(req.matches[1]);
    if (!s) {
        answer(res, 404, "Not found\n");
        return;
    }
    if (s->raw_expired) {
        answer(res, 410, "The raw text of this report has expired\n");
        return;
    }
    audit_.record(who.account, req.client_address, reveal ? "report.raw.revealed" : "report.raw",
                  s->reference);
    res.unmasked = reveal;
    keepTargets(*s, res);
    res.setContent(numbered ? numberedLines(s->desc) : std::move(s->desc),
                   "text/plain; charset=utf-8");
}

void Staff::accountsPage(Response &res, const Principal &who, const std::string &msg,
                         const std::optional<std::string> &token, int status) {
    show(res, status, "Accounts", &who,
         pages::accounts(accounts_.users(), accounts_.tokens(), viewer(who), msg, token));
}

void Staff::addPageRoutes(RouteTable &table) {
    addSignInRoutes(table);
    addReportPages(table);
    addAdminPages(table);
    addFleetPages(table);
}

void Staff::addSignInRoutes(RouteTable &table) {
    // The routes open to everyone: the stylesheet and the sign-in form.
    table.add({Method::Get, "/static/style.css", Listener::Staff, Access::Open, Role::Viewer,
               [](const Request &, Response &res, const Principal *) {
                   res.setContent(pages::kStyle, "text/css; charset=utf-8");
               }});
    table.add({Method::Get, "/signin", Listener::Staff, Access::Open, Role::Viewer,
               [this](const Request &req, Response &res, const Principal *) {
                   std::string next = safeNext(req.hasParam("next") ? req.param("next") : "/");
                   if (accounts_.session(cookie(req, kSessionCookie))) {
                       seeOther(res, links().path(next));
                       return;
                   }
                   // The sign-in form gets a token of its own, tied to a cookie, since
                   // there is no session yet to tie it to.
                   std::string pre = cookie(req, kSignInCookie);
                   if (pre.size() != 64) {
                       pre = Accounts::randomId();
                       res.addHeader("Set-Cookie", std::string(kSignInCookie) + "=" + pre +
                                                       guard_.cookieAttributes() +
                                                       "; Max-Age=3600");
                   }
                   show(res, 200, "Sign in", nullptr,
                        pages::signIn(Accounts::csrfToken(pre), next, "", links()));
               }});
    table.add(
        {Method::Post, "/signin", Listener::Staff, Access::Open, Role::Viewer,
         [this](const Request &req, Response &res, const Principal *) {
             std::string pre = cookie(req, kSignInCookie);
             std::string next = safeNext(req.param("next"));
             if (pre.size() != 64 || !guard_.sameOrigin(req) ||
                 !sameSecret(req.param("csrf"), Accounts::csrfToken(pre))) {
                 show(res, 403, "Sign in", nullptr,
                      pages::message("This sign-in form has expired or did not come from this "
                                     "server. Open the sign-in page again."));
                 return;
             }
             auto r =
                 accounts_.signIn(req.param("name"), req.param("password"), req.client_address);
             using R = Accounts::SignIn::Result;
             if (r.result == R::Locked) {
                 res.setHeader("Retry-After", std::to_string(r.retry_after));
                 show(res, 429, "Sign in", nullptr,
                      pages::signIn(Accounts::csrfToken(pre), next,
                                    "Too many failed sign-ins. Try again in " +
                                        std::to_string((r.retry_after + 59) / 60) + " minutes.",
                                    links()));
                 return;
             }
             if (r.result == R::Wrong) {
                 show(res, 401, "Sign in", nullptr,
                      pages::signIn(Accounts::csrfToken(pre), next, "Wrong name or password.",
                                    links()));
                 return;
             }
             // A session someone may have planted before the sign-in ends here;
             // the new one has an id nobody has seen.
             std::string old = cookie(req, kSessionCookie);
             if (!old.empty())
                 accounts_.signOut(old);
             res.addHeader("Set-Cookie", std::string(kSessionCookie) + "=" + r.session +
                                             guard_.cookieAttributes());
             res.addHeader("Set-Cookie", std::string(kSignInCookie) + "=" +
                                             guard_.cookieAttributes() + "; Max-Age=0");
             seeOther(res, links().path(next));
         }});
    page(table, Method::Post, "/signout", Role::Viewer,
         [this](const Request &req, Response &res, const Principal &who) {
             accounts_.signOut(who.session);
             audit_.record(who.account, req.client_address, "signout");
             res.addHeader("Set-Cookie", std::string(kSessionCookie) + "=" +
                                             guard_.cookieAttributes() + "; Max-Age=0");
             seeOther(res, links().path("/signin"));
         });
}

void Staff::addReportPages(RouteTable &table) {
    page(table, Method::Get, "/", Role::Viewer,
         [this](const Request &req, Response &res, const Principal &who) {
             std::string q = req.hasParam("q") ? req.param("q") : "";
             int64_t pg = pageNumber(req);
             auto list = store_.list(q, (pg - 1) * kPageSize, kPageSize);
             show(res, 200, "Problem reports", &who, pages::list(list, q, pg, kPageSize, links()),
                  q);
         });
    page(table, Method::Get, "/reports/{ref}", Role::Viewer,
         [this](const Request &req, Response &res, const Principal &who) {
             reportPage(req, res, who, false);
         });
    page(table, Method::Post, "/reports/{ref}/reveal", Role::Admin,
         [this](const Request &req, Response &res, const Principal &who) {
             reportPage(req, res, who, true);
         });
    page(table, Method::Get, "/reports/{ref}/raw", Role::Viewer,
         [this](const Request &req, Response &res, const Principal &who) {
             rawText(req, res, who, false, true);
         });
    // "Download unmasked raw text": a file to keep, not a page to read.
    page(table, Method::Post, "/reports/{ref}/raw", Role::Admin,
         [this](const Request &req, Response &res, const Principal &who) {
             rawText(req, res, who, true);
             if (res.status == 200)
                 res.setHeader("Content-Disposition",
                               "attachment; filename=\"" + req.matches[1] + ".txt\"");
         });
    page(table, Method::Post, "/reports/{ref}/delete", Role::Admin,
         [this](const Request &req, Response &res, const Principal &who) {
             std::string ref = req.matches[1];
             if (!store_.remove(ref)) {
                 notFound(res, who, ref);
                 return;
             }
             audit_.record(who.account, req.client_address, "report.deleted", ref);
             seeOther(res, links().path("/"));
         });
    page(table, Method::Get, "/audit", Role::Admin,
         [this](const Request &req, Response &res, const Principal &who) {
             int64_t pg = pageNumber(req), total = 0;
             auto entries = audit_.page((pg - 1) * kPageSize, kPageSize, total);
             show(res, 200, "Audit log", &who,
                  pages::audit(entries, total, pg, kPageSize, links()));
             // Staff's own addresses and actions, for admins: no user's data.
             res.unmasked = true;
         });
}

void Staff::addAdminPages(RouteTable &table) {
    page(table, Method::Get, "/admin/accounts", Role::Admin,
         [this](const Request &, Response &res, const Principal &who) {
             accountsPage(res, who, "");
         });
    page(table, Method::Post, "/admin/users", Role::Admin,
         [this](const Request &req, Response &res, const Principal &who) {
             std::string name = req.param("name"), password = req.param("password");
             auto role = parseRole(req.param("role"));
             if (!Accounts::validName(name) || !role || password.size() < 12) {
                 accountsPage(res, who,
                              "Not added: a name of letters, digits and . _ - @, a role, and a "
                              "password of 12 or more characters are needed.",
                              std::nullopt, 400);
                 return;
             }
             try {
                 accounts_.addUser(name, *role, password);
             } catch (const StoreError &) {
                 accountsPage(res, who, "Not added: " + name + " exists already.", std::nullopt,
                              409);
                 return;
             }
             audit_.record(who.account, req.client_address, "user.added", "",
                           name + " (" + roleName(*role) + ")");
             accountsPage(res, who, "Added " + name + ".");
         });
    page(table, Method::Post, "/admin/users/{name}/delete", Role::Admin,
         [this](const Request &req, Response &res, const Principal &who) {
             std::string name = req.matches[1];
             if (!accounts_.deleteUser(name)) {
                 accountsPage(res, who, "No such user.", std::nullopt, 404);
                 return;
             }
             audit_.record(who.account, req.client_address, "user.deleted", "", name);
             if (name == who.account) {
                 seeOther(res, links().path("/signin"));
                 return;
             }
             accountsPage(res, who, "Deleted " + name + ".");
         });
    page(table, Method::Post, "/admin/tokens", Role::Admin,
         [this](const Request &req, Response &res, const Principal &who) {
             std::string name = req.param("name");
             auto role = parseRole(req.param("role"));
             if (!Accounts::validName(name) || !role) {
                 accountsPage(res, who, "Not made: a name and a role are needed.", std::nullopt,
                              400);
                 return;
             }
             std::string token;
             try {
                 token = accounts_.addToken(name, *role);
             } catch (const StoreError &) {
                 accountsPage(res, who, "Not made: " + name + " exists already.", std::nullopt,
                              409);
                 return;
             }
             audit_.record(who.account, req.client_address, "token.added", "",
                           name + " (" + roleName(*role) + ")");
             accountsPage(res, who, "Made the token " + name + ".", token);
         });
    page(table, Method::Post, "/admin/tokens/{name}/delete", Role::Admin,
         [this](const Request &req, Response &res, const Principal &who) {
             std::string name = req.matches[1];
             if (!accounts_.deleteToken(name)) {
                 accountsPage(res, who, "No such token.", std::nullopt, 404);
                 return;
             }
             audit_.record(who.account, req.client_address, "token.deleted", "", name);
             accountsPage(res, who, "Deleted the token " + name + ".");
         });
}

void Staff::addFleetPages(RouteTable &table) {
    page(table, Method::Get, "/fleet", Role::Viewer,
         [this](const Request &req, Response &res, const Principal &who) {
             std::string w = req.hasParam("window") ? req.param("window") : "24h";
             if (!windowSeconds(w))
                 w = "24h";
             show(res, 200, "The fleet", &who, pages::fleet(fleet(store_.db(), w, now()), links()));
         });
    page(table, Method::Get, "/fleet/reports", Role::Viewer,
         [this](const Request &req, Response &res, const Principal &who) {
             std::string area = req.param("area"), target = req.param("target");
             auto span = windowSeconds(req.param("window")).value_or(3600);
             show(res, 200, "Failing reports", &who,
                  pages::failing(area, target,
                                 failingReports(store_.db(), area, target, now() - span, 200),
                                 links()));
         });
    page(table, Method::Get, "/compare", Role::Viewer,
         [this](const Request &req, Response &res, const Principal &who) {
             auto a = store_.get(req.param("a"));
             auto b = store_.get(req.param("b"));
             if (!a || !b) {
                 notFound(res, who, !a ? req.param("a") : req.param("b"));
                 return;
             }
             for (const auto *r : {&*a, &*b})
                 audit_.record(who.account, req.client_address, "report.viewed", r->reference,
                               "compare");
             show(res, 200, "Compare", &who, pages::compare(side(*a), side(*b), links()));
             keepTargets(*a, res);
             keepTargets(*b, res);
         });
    page(table, Method::Get, "/users/{name}", Role::Viewer,
         [this](const Request &req, Response &res, const Principal &who) {
             std::string name = req.matches[1];
             show(res, 200, name, &who, pages::user(name, store_.byUser(name, 200), links()));
         });
}

} // namespace kobreportd
