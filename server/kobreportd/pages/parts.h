// Pieces that several staff pages share.

#ifndef KOBREPORTD_PAGES_PARTS_H
#define KOBREPORTD_PAGES_PARTS_H

#include <cstdint>
#include <string>

#include "html.h"
#include "pages.h"

namespace kobreportd::pages {

// The session's form token as a hidden field of a form.
html::Html csrfField(const Viewer &v);

// "Newer" and "Older" links of a paged list at base (a path as the browser
// reaches it), with its query (name=value&..., percent-encoded).
html::Html pager(const std::string &base, const std::string &query, int64_t pageNumber,
                 int64_t pageSize, int64_t total);

} // namespace kobreportd::pages

#endif
