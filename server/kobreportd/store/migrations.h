// The database's layout, brought up to this version's by numbered steps.

#ifndef KOBREPORTD_MIGRATIONS_H
#define KOBREPORTD_MIGRATIONS_H

#include <optional>
#include <string>

#include "sql.h"

namespace kobreportd {

// The layout this version writes.
int currentLayout();

// Brings the database to the current layout in one transaction, running the
// steps after the one it records.  Throws StoreError for a database of a
// newer layout, which this version cannot read.
// A SQLite file of an older layout is first copied beside itself, as
// FILE.layoutN-backup (0600); an existing copy of that name stops the
// migration rather than being overwritten.
void migrate(sql::Db &db);

// The layout the database records when it is newer than this version's:
// another instance has migrated it.  One small read, cheap enough for every
// request; nothing when the database cannot be read.
std::optional<int> newerLayout(sql::Db &db);

// Why a database of that layout is refused.
std::string newerLayoutMessage(int layout);

} // namespace kobreportd

#endif
