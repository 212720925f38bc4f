// The staff side: the browser view and /api/, on a listener of its own,
// every route behind a sign-in session (pages) or a bearer token (/api/).
// The pages' rows are made in staff.cpp, the API's in api/api.cpp; both
// share the views of a report made here.

#ifndef KOBREPORTD_STAFF_H
#define KOBREPORTD_STAFF_H

#include <cstdint>
#include <utility>
#include <mutex>
#include <condition_variable>
#include <optional>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "accounts.h"
#include "audit.h"
#include "issues.h"
#include "metrics.h"
#include "pages.h"
#include "passwords.h"
#include "routes.h"
#include "second_factor.h"
#include "store.h"

namespace kobreportd {

struct StaffOptions {
    std::string tls_cert, tls_key; // both or neither
    int retain_days = 90;
    int threads = 16;
};

// The protective headers of every staff answer; secure: browsers reach the
// staff side over HTTPS (its own TLS, or a proxy's at the public URL).
std::vector<std::pair<std::string, std::string>> staffHeaders(bool secure);

// A place to go back to after signing in: a path on this server only.
std::string safeNext(const std::string &next);

// How much report text the staff side holds at once for the pages being
// made: a view of a large report waits while others hold the rest, so that
// several at once cannot take the server's memory.  A text larger than the
// whole budget waits until nothing else is held.
class TextBudget {
  public:
    explicit TextBudget(uint64_t bytes) : cap_(bytes) {}
    class Hold {
      public:
        Hold() = default;
        Hold(TextBudget *b, uint64_t n) : budget_(b), n_(n) {}
        Hold(Hold &&o) noexcept : budget_(std::exchange(o.budget_, nullptr)), n_(o.n_) {}
        Hold &operator=(Hold &&o) noexcept {
            std::swap(budget_, o.budget_);
            std::swap(n_, o.n_);
            return *this;
        }
        ~Hold() {
            if (budget_)
                budget_->give(n_);
        }

      private:
        TextBudget *budget_ = nullptr;
        uint64_t n_ = 0;
    };
    Hold take(uint64_t n);

  private:
    void give(uint64_t n);
    uint64_t cap_, used_ = 0;
    std::mutex mutex_;
    std::condition_variable freed_;
};

class Staff {
  public:
    Staff(Store &store, Accounts &accounts, Audit &audit, const Metrics &metrics,
          const Guard &guard, bool tls, int retainDays)
        : store_(store), accounts_(accounts), audit_(audit), metrics_(metrics), guard_(guard),
          tls_(tls), retainDays_(retainDays) {}

    void addPageRoutes(RouteTable &table);
    void addApiRoutes(RouteTable &table); // api/api.cpp
    // The rules new passwords meet (the list of common ones).
    void setPasswordRules(PasswordRules rules) { passwordRules_ = std::move(rules); }
    // Before the routes are added: where second factors are kept, and whom
    // rule requires to have one.
    void useSecondFactors(SecondFactors &factors, SecondFactorRule rule) {
        factors_ = &factors;
        rule_ = rule;
    }
    // Where a ticket id leads: "https://desk.example/t/{ticket}"; "" for
    // tickets without a link.
    void setTicketUrl(std::string pattern) { ticketUrl_ = std::move(pattern); }

    static constexpr int64_t kPageSize = 50;
    // The workflow's fields a form or an API call gives; those left out
    // stay as they are.
    static WorkflowChange workflowChange(const Request &req);
    static int64_t pageNumber(const Request &req);

    // The addresses a report's verdicts are about, which masking leaves:
    // the run's targets.  Added to res.keep.
    static void keepTargets(const StoredReport &s, Response &res);
    static void keepTargets(const kobtriage::Report &r, Response &res);
    // A side of a comparison.
    pages::CompareSide side(const StoredReport &s);
    // The raw text as plain text, each line after its number when
    // numbered (as evidence names them); 404 and 410 as plain text too.
    void rawText(const Request &req, Response &res, const Principal &who, bool reveal,
                 bool numbered = false);

    // The user a list shows for a report: the form's, else the report's.
    static std::string shownUser(const ListItem &it);
    // A list's row as /api/reports and the JSON lines export give it.
    static nlohmann::ordered_json itemJson(const ListItem &it);
    // The zone a staff member reads times in; UTC for everyone for now.
    static std::string viewerZone(const Principal &who);

  private:
    void addSignInRoutes(RouteTable &table);
    void addReportPages(RouteTable &table);
    void addAdminPages(RouteTable &table);
    void addViewPages(RouteTable &table);
    void addFleetPages(RouteTable &table);
    void addSettingsPages(RouteTable &table);
    void addReportApi(RouteTable &table);
    void addFleetApi(RouteTable &table);
    void addAccountPages(RouteTable &table); // http/account_pages.cpp
    void addPasswordPages(RouteTable &table);
    void addAccountApi(RouteTable &table); // api/accounts_api.cpp
    // The confirmation page of a form that asked for none yet; true when
    // the form was confirmed and the action may go ahead.
    bool confirmed(const Request &req, Response &res, const Principal &who,
                   const std::string &question, const std::string &button, const std::string &back);
    // http/staff_second_factor.cpp
    void addSecondFactorPages(RouteTable &table);
    void addSecondFactorApi(RouteTable &table);
    // The sign-in form's answer when the password was right and a code is
    // still needed.
    void askForCode(const Request &req, Response &res, const std::string &next);
    void secondFactorPage(Response &res, const Principal &who, const std::string &msg,
                          int status = 200);
    void addIssuePages(RouteTable &table); // http/issues.cpp
    void addIssueApi(RouteTable &table);   // api/issues.cpp
    // A report's issue and workflow, under its page.
    html::Html reportWorkflow(const std::string &reference, const Principal &who);

    // A handler of a route behind credentials: the guard has found who.
    using Signed = std::function<void(const Request &, Response &, const Principal &)>;
    static void page(RouteTable &table, Method m, const std::string &pattern, Role need, Signed h);
    static void api(RouteTable &table, Method m, const std::string &pattern, Role need, Signed h);
    // A form posted before anyone signed in (sign-in, its code, a reset
    // link): from this site, with the token of the sign-in cookie pre.
    bool preSignInForm(const Request &req, const std::string &pre) const;
    pages::Viewer viewer(const Principal &who) const;
    // Where the pages are, as the browser reaches them.
    const Links &links() const { return guard_.links(); }
    // refresh: seconds after which the browser loads the page again, 0 never.
    void show(Response &res, int status, const std::string &title, const Principal *who,
              const html::Html &body, const std::string &query = "", int refresh = 0);
    static constexpr int kFleetRefresh = 60;
    void notFound(Response &res, const Principal &who, const std::string &ref);
    void reportPage(const Request &req, Response &res, const Principal &who, bool reveal);
    void accountsPage(Response &res, const Principal &who, const std::string &msg,
                      const std::optional<std::string> &token = std::nullopt, int status = 200,
                      const std::optional<std::string> &resetLink = std::nullopt);
    std::string reportJson(const StoredReport &s);
    // The list's filter from the request, or a 400 in res (page or JSON).
    std::optional<ReportFilter> filterOf(const Request &req, Response &res, const Principal &who,
                                         bool page);
    // With format=csv or format=jsonl: the whole filtered list streamed as
    // that, audited.  False, with nothing done, for another format.
    bool exportList(const Request &req, Response &res, const Principal &who,
                    const ReportFilter &filter);
    // format given: the export, or a 400 for a format it does not know.
    bool exported(const Request &req, Response &res, const Principal &who,
                  const ReportFilter &filter, bool page);
    // Reports with their texts, once the budget has room for all of them
    // (taken at once: a second take while holding the first could wait
    // for ever).
    struct Loaded {
        std::vector<std::optional<StoredReport>> reports;
        TextBudget::Hold hold;
    };
    Loaded load(std::initializer_list<std::string> references);

    Store &store_;
    Accounts &accounts_;
    Audit &audit_;
    const Metrics &metrics_;
    const Guard &guard_;
    bool tls_;
    int retainDays_;
    PasswordRules passwordRules_;
    TextBudget budget_{uint64_t{64} << 20};
    SecondFactors *factors_ = nullptr;
    SecondFactorRule rule_ = SecondFactorRule::Optional;
    Issues issues_{store_.db()};
    std::string ticketUrl_;
};

} // namespace kobreportd

#endif
