#include "staff.h"

#include <cstdio>
#include <functional>
#include <nlohmann/json.hpp>
#include <sodium.h>

#include "clock.h"
#include "fleet.h"
#include "intake.h"
#include "kobtriage.h"
#include "mask.h"
#include "pages.h"

namespace kobreportd {

namespace {

using httplib::Request;
using httplib::Response;
using Json = nlohmann::ordered_json;

constexpr int64_t kPageSize = 50;
constexpr const char *kSessionCookie = "kob_session";
constexpr const char *kSignInCookie = "kob_signin";

// One cookie's value from the request's Cookie headers.
std::string cookie(const Request &req, const std::string &name) {
    size_t n = req.get_header_value_count("Cookie");
    for (size_t k = 0; k < n; k++) {
        std::string h = req.get_header_value("Cookie", k);
        size_t pos = 0;
        while (pos < h.size()) {
            size_t end = h.find(';', pos);
            if (end == std::string::npos)
                end = h.size();
            size_t start = h.find_first_not_of(' ', pos);
            if (start < end) {
                size_t eq = h.find('=', start);
                if (eq < end && h.compare(start, eq - start, name) == 0 &&
                    eq - start == name.size())
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

int64_t pageNumber(const Request &req) {
    if (!req.has_param("page"))
        return 1;
    std::string p = req.get_param_value("page");
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

void json(Response &res, int status, const std::string &body) {
    res.status = status;
    res.set_content(body, "application/json");
}

void json(Response &res, int status, const Json &body) {
    json(res, status, kobtriage::dumpJson(body));
}

void jsonError(Response &res, int status, const char *what) {
    json(res, status, Json{{"error", what}});
}

Json orNull(const std::optional<std::string> &s) {
    return s ? Json(*s) : Json(nullptr);
}

void seeOther(Response &res, const std::string &where) {
    res.status = 303;
    res.set_header("Location", where);
}

} // namespace

class StaffRoutes {
  public:
    StaffRoutes(httplib::Server &svr, Store &store, Accounts &accounts, Audit &audit,
                const Metrics &metrics, bool tls, int retainDays)
        : svr_(svr), store_(store), accounts_(accounts), audit_(audit), metrics_(metrics),
          tls_(tls), retainDays_(retainDays) {
        routes();
    }

  private:
    using Handler = std::function<void(const Request &, Response &, const Principal &)>;
    enum class Method { Get, Post, Delete };

    void add(Method m, const std::string &pattern, httplib::Server::Handler h) {
        switch (m) {
        case Method::Get:
            svr_.Get(pattern, std::move(h));
            break;
        case Method::Post:
            svr_.Post(pattern, std::move(h));
            break;
        case Method::Delete:
            svr_.Delete(pattern, std::move(h));
            break;
        }
    }

    std::string cookieAttributes() const {
        return std::string("; HttpOnly; SameSite=Strict; Path=/") + (tls_ ? "; Secure" : "");
    }

    // A page for signed-in staff.  Without a session it sends the browser to
    // the sign-in page; a form that changes something must also carry the
    // session's form token and come from this server's own pages.
    void page(Method m, const std::string &pattern, Role need, const Handler &h) {
        add(m, pattern, [this, m, need, h](const Request &req, Response &res) {
            auto who = accounts_.session(cookie(req, kSessionCookie));
            if (!who) {
                if (m == Method::Get)
                    seeOther(res, "/signin?next=" + html::percentEncode(req.path));
                else
                    seeOther(res, "/signin");
                return;
            }
            if (m != Method::Get &&
                (!sameOrigin(req) ||
                 !sameSecret(req.get_param_value("csrf"), Accounts::csrfToken(who->session)))) {
                refuse(res, 403,
                       "This form has expired or did not come from this server. Go back,"
                       " reload the page and try again.",
                       *who);
                return;
            }
            if (need == Role::Admin && who->role != Role::Admin) {
                refuse(res, 403, "Only an admin may do this.", *who);
                return;
            }
            h(req, res, *who);
        });
    }

    // An /api/ route: a bearer token, nothing else.
    void api(Method m, const std::string &pattern, Role need, const Handler &h) {
        add(m, pattern, [this, need, h](const Request &req, Response &res) {
            std::string auth = req.get_header_value("Authorization");
            std::optional<Principal> who;
            if (auth.rfind("Bearer ", 0) == 0)
                who = accounts_.bearer(auth.substr(7));
            if (!who) {
                res.set_header("WWW-Authenticate", "Bearer realm=\"kobreportd\"");
                jsonError(res, 401, "a valid API token is required");
                return;
            }
            if (need == Role::Admin && who->role != Role::Admin) {
                jsonError(res, 403, "this needs an admin token");
                return;
            }
            h(req, res, *who);
        });
    }

    // Browsers name the page a form came from; another site's page may not
    // post here.
    bool sameOrigin(const Request &req) const {
        std::string site = req.get_header_value("Sec-Fetch-Site");
        if (!site.empty() && site != "same-origin" && site != "none")
            return false;
        // Under "Referrer-Policy: no-referrer" a browser names the origin of
        // this server's own forms "null"; Sec-Fetch-Site has said where they
        // came from.
        std::string origin = req.get_header_value("Origin");
        if (!req.has_header("Origin") || (origin == "null" && site == "same-origin"))
            return true;
        std::string own = std::string(tls_ ? "https://" : "http://") + req.get_header_value("Host");
        return origin == own;
    }

    pages::Viewer viewer(const Principal &who) const {
        return {&who, Accounts::csrfToken(who.session)};
    }

    void show(Response &res, int status, const std::string &title, const Principal *who,
              const html::Html &body, const std::string &query = "") {
        pages::Viewer v;
        if (who)
            v = viewer(*who);
        res.status = status;
        res.set_content(pages::frame(title, v, query, body), "text/html; charset=utf-8");
    }

    void refuse(Response &res, int status, const std::string &why, const Principal &who) {
        show(res, status, "Not allowed", &who, pages::message(why));
    }

    // The report as this caller may see it: the user's own addresses
    // masked unless revealed.
    struct Visible {
        std::string desc;
        std::optional<std::string> why;
    };
    static Visible visible(const StoredReport &s, bool reveal) {
        if (reveal)
            return {s.desc, s.why};
        AddressSet keep = targetAddresses(kobtriage::parse(s.desc));
        Visible v{maskAddresses(s.desc, keep), std::nullopt};
        if (s.why)
            v.why = maskAddresses(*s.why, keep);
        return v;
    }

    std::string reportJson(const StoredReport &s, const Visible &v) {
        if (s.raw_expired) {
            Json findings = Json::parse(s.findings, nullptr, false);
            return kobtriage::dumpJson(
                Json{{"reference", s.reference},
                     {"received_at", isoTime(s.received_at)},
                     {"form_username", orNull(s.form_username)},
                     {"report_username", orNull(s.report_username)},
                     {"summary", s.summary},
                     {"raw_expired", true},
                     {"findings", findings.is_discarded() ? Json(nullptr) : findings}});
        }
        kobtriage::StoredFacts f;
        f.reference = s.reference;
        f.received_at = isoTime(s.received_at);
        f.form_username = s.form_username;
        f.why = v.why;
        f.size = static_cast<size_t>(s.size);
        return kobtriage::toJson(kobtriage::parse(v.desc), &f);
    }

    // A side of a comparison, masked as the viewer sees reports.
    pages::CompareSide side(const StoredReport &s) {
        pages::CompareSide c;
        c.report = &s;
        if (s.raw_expired) {
            c.outcomes = store_.outcomes(s.id);
            return c;
        }
        auto r = kobtriage::parse(visible(s, false).desc);
        c.outcomes = outcomesOf(r);
        for (const auto &cap : r.captures) {
            if (cap.command.find("ifconfig") != std::string::npos)
                c.interfaces = cap.text;
            else if (cap.command.find("netstat -rn") != std::string::npos)
                c.routes = cap.text;
        }
        return c;
    }

    void notFound(Response &res, const Principal &who, const std::string &ref) {
        html::Html b;
        b << "<p id=\"message\">No report " << html::text(ref) << ".</p>";
        show(res, 404, "Not found", &who, b);
    }

    void reportPage(const Request &req, Response &res, const Principal &who, bool reveal) {
        auto s = store_.get(req.matches[1]);
        if (!s) {
            notFound(res, who, req.matches[1]);
            return;
        }
        audit_.record(who.account, req.remote_addr, reveal ? "report.revealed" : "report.viewed",
                      s->reference);
        Visible v = visible(*s, reveal);
        StoredReport shown = *s;
        shown.why = v.why;
        show(res, 200, s->reference, &who,
             pages::report(shown, v.desc, reveal, viewer(who), retainDays_));
    }

    void rawText(const Request &req, Response &res, const Principal &who, bool reveal) {
        auto s = store_.get(req.matches[1]);
        if (!s) {
            answer(res, 404, "Not found\n");
            return;
        }
        if (s->raw_expired) {
            answer(res, 410, "The raw text of this report has expired\n");
            return;
        }
        audit_.record(who.account, req.remote_addr, reveal ? "report.raw.revealed" : "report.raw",
                      s->reference);
        res.set_content(visible(*s, reveal).desc, "text/plain; charset=utf-8");
    }

    void accountsPage(Response &res, const Principal &who, const std::string &msg,
                      const std::optional<std::string> &token = std::nullopt, int status = 200) {
        show(res, status, "Accounts", &who,
             pages::accounts(accounts_.users(), accounts_.tokens(), viewer(who), msg, token));
    }

    void routes();

    httplib::Server &svr_;
    Store &store_;
    Accounts &accounts_;
    Audit &audit_;
    const Metrics &metrics_;
    bool tls_;
    int retainDays_;
};

void StaffRoutes::routes() {
    // The two routes open to everyone: the stylesheet and the sign-in form.
    svr_.Get("/static/style.css", [](const Request &, Response &res) {
        res.set_content(pages::kStyle, "text/css; charset=utf-8");
    });
    svr_.Get("/signin", [this](const Request &req, Response &res) {
        std::string next = safeNext(req.has_param("next") ? req.get_param_value("next") : "/");
        if (accounts_.session(cookie(req, kSessionCookie))) {
            seeOther(res, next);
            return;
        }
        // The sign-in form gets a token of its own, tied to a cookie, since
        // there is no session yet to tie it to.
        std::string pre = cookie(req, kSignInCookie);
        if (pre.size() != 64) {
            pre = Accounts::randomId();
            res.set_header("Set-Cookie", std::string(kSignInCookie) + "=" + pre +
                                             cookieAttributes() + "; Max-Age=3600");
        }
        show(res, 200, "Sign in", nullptr, pages::signIn(Accounts::csrfToken(pre), next, ""));
    });
    svr_.Post("/signin", [this](const Request &req, Response &res) {
        std::string pre = cookie(req, kSignInCookie);
        std::string next = safeNext(req.get_param_value("next"));
        if (pre.size() != 64 || !sameOrigin(req) ||
            !sameSecret(req.get_param_value("csrf"), Accounts::csrfToken(pre))) {
            show(res, 403, "Sign in", nullptr,
                 pages::message("This sign-in form has expired or did not come from this "
                                "server. Open the sign-in page again."));
            return;
        }
        auto r = accounts_.signIn(req.get_param_value("name"), req.get_param_value("password"),
                                  req.remote_addr);
        using R = Accounts::SignIn::Result;
        if (r.result == R::Locked) {
            res.set_header("Retry-After", std::to_string(r.retry_after));
            show(res, 429, "Sign in", nullptr,
                 pages::signIn(Accounts::csrfToken(pre), next,
                               "Too many failed sign-ins. Try again in " +
                                   std::to_string((r.retry_after + 59) / 60) + " minutes."));
            return;
        }
        if (r.result == R::Wrong) {
            show(res, 401, "Sign in", nullptr,
                 pages::signIn(Accounts::csrfToken(pre), next, "Wrong name or password."));
            return;
        }
        // A session someone may have planted before the sign-in ends here;
        // the new one has an id nobody has seen.
        std::string old = cookie(req, kSessionCookie);
        if (!old.empty())
            accounts_.signOut(old);
        res.set_header("Set-Cookie",
                       std::string(kSessionCookie) + "=" + r.session + cookieAttributes());
        res.set_header("Set-Cookie",
                       std::string(kSignInCookie) + "=" + cookieAttributes() + "; Max-Age=0");
        seeOther(res, next);
    });
    page(Method::Post, "/signout", Role::Viewer,
         [this](const Request &req, Response &res, const Principal &who) {
             accounts_.signOut(who.session);
             audit_.record(who.account, req.remote_addr, "signout");
             res.set_header("Set-Cookie",
                            std::string(kSessionCookie) + "=" + cookieAttributes() + "; Max-Age=0");
             seeOther(res, "/signin");
         });

    page(Method::Get, "/", Role::Viewer,
         [this](const Request &req, Response &res, const Principal &who) {
             std::string q = req.has_param("q") ? req.get_param_value("q") : "";
             int64_t pg = pageNumber(req);
             auto list = store_.list(q, (pg - 1) * kPageSize, kPageSize);
             show(res, 200, "Problem reports", &who, pages::list(list, q, pg, kPageSize), q);
         });
    page(Method::Get, R"(/reports/([^/]+))", Role::Viewer,
         [this](const Request &req, Response &res, const Principal &who) {
             reportPage(req, res, who, false);
         });
    page(Method::Post, R"(/reports/([^/]+)/reveal)", Role::Admin,
         [this](const Request &req, Response &res, const Principal &who) {
             reportPage(req, res, who, true);
         });
    page(Method::Get, R"(/reports/([^/]+)/raw)", Role::Viewer,
         [this](const Request &req, Response &res, const Principal &who) {
             rawText(req, res, who, false);
         });
    page(Method::Post, R"(/reports/([^/]+)/raw)", Role::Admin,
         [this](const Request &req, Response &res, const Principal &who) {
             rawText(req, res, who, true);
         });
    page(Method::Post, R"(/reports/([^/]+)/delete)", Role::Admin,
         [this](const Request &req, Response &res, const Principal &who) {
             std::string ref = req.matches[1];
             if (!store_.remove(ref)) {
                 notFound(res, who, ref);
                 return;
             }
             audit_.record(who.account, req.remote_addr, "report.deleted", ref);
             seeOther(res, "/");
         });
    page(Method::Get, "/audit", Role::Admin,
         [this](const Request &req, Response &res, const Principal &who) {
             int64_t pg = pageNumber(req), total = 0;
             auto entries = audit_.page((pg - 1) * kPageSize, kPageSize, total);
             show(res, 200, "Audit log", &who, pages::audit(entries, total, pg, kPageSize));
         });
    page(Method::Get, "/admin/accounts", Role::Admin,
         [this](const Request &, Response &res, const Principal &who) {
             accountsPage(res, who, "");
         });
    page(Method::Post, "/admin/users", Role::Admin,
         [this](const Request &req, Response &res, const Principal &who) {
             std::string name = req.get_param_value("name"),
                         password = req.get_param_value("password");
             auto role = parseRole(req.get_param_value("role"));
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
             audit_.record(who.account, req.remote_addr, "user.added", "",
                           name + " (" + roleName(*role) + ")");
             accountsPage(res, who, "Added " + name + ".");
         });
    page(Method::Post, R"(/admin/users/([^/]+)/delete)", Role::Admin,
         [this](const Request &req, Response &res, const Principal &who) {
             std::string name = req.matches[1];
             if (!accounts_.deleteUser(name)) {
                 accountsPage(res, who, "No such user.", std::nullopt, 404);
                 return;
             }
             audit_.record(who.account, req.remote_addr, "user.deleted", "", name);
             if (name == who.account) {
                 seeOther(res, "/signin");
                 return;
             }
             accountsPage(res, who, "Deleted " + name + ".");
         });
    page(Method::Post, "/admin/tokens", Role::Admin,
         [this](const Request &req, Response &res, const Principal &who) {
             std::string name = req.get_param_value("name");
             auto role = parseRole(req.get_param_value("role"));
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
             audit_.record(who.account, req.remote_addr, "token.added", "",
                           name + " (" + roleName(*role) + ")");
             accountsPage(res, who, "Made the token " + name + ".", token);
         });
    page(Method::Post, R"(/admin/tokens/([^/]+)/delete)", Role::Admin,
         [this](const Request &req, Response &res, const Principal &who) {
             std::string name = req.matches[1];
             if (!accounts_.deleteToken(name)) {
                 accountsPage(res, who, "No such token.", std::nullopt, 404);
                 return;
             }
             audit_.record(who.account, req.remote_addr, "token.deleted", "", name);
             accountsPage(res, who, "Deleted the token " + name + ".");
         });

    api(Method::Get, "/api/reports", Role::Viewer,
        [this](const Request &req, Response &res, const Principal &) {
            std::string q = req.has_param("q") ? req.get_param_value("q") : "";
            int64_t pg = pageNumber(req);
            auto list = store_.list(q, (pg - 1) * kPageSize, kPageSize);
            Json reports = Json::array();
            for (const auto &it : list.items) {
                std::string user = it.form_username && !it.form_username->empty()
                                       ? *it.form_username
                                       : it.report_username.value_or("");
                reports.push_back(Json{{"reference", it.reference},
                                       {"received_at", isoTime(it.received_at)},
                                       {"username", user},
                                       {"form_username", orNull(it.form_username)},
                                       {"summary", it.summary},
                                       {"size", it.size},
                                       {"raw_expired", it.raw_expired}});
            }
            json(res, 200,
                 Json{{"total", list.total},
                      {"page", pg},
                      {"page_size", kPageSize},
                      {"reports", std::move(reports)}});
        });
    // ?reveal=1 asks for the unmasked text, which only an admin gets.
    auto revealAsked = [](const Request &req, Response &res, const Principal &who) {
        if (req.get_param_value("reveal") != "1")
            return std::optional<bool>(false);
        if (who.role != Role::Admin) {
            jsonError(res, 403, "only an admin token may reveal");
            return std::optional<bool>();
        }
        return std::optional<bool>(true);
    };
    api(Method::Get, R"(/api/reports/([^/]+))", Role::Viewer,
        [this, revealAsked](const Request &req, Response &res, const Principal &who) {
            auto reveal = revealAsked(req, res, who);
            if (!reveal)
                return;
            auto s = store_.get(req.matches[1]);
            if (!s) {
                jsonError(res, 404, "not found");
                return;
            }
            audit_.record(who.account, req.remote_addr,
                          *reveal ? "report.revealed" : "report.viewed", s->reference);
            json(res, 200, reportJson(*s, visible(*s, *reveal)));
        });
    api(Method::Get, R"(/api/reports/([^/]+)/raw)", Role::Viewer,
        [this, revealAsked](const Request &req, Response &res, const Principal &who) {
            auto reveal = revealAsked(req, res, who);
            if (reveal)
                rawText(req, res, who, *reveal);
        });
    api(Method::Delete, R"(/api/reports/([^/]+))", Role::Admin,
        [this](const Request &req, Response &res, const Principal &who) {
            std::string ref = req.matches[1];
            if (!store_.remove(ref)) {
                jsonError(res, 404, "not found");
                return;
            }
            audit_.record(who.account, req.remote_addr, "report.deleted", ref);
            json(res, 200, Json{{"deleted", ref}});
        });
    page(Method::Get, "/fleet", Role::Viewer,
         [this](const Request &req, Response &res, const Principal &who) {
             std::string w = req.has_param("window") ? req.get_param_value("window") : "24h";
             if (!windowSeconds(w))
                 w = "24h";
             show(res, 200, "The fleet", &who, pages::fleet(fleet(store_.db(), w, now())));
         });
    page(Method::Get, "/fleet/reports", Role::Viewer,
         [this](const Request &req, Response &res, const Principal &who) {
             std::string area = req.get_param_value("area"), target = req.get_param_value("target");
             auto span = windowSeconds(req.get_param_value("window")).value_or(3600);
             show(res, 200, "Failing reports", &who,
                  pages::failing(area, target,
                                 failingReports(store_.db(), area, target, now() - span, 200)));
         });
    page(Method::Get, "/compare", Role::Viewer,
         [this](const Request &req, Response &res, const Principal &who) {
             auto a = store_.get(req.get_param_value("a"));
             auto b = store_.get(req.get_param_value("b"));
             if (!a || !b) {
                 notFound(res, who, !a ? req.get_param_value("a") : req.get_param_value("b"));
                 return;
             }
             for (const auto *r : {&*a, &*b})
                 audit_.record(who.account, req.remote_addr, "report.viewed", r->reference,
                               "compare");
             show(res, 200, "Compare", &who, pages::compare(side(*a), side(*b)));
         });
    page(Method::Get, R"(/users/([^/]+))", Role::Viewer,
         [this](const Request &req, Response &res, const Principal &who) {
             std::string name = req.matches[1];
             show(res, 200, name, &who, pages::user(name, store_.byUser(name, 200)));
         });
    api(Method::Get, "/api/compare", Role::Viewer,
        [this](const Request &req, Response &res, const Principal &who) {
            auto a = store_.get(req.get_param_value("a"));
            auto b = store_.get(req.get_param_value("b"));
            if (!a || !b) {
                jsonError(res, 404, "not found");
                return;
            }
            for (const auto *r : {&*a, &*b})
                audit_.record(who.account, req.remote_addr, "report.viewed", r->reference,
                              "compare");
            auto sa = side(*a), sb = side(*b);
            pages::Changes c = pages::changes(sa.outcomes, sb.outcomes);
            json(res, 200,
                 Json{{"a", a->reference},
                      {"b", b->reference},
                      {"now_failing", c.failing},
                      {"recovered", c.recovered}});
        });
    api(Method::Get, R"(/api/users/([^/]+))", Role::Viewer,
        [this](const Request &req, Response &res, const Principal &) {
            auto list = store_.byUser(req.matches[1], 200);
            Json reports = Json::array();
            for (size_t i = 0; i < list.size(); i++) {
                const auto &r = list[i];
                Json o{{"reference", r.item.reference},
                       {"received_at", isoTime(r.item.received_at)},
                       {"summary", r.item.summary}};
                if (i + 1 < list.size()) {
                    auto c = pages::changes(list[i + 1].outcomes, r.outcomes);
                    o["now_failing"] = c.failing;
                    o["recovered"] = c.recovered;
                }
                reports.push_back(std::move(o));
            }
            json(res, 200,
                 Json{{"username", std::string(req.matches[1])}, {"reports", std::move(reports)}});
        });
    api(Method::Get, "/api/fleet", Role::Viewer,
        [this](const Request &req, Response &res, const Principal &) {
            std::string w = req.has_param("window") ? req.get_param_value("window") : "24h";
            if (!windowSeconds(w)) {
                jsonError(res, 400, "window is one of 6h, 24h, 7d, 30d");
                return;
            }
            Fleet f = fleet(store_.db(), w, now());
            Json targets = Json::array();
            for (const auto &t : f.targets) {
                Json buckets = Json::array();
                for (const auto &b : t.buckets)
                    if (b.reports)
                        buckets.push_back(Json{{"start", isoTime(b.start)},
                                               {"reports", b.reports},
                                               {"failing", b.failing}});
                targets.push_back(Json{
                    {"area", t.area},
                    {"target", t.target},
                    {"reports", t.reports},
                    {"failing", t.failing},
                    {"broken", t.broken},
                    {"last_hour", Json{{"reports", t.hour_reports}, {"failing", t.hour_failing}}},
                    {"baseline", Json{{"reports", t.baseline_reports},
                                      {"failing", t.baseline_failing},
                                      {"share", t.baseline}}},
                    {"buckets", std::move(buckets)}});
            }
            json(res, 200,
                 Json{{"window", f.window},
                      {"from", isoTime(f.from)},
                      {"to", isoTime(f.to)},
                      {"bucket_seconds", static_cast<int64_t>(f.bucket_seconds)},
                      {"targets", std::move(targets)}});
        });
    // For Prometheus, with a token like the API.
    api(Method::Get, "/metrics", Role::Viewer,
        [this](const Request &, Response &res, const Principal &) {
            res.set_content(metrics_.text(), "text/plain; version=0.0.4; charset=utf-8");
        });
    api(Method::Get, "/api/audit", Role::Admin,
        [this](const Request &req, Response &res, const Principal &) {
            int64_t pg = pageNumber(req), total = 0;
            auto entries = audit_.page((pg - 1) * kPageSize, kPageSize, total);
            Json list = Json::array();
            for (const auto &e : entries)
                list.push_back(Json{{"id", e.id},
                                    {"at", isoTime(e.at)},
                                    {"account", e.account},
                                    {"address", e.address},
                                    {"action", e.action},
                                    {"reference", e.reference},
                                    {"detail", e.detail}});
            json(res, 200,
                 Json{{"total", total},
                      {"page", pg},
                      {"page_size", kPageSize},
                      {"entries", std::move(list)}});
        });
}

StaffServer::StaffServer() = default;
StaffServer::~StaffServer() = default;

std::unique_ptr<StaffServer> makeStaffServer(const StaffOptions &o, Store &store,
                                             Accounts &accounts, Audit &audit,
                                             const Metrics &metrics, std::string &error) {
    std::unique_ptr<httplib::Server> svr;
    bool tls = !o.tls_cert.empty();
    if (tls) {
        auto ssl = std::make_unique<httplib::SSLServer>(o.tls_cert.c_str(), o.tls_key.c_str());
        if (!ssl->is_valid()) {
            error = "cannot use the certificate " + o.tls_cert + " with the key " + o.tls_key;
            return nullptr;
        }
        SSL_CTX_set_min_proto_version(ssl->ssl_context(), TLS1_2_VERSION);
        svr = std::move(ssl);
    } else {
        svr = std::make_unique<httplib::Server>();
    }
    int threads = o.threads;
    svr->new_task_queue = [threads] {
        return new httplib::ThreadPool(static_cast<size_t>(threads));
    };
    svr->set_read_timeout(5, 0);
    svr->set_write_timeout(10, 0);
    svr->set_keep_alive_max_count(20);
    svr->set_keep_alive_timeout(2);
    // Forms are small; nothing bigger is taken in.
    svr->set_payload_max_length(size_t{64} * 1024);
    svr->set_socket_options([](socket_t sock) {
        int yes = 1;
        setsockopt(sock, SOL_SOCKET, SO_REUSEADDR, &yes, sizeof yes);
    });
    httplib::Headers headers = {
        {"Content-Security-Policy",
         "default-src 'self'; frame-ancestors 'none'; form-action 'self'"},
        {"X-Content-Type-Options", "nosniff"},
        {"Referrer-Policy", "no-referrer"},
        {"X-Frame-Options", "DENY"},
        {"Cache-Control", "no-store"},
    };
    if (tls)
        headers.emplace("Strict-Transport-Security", "max-age=31536000");
    svr->set_default_headers(headers);
    svr->set_error_handler([](const Request &, Response &res) {
        if (res.body.empty())
            answer(res, res.status,
                   res.status == 404 ? "Not found\n"
                                     : "Error " + std::to_string(res.status) + "\n");
    });
    svr->set_exception_handler([](const Request &req, Response &res, const std::exception_ptr &e) {
        // The operator needs to know why; the browser does not.
        try {
            std::rethrow_exception(e);
        } catch (const std::exception &x) {
            std::fprintf(stderr, "kobreportd: %s %s failed: %s\n", req.method.c_str(),
                         req.path.substr(0, 200).c_str(), x.what());
        } catch (...) {
            std::fprintf(stderr, "kobreportd: %s %s failed\n", req.method.c_str(),
                         req.path.substr(0, 200).c_str());
        }
        answer(res, 500, "Internal error\n");
    });
    auto out = std::make_unique<StaffServer>();
    out->routes =
        std::make_unique<StaffRoutes>(*svr, store, accounts, audit, metrics, tls, o.retain_days);
    out->http = std::move(svr);
    return out;
}

} // namespace kobreportd
