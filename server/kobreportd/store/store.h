// The reports, in SQLite or PostgreSQL through one set of queries.  A report
// is committed before insert() returns, so an answer of 200 always means the
// report is on disk.  Opening a database brings its tables to this version's
// layout first.

#ifndef KOBREPORTD_STORE_H
#define KOBREPORTD_STORE_H

#include <condition_variable>
#include <cstdint>
#include <ctime>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "fleet.h"
#include "networks.h"
#include "search.h"
#include "sql.h"

namespace kobreportd {

struct NewReport {
    std::time_t received_at = 0;
    std::string desc; // the report text, byte for byte
    std::optional<std::string> form_username;
    std::optional<std::string> why;
    std::optional<std::string> report_username; // from the report's own header
    std::string summary;                        // the triage's one-line summary
    std::string peer;
    std::vector<Outcome> outcomes;      // one per probe target, for the fleet's numbers
    int rules = 0;                      // the version of the rules that judged it
    std::string findings;               // the triage's, as kobtriage::toStored writes them
    IssueKey issue;                     // the issue it belongs to (issues.h)
    Network network;                    // where peer is, when --asn-db or --country-db say
    std::string level;                  // the worst verdict's: "fail", "warn" or "ok"
    std::optional<std::string> version; // kobdiag's
    std::vector<RuleVerdict> verdicts;
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
    bool raw_expired = false; // desc, why and peer are gone; findings remain
    // JSON: what the triage found, as kobtriage::toStored writes it (""
    // for a report stored before findings were); once the raw text has
    // expired, the masked findings kept in its place.
    std::string findings;
    int64_t size = 0;
    bool desc_packed = false; // desc is still the stored zstd frame
};

struct ListItem {
    int64_t id = 0;
    std::string reference;
    std::time_t received_at = 0;
    std::optional<std::string> form_username;
    std::optional<std::string> report_username;
    std::string summary;
    int64_t size = 0;
    bool raw_expired = false;
    std::string level; // "" for a report judged before levels were kept
    std::optional<std::string> version;
    // The rule of its worst failing or warning verdict (the first of that
    // level in the rule table, as the report page lists them); "" for none.
    // Read by list() and listBefore() alone.
    std::string worst_rule;
};

// What a list shows of a report's worst verdict: its rule's title, "no
// problem found" for a report with nothing failing or warning, and the
// summary for one judged before levels were kept.
std::string worstTitle(const ListItem &it);

// A list's filters kept under a name (store/views.cpp).
struct SavedView {
    int64_t id = 0;
    std::string account; // who saved it
    std::string name;
    std::string query;   // the list's URL query, percent-encoded
    bool shared = false; // everyone sees it, not only its owner
};

struct ListPage {
    std::vector<ListItem> items;
    int64_t total = 0; // matching reports in all pages
};

class Store {
  public:
    explicit Store(sql::Db &db);
    sql::Db &db() { return db_; }

    // Stores the report durably; returns its reference.  Throws StoreError.
    // Reports handed in while earlier ones are being committed are
    // committed together in the next transaction: one sync to disk for
    // all of them, and none returns before its commit.
    std::string insert(const NewReport &r);
    // unpackText false leaves desc as stored (see desc_packed), for
    // reading it a piece at a time with a TextReader.
    std::optional<StoredReport> get(const std::string &reference, bool unpackText = true);
    // The same without the text (desc is left empty; desc_packed says how
    // it is stored), for reading it in pieces with storedPieces().
    std::optional<StoredReport> head(const std::string &reference);
    // A report's text as stored, a megabyte at a time, "" after the last:
    // a large text is never fetched whole from the database.
    std::function<std::string()> storedPieces(int64_t id);
    // Newest first, the reports the filter takes (search.h).
    ListPage list(const ReportFilter &filter, int64_t offset, int64_t limit);
    // The same from the report before id `before` on, without the count:
    // an export reads the whole list a batch at a time.
    std::vector<ListItem> listBefore(const ReportFilter &filter, int64_t before, int64_t limit);
    // One user's reports (by the form's or the report's user name), newest
    // first, with each one's outcomes.
    struct UserReport {
        ListItem item;
        std::vector<Outcome> outcomes;
    };
    // A person's reports carry the form's name, kobdiag's -u name, or both:
    // those under either of the names that a report of name pairs with it
    // are that person's too.
    std::vector<UserReport> byUser(const std::string &name, int64_t limit);
    // name first, then the names its reports pair it with (at most
    // kSameUserNames in all, so a name many people share stays bounded).
    std::vector<std::string> sameUser(const std::string &name);
    static constexpr size_t kSameUserNames = 8;
    // The views an account sees: its own and the shared ones, by name.
    std::vector<SavedView> views(const std::string &account);
    // False when the account has a view of that name already.
    bool saveView(const std::string &account, const std::string &name, const std::string &query,
                  bool shared, std::time_t at);
    // Its owner's (or, with anyone, anybody's); the view as it was, or
    // nothing when there is no such view of theirs.
    std::optional<SavedView> deleteView(int64_t id, const std::string &account, bool anyone);
    // The outcomes kept for a report at intake.
    std::vector<Outcome> outcomes(int64_t id);
    // Removes the report whole and leaves no copy of its text in the
    // database file.  False when there is no such report.
    bool remove(const std::string &reference);
    // Drops the raw text (report, comment, sender's address) of reports
    // received before cutoff, keeping their reference, time, user names,
    // summary and findings.  Returns how many were expired.
    int64_t expireBefore(std::time_t cutoff);

    // Re-judges the reports after id `after` whose summary and outcomes
    // came from rules older than `rules`, one batch in one transaction:
    // their summary, report user name and outcomes (with the hourly totals)
    // are replaced.  Reports whose raw text expired keep what they have.
    struct RetriageStep {
        int64_t retriaged = 0;
        int64_t last_id = 0; // where the next batch starts
        bool more = false;   // false: nothing was left after `after`
    };
    RetriageStep retriage(int64_t after, int rules,
                          const std::function<Triaged(const std::string &)> &triage);
    struct RulesCount {
        int64_t older = 0;   // with raw text, so retriage can redo them
        int64_t expired = 0; // raw text gone: kept as they are
    };
    RulesCount countByRules(int rules);

  private:
    struct Pending {
        const NewReport *report;
        const std::string *packed;           // its text as stored
        std::optional<std::string> findings; // compressed, when there are any
        int64_t number = 0;                  // its reference's, once number() gave it
        std::string reference;
        std::optional<std::string> error;
        bool done = false;
    };
    void commit(const std::vector<Pending *> &batch);
    std::string insertOne(sql::Conn &c, const Pending &p);
    std::optional<StoredReport> fetch(const std::string &reference, const char *desc,
                                      bool unpackText);
    // Each report of the batch its reference's number (see ingest.cpp).
    void number(sql::Conn &c, const std::vector<Pending *> &batch);
    sql::Db &db_;
    std::mutex groupMutex_;
    std::condition_variable groupDone_;
    std::vector<Pending *> queue_;
    int committers_ = 0;
};

// "KOB-YYYYMMDD-NNNNNNNNN": the day of receipt (UTC) and the report's
// number in that day (at least 9 digits; see Store::nextNumber).
std::string makeReference(std::time_t receivedAt, int64_t number);

// A reference as written: nothing else is looked up.
bool plausibleReference(const std::string &s);

} // namespace kobreportd

#endif
