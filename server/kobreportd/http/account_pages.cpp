// The pages that change accounts beside adding and deleting them: roles,
// disabling, reset links, and passwords (one's own, or through a link).

#include "clock.h"
#include "staff.h"

namespace kobreportd {

bool Staff::confirmed(const Request &req, Response &res, const Principal &who,
                      const std::string &question, const std::string &button,
                      const std::string &back) {
    if (req.param("confirm") == "yes")
        return true;
    show(res, 200, "Are you sure?", &who,
         pages::confirm(question, req.path, button, back, viewer(who), {}));
    return false;
}

void Staff::addAccountPages(RouteTable &table) {
    auto refused = [this](Response &res, const Principal &who, Change c) {
        accountsPage(res, who, c == Change::LastAdmin ? kLastAdmin : "No such user.", std::nullopt,
                     c == Change::LastAdmin ? 409 : 404);
    };
    page(table, Method::Post, "/admin/users/{name}/role", Role::Admin,
         [this, refused](const Request &req, Response &res, const Principal &who) {
             std::string name = req.matches[1];
             auto role = parseRole(req.param("role"));
             if (!role || *role == Role::Metrics) {
                 accountsPage(res, who, "Not changed: the role is viewer or admin.", std::nullopt,
                              400);
                 return;
             }
             Change c = accounts_.setRole(name, *role);
             if (c != Change::Done) {
                 refused(res, who, c);
                 return;
             }
             std::string what = name + " (" + roleName(*role) + ")";
             audit_.record(who.account, req.client_address, "user.role.changed", "", what);
             std::string msg = "Made " + name + " " + (*role == Role::Admin ? "an " : "a ") +
                               roleName(*role) + ".";
             if (name == who.account)
                 show(res, 200, "Done", &who, pages::done(msg, links()));
             else
                 accountsPage(res, who, msg);
         });
    for (bool off : {true, false}) {
        page(table, Method::Post,
             off ? "/admin/users/{name}/disable" : "/admin/users/{name}/enable", Role::Admin,
             [this, refused, off](const Request &req, Response &res, const Principal &who) {
                 std::string name = req.matches[1];
                 if (off && !confirmed(req, res, who,
                                       "Disable the account " + name +
                                           "? Its sessions end at once and it cannot sign in "
                                           "until enabled again.",
                                       "Disable the account", "/admin/accounts"))
                     return;
                 Change c = accounts_.setDisabled(name, off);
                 if (c != Change::Done) {
                     refused(res, who, c);
                     return;
                 }
                 audit_.record(who.account, req.client_address,
                               off ? "user.disabled" : "user.enabled", "", name);
                 std::string msg = (off ? "Disabled " : "Enabled ") + name + ".";
                 if (name == who.account) {
                     seeOther(res, links().path("/signin"));
                     return;
                 }
                 accountsPage(res, who, msg);
             });
        page(table, Method::Post,
             off ? "/admin/tokens/{name}/disable" : "/admin/tokens/{name}/enable", Role::Admin,
             [this, off](const Request &req, Response &res, const Principal &who) {
                 std::string name = req.matches[1];
                 if (!accounts_.setTokenDisabled(name, off)) {
                     accountsPage(res, who, "No such token.", std::nullopt, 404);
                     return;
                 }
                 audit_.record(who.account, req.client_address,
                               off ? "token.disabled" : "token.enabled", "", name);
                 accountsPage(res, who,
                              (off ? "Disabled the token " : "Enabled the token ") + name + ".");
             });
    }
    page(table, Method::Post, "/admin/users/{name}/reset", Role::Admin,
         [this](const Request &req, Response &res, const Principal &who) {
             std::string name = req.matches[1];
             std::string secret = accounts_.makeResetLink(name);
             if (secret.empty()) {
                 accountsPage(res, who, "No such user.", std::nullopt, 404);
                 return;
             }
             audit_.record(who.account, req.client_address, "user.reset.issued", "", name);
             accountsPage(res, who, "Made a reset link for " + name + ".", std::nullopt, 200,
                          guard_.origin(req) + links().path("/reset/" + secret));
         });
}

void Staff::addPasswordPages(RouteTable &table) {
    page(table, Method::Get, "/account/password", Role::Viewer,
         [this](const Request &, Response &res, const Principal &who) {
             show(res, 200, "Your password", &who,
                  pages::passwordForm("/account/password", Accounts::csrfToken(who.session), true,
                                      "", links()));
         });
    page(table, Method::Post, "/account/password", Role::Viewer,
         [this](const Request &req, Response &res, const Principal &who) {
             auto again = [&](int status, const std::string &msg) {
                 show(res, status, "Your password", &who,
                      pages::passwordForm("/account/password", Accounts::csrfToken(who.session),
                                          true, msg, links()));
             };
             std::string password = req.param("password");
             if (std::string why = passwordRules_.problem(password, who.account); !why.empty())
                 return again(400, why);
             if (password != req.param("again"))
                 return again(400, "The two new passwords differ.");
             auto check = accounts_.checkPassword(who.account, req.param("current"));
             if (check == Accounts::Check::Busy) {
                 res.setHeader("Retry-After", "1");
                 return again(429, "Many people are signing in at once. Try again in a moment.");
             }
             if (check == Accounts::Check::Wrong) {
                 audit_.record(who.account, req.client_address, "user.password.refused");
                 return again(403, "The current password is wrong.");
             }
             accounts_.setPassword(who.account, password, who.session);
             audit_.record(who.account, req.client_address, "user.password.changed");
             show(
                 res, 200, "Your password", &who,
                 pages::done("Your password is changed; your other sessions have ended.", links()));
         });
    // A reset link is opened by someone not signed in: its form's token is
    // tied to a cookie of its own, as the sign-in form's is.
    auto formId = [this](const Request &req, Response &res) {
        std::string pre = cookie(req, kSignInCookie);
        if (pre.size() != 64) {
            pre = Accounts::randomId();
            res.addHeader("Set-Cookie", std::string(kSignInCookie) + "=" + pre +
                                            guard_.cookieAttributes() + "; Max-Age=3600");
        }
        return pre;
    };
    const std::string gone =
        "This link is not good: it has been used, it is more than 24 hours old, or it was never "
        "made. Ask an admin for a new one.";
    table.add({Method::Get, "/reset/{secret}", Listener::Staff, Access::Open, Role::Viewer,
               [this, formId, gone](const Request &req, Response &res, const Principal *) {
                   if (!accounts_.resetAccount(req.matches[1])) {
                       show(res, 404, "Set a password", nullptr, pages::message(gone));
                       return;
                   }
                   std::string pre = formId(req, res);
                   show(res, 200, "Set a password", nullptr,
                        pages::passwordForm("/reset/" + req.matches[1], Accounts::csrfToken(pre),
                                            false, "", links()));
               }});
    table.add(
        {Method::Post, "/reset/{secret}", Listener::Staff, Access::Open, Role::Viewer,
         [this, gone](const Request &req, Response &res, const Principal *) {
             std::string pre = cookie(req, kSignInCookie), secret = req.matches[1];
             if (!preSignInForm(req, pre)) {
                 show(res, 403, "Set a password", nullptr,
                      pages::message("This form has expired or did not come from this "
                                     "server. Open the link again."));
                 return;
             }
             auto name = accounts_.resetAccount(secret);
             if (!name) {
                 show(res, 404, "Set a password", nullptr, pages::message(gone));
                 return;
             }
             auto again = [&](const std::string &msg) {
                 show(res, 400, "Set a password", nullptr,
                      pages::passwordForm("/reset/" + secret, Accounts::csrfToken(pre), false, msg,
                                          links()));
             };
             std::string password = req.param("password");
             if (std::string why = passwordRules_.problem(password, *name); !why.empty())
                 return again(why);
             if (password != req.param("again"))
                 return again("The two new passwords differ.");
             if (!accounts_.resetPassword(secret, password)) {
                 show(res, 404, "Set a password", nullptr, pages::message(gone));
                 return;
             }
             audit_.record(*name, req.client_address, "user.password.reset");
             show(res, 200, "Set a password", nullptr,
                  pages::done("The password of " + *name + " is set; sign in with it.", links()));
         }});
}

} // namespace kobreportd
