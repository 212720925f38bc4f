// Report texts and upload requests as kobdiag produces them, for the tests
// and the load and fault drivers of the operator's programs.  The texts are
// put together from the run's own formats, so a test states the outcome it
// wants (an answer, a timeout) rather than bytes.

#ifndef KOB_REPORTGEN_H
#define KOB_REPORTGEN_H

#include <map>
#include <optional>
#include <string>
#include <vector>

#include "kobrun.h"
#include "upload_request.h"

namespace reportgen {

// Result lines as the probes print them, line feed included.
std::string udpRtt(double ms, const std::string &addr, int port = kobrun::kUdpPort);
std::string udpTimeout();
std::string udpRecvError(int err, const std::string &text);
std::string tcpRtt(double ms, const std::string &addr, int port);
std::string tcpTimeout();
std::string tcpFail(int err, const std::string &text);

struct Run {
    std::string timestamp = "Sat Nov 21 10:00:00 2026";
    std::optional<std::string> username = std::string("alice");
    std::string ifconfig = "lo0: flags=8049<UP,LOOPBACK,RUNNING,MULTICAST> mtu 16384\n";
    std::string netstatAn = "Active Internet connections (including servers)\n";
    std::string netstatRn = "Routing tables\n";
    std::vector<std::string> udp;      // five result lines
    std::vector<std::string> tcp;      // seven result lines, in run order
    std::string ktIdc = "192.0.2.2";   // traceroute target
    std::string traceroute;            // the command's output
    std::vector<std::string> intranet; // four result lines
    // Log file name -> contents; a name that is absent is a missing file.
    std::map<std::string, std::string> logs;
    bool upload = true; // the countdown lines at the end (without -o)
};

// A run where everything answers: the addresses are the lab's defaults.
Run healthyRun();

std::string report(const Run &run);

// The request exactly as kobdiag writes it: the head, then the body.
using kobtest::kBoundary;
std::string body(const std::optional<std::string> &desc, const std::optional<std::string> &username,
                 const std::optional<std::string> &why);
std::string head(const std::string &host, size_t bodyLength);

// A report of about size bytes (a healthy run with a long kobvane log).
std::string reportOfSize(size_t size, int seed);

} // namespace reportgen

#endif
