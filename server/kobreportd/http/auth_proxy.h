// Sign-in through the identity provider's proxy: a proxy the operator runs
// in front of the staff side has authenticated the person and names them in
// a header (--auth-proxy-header).  The header is believed only on a
// connection from one of the --trusted-proxy addresses; from anyone else,
// or with the option off, it is not read at all.

#ifndef KOBREPORTD_AUTH_PROXY_H
#define KOBREPORTD_AUTH_PROXY_H

#include <optional>
#include <string>

#include "accounts.h"
#include "audit.h"
#include "proxies.h"
#include "routes.h"

namespace kobreportd {

struct AuthProxyOptions {
    std::string user_header;  // "" when proxy sign-in is off
    std::string email_header; // optional: kept with the account
    // Optional: "viewer" or "admin", read only when an account is made for
    // the name (with autocreate); an existing account's role is changed
    // here only, never by a header.
    std::string role_header;
    bool autocreate = false; // a name with no account gets one
};

class AuthProxy {
  public:
    AuthProxy(AuthProxyOptions options, const TrustedProxies &proxies, Accounts &accounts,
              Audit &audit)
        : o_(std::move(options)), proxies_(proxies), accounts_(accounts), audit_(audit) {}

    enum class Outcome { NotNamed, SignedIn, Refused };
    // NotNamed: the request is not one the proxy vouches for (the sign-in
    // session, if any, decides).  SignedIn: who is the person named, in a
    // session of their own (made now, and its cookie set on res, when the
    // browser's is not theirs).  Refused: why says why.
    Outcome check(const Request &req, Response &res, const std::string &cookieAttributes,
                  std::optional<Principal> &who, std::string &why) const;

  private:
    AuthProxyOptions o_;
    const TrustedProxies &proxies_;
    Accounts &accounts_;
    Audit &audit_;
};

} // namespace kobreportd

#endif
