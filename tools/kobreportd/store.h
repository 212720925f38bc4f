// Where kobreportd keeps the reports: one table, in SQLite or PostgreSQL.
// A report is committed before insert() returns, so an answer of 200 always
// means the report is on disk.

#ifndef KOBREPORTD_STORE_H
#define KOBREPORTD_STORE_H

#include <cstdint>
#include <ctime>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

namespace kobreportd {

struct NewReport {
    std::time_t received_at = 0;
    std::string desc; // the report text, byte for byte
    std::optional<std::string> form_username;
    std::optional<std::string> why;
    std::optional<std::string> report_username; // from the report's own header
    std::string summary;                        // the triage's one-line summary
    std::string peer;
};

struct StoredReport {
    int64_t id = 0;
    std::string reference;
    std::time_t received_at = 0;
    std::optional<std::string> form_username;
    std::optional<std::string> report_username;
    std::string summary;
    std::string peer;
    std::string desc;
    std::optional<std::string> why;
};

struct ListItem {
    std::string reference;
    std::time_t received_at = 0;
    std::optional<std::string> form_username;
    std::optional<std::string> report_username;
    std::string summary;
    int64_t size = 0;
};

struct ListPage {
    std::vector<ListItem> items;
    int64_t total = 0; // matching reports in all pages
};

struct StoreError : std::runtime_error {
    using std::runtime_error::runtime_error;
};

class Store {
  public:
    virtual ~Store() = default;
    // Stores the report durably; returns its reference.  Throws StoreError.
    virtual std::string insert(const NewReport &r) = 0;
    virtual std::optional<StoredReport> get(const std::string &reference) = 0;
    // Newest first.  query matches a reference (whole or its beginning) or
    // part of a user name, without regard to case.
    virtual ListPage list(const std::string &query, int64_t offset, int64_t limit) = 0;
};

std::unique_ptr<Store> openSqlite(const std::string &path);
std::unique_ptr<Store> openPostgres(const std::string &url);

// "KOB-YYYYMMDD-NNNNNN": the day of receipt (UTC) and the report's number.
std::string makeReference(std::time_t receivedAt, int64_t id);

// Text fit for a text column: valid UTF-8 without zero bytes.
std::string cleanText(const std::string &s);

// A LIKE pattern for s with its wildcard characters escaped by '\'.
std::string likeEscape(const std::string &s);

} // namespace kobreportd

#endif
