// The database's layout, brought up to this version's by numbered steps.

#ifndef KOBREPORTD_MIGRATIONS_H
#define KOBREPORTD_MIGRATIONS_H

#include "sql.h"

namespace kobreportd {

// The layout this version writes.
int currentLayout();

// Brings the database to the current layout in one transaction, running the
// steps after the one it records.  Throws StoreError for a database of a
// newer layout, which this version cannot read.
void migrate(sql::Db &db);

} // namespace kobreportd

#endif
