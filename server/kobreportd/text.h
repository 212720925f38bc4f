// Cleaning of text that goes into a text column or a LIKE pattern, the same
// for both databases.

#ifndef KOBREPORTD_TEXT_H
#define KOBREPORTD_TEXT_H

#include <string>
#include <string_view>

namespace kobreportd {

// Text fit for a text column: valid UTF-8 (broken sequences become U+FFFD)
// without zero bytes (each becomes U+FFFD too).
std::string cleanText(std::string_view s);

// A LIKE pattern matching s literally, its wildcard characters escaped by '\'.
std::string likeEscape(std::string_view s);

} // namespace kobreportd

#endif
