#include "staff.h"

#include <algorithm>
#include <cstdio>
#include <memory>
#include <cstring>
#include <nlohmann/json.hpp>

#include "clock.h"
#include "fleet.h"
#include "incidents.h"
#include "kobtriage.h"
#include "mask.h"
#include "pack.h"

namespace kobreportd {

std::string safeNext(const std::string &next) {
    if (next.size() < 1 || next.size() > 512 || next[0] != '/' ||
        (next.size() > 1 && (next[1] == '/' || next[1] == '\\')))
        return "/";
    for (unsigned char c : next)
        if (c < 0x21 || c == 0x7f || c == '\\')
            return "/";
    return next;
}

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

using Source = std::function<std::size_t(char *, std::size_t)>;

// A streamed body passed through `each` a line at a time (a line longer
// than 1 MiB in pieces of that size).  each appends what it makes of a
// piece to out; atStart says whether the piece begins a line.
Source byLines(Source inner,
               std::function<void(std::string_view piece, bool atStart, std::string &out)> each) {
    struct State {
        Source inner;
        std::function<void(std::string_view, bool, std::string &)> each;
        std::string pending, out;
        std::size_t given = 0;
        bool atStart = true, done = false;
    };
    auto st =
        std::make_shared<State>(State{std::move(inner), std::move(each), {}, {}, 0, true, false});
    return [st](char *buf, std::size_t max) -> std::size_t {
        constexpr std::size_t kPiece = 1u << 20;
        while (st->out.size() - st->given < max && !st->done) {
            if (st->given > 0) {
                st->out.erase(0, st->given);
                st->given = 0;
            }
            char chunk[64 * 1024];
            std::size_t n = st->inner(chunk, sizeof chunk);
            st->done = n == 0;
            st->pending.append(chunk, n);
            std::size_t from = 0;
            for (;;) {
                std::size_t nl = st->pending.find('\n', from);
                std::size_t end = nl != std::string::npos               ? nl + 1
                                  : st->done                            ? st->pending.size()
                                  : st->pending.size() - from >= kPiece ? from + kPiece
                                                                        : std::string::npos;
                if (end == std::string::npos || end == from)
                    break;
                st->each(std::string_view(st->pending).substr(from, end - from), st->atStart,
                         st->out);
                st->atStart = st->pending[end - 1] == '\n';
                from = end;
            }
            st->pending.erase(0, from);
        }
        std::size_t n = std::min(max, st->out.size() - st->given);
        std::copy_n(st->out.data() + st->given, n, buf);
        st->given += n;
        return n;
    };
}

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
    if (res.stream) {
        // Addresses never span lines: the text is masked a line at a time.
        res.stream = byLines(std::move(res.stream),
                             [keep = res.keep](std::string_view piece, bool, std::string &out) {
                                 out += maskAddresses(piece, keep);
                             });
        return;
    }
    res.body = maskAddresses(res.body, res.keep);
}

} // namespace

void Staff::page(RouteTable &table, Method m, const std::string &pattern, Role need, Signed h) {
    table.add({m, pattern, Listener::Staff, Access::Page, need,
               [h = std::move(h)](const Request &req, Response &res, const Principal *who) {
                   pages::ShownZone zone(who->zone);
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

bool Staff::preSignInForm(const Request &req, const std::string &pre) const {
    return pre.size() == 64 && guard_.sameOrigin(req) &&
           sameSecret(req.param("csrf"), Accounts::csrfToken(pre));
}

pages::Viewer Staff::viewer(const Principal &who) const {
    return {&who, Accounts::csrfToken(who.session), links()};
}

void Staff::show(Response &res, int status, const std::string &title, const Principal *who,
                 const html::Html &body, const std::string &query, int refresh) {
    pages::Viewer v;
    v.links = links();
    if (who)
        v = viewer(*who);
    v.refresh = refresh;
    res.status = status;
    res.setContent(pages::frame(title, v, query, body), "text/html; charset=utf-8");
}

TextBudget::Hold TextBudget::take(uint64_t n) {
    std::unique_lock<std::mutex> lock(mutex_);
    freed_.wait(lock, [&] { return used_ == 0 || used_ + n <= cap_; });
    used_ += n;
    return Hold(this, n);
}

void TextBudget::give(uint64_t n) {
    {
        std::lock_guard<std::mutex> lock(mutex_);
        used_ -= n;
    }
    freed_.notify_all();
}

Staff::Loaded Staff::load(std::initializer_list<std::string> references) {
    Loaded l;
    uint64_t bytes = 0;
    for (const std::string &ref : references) {
        l.reports.push_back(store_.get(ref, false));
        const auto &r = l.reports.back();
        bytes += r && !r->raw_expired ? static_cast<uint64_t>(r->size) : 0;
    }
    l.hold = budget_.take(bytes);
    for (auto &s : l.reports)
        if (s && s->desc_packed) {
            s->desc = unpack(s->desc, true, s->size);
            s->desc_packed = false;
        }
    return l;
}

void Staff::keepTargets(const StoredReport &s, Response &res) {
    if (s.raw_expired)
        return; // its kept findings were masked when it expired
    keepTargets(kobtriage::parse(s.desc), res);
}

void Staff::keepTargets(const kobtriage::Report &r, Response &res) {
    AddressSet targets = targetAddresses(r);
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

namespace {

// A list's query as the list page writes it: percent-encoded fields.
bool plainQuery(const std::string &q) {
    if (q.size() > 2000)
        return false;
    for (unsigned char c : q)
        if (!std::isalnum(c) && std::strchr("-._~%&=+", c) == nullptr)
            return false;
    return true;
}

} // namespace

void Staff::addViewPages(RouteTable &table) {
    page(table, Method::Post, "/views", Role::Viewer,
         [this](const Request &req, Response &res, const Principal &who) {
             std::string name = req.param("name"), query = req.param("query");
             bool shared = req.param("shared") == "1";
             if (name.empty() || name.size() > 80 || !plainQuery(query)) {
                 show(res, 400, "Problem reports", &who,
                      pages::message("Not saved: a name of up to 80 characters and the list's "
                                     "filters are needed."));
                 return;
             }
             if (!store_.saveView(who.account, name, query, shared, now())) {
                 show(res, 409, "Problem reports", &who,
                      pages::message("Not saved: you have a view called " + name + " already."));
                 return;
             }
             audit_.record(who.account, req.client_address, "view.saved", "",
                           name + (shared ? " (shared): " : ": ") + query);
             seeOther(res, links().path("/") + (query.empty() ? "" : "?" + query));
         });
    page(table, Method::Post, "/views/{id}/delete", Role::Viewer,
         [this](const Request &req, Response &res, const Principal &who) {
             int64_t id = 0;
             const std::string &s = req.matches[1];
             bool number = !s.empty() && s.size() < 19;
             for (char c : s)
                 number = number && c >= '0' && c <= '9';
             std::optional<SavedView> gone;
             if (number) {
                 id = std::stoll(s);
                 gone = store_.deleteView(id, who.account, who.role == Role::Admin);
             }
             if (!gone) {
                 show(res, 404, "Problem reports", &who, pages::message("No such view of yours."));
                 return;
             }
             audit_.record(who.account, req.client_address, "view.deleted", "",
                           gone->name + " of " + gone->account);
             seeOther(res, links().path("/"));
         });
}

std::string Staff::viewerZone(const Principal &who) {
    return who.zone;
}

std::optional<ReportFilter> Staff::filterOf(const Request &req, Response &res, const Principal &who,
                                            bool page) {
    auto f = parseFilter(req.params, store_.db().dialect(), viewerZone(who));
    if (auto *why = std::get_if<std::string>(&f)) {
        if (page) {
            show(res, 400, "Problem reports", &who, pages::message("Not searched: " + *why + "."));
        } else {
            res.status = 400;
            res.setContent(kobtriage::dumpJson(nlohmann::ordered_json{{"error", *why}}),
                           "application/json");
        }
        return std::nullopt;
    }
    ReportFilter filter = std::move(std::get<ReportFilter>(f));
    return filter;
}

bool Staff::exported(const Request &req, Response &res, const Principal &who,
                     const ReportFilter &filter, bool page) {
    if (req.param("format").empty())
        return false;
    if (exportList(req, res, who, filter))
        return true;
    const char *why = "format is csv or jsonl";
    if (page) {
        show(res, 400, "Problem reports", &who,
             pages::message(std::string("Not exported: ") + why + "."));
    } else {
        res.status = 400;
        res.setContent(kobtriage::dumpJson(nlohmann::ordered_json{{"error", why}}),
                       "application/json");
    }
    return true;
}

void Staff::notFound(Response &res, const Principal &who, const std::string &ref) {
    html::Html b;
    b << "<p id=\"message\">No report " << html::text(ref) << ".</p>";
    show(res, 404, "Not found", &who, b);
}

void Staff::reportPage(const Request &req, Response &res, const Principal &who, bool reveal) {
    auto s = store_.head(req.matches[1]);
    if (!s) {
        notFound(res, who, req.matches[1]);
        return;
    }
    audit_.record(who.account, req.client_address, reveal ? "report.revealed" : "report.viewed",
                  s->reference);
    res.unmasked = reveal;
    // A large report is shown from the findings stored with it and the
    // ends of its logs read out of the compressed text: never whole in
    // memory, nor parsed again.
    std::optional<kobtriage::Report> stored;
    if (!s->raw_expired && s->desc_packed &&
        static_cast<uint64_t>(s->size) > pages::kInlineRawBytes)
        stored = kobtriage::fromStored(s->findings);
    if (stored) {
        pages::ReportBody body{&*stored, nullptr, {}};
        TextReader reader(store_.storedPieces(s->id), true, s->size);
        body.ends = pages::logEnds(*stored, reader);
        show(res, 200, s->reference, &who,
             pages::report(*s, body, reveal, viewer(who), retainDays_)
                 << reportWorkflow(s->reference, who));
        keepTargets(*stored, res);
        return;
    }
    // Else from the whole text, judged again: a report stored before its
    // findings were, or one of ordinary size.
    auto loaded = load({req.matches[1]});
    auto &whole = loaded.reports[0];
    if (!whole) {
        notFound(res, who, req.matches[1]);
        return;
    }
    std::optional<kobtriage::Report> parsed;
    if (!whole->raw_expired)
        parsed = kobtriage::parse(whole->desc);
    pages::ReportBody body{parsed ? &*parsed : nullptr, &whole->desc, {}};
    show(res, 200, whole->reference, &who,
         pages::report(*whole, body, reveal, viewer(who), retainDays_)
             << reportWorkflow(whole->reference, who));
    if (parsed)
        keepTargets(*parsed, res);
}

namespace {

// "9| text", each line after its number as the evidence gives it.
Source numberedLines(Source text) {
    return byLines(std::move(text), [n = std::size_t{0}](std::string_view piece, bool atStart,
                                                         std::string &out) mutable {
        if (atStart)
            out += std::to_string(++n) + "| ";
        out += piece;
    });
}

// A stored text a piece at a time.
Source storedText(std::shared_ptr<const std::string> stored, bool packed, int64_t size) {
    auto reader = std::make_shared<TextReader>(std::move(stored), packed, size);
    return [reader](char *buf, std::size_t max) { return reader->read(buf, max); };
}

} // namespace

void Staff::rawText(const Request &req, Response &res, const Principal &who, bool reveal,
                    bool numbered) {
    // Sent as it is read: a report of tens of megabytes is never whole in
    // memory, nor its numbered or masked copies.
    auto s = store_.get(req.matches[1], false);
    if (!s) {
        answer(res, 404, "Not found\n");
        return;
    }
    if (s->raw_expired) {
        answer(res, 410, "The raw text of this report has expired\n");
        return;
    }
    auto stored = std::make_shared<const std::string>(std::move(s->desc));
    Source text = storedText(stored, s->desc_packed, s->size);
    audit_.record(who.account, req.client_address, reveal ? "report.raw.revealed" : "report.raw",
                  s->reference);
    res.unmasked = reveal;
    if (!reveal) {
        // The run's targets, which stay readable, are named before its
        // captures and logs: its first megabytes tell them.
        std::string head(static_cast<std::size_t>(std::min<int64_t>(s->size, 8 << 20)), '\0');
        Source first = storedText(stored, s->desc_packed, s->size);
        std::size_t got = 0;
        for (std::size_t n; got < head.size() && (n = first(head.data() + got, head.size() - got));)
            got += n;
        head.resize(got);
        AddressSet targets;
        {
            auto hold = budget_.take(head.size());
            targets = targetAddresses(kobtriage::parse(head));
        }
        res.keep.insert(targets.begin(), targets.end());
    }
    if (numbered)
        res.stream = numberedLines(std::move(text));
    else
        res.stream = std::move(text);
    res.setHeader("Content-Type", "text/plain; charset=utf-8");
}

void Staff::accountsPage(Response &res, const Principal &who, const std::string &msg,
                         const std::optional<std::string> &token, int status,
                         const std::optional<std::string> &resetLink) {
    show(
        res, status, "Accounts", &who,
        pages::accounts(accounts_.users(), accounts_.tokens(), viewer(who), msg, token, resetLink));
}

void Staff::addPageRoutes(RouteTable &table) {
    addSignInRoutes(table);
    addReportPages(table);
    addAdminPages(table);
    addAccountPages(table);
    addPasswordPages(table);
    addFleetPages(table);
    addSettingsPages(table);
    addSecondFactorPages(table);
    addIssuePages(table);
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
             if (!preSignInForm(req, pre)) {
                 show(res, 403, "Sign in", nullptr,
                      pages::message("This sign-in form has expired or did not come from this "
                                     "server. Open the sign-in page again."));
                 return;
             }
             auto r =
                 accounts_.signIn(req.param("name"), req.param("password"), req.client_address);
             using R = Accounts::SignIn::Result;
             if (r.result == R::Busy) {
                 res.setHeader("Retry-After", "1");
                 show(res, 429, "Sign in", nullptr,
                      pages::signIn(Accounts::csrfToken(pre), next,
                                    "Many people are signing in at once. Try again in a moment.",
                                    links()));
                 return;
             }
             if (r.result == R::Locked) {
                 res.setHeader("Retry-After", std::to_string(r.retry_after));
                 show(res, 429, "Sign in", nullptr,
                      pages::signIn(Accounts::csrfToken(pre), next,
                                    "Too many failed sign-ins. Try again in " +
                                        std::to_string((r.retry_after + 59) / 60) + " minutes.",
                                    links()));
                 return;
             }
             if (r.result == R::CodeNeeded) {
                 askForCode(req, res, next);
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
             auto filter = filterOf(req, res, who, true);
             if (!filter || exported(req, res, who, *filter, true))
                 return;
             // A whole reference opens its report.
             if (!filter->exact.empty() && store_.head(filter->exact)) {
                 seeOther(res, links().path("/reports/") + filter->exact);
                 return;
             }
             int64_t pg = pageNumber(req);
             auto list = store_.list(*filter, (pg - 1) * kPageSize, kPageSize);
             std::string q = req.hasParam("q") ? req.param("q") : "";
             html::Html body;
             // After a deletion: said only of a report that is gone indeed.
             if (std::string gone = req.param("deleted"); !gone.empty() && !store_.head(gone))
                 body << pages::message("Deleted the report " + gone + ".");
             body << pages::list(list, filter->given, pg, kPageSize, store_.views(who.account),
                                 viewer(who));
             show(res, 200, "Problem reports", &who, body, q);
         });
    addViewPages(table);
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
             if (!confirmed(req, res, who, "Delete the report " + ref + "? This cannot be undone.",
                            "Delete the report", "/reports/" + ref))
                 return;
             if (!store_.remove(ref)) {
                 notFound(res, who, ref);
                 return;
             }
             audit_.record(who.account, req.client_address, "report.deleted", ref);
             seeOther(res, links().path("/") + "?deleted=" + html::percentEncode(ref));
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
             if (!Accounts::validName(name) || !role || *role == Role::Metrics) {
                 accountsPage(res, who,
                              "Not added: a name of letters, digits and . _ - @ and a role are "
                              "needed.",
                              std::nullopt, 400);
                 return;
             }
             if (std::string why = passwordRules_.problem(password, name); !why.empty()) {
                 accountsPage(res, who, why, std::nullopt, 400);
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
             if (!confirmed(req, res, who,
                            "Delete the account " + name +
                                "? Its audit history stays; the account cannot be had back.",
                            "Delete the account", "/admin/accounts"))
                 return;
             Change c = accounts_.deleteUser(name);
             if (c != Change::Done) {
                 accountsPage(res, who, c == Change::LastAdmin ? kLastAdmin : "No such user.",
                              std::nullopt, c == Change::LastAdmin ? 409 : 404);
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
             if (!confirmed(req, res, who,
                            "Revoke the token " + name + "? Whatever uses it stops at once.",
                            "Revoke the token", "/admin/accounts"))
                 return;
             if (!accounts_.deleteToken(name)) {
                 accountsPage(res, who, "No such token.", std::nullopt, 404);
                 return;
             }
             audit_.record(who.account, req.client_address, "token.deleted", "", name);
             accountsPage(res, who, "Revoked the token " + name + ".");
         });
}

void Staff::addSettingsPages(RouteTable &table) {
    page(table, Method::Get, "/settings", Role::Viewer,
         [this](const Request &, Response &res, const Principal &who) {
             show(res, 200, "Settings", &who,
                  pages::settings(who.zone, zoneNames(), now(), viewer(who), ""));
         });
    page(table, Method::Post, "/settings/zone", Role::Viewer,
         [this](const Request &req, Response &res, const Principal &who) {
             std::string zone = req.param("zone");
             if (!accounts_.setZone(who.account, zone)) {
                 show(res, 400, "Settings", &who,
                      pages::settings(who.zone, zoneNames(), now(), viewer(who),
                                      "Not changed: no time zone is called \u201c" + zone +
                                          "\u201d. Pick one of the list, such as "
                                          "Europe/Berlin, or UTC."));
                 return;
             }
             audit_.record(who.account, req.client_address, "account.zone", "", zone);
             pages::ShownZone shown(zone);
             show(res, 200, "Settings", &who,
                  pages::settings(zone, zoneNames(), now(), viewer(who),
                                  "Times are now shown in " + zone + "."));
         });
}

void Staff::addFleetPages(RouteTable &table) {
    page(table, Method::Get, "/fleet", Role::Viewer,
         [this](const Request &req, Response &res, const Principal &who) {
             std::string w = req.hasParam("window") ? req.param("window") : "24h";
             if (!windowSeconds(w))
                 w = "24h";
             Fleet f = fleet(store_.db(), w, now());
             std::string by = req.param("by");
             if (!breakDown(store_.db(), f, by))
                 by.clear();
             // On a wall screen the page keeps itself current, unless asked not to.
             // Asked for: a page that reloads on its own is one a person did
             // not choose to leave (and screen readers lose their place).
             bool refreshing = req.param("refresh") == "on";
             show(res, 200, "The fleet", &who,
                  pages::fleet(f, links(), by, Incidents(store_.db()).list(now(), true, 20),
                               refreshing),
                  "", refreshing ? kFleetRefresh : 0);
         });
    page(table, Method::Get, "/incidents", Role::Viewer,
         [this](const Request &, Response &res, const Principal &who) {
             show(res, 200, "Incidents", &who,
                  pages::incidents(Incidents(store_.db()).list(now(), false, 100), viewer(who)));
         });
    // Anyone on call may acknowledge; the audit log says who did.
    page(table, Method::Post, "/incidents/{id}/acknowledge", Role::Viewer,
         [this](const Request &req, Response &res, const Principal &who) {
             const std::string &id = req.matches[1];
             bool digits = !id.empty() && id.size() < 16 &&
                           id.find_first_not_of("0123456789") == std::string::npos;
             if (!digits ||
                 !Incidents(store_.db()).acknowledge(std::stoll(id), who.account, now())) {
                 show(res, 404, "Incidents", &who,
                      pages::message("No open incident " + id + " to acknowledge."));
                 return;
             }
             audit_.record(who.account, req.client_address, "incident.acknowledged", "",
                           "incident " + id);
             seeOther(res, links().path("/incidents"));
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
             auto both = load({req.param("a"), req.param("b")});
             auto &a = both.reports[0], &b = both.reports[1];
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
             show(res, 200, name, &who,
                  pages::user(store_.sameUser(name), store_.byUser(name, 200), links()));
         });
}

} // namespace kobreportd
