// A person's own settings: the time zone their pages show times in.

#include "pages.h"

#include "clock.h"
#include "parts.h"

namespace kobreportd::pages {

using html::Html;
using html::text;

Html settings(const std::string &zone, const std::vector<std::string> &zones, std::time_t now,
              const Viewer &v, const std::string &msg) {
    Html b;
    if (!msg.empty())
        b << "<p class=\"notice\" id=\"message\">" << text(msg) << "</p>\n";
    b << "<h2>Time zone</h2>\n<p id=\"zone\">Times are shown in " << text(zone) << ": it is now "
      << text(shownTime(now)) << ".</p>\n<form class=\"admin\" method=\"post\" action=\""
      << v.links.href("/settings/zone") << "\">" << csrfField(v)
      << "<label>Zone <input name=\"zone\" id=\"zone-name\" list=\"zones\" value=\"" << text(zone)
      << "\" required></label> <datalist id=\"zones\"><option>UTC</option>";
    for (const auto &z : zones)
        b << "<option>" << text(z) << "</option>";
    b << "</datalist><button class=\"plain\" type=\"submit\" id=\"save-zone\">Save</button>"
         "</form>\n";
    return b;
}

} // namespace kobreportd::pages
