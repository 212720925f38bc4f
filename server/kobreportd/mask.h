// Personal data in a report, hidden by default: the addresses of the
// user's own machine and network.  The operator's own servers stay readable,
// since the verdicts are about them.

#ifndef KOBREPORTD_MASK_H
#define KOBREPORTD_MASK_H

#include <set>
#include <string>
#include <string_view>

#include "kobtriage.h"

namespace kobreportd {

using AddressSet = std::set<std::string, std::less<>>;

// The addresses the run probed (the operator's targets), as the report
// writes them.
AddressSet targetAddresses(const kobtriage::Report &report);

// text with every IPv4, IPv6 and MAC address that is not in keep shown by
// its first two parts only: "10.0.x.x", "2001:db8:x:x:x:x:x:x",
// "a4:83:xx:xx:xx:xx".  What follows an address (a port after a dot, a zone
// after '%') is kept.  Partial addresses ("192.168.1/24" in a route list)
// are left as they are.
std::string maskAddresses(std::string_view text, const AddressSet &keep);

// The report text as a viewer sees it: masked, the targets kept.
std::string maskReport(std::string_view text);

} // namespace kobreportd

#endif
