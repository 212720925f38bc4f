// kobreportd's log: one JSON object per line on standard error, which
// journald (or any shipper) takes as it is.  Every line starts with the
// time, the level and the event's name, then the event's own fields:
//
//   {"time":"2026-11-24T20:01:02.345Z","level":"info","event":"ready",...}
//
// JSON rather than logfmt because its escaping keeps every message on one
// line whatever it holds (a database error spanning lines, a name with
// quotes), numbers stay numbers, and the tests read the lines back with
// the same JSON library that writes them.
//
// What goes in a field is the caller's care: never a password, token or
// session id, and the client's address only in the access log's lines.

#ifndef KOBREPORTD_LOG_H
#define KOBREPORTD_LOG_H

#include <nlohmann/json.hpp>
#include <string>

namespace kobreportd::log {

enum class Level { Debug, Info, Warn, Error };

using Fields = nlohmann::ordered_json;

// "debug", "info", "warn" or "error"; false for anything else.
bool parseLevel(const std::string &name, Level &out);

// Lines below this level are not written (info by default).
void setLevel(Level level);
bool enabled(Level level);

// Writes one line, whole, even when several threads log at once.
void write(Level level, const char *event, const Fields &fields = Fields::object());

inline void debug(const char *event, const Fields &fields = Fields::object()) {
    write(Level::Debug, event, fields);
}
inline void info(const char *event, const Fields &fields = Fields::object()) {
    write(Level::Info, event, fields);
}
inline void warn(const char *event, const Fields &fields = Fields::object()) {
    write(Level::Warn, event, fields);
}
inline void error(const char *event, const Fields &fields = Fields::object()) {
    write(Level::Error, event, fields);
}

} // namespace kobreportd::log

#endif
