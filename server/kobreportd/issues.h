// Issues: reports grouped by what fails in them, and the workflow of issues
// and reports alike (status, owner, ticket, notes).
//
// A report's signature is the set of its failing verdicts' rules, each with
// the targets it names: the probes whose lines the verdict rests on and
// which failed.  Reports of the same signature are one issue; a report with
// no failing verdict is in none.  The signature is kept whole and looked up
// by its hash, so that a report naming many targets still has a key of
// bounded size.
//
// Notes are rows of the audit log (action "issue.noted" or "report.noted",
// the issue's key or the report's reference), so that who wrote what, and
// when, is kept as every other change is.

#ifndef KOBREPORTD_ISSUES_H
#define KOBREPORTD_ISSUES_H

#include <cstdint>
#include <ctime>
#include <optional>
#include <string>
#include <vector>

#include "kobtriage.h"
#include "sql.h"

namespace kobreportd {

struct IssueKey {
    std::string signature; // "rule\ttarget" lines, sorted; "" for no failure
    std::string title;     // the rules and their targets in a few words
};

IssueKey issueKey(const kobtriage::Report &report);

// The states of the workflow.
bool validStatus(const std::string &status);
// A ticket id as staff type it: 1 to 100 printable characters.
bool validTicket(const std::string &ticket);
// A note: 1 to 4000 bytes.
bool validNote(const std::string &note);

// The ticket's link from the pattern given with --ticket-url, the id
// percent-encoded where the pattern says {ticket}; "" without a pattern.
std::string ticketLink(const std::string &pattern, const std::string &ticket);
// A pattern fit for --ticket-url: http(s) and {ticket} in it.
bool validTicketPattern(const std::string &pattern);

// Who the audit log says reopened an issue when a report arrived.
constexpr const char *kIntakeAccount = "(intake)";

// The audit log's reference for an issue: "issue:ID".
std::string issueReference(int64_t id);

// The issue of a report of this key, made when it is new; none for a
// report without a failure.  reopen: the report has just arrived, and a
// resolved issue it falls in is open again, as the audit log records (a
// report judged again is regrouped without reopening anything).
std::optional<int64_t> issueFor(sql::Conn &c, const IssueKey &key, std::time_t at, bool reopen,
                                const std::string &reference);

constexpr int kSparkDays = 14;

struct Issue {
    int64_t id = 0;
    std::string title, signature, status;
    std::optional<std::string> owner, ticket;
    std::time_t first_seen = 0, last_seen = 0;
    int64_t reports = 0, users = 0;
    std::vector<int64_t> days; // reports per UTC day, kSparkDays, the oldest first
};

struct Workflow {
    std::string status = "new";
    std::optional<std::string> owner, ticket;
};

struct Note {
    std::time_t at = 0;
    std::string account, text;
};

// A change asked for: each field given is set ("" clears owner and ticket).
struct WorkflowChange {
    std::optional<std::string> status, owner, ticket, note;
};

class Issues {
  public:
    explicit Issues(sql::Db &db) : db_(db) {}

    // Issues with at least one report, the most recently seen first: those
    // new or open when status is "", else those of that status.
    std::vector<Issue> list(const std::string &status, std::time_t now);
    std::optional<Issue> get(int64_t id, std::time_t now);

    std::optional<Workflow> reportWorkflow(const std::string &reference);
    std::optional<int64_t> reportIssue(const std::string &reference);
    std::vector<Note> notes(const std::string &action, const std::string &reference);

    // What went wrong with a change, for the answer; nullopt when it was
    // made (each changed field audited as account did it from address).
    struct Refusal {
        int status;
        std::string message;
    };
    std::optional<Refusal> changeIssue(int64_t id, const WorkflowChange &change,
                                       const std::string &account, const std::string &address);
    std::optional<Refusal> changeReport(const std::string &reference, const WorkflowChange &change,
                                        const std::string &account, const std::string &address);

  private:
    std::optional<Refusal> change(const char *table, const char *keyColumn, sql::Param key,
                                  const std::string &auditReference, const char *what,
                                  const WorkflowChange &change, const std::string &account,
                                  const std::string &address);
    std::vector<Issue> read(const std::string &where, std::initializer_list<sql::Param> params,
                            std::time_t now);
    sql::Db &db_;
};

// An issue id as written in a path or a filter: digits only.
std::optional<int64_t> parseIssueId(const std::string &s);

} // namespace kobreportd

#endif
