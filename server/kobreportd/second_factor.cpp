#include "second_factor.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <liboath/oath.h>
#include <sodium.h>
#include <sys/stat.h>
#include <unistd.h>

#include "clock.h"
#include "html.h"
#include "text.h"

namespace kobreportd {

namespace {

constexpr unsigned kStepSeconds = 30;
constexpr size_t kSecretBytes = 20; // 160 bits, as RFC 4226 advises
constexpr const char *kIssuer = "Kobvane problem reports";

std::string hex(const unsigned char *p, size_t n) {
    std::string out(n * 2 + 1, '\0');
    sodium_bin2hex(out.data(), out.size(), p, n);
    out.pop_back();
    return out;
}

std::optional<std::string> unhex(const std::string &s) {
    std::string out(s.size() / 2, '\0');
    size_t n = 0;
    if (sodium_hex2bin(reinterpret_cast<unsigned char *>(out.data()), out.size(), s.data(),
                       s.size(), nullptr, &n, nullptr) != 0 ||
        n != out.size())
        return std::nullopt;
    return out;
}

// BLAKE2b-256, as session ids are kept: the codes are random and long, so
// a slow hash would buy nothing.
std::string digest(const std::string &s) {
    unsigned char out[crypto_generichash_BYTES];
    crypto_generichash(out, sizeof out, reinterpret_cast<const unsigned char *>(s.data()), s.size(),
                       nullptr, 0);
    return hex(out, sizeof out);
}

std::string recoveryDigest(const std::string &account, const std::string &code) {
    return digest("recovery\n" + account + "\n" + code);
}

// "a1b2c-3d4e5-f6a7b-8c9d0": 80 bits.
std::string newRecoveryCode() {
    unsigned char b[10];
    randombytes_buf(b, sizeof b);
    std::string h = hex(b, sizeof b), out;
    for (size_t i = 0; i < h.size(); i += 5)
        out += (i ? "-" : "") + h.substr(i, 5);
    return out;
}

// What people type, without the dashes and spaces and in lower case.
std::string plainCode(const std::string &code) {
    std::string out;
    for (char c : code) {
        if (c == '-' || c == ' ')
            continue;
        out += static_cast<char>(c >= 'A' && c <= 'Z' ? c - 'A' + 'a' : c);
    }
    return out;
}

bool sixDigits(const std::string &code) {
    if (code.size() != 6)
        return false;
    for (char c : code)
        if (c < '0' || c > '9')
            return false;
    return true;
}

std::string additionalData(const std::string &account) {
    return "kobreportd second factor\n" + account;
}

} // namespace

std::optional<SecondFactorRule> parseSecondFactorRule(const std::string &s) {
    if (s == "admin")
        return SecondFactorRule::Admins;
    if (s == "all")
        return SecondFactorRule::Everyone;
    return std::nullopt;
}

bool secondFactorRequired(SecondFactorRule rule, Role role) {
    return rule == SecondFactorRule::Everyone ||
           (rule == SecondFactorRule::Admins && role == Role::Admin);
}

SecondFactors::SecondFactors(sql::Db &db, Audit &audit, std::string keyFile)
    : db_(db), audit_(audit), keyFile_(std::move(keyFile)) {
    if (sodium_init() < 0 || oath_init() != OATH_OK)
        throw StoreError("libsodium or liboath cannot start");
}

const unsigned char *SecondFactors::key() {
    std::lock_guard<std::mutex> lock(keyMutex_);
    if (haveKey_)
        return key_;
    // Made once, by whichever instance comes first; the others read it.
    int fd = ::open(keyFile_.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
    if (fd >= 0) {
        randombytes_buf(key_, sizeof key_);
        std::string text = hex(key_, sizeof key_) + "\n";
        bool written = ::write(fd, text.data(), text.size()) == static_cast<ssize_t>(text.size());
        written = ::fsync(fd) == 0 && written;
        ::close(fd);
        if (!written) {
            ::unlink(keyFile_.c_str());
            throw StoreError("cannot write the second-factor key " + keyFile_);
        }
        haveKey_ = true;
        return key_;
    }
    if (errno != EEXIST)
        throw StoreError("cannot make the second-factor key " + keyFile_ + ": " +
                         std::strerror(errno));
    fd = ::open(keyFile_.c_str(), O_RDONLY | O_CLOEXEC);
    char buf[66] = {};
    ssize_t n = fd >= 0 ? ::read(fd, buf, sizeof buf) : -1;
    if (fd >= 0)
        ::close(fd);
    auto k = n >= 64 ? unhex(std::string(buf, 64)) : std::nullopt;
    if (!k || k->size() != sizeof key_)
        throw StoreError("the second-factor key " + keyFile_ +
                         " cannot be read or is not 64 hex digits");
    std::memcpy(key_, k->data(), sizeof key_);
    haveKey_ = true;
    return key_;
}

// XChaCha20-Poly1305 with the account as additional data: a secret moved
// to another account's row does not open there.
std::string SecondFactors::seal(const std::string &account, const std::string &secret) {
    const unsigned char *k = key();
    unsigned char nonce[crypto_aead_xchacha20poly1305_ietf_NPUBBYTES];
    randombytes_buf(nonce, sizeof nonce);
    std::string ad = additionalData(account);
    std::string out(secret.size() + crypto_aead_xchacha20poly1305_ietf_ABYTES, '\0');
    unsigned long long n = 0;
    crypto_aead_xchacha20poly1305_ietf_encrypt(
        reinterpret_cast<unsigned char *>(out.data()), &n,
        reinterpret_cast<const unsigned char *>(secret.data()), secret.size(),
        reinterpret_cast<const unsigned char *>(ad.data()), ad.size(), nullptr, nonce, k);
    return hex(nonce, sizeof nonce) +
           hex(reinterpret_cast<const unsigned char *>(out.data()), static_cast<size_t>(n));
}

std::optional<std::string> SecondFactors::open(const std::string &account,
                                               const std::string &sealed) {
    auto raw = unhex(sealed);
    constexpr size_t kNonce = crypto_aead_xchacha20poly1305_ietf_NPUBBYTES;
    if (!raw || raw->size() < kNonce + crypto_aead_xchacha20poly1305_ietf_ABYTES)
        return std::nullopt;
    const unsigned char *k = key();
    std::string ad = additionalData(account);
    std::string out(raw->size() - kNonce, '\0');
    unsigned long long n = 0;
    const auto *bytes = reinterpret_cast<const unsigned char *>(raw->data());
    if (crypto_aead_xchacha20poly1305_ietf_decrypt(
            reinterpret_cast<unsigned char *>(out.data()), &n, nullptr, bytes + kNonce,
            raw->size() - kNonce, reinterpret_cast<const unsigned char *>(ad.data()), ad.size(),
            bytes, k) != 0)
        return std::nullopt;
    out.resize(static_cast<size_t>(n));
    return out;
}

SecondFactors::Enrolment SecondFactors::enrolment(const std::string &account,
                                                  const std::string &secret) {
    char *b32 = nullptr;
    size_t len = 0;
    if (oath_base32_encode(secret.data(), secret.size(), &b32, &len) != OATH_OK)
        throw StoreError("cannot encode a second-factor secret");
    std::string base32(b32, len);
    std::free(b32);
    while (!base32.empty() && base32.back() == '=')
        base32.pop_back();
    std::string issuer = html::percentEncode(kIssuer);
    return {base32, "otpauth://totp/" + issuer + ":" + html::percentEncode(account) + "?secret=" +
                        base32 + "&issuer=" + issuer + "&algorithm=SHA1&digits=6&period=30"};
}

std::optional<SecondFactors::Enrolment> SecondFactors::begin(const std::string &account) {
    std::string secret(kSecretBytes, '\0');
    randombytes_buf(secret.data(), secret.size());
    std::string sealed = seal(account, secret);
    bool fresh = false;
    db_.transaction([&](sql::Conn &c) {
        auto rows = c.query("SELECT confirmed FROM second_factors WHERE account = $1",
                            {sql::text(account)});
        if (!rows.empty() && rows.integer(0, "confirmed"))
            return;
        c.query("DELETE FROM second_factors WHERE account = $1", {sql::text(account)});
        c.query("INSERT INTO second_factors (account, secret, confirmed, last_step, created_at)"
                " VALUES ($1, $2, 0, 0, $3)",
                {sql::text(account), sql::text(sealed), sql::integer(now())});
        fresh = true;
    });
    if (!fresh)
        return std::nullopt;
    return enrolment(account, secret);
}

std::optional<SecondFactors::Enrolment> SecondFactors::waiting(const std::string &account) {
    auto rows = db_.read("SELECT secret FROM second_factors WHERE account = $1 AND confirmed = 0",
                         {sql::text(account)});
    if (rows.empty())
        return std::nullopt;
    auto secret = open(account, rows.str(0, "secret"));
    if (!secret)
        return std::nullopt;
    return enrolment(account, *secret);
}

std::optional<int64_t> SecondFactors::codeStep(const std::string &secret, const std::string &code) {
    if (!sixDigits(code))
        return std::nullopt;
    int position = 0;
    uint64_t counter = 0;
    // One step either way, for a clock a little off and a code typed as
    // it turned.
    int r = oath_totp_validate3(secret.data(), secret.size(), now(), kStepSeconds, 0, 1, &position,
                                &counter, code.c_str());
    if (r < 0)
        return std::nullopt;
    return static_cast<int64_t>(counter);
}

std::vector<std::string> SecondFactors::confirm(const std::string &account,
                                                const std::string &code) {
    auto rows = db_.read("SELECT secret FROM second_factors WHERE account = $1 AND confirmed = 0",
                         {sql::text(account)});
    if (rows.empty())
        return {};
    auto secret = open(account, rows.str(0, "secret"));
    auto step = secret ? codeStep(*secret, code) : std::nullopt;
    if (!step)
        return {};
    std::vector<std::string> codes;
    codes.reserve(kRecoveryCodes);
    for (int i = 0; i < kRecoveryCodes; i++)
        codes.push_back(newRecoveryCode());
    bool done = false;
    db_.transaction([&](sql::Conn &c) {
        done = !c.query("UPDATE second_factors SET confirmed = 1, last_step = $1"
                        " WHERE account = $2 AND confirmed = 0 AND secret = $3 RETURNING account",
                        {sql::integer(*step), sql::text(account), sql::text(rows.str(0, "secret"))})
                    .empty();
        if (!done)
            return;
        c.query("DELETE FROM recovery_codes WHERE account = $1", {sql::text(account)});
        for (const auto &rc : codes)
            c.query("INSERT INTO recovery_codes (account, code_hash, used_at) VALUES ($1, $2, 0)",
                    {sql::text(account), sql::text(recoveryDigest(account, plainCode(rc)))});
    });
    if (!done)
        return {};
    return codes;
}

bool SecondFactors::enrolled(const std::string &account) {
    return !db_.read("SELECT 1 AS x FROM second_factors WHERE account = $1 AND confirmed = 1",
                     {sql::text(account)})
                .empty();
}

int SecondFactors::recoveryCodesLeft(const std::string &account) {
    auto rows = db_.read("SELECT count(*) AS n FROM recovery_codes WHERE account = $1 AND"
                         " used_at = 0",
                         {sql::text(account)});
    return static_cast<int>(rows.integer(0, "n"));
}

bool SecondFactors::reset(const std::string &account) {
    bool had = false;
    db_.transaction([&](sql::Conn &c) {
        had = !c.query("DELETE FROM second_factors WHERE account = $1 RETURNING account",
                       {sql::text(account)})
                   .empty();
        c.query("DELETE FROM recovery_codes WHERE account = $1", {sql::text(account)});
        c.query("DELETE FROM pending_signins WHERE account = $1", {sql::text(account)});
    });
    return had;
}

std::string SecondFactors::startSignIn(const std::string &account) {
    std::string id = Accounts::randomId();
    std::time_t t = now();
    db_.transaction([&](sql::Conn &c) {
        c.query("DELETE FROM pending_signins WHERE created_at < $1",
                {sql::integer(t - kPendingSignIn)});
        c.query("INSERT INTO pending_signins (id_hash, account, created_at) VALUES ($1, $2, $3)",
                {sql::text(digest(id)), sql::text(account), sql::integer(t)});
    });
    return id;
}

void SecondFactors::dropSignIn(const std::string &pendingId) {
    db_.write("DELETE FROM pending_signins WHERE id_hash = $1", {sql::text(digest(pendingId))});
}

bool SecondFactors::useRecoveryCode(const std::string &account, const std::string &code) {
    std::string plain = plainCode(code);
    if (plain.size() != 20)
        return false;
    return !db_.write("UPDATE recovery_codes SET used_at = $1 WHERE account = $2 AND"
                      " code_hash = $3 AND used_at = 0 RETURNING account",
                      {sql::integer(now()), sql::text(account),
                       sql::text(recoveryDigest(account, plain))})
                .empty();
}

SecondFactors::Check SecondFactors::finishSignIn(const std::string &pendingId,
                                                 const std::string &code,
                                                 const std::string &address) {
    Check out;
    std::time_t t = now();
    if (pendingId.size() != 64)
        return out;
    auto pending = db_.read("SELECT account, created_at FROM pending_signins WHERE id_hash = $1",
                            {sql::text(digest(pendingId))});
    if (pending.empty() || t - pending.integer(0, "created_at") >= kPendingSignIn)
        return out;
    out.account = pending.str(0, "account");
    std::time_t end = audit_.burstEnd("signin.code_failed", "account", out.account, kSignInFailures,
                                      kSignInWindow, t);
    if (end && end + kSignInWindow > t) {
        out.result = Check::Result::Locked;
        out.retry_after = end + kSignInWindow - t;
        dropSignIn(pendingId);
        audit_.fold(out.account, address, "signin.locked");
        return out;
    }
    auto row = db_.read("SELECT secret FROM second_factors WHERE account = $1 AND confirmed = 1",
                        {sql::text(out.account)});
    bool ok = false;
    std::string typed = cleanText(code);
    if (!row.empty()) {
        if (sixDigits(typed)) {
            auto secret = open(out.account, row.str(0, "secret"));
            auto step = secret ? codeStep(*secret, typed) : std::nullopt;
            // A code is taken once: its step, and every step before it, are
            // spent when it is.
            ok = step && !db_.write("UPDATE second_factors SET last_step = $1 WHERE account = $2"
                                    " AND last_step < $1 RETURNING account",
                                    {sql::integer(*step), sql::text(out.account)})
                              .empty();
        } else {
            ok = out.recovery = useRecoveryCode(out.account, typed);
        }
    }
    if (!ok) {
        out.result = Check::Result::Wrong;
        audit_.fold(out.account, address, "signin.code_failed");
        return out;
    }
    dropSignIn(pendingId);
    out.result = Check::Result::Ok;
    return out;
}

} // namespace kobreportd
