#include "accounts.h"

#include <chrono>
#include <sodium.h>

#include "clock.h"
#include "text.h"

namespace kobreportd {

namespace {

std::string hex(const unsigned char *p, size_t n) {
    std::string out(n * 2 + 1, '\0');
    sodium_bin2hex(out.data(), out.size(), p, n);
    out.pop_back();
    return out;
}

// BLAKE2b-256 of s, keyed when key is given.
std::string digest(const std::string &s, const std::string &key = "") {
    if (!key.empty() && (key.size() < crypto_generichash_KEYBYTES_MIN ||
                         key.size() > crypto_generichash_KEYBYTES_MAX))
        return digest(s, digest(key));
    unsigned char out[crypto_generichash_BYTES];
    crypto_generichash(out, sizeof out, reinterpret_cast<const unsigned char *>(s.data()), s.size(),
                       key.empty() ? nullptr : reinterpret_cast<const unsigned char *>(key.data()),
                       key.size());
    return hex(out, sizeof out);
}

std::string hashPassword(const std::string &password) {
    char out[crypto_pwhash_argon2id_STRBYTES];
    if (crypto_pwhash_argon2id_str(out, password.data(), password.size(),
                                   crypto_pwhash_argon2id_OPSLIMIT_INTERACTIVE,
                                   crypto_pwhash_argon2id_MEMLIMIT_INTERACTIVE) != 0)
        throw StoreError("out of memory while hashing a password");
    return out;
}

bool verifyPassword(const std::string &hash, const std::string &password) {
    return crypto_pwhash_argon2id_str_verify(hash.c_str(), password.data(), password.size()) == 0;
}

// "kob_" + 16 hex digits naming the token + "_" + 64 hex digits of secret.
constexpr size_t kTokenIdLen = 16;

std::optional<std::string> tokenId(const std::string &token) {
    if (token.size() != 4 + kTokenIdLen + 1 + 64 || token.compare(0, 4, "kob_") != 0 ||
        token[4 + kTokenIdLen] != '_')
        return std::nullopt;
    for (size_t i = 4; i < token.size(); i++) {
        char c = token[i];
        if (i != 4 + kTokenIdLen && !((c >= '0' && c <= '9') || (c >= 'a' && c <= 'f')))
            return std::nullopt;
    }
    return token.substr(4, kTokenIdLen);
}

} // namespace

const char *roleName(Role r) {
    return r == Role::Admin ? "admin" : r == Role::Metrics ? "metrics" : "viewer";
}

std::optional<Role> parseRole(const std::string &s) {
    if (s == "admin")
        return Role::Admin;
    if (s == "viewer")
        return Role::Viewer;
    if (s == "metrics")
        return Role::Metrics;
    return std::nullopt;
}

bool HashSlots::take(int waitMs) {
    std::unique_lock<std::mutex> lock(mutex_);
    auto ready = [this] { return free_ > 0; };
    if (waitMs < 0)
        freed_.wait(lock, ready);
    else if (!freed_.wait_for(lock, std::chrono::milliseconds(waitMs), ready))
        return false;
    free_--;
    return true;
}

void HashSlots::give() {
    {
        std::lock_guard<std::mutex> lock(mutex_);
        free_++;
    }
    freed_.notify_one();
}

Accounts::Accounts(sql::Db &db, Audit &audit) : db_(db), audit_(audit) {
    if (sodium_init() < 0)
        throw StoreError("libsodium cannot start");
    dummyHash_ = hashPassword(randomId());
}

std::string Accounts::randomId() {
    unsigned char b[32];
    randombytes_buf(b, sizeof b);
    return hex(b, sizeof b);
}

std::string Accounts::csrfToken(const std::string &id) {
    return digest("csrf", id);
}

bool Accounts::validName(const std::string &name) {
    if (name.empty() || name.size() > 64)
        return false;
    for (char c : name)
        if (!((c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
              c == '.' || c == '_' || c == '-' || c == '@'))
            return false;
    return true;
}

std::string Accounts::hash(const std::string &password) {
    HashSlots::Hold hold(slots_, -1);
    return hashPassword(password);
}

void Accounts::addUser(const std::string &name, Role role, const std::string &password) {
    std::string h = hash(password);
    db_.transaction([&](sql::Conn &c) {
        if (!c.query("SELECT 1 FROM users WHERE name = $1", {sql::text(name)}).empty())
            throw StoreError("user " + name + " exists already");
        c.query("INSERT INTO users (name, role, pw_hash, created_at) VALUES ($1, $2, $3, $4)",
                {sql::text(name), sql::text(roleName(role)), sql::text(h), sql::integer(now())});
    });
}

bool Accounts::lastAdmin(sql::Conn &c, const std::string &name) {
    // Two instances demoting two admins at once must not both succeed.
    if (db_.dialect() == sql::Dialect::Postgres)
        c.query("SELECT pg_advisory_xact_lock(7246010)");
    auto admins = c.query("SELECT name FROM users WHERE role = 'admin' AND disabled = 0");
    for (size_t i = 0; i < admins.size(); i++)
        if (admins.str(i, "name") != name)
            return false;
    return !admins.empty();
}

Change Accounts::deleteUser(const std::string &name) {
    Change out = Change::NoSuchAccount;
    db_.transaction([&](sql::Conn &c) {
        if (c.query("SELECT 1 FROM users WHERE name = $1", {sql::text(name)}).empty())
            return;
        if (lastAdmin(c, name)) {
            out = Change::LastAdmin;
            return;
        }
        c.query("DELETE FROM users WHERE name = $1", {sql::text(name)});
        // A new account of the same name starts without this one's sessions,
        // reset link or second factor.
        for (const char *table :
             {"sessions", "password_resets", "second_factors", "recovery_codes", "pending_signins"})
            c.query(std::string("DELETE FROM ") + table + " WHERE account = $1", {sql::text(name)});
        out = Change::Done;
    });
    return out;
}

Change Accounts::setRole(const std::string &name, Role role) {
    Change out = Change::NoSuchAccount;
    db_.transaction([&](sql::Conn &c) {
        if (c.query("SELECT 1 FROM users WHERE name = $1", {sql::text(name)}).empty())
            return;
        if (role != Role::Admin && lastAdmin(c, name)) {
            out = Change::LastAdmin;
            return;
        }
        c.query("UPDATE users SET role = $1 WHERE name = $2",
                {sql::text(roleName(role)), sql::text(name)});
        out = Change::Done;
    });
    return out;
}

Change Accounts::setDisabled(const std::string &name, bool disabled) {
    Change out = Change::NoSuchAccount;
    db_.transaction([&](sql::Conn &c) {
        if (c.query("SELECT 1 FROM users WHERE name = $1", {sql::text(name)}).empty())
            return;
        if (disabled && lastAdmin(c, name)) {
            out = Change::LastAdmin;
            return;
        }
        c.query("UPDATE users SET disabled = $1 WHERE name = $2",
                {sql::integer(disabled ? 1 : 0), sql::text(name)});
        if (disabled)
            c.query("DELETE FROM sessions WHERE account = $1", {sql::text(name)});
        out = Change::Done;
    });
    return out;
}

bool Accounts::setTokenDisabled(const std::string &name, bool disabled) {
    {
        std::lock_guard<std::mutex> lock(cacheMutex_);
        metricsCache_.clear();
    }
    return !db_.write("UPDATE tokens SET disabled = $1 WHERE name = $2 RETURNING name",
                      {sql::integer(disabled ? 1 : 0), sql::text(name)})
                .empty();
}

bool Accounts::setPassword(const std::string &name, const std::string &password,
                           const std::string &keep) {
    std::string h = hash(password);
    bool found = false;
    db_.transaction([&](sql::Conn &c) {
        found = !c.query("UPDATE users SET pw_hash = $1 WHERE name = $2 RETURNING name",
                         {sql::text(h), sql::text(name)})
                     .empty();
        c.query("DELETE FROM sessions WHERE account = $1 AND id_hash <> $2",
                {sql::text(name), sql::text(keep.empty() ? "" : digest(keep))});
        c.query("DELETE FROM password_resets WHERE account = $1", {sql::text(name)});
    });
    return found;
}

Accounts::Check Accounts::checkPassword(const std::string &name, const std::string &password) {
    auto rows =
        db_.read("SELECT pw_hash FROM users WHERE name = $1 AND disabled = 0", {sql::text(name)});
    HashSlots::Hold hold(slots_, kHashWaitMs);
    if (!hold)
        return Check::Busy;
    bool ok = verifyPassword(rows.empty() ? dummyHash_ : rows.str(0, "pw_hash"), password);
    return ok && !rows.empty() ? Check::Ok : Check::Wrong;
}

std::string Accounts::makeResetLink(const std::string &name) {
    std::string secret = randomId();
    bool found = false;
    std::time_t t = now();
    db_.transaction([&](sql::Conn &c) {
        c.query("DELETE FROM password_resets WHERE account = $1 OR expires_at <= $2",
                {sql::text(name), sql::integer(t)});
        found = !c.query("SELECT 1 FROM users WHERE name = $1", {sql::text(name)}).empty();
        if (found)
            c.query("INSERT INTO password_resets (id_hash, account, expires_at)"
                    " VALUES ($1, $2, $3)",
                    {sql::text(digest(secret)), sql::text(name), sql::integer(t + kResetLinkLife)});
    });
    return found ? secret : "";
}

std::optional<std::string> Accounts::resetAccount(const std::string &secret) {
    if (secret.size() != 64)
        return std::nullopt;
    auto rows = db_.read("SELECT r.account FROM password_resets r"
                         " JOIN users u ON u.name = r.account"
                         " WHERE r.id_hash = $1 AND r.expires_at > $2",
                         {sql::text(digest(secret)), sql::integer(now())});
    if (rows.empty())
        return std::nullopt;
    return rows.str(0, "account");
}

bool Accounts::resetPassword(const std::string &secret, const std::string &password) {
    if (secret.size() != 64)
        return false;
    std::string h = hash(password);
    bool done = false;
    db_.transaction([&](sql::Conn &c) {
        auto rows = c.query("DELETE FROM password_resets WHERE id_hash = $1 AND expires_at > $2"
                            " RETURNING account",
                            {sql::text(digest(secret)), sql::integer(now())});
        if (rows.empty())
            return;
        const std::string &name = rows.str(0, "account");
        done = !c.query("UPDATE users SET pw_hash = $1 WHERE name = $2 RETURNING name",
                        {sql::text(h), sql::text(name)})
                    .empty();
        c.query("DELETE FROM sessions WHERE account = $1", {sql::text(name)});
    });
    return done;
}

std::vector<AccountInfo> Accounts::users() {
    return list("SELECT name, role, created_at, disabled, last_signin FROM users ORDER BY name");
}

std::string Accounts::addToken(const std::string &name, Role role) {
    std::string id = randomId().substr(0, kTokenIdLen);
    std::string token = "kob_" + id + "_" + randomId();
    std::string h = hash(token);
    db_.transaction([&](sql::Conn &c) {
        if (!c.query("SELECT 1 FROM tokens WHERE name = $1", {sql::text(name)}).empty())
            throw StoreError("token " + name + " exists already");
        c.query("INSERT INTO tokens (name, token_id, role, hash, created_at)"
                " VALUES ($1, $2, $3, $4, $5)",
                {sql::text(name), sql::text(id), sql::text(roleName(role)), sql::text(h),
                 sql::integer(now())});
    });
    return token;
}

bool Accounts::deleteToken(const std::string &name) {
    {
        std::lock_guard<std::mutex> lock(cacheMutex_);
        metricsCache_.clear();
    }
    return !db_.write("DELETE FROM tokens WHERE name = $1 RETURNING name", {sql::text(name)})
                .empty();
}

std::vector<AccountInfo> Accounts::tokens() {
    return list("SELECT name, role, created_at, disabled FROM tokens ORDER BY name");
}

std::vector<AccountInfo> Accounts::list(const char *query) {
    auto rows = db_.read(query);
    std::vector<AccountInfo> out;
    bool people = std::string(query).find("last_signin") != std::string::npos;
    for (size_t i = 0; i < rows.size(); i++)
        out.push_back({rows.str(i, "name"), parseRole(rows.str(i, "role")).value_or(Role::Viewer),
                       static_cast<std::time_t>(rows.integer(i, "created_at")),
                       rows.integer(i, "disabled") != 0,
                       people && !rows.isNull(i, "last_signin")
                           ? static_cast<std::time_t>(rows.integer(i, "last_signin"))
                           : 0});
    return out;
}

Accounts::SignIn Accounts::signIn(const std::string &name, const std::string &password,
                                  const std::string &address) {
    SignIn out;
    std::time_t t = now();
    std::string who = cleanText(name);
    auto rows = db_.read("SELECT pw_hash, disabled FROM users WHERE name = $1", {sql::text(who)});
    // What a stranger types into the name field is not kept: the log names
    // an account only when there is one.  Failures under other names count
    // against their address alone.
    std::string logged = rows.empty() ? std::string(kNoSuchAccount) : who;
    std::time_t until = 0;
    for (const char *column : {"account", "address"}) {
        if (column[1] == 'c' && rows.empty())
            continue;
        std::time_t end = audit_.burstEnd("signin.failed", column, column[1] == 'c' ? who : address,
                                          kSignInFailures, kSignInWindow, t);
        if (end && end + kSignInWindow > t)
            until = std::max(until, end + kSignInWindow);
    }
    if (until) {
        out.result = SignIn::Result::Locked;
        out.retry_after = until - t;
        audit_.fold(logged, address, "signin.locked");
        return out;
    }
    // An unknown name costs the same hash as a known one, and so does an
    // account the proxy made, which has no password.  Each costs 64 MiB
    // while it is worked out, so only a few are at once.
    HashSlots::Hold hold(slots_, kHashWaitMs);
    if (!hold) {
        out.result = SignIn::Result::Busy;
        audit_.fold(logged, address, "signin.busy");
        return out;
    }
    bool usable = !rows.empty() && rows.str(0, "pw_hash").rfind("$argon2id$", 0) == 0;
    bool ok = verifyPassword(usable ? rows.str(0, "pw_hash") : dummyHash_, password) && usable;
    if (!ok) {
        audit_.fold(logged, address, "signin.failed");
        return out;
    }
    // A disabled account is told no more than a wrong password is.
    if (rows.integer(0, "disabled") != 0) {
        audit_.fold(logged, address, "signin.disabled");
        return out;
    }
    if (!db_.read("SELECT 1 AS x FROM second_factors WHERE account = $1 AND confirmed = 1",
                  {sql::text(who)})
             .empty()) {
        out.result = SignIn::Result::CodeNeeded;
        audit_.record(who, address, "signin.password");
        return out;
    }
    out.result = SignIn::Result::Ok;
    out.session = openSession(who, address, "signin");
    return out;
}

std::string Accounts::openSession(const std::string &account, const std::string &address,
                                  const std::string &action, const std::string &detail,
                                  bool viaProxy) {
    std::string id = randomId();
    std::time_t t = now();
    db_.write("INSERT INTO sessions (id_hash, account, created_at, last_seen, via_proxy)"
              " VALUES ($1, $2, $3, $3, $4)",
              {sql::text(digest(id)), sql::text(account), sql::integer(t),
               sql::integer(viaProxy ? 1 : 0)});
    db_.write("UPDATE users SET last_signin = $1 WHERE name = $2",
              {sql::integer(t), sql::text(account)});
    audit_.record(account, address, action, "", detail);
    return id;
}

bool Accounts::isDisabled(const std::string &name) {
    auto rows = db_.read("SELECT disabled FROM users WHERE name = $1", {sql::text(name)});
    return !rows.empty() && rows.integer(0, "disabled") != 0;
}

std::optional<Role> Accounts::roleOf(const std::string &name) {
    auto rows = db_.read("SELECT role FROM users WHERE name = $1", {sql::text(name)});
    if (rows.empty())
        return std::nullopt;
    return parseRole(rows.str(0, "role")).value_or(Role::Viewer);
}

bool Accounts::addProxyUser(const std::string &name, Role role, const std::string &email) {
    bool added = false;
    db_.transaction([&](sql::Conn &c) {
        if (!c.query("SELECT 1 AS x FROM users WHERE name = $1", {sql::text(name)}).empty())
            return;
        // "!" is no Argon2id hash: no password ever matches it.
        c.query(
            "INSERT INTO users (name, role, pw_hash, created_at, email)"
            " VALUES ($1, $2, '!', $3, $4)",
            {sql::text(name), sql::text(roleName(role)), sql::integer(now()), sql::text(email)});
        added = true;
    });
    return added;
}

void Accounts::setEmail(const std::string &name, const std::string &email) {
    db_.write("UPDATE users SET email = $1 WHERE name = $2 AND email <> $1",
              {sql::text(email), sql::text(name)});
}

std::optional<Principal> Accounts::session(const std::string &id) {
    if (id.size() != 64)
        return std::nullopt;
    std::string h = digest(id);
    auto rows = db_.read("SELECT s.account, u.role, u.zone, s.created_at, s.last_seen, s.via_proxy,"
                         " (SELECT count(*) FROM second_factors f WHERE f.account = s.account"
                         " AND f.confirmed = 1) AS factors FROM sessions s"
                         " JOIN users u ON u.name = s.account"
                         " WHERE s.id_hash = $1 AND u.disabled = 0",
                         {sql::text(h)});
    if (rows.empty())
        return std::nullopt;
    std::time_t t = now(), created = rows.integer(0, "created_at"),
                seen = rows.integer(0, "last_seen");
    if (t - seen >= kSessionIdle || t - created >= kSessionAbsolute) {
        db_.write("DELETE FROM sessions WHERE id_hash = $1", {sql::text(h)});
        return std::nullopt;
    }
    // Activity moves the idle limit; a write a minute is enough for that.
    if (t - seen >= 60)
        db_.write("UPDATE sessions SET last_seen = $1 WHERE id_hash = $2",
                  {sql::integer(t), sql::text(h)});
    return Principal{rows.str(0, "account"),
                     parseRole(rows.str(0, "role")).value_or(Role::Viewer),
                     id,
                     rows.str(0, "zone"),
                     rows.integer(0, "factors") > 0,
                     rows.integer(0, "via_proxy") != 0};
}

bool Accounts::setZone(const std::string &name, const std::string &zone) {
    if (!knownZone(zone))
        return false;
    db_.write("UPDATE users SET zone = $1 WHERE name = $2", {sql::text(zone), sql::text(name)});
    return true;
}

void Accounts::signOut(const std::string &id) {
    db_.write("DELETE FROM sessions WHERE id_hash = $1", {sql::text(digest(id))});
}

std::optional<Principal> Accounts::bearer(const std::string &token) {
    auto id = tokenId(token);
    if (!id)
        return std::nullopt;
    // Looked up on every request, so a deleted token stops working at once.
    sql::Rows rows;
    try {
        rows = db_.read("SELECT name, role, hash, disabled FROM tokens WHERE token_id = $1",
                        {sql::text(*id)});
    } catch (const StoreError &) {
        // A scrape must still answer while the database is down, and the
        // metrics figures are all it reads: a metrics token verified
        // before is believed for as long as the database stays away.
        std::lock_guard<std::mutex> lock(cacheMutex_);
        auto it = metricsCache_.find(*id);
        if (it != metricsCache_.end() &&
            sodium_memcmp(it->second.digest.data(), digest(token, it->second.salt).data(),
                          it->second.digest.size()) == 0)
            return it->second.who;
        throw;
    }
    if (rows.empty() || rows.integer(0, "disabled") != 0)
        return std::nullopt;
    Principal p{"token:" + rows.str(0, "name"),
                parseRole(rows.str(0, "role")).value_or(Role::Viewer), ""};
    std::string salt = rows.str(0, "hash").substr(0, 64);
    std::string d = digest(token, salt);
    std::time_t t = now();
    {
        std::lock_guard<std::mutex> lock(cacheMutex_);
        auto it = tokenCache_.find(*id);
        if (it != tokenCache_.end() && it->second.second > t &&
            sodium_memcmp(it->second.first.data(), d.data(), d.size()) == 0)
            return p;
    }
    {
        HashSlots::Hold hold(slots_, -1);
        if (!verifyPassword(rows.str(0, "hash"), token))
            return std::nullopt;
    }
    std::lock_guard<std::mutex> lock(cacheMutex_);
    if (tokenCache_.size() > 10000)
        tokenCache_.clear();
    tokenCache_[*id] = {d, t + 300};
    if (p.role == Role::Metrics && metricsCache_.size() < 64)
        metricsCache_[*id] = {d, salt, p};
    return p;
}

} // namespace kobreportd
