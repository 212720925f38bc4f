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
                    const std::optional<std::string> &newToken);
html::Html signIn(const std::string &csrf, const std::string &next, const std::string &message,
                  const Links &links);
html::Html message(const std::string &text);
html::Html fleet(const Fleet &f, const Links &links);

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
html::Html user(const std::string &name, const std::vector<Store::UserReport> &reports,
                const Links &links);
html::Html failing(const std::string &area, const std::string &target,
                   const std::vector<std::string> &references, const Links &links);

std::string shownTime(std::time_t t);

} // namespace kobreportd::pages

#endif
