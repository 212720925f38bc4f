// Where staff reach the staff side when a reverse proxy stands in front of
// it (--public-url https://staff.example.net/kob/): the origin their
// browser's forms come from, whether the browser speaks HTTPS to the proxy,
// and the path prefix the proxy strips before passing a request on.  Routes
// stay matched at "/"; Links puts the prefix back on every path the staff
// side hands to a browser.

#ifndef KOBREPORTD_PUBLIC_URL_H
#define KOBREPORTD_PUBLIC_URL_H

#include <optional>
#include <string>
#include <string_view>

#include "html.h"

namespace kobreportd {

struct PublicUrl {
    // As understood, "https://staff.example.net/kob/"; "" when none was given.
    std::string url;
    // "https://staff.example.net": scheme and host in lower case, the port
    // only when it is not the scheme's own, as browsers write Origin.
    std::string origin;
    std::string prefix = "/"; // begins and ends with '/'
    bool https = false;
};

// Reads --public-url: an absolute http:// or https:// URL with a host, an
// optional port and path, and no user, query or fragment.  A path without
// a final '/' gets one.  Nothing, with error set, for anything else.
std::optional<PublicUrl> parsePublicUrl(std::string_view text, std::string &error);

// A route's path as a browser asks for it: "/reports/KOB-1" is
// "/kob/reports/KOB-1" under the prefix "/kob/".
class Links {
  public:
    explicit Links(std::string prefix = "/") : prefix_(std::move(prefix)) {}
    // route begins with '/'.
    std::string path(std::string_view route) const;
    // The same, escaped for an attribute of a page.
    html::Html href(std::string_view route) const;
    const std::string &prefix() const { return prefix_; }

  private:
    std::string prefix_;
};

} // namespace kobreportd

#endif
