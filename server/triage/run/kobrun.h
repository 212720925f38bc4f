// kobdiag's fixed run as the programs and tests around it see it: the
// probes' headings, the role of the server each one reaches, their ports and
// time limits.  koblab serves these, the triage reads reports by them and the
// test helpers write reports from them.  kobdiag keeps its own sequence, and
// the whole-run tests their own expectation of its bytes, so that this table
// never vouches for itself.

#ifndef KOBRUN_H
#define KOBRUN_H

#include <array>
#include <string_view>

namespace kobrun {

// The server a probe reaches, each at an address of the build's settings.
enum class Role { None, Auth, KtIdc, PassThrough, Jp };

// One TCP connect probe of the service's servers, in run order.  The heading
// is the text after "==> ", without its line feed.
struct TcpProbe {
    std::string_view heading;
    std::string_view target; // how a person calls the server
    int port;
    Role role;
};

inline constexpr std::array<TcpProbe, 7> kTcpProbes = {{
    {"Checks a connection to authentication server.", "authentication server", 80, Role::Auth},
    {"Checks a connection to authentication server (old).", "old authentication server", 10009,
     Role::KtIdc},
    {"Testing TCP pass-through to port 80", "KT IDC", 80, Role::KtIdc},
    {"Testing TCP pass-through to port 443", "KT IDC", 443, Role::KtIdc},
    {"Testing TCP pass-through to port 10007", "pass-through server", 10007, Role::PassThrough},
    {"Testing TCP pass-through to port 10008 (KR - KT2)", "KR - KT2", 10008, Role::PassThrough},
    {"Testing TCP pass-through to port 10008 (JP - Amazon)", "JP - Amazon", 10008, Role::Jp},
}};
inline constexpr int kPublicLimitSeconds = 15;

// The UDP echo round trips to the pass-through server.
inline constexpr int kUdpPort = 10007;
inline constexpr int kUdpAttempts = 5;

// The intranet gateways, each on the same port with a short limit.
inline constexpr int kIntranetPort = 8081;
inline constexpr int kIntranetLimitSeconds = 1;
inline constexpr int kIntranetProbes = 4;

// The network status captures before the probes.
inline constexpr int kStatusCaptures = 3;

// The MTU headings, whose test step does nothing.
inline constexpr std::array<std::string_view, 5> kMtuHeadings = {{
    "Testing MTU to KOBVANE Asia (S. Korea - KT IDC)",
    "Testing MTU to KOBVANE US West(N. California)",
    "Testing MTU to KOBVANE Asia (Singapore)",
    "Testing MTU to KOBVANE Asia (Tokyo)",
    "Testing MTU to KOBVANE Asia (S. Korea - HCLC IDC)",
}};

} // namespace kobrun

#endif
