// The verdict rules: a table of named rules, each with a stable id, the
// version of the rule set in which it last changed, what it reads and what
// its verdict means.  A rule judges a parsed report and gives its verdicts
// with the report's own lines as evidence.  Adding or changing a rule
// touches the table in kobrules.cpp and nothing else; a changed rule takes
// the next version there, and the rule set's version follows.

#ifndef KOBRULES_H
#define KOBRULES_H

#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "kobtriage.h"

namespace kobtriage {

class Judge;

struct Rule {
    std::string_view id;      // "udp.blocked": stable, stored and searched for
    std::string_view title;   // "UDP blocked": a few words for a list's one line
    int version;              // the rule set's version in which it last changed
    Verdict::Level level;     // every verdict of a rule has the same level
    std::string_view area;    // where its verdicts are listed
    std::string_view reads;   // what in the report it looks at
    std::string_view meaning; // what its verdict tells support staff
    std::string_view advice;  // what support staff tell the user
    void (*judge)(const Report &report, Judge &judge);
};

// Hands a rule's verdicts to the report.  A known trap claims the areas
// whose failures it explains, so that they are not listed once more.
class Judge {
  public:
    explicit Judge(Report &report) : report_(report) {}
    void add(std::string text, std::vector<SourceLine> evidence = {});
    void claim(std::string_view area) { claimed_.emplace_back(area); }
    void stop() { stopped_ = true; }
    bool stopped() const { return stopped_; }
    void begin(const Rule &rule) { rule_ = &rule; }

  private:
    Report &report_;
    const Rule *rule_ = nullptr;
    std::vector<std::string> claimed_;
    bool stopped_ = false;
};

// Every rule, in the order their verdicts are listed.
std::span<const Rule> rules();

// The rule set's version: the highest version of any rule.
int rulesVersion();

// The rule with this id, or null.
const Rule *findRule(std::string_view id);

// Runs every rule over the report, replacing its verdicts.
void applyRules(Report &report);

} // namespace kobtriage

#endif
