// Each report's outcome per probe target, and the hourly totals the fleet
// view reads, kept in step by intake, deletion and retriage alike.

#ifndef KOBREPORTD_OUTCOMES_H
#define KOBREPORTD_OUTCOMES_H

#include <cstdint>
#include <ctime>
#include <vector>

#include "fleet.h"
#include "sql.h"

namespace kobreportd {

// Writes a report's outcomes and adds them to the hourly totals.
void addOutcomes(sql::Conn &c, int64_t id, std::time_t receivedAt,
                 const std::vector<Outcome> &outcomes);

// Takes a report's outcomes out of the hourly totals, and away.
void dropOutcomes(sql::Conn &c, int64_t id);

} // namespace kobreportd

#endif
