// Staff accounts, their sign-in sessions and API tokens.  Passwords and
// tokens are kept only as Argon2id hashes, session ids only as BLAKE2b
// hashes; the secrets themselves exist only on the wire and in the
// browser's cookie.

#ifndef KOBREPORTD_ACCOUNTS_H
#define KOBREPORTD_ACCOUNTS_H

#include <condition_variable>
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
    std::string zone = "UTC";   // the time zone the person reads times in
    bool second_factor = false; // the account has a confirmed second factor
    bool via_proxy = false;     // signed in by the identity provider's proxy
};

struct AccountInfo {
    std::string name;
    Role role = Role::Viewer;
    std::time_t created_at = 0;
    bool disabled = false;
    std::time_t last_signin = 0; // 0: never (people only)
};

// What became of a change to an account.  The last enabled admin is never
// deleted, disabled or made a viewer: nobody could manage accounts after.
enum class Change { Done, NoSuchAccount, LastAdmin };
constexpr const char *kLastAdmin =
    "This is the last enabled admin account; make another admin first.";

// A one-time link that sets a new password is good for this long.
constexpr std::time_t kResetLinkLife = std::time_t{24} * 60 * 60;

// At most this many password hashes (64 MiB of memory each) are worked out
// at once; a sign-in waits up to kHashWait for its turn, then is turned away.
constexpr int kHashSlots = 4;
constexpr int kHashWaitMs = 3000;

// Counts the hashes being worked out.
class HashSlots {
  public:
    explicit HashSlots(int slots) : free_(slots) {}
    // Whether a slot was had within waitMs (for ever when negative).
    bool take(int waitMs);
    void give();
    class Hold {
      public:
        Hold(HashSlots &s, int waitMs) : slots_(s), held_(s.take(waitMs)) {}
        ~Hold() {
            if (held_)
                slots_.give();
        }
        Hold(const Hold &) = delete;
        Hold &operator=(const Hold &) = delete;
        explicit operator bool() const { return held_; }

      private:
        HashSlots &slots_;
        bool held_;
    };

  private:
    std::mutex mutex_;
    std::condition_variable freed_;
    int free_;
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
    Change deleteUser(const std::string &name); // also ends the user's sessions
    Change setRole(const std::string &name, Role role);
    // Disabling ends the account's sessions; it cannot sign in until enabled.
    Change setDisabled(const std::string &name, bool disabled);
    bool setTokenDisabled(const std::string &name, bool disabled);
    // Ends every session of the account but keep (a session id, or "").
    bool setPassword(const std::string &name, const std::string &password,
                     const std::string &keep = "");
    enum class Check { Ok, Wrong, Busy };
    Check checkPassword(const std::string &name, const std::string &password);
    // A one-time secret for the account's reset link, replacing any earlier
    // one; "" when there is no such person.
    std::string makeResetLink(const std::string &name);
    // The account a reset secret is for while it is good.
    std::optional<std::string> resetAccount(const std::string &secret);
    // Uses the secret up and sets the password; false when it was no good.
    bool resetPassword(const std::string &secret, const std::string &password);
    std::vector<AccountInfo> users();
    // Returns the token, which is shown once and kept nowhere.
    std::string addToken(const std::string &name, Role role);
    bool deleteToken(const std::string &name);
    std::vector<AccountInfo> tokens();
    // The time zone a person reads times in (a name the system's zone files
    // know, or "UTC").
    bool setZone(const std::string &name, const std::string &zone);

    struct SignIn {
        // CodeNeeded: the password was right and the account has a second
        // factor; no session is made until its code is.  Busy: too many
        // passwords were being checked at once to wait for a turn.
        enum class Result { Ok, Wrong, Locked, Busy, CodeNeeded } result = Result::Wrong;
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
    bool isDisabled(const std::string &name);
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
    // name, role, created_at, disabled (and last_signin) rows as accounts.
    std::vector<AccountInfo> list(const char *query);
    // Whether the change leaves no enabled admin (within c's transaction).
    bool lastAdmin(sql::Conn &c, const std::string &name);
    std::string hash(const std::string &password);
    HashSlots slots_{kHashSlots};
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
