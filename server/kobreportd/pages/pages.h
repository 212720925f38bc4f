// The staff pages as HTML: plain markup and one stylesheet, no script, so
// that a strict Content-Security-Policy holds.  Everything a user or a
// report supplied goes in through html::text().

#ifndef KOBREPORTD_PAGES_H
#define KOBREPORTD_PAGES_H

#include <optional>
#include <string>
#include <vector>

#include "accounts.h"
#include "audit.h"
#include "fleet.h"
#include "html.h"
#include "issues.h"
#include "incidents.h"
#include "kobtriage.h"
#include "pack.h"
#include "public_url.h"
#include "store.h"

namespace kobreportd::pages {

extern const char *const kStyle;

// Who is looking, for the header bar and the forms, and where the pages
// are as the browser reaches them.
struct Viewer {
    const Principal *who = nullptr; // null on the sign-in page
    std::string csrf;
    Links links;
    int refresh = 0; // seconds; the page reloads itself after them
};

// Every page writes its links, form actions and its stylesheet's address
// through a Links (the Viewer's or one given), never as text of its own.

std::string frame(const std::string &title, const Viewer &v, const std::string &query,
                  const html::Html &body);

// The list's filters in effect, as ReportFilter::given holds them.
using Filters = std::vector<std::pair<std::string, std::string>>;
// name=value&... percent-encoded, for links to the same list.
std::string filterQuery(const Filters &given);
// The list with its filters, the views the viewer sees and a form to save
// this one.
// A page of reports as a table, newest first.
html::Html reportsTable(const ListPage &list, const Links &links);
html::Html list(const ListPage &page, const Filters &filters, int64_t pageNumber, int64_t pageSize,
                const std::vector<SavedView> &views, const Viewer &v);
// What a page shows of one client log: its first and last bytes within
// the page's bounds, and how many lie between.
struct LogEnds {
    std::string head, tail;
    std::size_t left_out = 0;
};
// A report of up to this many bytes is shown whole on its page.
constexpr std::size_t kInlineRawBytes = kStoredFindingsFrom;
// Each Present log's ends (in the report's order), from the whole text.
std::vector<std::optional<LogEnds>> logEnds(const kobtriage::Report &r, std::string_view raw);
// The same from the stored text read once from its start: what is shown
// is all that is held.  Throws StoreError as the reader does.
std::vector<std::optional<LogEnds>> logEnds(const kobtriage::Report &r, TextReader &reader);

// What a report's page is made from: the triage's findings (null when the
// raw text has expired), and either the whole text or, for a large report
// whose findings were stored, what is shown of its logs.
struct ReportBody {
    const kobtriage::Report *triaged = nullptr;
    const std::string *raw = nullptr;
    std::vector<std::optional<LogEnds>> ends;
};
html::Html report(const StoredReport &s, const ReportBody &body, bool revealed, const Viewer &v,
                  int retainDays);
html::Html audit(const std::vector<AuditEntry> &entries, int64_t total, int64_t pageNumber,
                 int64_t pageSize, const Links &links);
html::Html accounts(const std::vector<AccountInfo> &users, const std::vector<AccountInfo> &tokens,
                    const Viewer &v, const std::string &message,
                    const std::optional<std::string> &newToken,
                    const std::optional<std::string> &resetLink = std::nullopt);
// A person's own settings page.
html::Html settings(const std::string &zone, const std::vector<std::string> &zones, std::time_t now,
                    const Viewer &v, const std::string &message);
// What was done, after a change, with the way back.
html::Html done(const std::string &message, const Links &links);
// Asks before a change: the same form again with confirm=yes, or back.
html::Html confirm(const std::string &question, const std::string &action,
                   const std::string &button, const std::string &back, const Viewer &v,
                   const std::vector<std::pair<std::string, std::string>> &fields);
// A new password twice, after the current one (own) or not (a reset link,
// whose form token is given since no one is signed in).
html::Html passwordForm(const std::string &action, const std::string &csrf, bool own,
                        const std::string &message, const Links &links);
html::Html signIn(const std::string &csrf, const std::string &next, const std::string &message,
                  const Links &links);
html::Html message(const std::string &text);

// The second factor (pages/second_factor.cpp).  The account's page: set up
// or not, and the recovery codes left.
html::Html secondFactor(bool enrolled, int recoveryCodesLeft, bool required, const Viewer &v,
                        const std::string &message);
// A new secret as a QR code and as text, and the form for its first code.
html::Html secondFactorEnrol(const std::string &secret, const std::string &uri, const Viewer &v,
                             const std::string &message);
html::Html recoveryCodes(const std::vector<std::string> &codes, const Viewer &v);
// The sign-in's second step.
html::Html signInCode(const std::string &csrf, const std::string &next, const std::string &message,
                      const Links &links);
// text as a QR code, drawn as SVG squares (no image file, no script).
html::Html qrCode(const std::string &text);
// by: "" or the breakdown the targets' shares hold ("asn", "country");
// current: the incidents not resolved, which are what is broken now.
// refreshing: whether the page reloads itself (the link turns it off or on).
html::Html fleet(const Fleet &f, const Links &links, const std::string &by = "",
                 const std::vector<Incident> &current = {}, bool refreshing = false);
html::Html incidents(const std::vector<Incident> &list, const Viewer &v);

// One side of a comparison: the report, its outcomes, and its interface
// and route captures as this viewer may see them.
struct CompareSide {
    const StoredReport *report = nullptr;
    std::vector<Outcome> outcomes;
    std::string interfaces, routes;
};
html::Html compare(const CompareSide &a, const CompareSide &b, const Links &links);
// What changed from the older outcomes to the newer: "now failing" and
// "recovered" targets.
struct Changes {
    std::vector<std::string> failing, recovered;
};
Changes changes(const std::vector<Outcome> &older, const std::vector<Outcome> &newer);
html::Html user(const std::vector<std::string> &names,
                const std::vector<Store::UserReport> &reports, const Links &links);
html::Html failing(const std::string &area, const std::string &target,
                   const std::vector<std::string> &references, const Links &links);

// A time as pages show it, "YYYY-MM-DD hh:mm:ss ZONE", in the zone of the
// person the page on this thread is being made for.
std::string shownTime(std::time_t t);
// The same by a format of its own (strftime's, %Z the zone's abbreviation),
// and the zone's name.
std::string shownTime(std::time_t t, const char *format);
std::string shownZoneName();
// Sets that zone for as long as it lives (a request's handling on one
// thread); outside one, times are shown in UTC.
class ShownZone {
  public:
    explicit ShownZone(const std::string &zone);
    ~ShownZone();
    ShownZone(const ShownZone &) = delete;
    ShownZone &operator=(const ShownZone &) = delete;

  private:
    std::string before_;
};
// The run's own time as the report states it: kobdiag writes the user's
// local time without a zone, which the page says, rather than guess one.
std::string runTime(const std::string &stated);

// Reports per day over the last days (the last one holding now), as a
// small chart whose text alternative gives every number.
html::Html sparkline(const std::vector<int64_t> &days, std::time_t now);
html::Html issues(const std::vector<Issue> &list, const std::string &status, std::time_t now,
                  const Links &links);
// The workflow of an issue or a report: its forms, posting to action (a
// path as the browser reaches it), its ticket's link and its notes.
html::Html workflow(const std::string &action, const Workflow &w, const std::vector<Note> &notes,
                    const std::vector<AccountInfo> &staff, const std::string &ticketUrl,
                    const Viewer &v);
html::Html issue(const Issue &is, const ListPage &reports, const html::Html &workflowForms,
                 std::time_t now, const Links &links);

} // namespace kobreportd::pages

#endif
