#include "outcomes.h"

#include <map>
#include <string>
#include <string_view>

#include "text.h"

namespace kobreportd {

// A report's outcomes in one statement, and its hourly totals in another:
// two round trips, whatever the number of targets.  A target named twice
// (a report can say anything) is one row of the totals.
void addOutcomes(sql::Conn &c, int64_t id, std::time_t receivedAt,
                 const std::vector<Outcome> &outcomes) {
    if (outcomes.empty())
        return;
    std::vector<std::string> targets;
    targets.reserve(outcomes.size());
    for (const Outcome &o : outcomes)
        targets.push_back(cleanText(o.target));
    std::string values, totals;
    std::vector<sql::Param> params, totalParams;
    std::map<std::pair<std::string_view, std::string_view>, std::pair<int64_t, int64_t>> sums;
    auto row = [](size_t n) {
        std::string s = "(";
        for (size_t k = 1; k <= 5; k++)
            s += (k > 1 ? ",$" : "$") + std::to_string(n + k);
        return s + ")";
    };
    for (size_t k = 0; k < outcomes.size(); k++) {
        const Outcome &o = outcomes[k];
        values += (k ? "," : "") + row(params.size());
        params.insert(params.end(), {sql::integer(id), sql::integer(receivedAt), sql::text(o.area),
                                     sql::text(targets[k]), sql::integer(o.failing ? 1 : 0)});
        auto &sum = sums[{o.area, targets[k]}];
        sum.first++;
        sum.second += o.failing ? 1 : 0;
    }
    for (const auto &[key, sum] : sums) {
        totals += (totalParams.empty() ? "" : ",") + row(totalParams.size());
        totalParams.insert(totalParams.end(), {sql::text(key.first), sql::text(key.second),
                                               sql::integer(receivedAt / 3600),
                                               sql::integer(sum.first), sql::integer(sum.second)});
    }
    c.query("INSERT INTO outcomes (report_id, received_at, area, target, failing) VALUES " + values,
            params);
    c.query("INSERT INTO outcome_hours (area, target, hour, reports, failing) VALUES " + totals +
                " ON CONFLICT (hour, area, target) DO UPDATE"
                " SET reports = outcome_hours.reports + excluded.reports,"
                " failing = outcome_hours.failing + excluded.failing",
            totalParams);
}

void dropOutcomes(sql::Conn &c, int64_t id) {
    c.query("UPDATE outcome_hours SET reports = outcome_hours.reports - o.n,"
            " failing = outcome_hours.failing - o.f"
            " FROM (SELECT area, target, received_at / 3600 AS hour, count(*) AS n,"
            " sum(failing) AS f FROM outcomes WHERE report_id = $1"
            " GROUP BY area, target, received_at / 3600) AS o"
            " WHERE outcome_hours.area = o.area AND outcome_hours.target = o.target AND"
            " outcome_hours.hour = o.hour",
            {sql::integer(id)});
    c.query("DELETE FROM outcomes WHERE report_id = $1", {sql::integer(id)});
}

} // namespace kobreportd
