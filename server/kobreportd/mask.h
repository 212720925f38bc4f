// Personal data in a report, hidden by default: the addresses of the
// user's own machine and network.  The operator's own servers stay readable,
// since the verdicts are about them.

#ifndef KOBREPORTD_MASK_H
#define KOBREPORTD_MASK_H

#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "kobtriage.h"

namespace kobreportd {

using AddressSet = std::set<std::string, std::less<>>;

// The addresses the run probed (the operator's targets), as the report
// writes them.
AddressSet targetAddresses(const kobtriage::Report &report);

// text with the user's own data hidden: every IPv4, IPv6 and MAC address
// that is not in keep shown by its first two parts only ("10.0.x.x",
// "10.51.x/24", "2001:db8:x:x:x:x:x:x", "::ffff:192.168.x.x",
// "a4:83:xx:xx:xx:xx", "a4-83-xx-xx-xx-xx", "a483.xxxx.xxxx"), the name in
// a home directory ("/Users/…/") and the person in an e-mail address
// ("…@example.com").  What follows an address (a port after a dot, a
// zone after '%', a prefix length) is kept, and so are loopback and
// unspecified addresses, which are no one's.  A network written with two
// octets ("10.51/16") already shows no more than two parts; three octets
// without a length ("10.0.1" in a route list) read as a version number and
// stay.
std::string maskAddresses(std::string_view text, const AddressSet &keep);

// The addresses written in texts such as "traceroute to 192.0.2.2" or
// "10.243.160.1:8081".
AddressSet addressesIn(const std::vector<std::string> &texts);

// The report text as a viewer sees it: masked, the targets kept.
std::string maskReport(std::string_view text);

} // namespace kobreportd

#endif
