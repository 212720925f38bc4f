// Staff accounts, their sign-in sessions and API tokens.  Passwords and
// tokens are kept only as Argon2id hashes, session ids only as BLAKE2b
// hashes; the secrets themselves exist only on the wire and in the
// browser's cookie.

#ifndef KOBREPORTD_ACCOUNTS_H
#define KOBREPORTD_ACCOUNTS_H

#include <ctime>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "audit.h"
#include "sql.h"

namespace kobreportd {

// A metrics token reads /metrics and nothing else; people are viewers or
// admins.
enum class Role { Viewer, Admin, Metrics };

const char *roleName(Role r);
std::optional<Role> parseRole(const std::string &s);

// Who is asking: a signed-in person or a token.
struct Principal {
    std::string account; // user name, or "token:NAME"
    Role role = Role::Viewer;
    std::string session;        // the session id (signed-in people only)
    bool second_factor = false; // the account has a confirmed second factor
    bool via_proxy = false;     // signed in by the identity provider's proxy
};

struct AccountInfo {
    std::string name;
    Role role = Role::Viewer;
    std::time_t created_at = 0;
};

// The limits of a session and of failed sign-ins.
constexpr std::time_t kSessionIdle = std::time_t{30} * 60;
constexpr std::time_t kSessionAbsolute = std::time_t{12} * 60 * 60;
constexpr int kSignInFailures = 5;
// The audit log's account for a sign-in under a name that is no account.
constexpr const char *kNoSuchAccount = "(no such account)";
constexpr std::time_t kSignInWindow = std::time_t{5} * 60;

class Accounts {
  public:
    Accounts(sql::Db &db, Audit &audit);

    // Account management (command line and the admin page).  Names are 1 to
    // 64 letters, digits, '.', '_', '-' or '@'.
    static bool validName(const std::string &name);
    void addUser(const std::string &name, Role role, const std::string &password);
    bool deleteUser(const std::string &name); // also ends the user's sessions
    std::vector<AccountInfo> users();
    // Returns the token, which is shown once and kept nowhere.
    std::string addToken(const std::string &name, Role role);
    bool deleteToken(const std::string &name);
    std::vector<AccountInfo> tokens();

    struct SignIn {
        // CodeNeeded: the password was right and the account has a second
        // factor; no session is made until its code is.
        enum class Result { Ok, Wrong, Locked, CodeNeeded } result = Result::Wrong;
        std::string session;         // Ok: the new session id, for the cookie
        std::time_t retry_after = 0; // Locked: seconds
    };
    // The same answer, and about the same time, for an unknown name and a
    // wrong password.  Five failures for one account or one address within
    // five minutes shut the door for five minutes.
    SignIn signIn(const std::string &name, const std::string &password, const std::string &address);
    std::optional<Principal> session(const std::string &id);
    // A new session for account, recorded in the audit log as action; its
    // id, for the cookie.
    std::string openSession(const std::string &account, const std::string &address,
                            const std::string &action, const std::string &detail = "",
                            bool viaProxy = false);
    // The role of an account, or nothing when there is none.
    std::optional<Role> roleOf(const std::string &name);
    // An account the identity provider's proxy signs in, with no password
    // of its own; false when the name is taken.
    bool addProxyUser(const std::string &name, Role role, const std::string &email);
    void setEmail(const std::string &name, const std::string &email);
    void signOut(const std::string &id);
    std::optional<Principal> bearer(const std::string &token);

    // The form token that goes with a session id (or a sign-in form's id).
    static std::string csrfToken(const std::string &id);
    // A fresh random id, 256 bits as 64 hex digits.
    static std::string randomId();

  private:
    // name, role, created_at rows as accounts.
    std::vector<AccountInfo> list(const char *query);
    sql::Db &db_;
    Audit &audit_;
    std::string dummyHash_; // verified against for unknown names
    std::mutex cacheMutex_;
    // token id -> digest of the token last verified, and until when that
    // saves the Argon2id check.
    std::map<std::string, std::pair<std::string, std::time_t>> tokenCache_;
    // token id -> the metrics token last verified, for when the database
    // cannot be asked.
    struct KnownMetricsToken {
        std::string digest, salt;
        Principal who;
    };
    std::map<std::string, KnownMetricsToken> metricsCache_;
};

} // namespace kobreportd

#endif
