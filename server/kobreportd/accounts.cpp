#include "accounts.h"

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

void Accounts::addUser(const std::string &name, Role role, const std::string &password) {
    std::string h = hashPassword(password);
    db_.transaction([&](sql::Conn &c) {
        if (!c.query("SELECT 1 FROM users WHERE name = $1", {sql::text(name)}).empty())
            throw StoreError("user " + name + " exists already");
        c.query("INSERT INTO users (name, role, pw_hash, created_at) VALUES ($1, $2, $3, $4)",
                {sql::text(name), sql::text(roleName(role)), sql::text(h), sql::integer(now())});
    });
}

bool Accounts::deleteUser(const std::string &name) {
    bool found = false;
    db_.transaction([&](sql::Conn &c) {
        found =
            !c.query("DELETE FROM users WHERE name = $1 RETURNING name", {sql::text(name)}).empty();
        c.query("DELETE FROM sessions WHERE account = $1", {sql::text(name)});
        // A new account of the same name starts without this one's factor.
        for (const char *table : {"second_factors", "recovery_codes", "pending_signins"})
            c.query(std::string("DELETE FROM ") + table + " WHERE account = $1", {sql::text(name)});
    });
    return found;
}

std::vector<AccountInfo> Accounts::users() {
    return list("SELECT name, role, created_at FROM users ORDER BY name");
}

std::string Accounts::addToken(const std::string &name, Role role) {
    std::string id = randomId().substr(0, kTokenIdLen);
    std::string token = "kob_" + id + "_" + randomId();
    std::string h = hashPassword(token);
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
    return list("SELECT name, role, created_at FROM tokens ORDER BY name");
}

std::vector<AccountInfo> Accounts::list(const char *query) {
    auto rows = db_.read(query);
    std::vector<AccountInfo> out;
    for (size_t i = 0; i < rows.size(); i++)
        out.push_back({rows.str(i, "name"), parseRole(rows.str(i, "role")).value_or(Role::Viewer),
                       static_cast<std::time_t>(rows.integer(i, "created_at"))});
    return out;
}

Accounts::SignIn Accounts::signIn(const std::string &name, const std::string &password,
                                  const std::string &address) {
    SignIn out;
    std::time_t t = now();
    std::string who = cleanText(name);
    auto rows = db_.read("SELECT pw_hash FROM users WHERE name = $1", {sql::text(who)});
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
    // account the proxy made, which has no password.
    bool usable = !rows.empty() && rows.str(0, "pw_hash").rfind("$argon2id$", 0) == 0;
    bool ok = verifyPassword(usable ? rows.str(0, "pw_hash") : dummyHash_, password) && usable;
    if (!ok) {
        audit_.fold(logged, address, "signin.failed");
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
    db_.write("INSERT INTO sessions (id_hash, account, created_at, last_seen, via_proxy)"
              " VALUES ($1, $2, $3, $3, $4)",
              {sql::text(digest(id)), sql::text(account), sql::integer(now()),
               sql::integer(viaProxy ? 1 : 0)});
    audit_.record(account, address, action, "", detail);
    return id;
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
    auto rows = db_.read("SELECT s.account, u.role, s.created_at, s.last_seen, s.via_proxy,"
                         " (SELECT count(*) FROM second_factors f WHERE f.account = s.account"
                         " AND f.confirmed = 1) AS factors FROM sessions s"
                         " JOIN users u ON u.name = s.account WHERE s.id_hash = $1",
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
    return Principal{rows.str(0, "account"), parseRole(rows.str(0, "role")).value_or(Role::Viewer),
                     id, rows.integer(0, "factors") > 0, rows.integer(0, "via_proxy") != 0};
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
        rows =
            db_.read("SELECT name, role, hash FROM tokens WHERE token_id = $1", {sql::text(*id)});
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
    if (rows.empty())
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
    if (!verifyPassword(rows.str(0, "hash"), token))
        return std::nullopt;
    std::lock_guard<std::mutex> lock(cacheMutex_);
    if (tokenCache_.size() > 10000)
        tokenCache_.clear();
    tokenCache_[*id] = {d, t + 300};
    if (p.role == Role::Metrics && metricsCache_.size() < 64)
        metricsCache_[*id] = {d, salt, p};
    return p;
}

} // namespace kobreportd
