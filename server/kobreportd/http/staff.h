// The staff side: the browser view and /api/, on a listener of its own,
// every route behind a sign-in session (pages) or a bearer token (/api/).

#ifndef KOBREPORTD_STAFF_H
#define KOBREPORTD_STAFF_H

#include <httplib.h>

#include <memory>
#include <string>

#include "accounts.h"
#include "audit.h"
#include "metrics.h"
#include "store.h"

namespace kobreportd {

struct StaffOptions {
    std::string tls_cert, tls_key; // both or neither
    int retain_days = 90;
    int threads = 16;
};

class StaffRoutes;

// The server and the routes it serves, which hold on to the stores.
struct StaffServer {
    StaffServer();
    ~StaffServer();
    std::unique_ptr<httplib::Server> http;
    std::unique_ptr<StaffRoutes> routes;
};

// The server with every staff route; nullptr with a message in error when
// the certificate or key cannot be used.
std::unique_ptr<StaffServer> makeStaffServer(const StaffOptions &options, Store &store,
                                             Accounts &accounts, Audit &audit,
                                             const Metrics &metrics, std::string &error);

} // namespace kobreportd

#endif
