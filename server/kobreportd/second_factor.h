// A second factor for staff sign-ins: a TOTP secret (RFC 6238: 30-second
// steps, six digits, HMAC-SHA-1, as authenticator apps expect) and ten
// recovery codes.  The secret must be read back to check a code, so it is
// kept encrypted with a key from a file of its own (a stolen database alone
// does not give it away); the recovery codes are kept only as hashes.

#ifndef KOBREPORTD_SECOND_FACTOR_H
#define KOBREPORTD_SECOND_FACTOR_H

#include <ctime>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "accounts.h"
#include "audit.h"
#include "sql.h"

namespace kobreportd {

// Which people must have a second factor (--require-2fa).
enum class SecondFactorRule { Optional, Admins, Everyone };
std::optional<SecondFactorRule> parseSecondFactorRule(const std::string &s);
bool secondFactorRequired(SecondFactorRule rule, Role role);

// How long a sign-in waits for its code after the password.
constexpr std::time_t kPendingSignIn = std::time_t{5} * 60;
constexpr int kRecoveryCodes = 10;

class SecondFactors {
  public:
    // keyFile holds the key the secrets are encrypted with; it is made
    // (mode 0600) when the first secret is.
    SecondFactors(sql::Db &db, Audit &audit, std::string keyFile);

    struct Enrolment {
        std::string secret; // base32, for typing in by hand
        std::string uri;    // otpauth://, for the QR code
    };
    // A new secret for account, waiting for its first code (one waiting
    // before is replaced); nothing when account has a confirmed one.
    std::optional<Enrolment> begin(const std::string &account);
    // The secret waiting for its first code, to show again.
    std::optional<Enrolment> waiting(const std::string &account);
    // Confirms the waiting secret with a code from it; the recovery codes,
    // to be shown this once, or none when the code is wrong.
    std::vector<std::string> confirm(const std::string &account, const std::string &code);
    bool enrolled(const std::string &account);
    int recoveryCodesLeft(const std::string &account);
    // Removes account's second factor and recovery codes; false when it
    // had none.
    bool reset(const std::string &account);

    // The second step of a sign-in.  begin: the id for the browser's
    // cookie, after the password was right.
    std::string startSignIn(const std::string &account);
    struct Check {
        enum class Result { Ok, Wrong, Expired, Locked } result = Result::Expired;
        std::string account;
        bool recovery = false;       // a recovery code was used
        std::time_t retry_after = 0; // Locked: seconds
    };
    // A code from the app or a recovery code, each good once; five wrong
    // codes for an account within five minutes shut its door for five.
    Check finishSignIn(const std::string &pendingId, const std::string &code,
                       const std::string &address);
    void dropSignIn(const std::string &pendingId);

  private:
    const unsigned char *key();
    std::string seal(const std::string &account, const std::string &secret);
    std::optional<std::string> open(const std::string &account, const std::string &sealed);
    Enrolment enrolment(const std::string &account, const std::string &secret);
    // The time step of a right code, or nothing.
    std::optional<int64_t> codeStep(const std::string &secret, const std::string &code);
    bool useRecoveryCode(const std::string &account, const std::string &code);

    sql::Db &db_;
    Audit &audit_;
    std::string keyFile_;
    std::mutex keyMutex_;
    bool haveKey_ = false;
    unsigned char key_[32] = {};
};

} // namespace kobreportd

#endif
