// The second factor on the staff side: the code asked for after the
// password, a person setting up their own, and an admin removing someone's.

#include <nlohmann/json.hpp>

#include "html.h"
#include "kobtriage.h"
#include "staff.h"
#include "text.h"

namespace kobreportd {

namespace {

std::string pendingCookie(const std::string &value, const std::string &attributes,
                          std::time_t maxAge) {
    return std::string(kPendingCookie) + "=" + value + attributes +
           "; Max-Age=" + std::to_string(maxAge);
}

} // namespace

void Staff::askForCode(const Request &req, Response &res, const std::string &next) {
    std::string pending = factors_->startSignIn(cleanText(req.param("name")));
    res.addHeader("Set-Cookie", pendingCookie(pending, guard_.cookieAttributes(), kPendingSignIn));
    seeOther(res, links().path("/signin/code") + "?next=" + html::percentEncode(next));
}

void Staff::secondFactorPage(Response &res, const Principal &who, const std::string &msg,
                             int status) {
    bool enrolled = factors_->enrolled(who.account);
    show(res, status, "Second factor", &who,
         pages::secondFactor(enrolled, enrolled ? factors_->recoveryCodesLeft(who.account) : 0,
                             !who.via_proxy && secondFactorRequired(rule_, who.role), viewer(who),
                             msg));
}

void Staff::addSecondFactorPages(RouteTable &table) {
    // The sign-in's second step is open: the browser has no session yet,
    // only the cookie of a sign-in whose password was right.
    table.add({Method::Get, "/signin/code", Listener::Staff, Access::Open, Role::Viewer,
               [this](const Request &req, Response &res, const Principal *) {
                   std::string pre = cookie(req, kSignInCookie);
                   if (pre.size() != 64 || cookie(req, kPendingCookie).size() != 64) {
                       seeOther(res, links().path("/signin"));
                       return;
                   }
                   show(res, 200, "Sign in", nullptr,
                        pages::signInCode(Accounts::csrfToken(pre),
                                          safeNext(req.hasParam("next") ? req.param("next") : "/"),
                                          "", links()));
               }});
    table.add(
        {Method::Post, "/signin/code", Listener::Staff, Access::Open, Role::Viewer,
         [this](const Request &req, Response &res, const Principal *) {
             std::string pre = cookie(req, kSignInCookie);
             std::string next = safeNext(req.param("next"));
             if (!preSignInForm(req, pre)) {
                 show(res, 403, "Sign in", nullptr,
                      pages::message("This sign-in form has expired or did not come from this "
                                     "server. Open the sign-in page again."));
                 return;
             }
             std::string pending = cookie(req, kPendingCookie);
             auto r = factors_->finishSignIn(pending, req.param("code"), req.client_address);
             using R = SecondFactors::Check::Result;
             std::string csrf = Accounts::csrfToken(pre);
             if (r.result == R::Wrong) {
                 show(res, 401, "Sign in", nullptr,
                      pages::signInCode(csrf, next, "Wrong code.", links()));
                 return;
             }
             if (r.result != R::Ok) {
                 res.addHeader("Set-Cookie",
                               pendingCookie("", guard_.cookieAttributes(), std::time_t{0}));
                 std::string why = "This sign-in has ended. Sign in again.";
                 int status = 401;
                 if (r.result == R::Locked) {
                     res.setHeader("Retry-After", std::to_string(r.retry_after));
                     why = "Too many wrong codes. Try again in " +
                           std::to_string((r.retry_after + 59) / 60) + " minutes.";
                     status = 429;
                 }
                 show(res, status, "Sign in", nullptr, pages::signIn(csrf, next, why, links()));
                 return;
             }
             std::string old = cookie(req, kSessionCookie);
             if (!old.empty())
                 accounts_.signOut(old);
             std::string session =
                 accounts_.openSession(r.account, req.client_address, "signin",
                                       r.recovery ? "with a recovery code" : "with a code");
             res.addHeader("Set-Cookie",
                           std::string(kSessionCookie) + "=" + session + guard_.cookieAttributes());
             res.addHeader("Set-Cookie", std::string(kSignInCookie) + "=" +
                                             guard_.cookieAttributes() + "; Max-Age=0");
             res.addHeader("Set-Cookie",
                           pendingCookie("", guard_.cookieAttributes(), std::time_t{0}));
             seeOther(res, links().path(next));
         }});
    page(table, Method::Get, kSecondFactorPage, Role::Viewer,
         [this](const Request &, Response &res, const Principal &who) {
             secondFactorPage(res, who, "");
         });
    page(table, Method::Post, kSecondFactorPage, Role::Viewer,
         [this](const Request &, Response &res, const Principal &who) {
             auto e = factors_->begin(who.account);
             if (!e) {
                 secondFactorPage(res, who, "Your account has a second factor already.", 409);
                 return;
             }
             show(res, 200, "Second factor", &who,
                  pages::secondFactorEnrol(e->secret, e->uri, viewer(who), ""));
         });
    page(table, Method::Post, std::string(kSecondFactorPage) + "/confirm", Role::Viewer,
         [this](const Request &req, Response &res, const Principal &who) {
             auto codes = factors_->confirm(who.account, req.param("code"));
             if (codes.empty()) {
                 auto e = factors_->waiting(who.account);
                 if (!e) {
                     secondFactorPage(res, who, "Nothing is waiting for a code: start again.", 409);
                     return;
                 }
                 show(res, 400, "Second factor", &who,
                      pages::secondFactorEnrol(
                          e->secret, e->uri, viewer(who),
                          "Wrong code: enter the six digits the app shows now."));
                 return;
             }
             audit_.record(who.account, req.client_address, "second_factor.enrolled");
             show(res, 200, "Second factor", &who, pages::recoveryCodes(codes, viewer(who)));
         });
    page(table, Method::Post, "/admin/users/{name}/second-factor/reset", Role::Admin,
         [this](const Request &req, Response &res, const Principal &who) {
             std::string name = req.matches[1];
             if (!accounts_.roleOf(name)) {
                 accountsPage(res, who, "No such user.", std::nullopt, 404);
                 return;
             }
             if (!factors_->reset(name)) {
                 accountsPage(res, who, name + " has no second factor.", std::nullopt, 404);
                 return;
             }
             audit_.record(who.account, req.client_address, "second_factor.reset", "", name);
             accountsPage(res, who, "Removed the second factor of " + name + ".");
         });
}

void Staff::addSecondFactorApi(RouteTable &table) {
    using Json = nlohmann::ordered_json;
    api(table, Method::Delete, "/api/accounts/{name}/second-factor", Role::Admin,
        [this](const Request &req, Response &res, const Principal &who) {
            std::string name = req.matches[1];
            res.status = 404;
            Json body;
            if (!accounts_.roleOf(name)) {
                body = Json{{"error", "no such account"}};
            } else if (!factors_->reset(name)) {
                body = Json{{"error", "this account has no second factor"}};
            } else {
                audit_.record(who.account, req.client_address, "second_factor.reset", "", name);
                res.status = 200;
                body = Json{{"account", name}, {"second_factor", false}};
            }
            res.setContent(kobtriage::dumpJson(body), "application/json");
        });
}

} // namespace kobreportd
