#include "auth_proxy.h"

#include "text.h"

namespace kobreportd {

namespace {

std::string trimmed(const std::string &s) {
    size_t from = s.find_first_not_of(" \t"), to = s.find_last_not_of(" \t");
    return from == std::string::npos ? "" : s.substr(from, to - from + 1);
}

} // namespace

AuthProxy::Outcome AuthProxy::check(const Request &req, Response &res,
                                    const std::string &cookieAttributes,
                                    std::optional<Principal> &who, std::string &why) const {
    if (o_.user_header.empty() || !proxies_.trusts(req.peer_address) ||
        !req.hasHeader(o_.user_header))
        return Outcome::NotNamed;
    std::string name = trimmed(req.header(o_.user_header));
    if (!Accounts::validName(name)) {
        audit_.fold(kNoSuchAccount, req.client_address, "signin.proxy.refused");
        why = "The name your sign-in service gave is not one this server can take as an account "
              "name.";
        return Outcome::Refused;
    }
    auto current = accounts_.session(cookie(req, kSessionCookie));
    if (current && current->account == name) {
        who = std::move(current);
        return Outcome::SignedIn;
    }
    // The browser's session is someone else's: the person the proxy names
    // now is the one at the keyboard.
    if (current)
        accounts_.signOut(current->session);
    std::string email;
    if (!o_.email_header.empty())
        email = cleanText(trimmed(req.header(o_.email_header)).substr(0, 254));
    auto role = accounts_.roleOf(name);
    if (!role && o_.autocreate) {
        std::string asked = o_.role_header.empty() ? "" : trimmed(req.header(o_.role_header));
        Role r = asked == "admin" ? Role::Admin : Role::Viewer;
        if (accounts_.addProxyUser(name, r, email))
            audit_.record(name, req.client_address, "user.added", "",
                          name + " (" + roleName(r) + "), made by the sign-in proxy");
        role = accounts_.roleOf(name);
    }
    if (!role) {
        audit_.fold(kNoSuchAccount, req.client_address, "signin.proxy.refused");
        why = "There is no account " + name + " here. An admin can add it.";
        return Outcome::Refused;
    }
    if (accounts_.isDisabled(name)) {
        audit_.fold(name, req.client_address, "signin.disabled");
        why = "The account " + name + " is disabled. An admin can enable it.";
        return Outcome::Refused;
    }
    if (!email.empty())
        accounts_.setEmail(name, email);
    std::string id = accounts_.openSession(name, req.client_address, "signin.proxy",
                                           o_.user_header + " from " + req.peer_address, true);
    res.addHeader("Set-Cookie", std::string(kSessionCookie) + "=" + id + cookieAttributes);
    who = accounts_.session(id);
    return who ? Outcome::SignedIn : Outcome::NotNamed;
}

} // namespace kobreportd
