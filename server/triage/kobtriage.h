// Triage of kobdiag reports on the operator's side: the report text in,
// findings and plain verdicts out.  Parsing never fails: whatever is not
// understood is kept as text beside the findings, so a support engineer can
// still read it.

#ifndef KOBTRIAGE_H
#define KOBTRIAGE_H

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <nlohmann/json_fwd.hpp>

namespace kobtriage {

// One line of the report as it stands there, numbered from 1.  Number 0 is
// a line the report does not have.  Very long lines are kept cut, with
// "[...]" at the end, since only their beginning serves as evidence.
struct SourceLine {
    std::size_t number = 0;
    std::string text;
    bool operator==(const SourceLine &) const = default;
};

// What one probe printed: an answer with its time, a timeout, or an error.
struct ProbeResult {
    enum class Outcome { Missing, Answered, Timeout, Error };
    Outcome outcome = Outcome::Missing;
    double rtt_ms = 0;   // Answered: the printed milliseconds
    std::string address; // from the result line, else inferred (may be empty)
    bool address_inferred = false;
    int port = 0;                   // 0 when unknown
    int err = 0;                    // Error: the errno the probe printed
    std::string error_text;         // Error: the message after the number
    std::vector<std::string> extra; // lines under the heading not understood
    SourceLine heading;             // the probe's "==> " line
    SourceLine line;                // the result line, when there is one
};

struct UdpAttempt {
    int number = 0; // 1 to 5, as the heading counts
    ProbeResult result;
};

struct UdpSummary {
    int attempts = 0;
    int answered = 0;
    int timeouts = 0;
    int errors = 0;
    double loss_percent = 0;
    std::optional<double> min_ms, avg_ms, max_ms;
};

struct TcpProbe {
    std::string heading; // the heading without "==> " and its line feed
    std::string target;  // who answers it, in a few words ("KT IDC")
    int limit_s = 0;     // the connect time limit the run gives it
    ProbeResult result;
};

struct IntranetProbe {
    std::string address; // from the heading
    int port = 0;
    int limit_s = 0; // the connect time limit the run gives it
    ProbeResult result;
};

struct Hop {
    int number = 0;
    std::vector<std::string> addresses; // distinct, in order of appearance
    std::vector<double> rtts_ms;
    int lost = 0;                   // probes shown as "*"
    std::vector<std::string> notes; // annotations such as "!H"
    SourceLine line;                // the hop's first line
};

struct Traceroute {
    std::string command;
    std::string destination; // the last word of the command
    std::vector<Hop> hops;
    std::vector<std::string> other_lines;
    bool printed_nothing = false;
    bool reached() const;
    const Hop *lastAnswered() const;
};

struct Capture {
    std::string command;
    std::string text;
    std::size_t lines = 0;
    SourceLine heading;         // the "==> Dumping the result of" line
    std::size_t first_line = 0; // the number of the text's first line
    // The whole text's size when only its beginning is held (a report
    // read back from its stored findings); 0 when text is whole.
    std::size_t whole_size = 0;
    bool empty() const { return text.empty(); }
    std::size_t size() const { return whole_size ? whole_size : text.size(); }
};

// How much of each client log a parsed report keeps: the logs of a report
// may run to hundreds of megabytes, and the report's own text has them all.
inline constexpr std::size_t kLogSampleMax = std::size_t{64} * 1024;

struct ClientLog {
    enum class State { Present, Empty, Missing, NotShown };
    std::string program; // kobvane, kobrun, kobflow
    std::string stream;  // stdout, stderr
    std::string file;
    State state = State::NotShown;
    std::string text;       // the log's beginning as the report shows it (kLogSampleMax)
    std::size_t size = 0;   // the whole log's
    std::size_t offset = 0; // where its text starts in the report, in bytes
    SourceLine label;       // "[STDOUT]", "[STDERR]" or the "No ... exists" line
};

// A heading the parser does not know, or text outside any heading.
struct Section {
    std::string heading; // without "==> "; empty for text outside any heading
    std::string text;
    std::size_t whole_size = 0; // as Capture's
    std::size_t size() const { return whole_size ? whole_size : text.size(); }
};

struct Verdict {
    enum class Level { Ok, Info, Warn, Fail };
    Level level = Level::Info;
    std::string area; // header, net, udp, tcp, traceroute, intranet, captures, logs, report
    std::string text;
    std::string rule;                 // the rule's stable id, such as "udp.blocked"
    std::vector<SourceLine> evidence; // the report's lines it rests on, in order
};

struct Report {
    bool recognised = false;              // at least one section of a kobdiag report
    std::optional<std::string> timestamp; // the ctime text
    std::optional<std::string> time_iso;  // the same as YYYY-MM-DDThh:mm:ss
    std::optional<std::string> username, version, os;
    std::vector<Capture> captures;
    int popen_errors = 0;
    std::vector<SourceLine> popen_lines; // where the "_popen() error" lines stand
    std::vector<UdpAttempt> udp;
    std::vector<TcpProbe> tcp;
    bool traceroute_heading = false;
    std::optional<Traceroute> traceroute;
    std::vector<std::string> mtu; // the MTU headings, which carry no result
    std::vector<IntranetProbe> intranet;
    std::vector<ClientLog> logs;
    std::optional<int> countdown_from; // the upload's countdown, when present
    int countdown_lines = 0;
    std::vector<Section> unknown;
    std::vector<std::string> missing; // parts of a whole run that are absent
    std::vector<Verdict> verdicts;
    int rules_version = 0; // of the rule set that gave the verdicts

    UdpSummary udpSummary() const;
    // The failures and warnings in one line, for lists.
    std::string summary() const;
};

Report parse(std::string_view text);

const char *levelName(Verdict::Level level);
const char *stateName(ClientLog::State state);

// Facts from outside the report text, for the JSON of a stored report.
struct StoredFacts {
    std::string reference;
    std::string received_at; // ISO 8601, UTC
    std::optional<std::string> form_username;
    std::optional<std::string> why;
    std::size_t size = 0;
};

// The report's findings and verdicts as one JSON object.  Without facts the
// reference is null.
std::string toJson(const Report &report, const StoredFacts *facts = nullptr);

// A triaged report as a server keeps it beside the text, so that its page
// can be made without reading the text again: everything the triage found,
// with each capture's text cut to its first kStoredCaptureMax bytes, each
// unknown section's to kStoredSectionMax, each evidence line's to
// kStoredLineMax (the cut ones keep their whole size), and without the
// logs' samples.  fromStored gives nothing for a document it cannot read.
inline constexpr std::size_t kStoredCaptureMax = std::size_t{64} * 1024 + 16;
inline constexpr std::size_t kStoredSectionMax = std::size_t{256} * 1024 + 16;
inline constexpr std::size_t kStoredLineMax = 1024 + 16;
std::string toStored(const Report &report);
std::optional<Report> fromStored(std::string_view stored);

// A JSON document as every program here writes it: compact, with bytes
// that are not UTF-8 replaced by U+FFFD.
std::string dumpJson(const nlohmann::ordered_json &j);

// The text as valid UTF-8: broken sequences become U+FFFD, as in JSON.
std::string validUtf8(std::string_view s);

// The verdicts as a plain-text table, one per line, with a header line.
// With evidence, each verdict's lines follow it, indented, with their
// numbers.
std::string verdictTable(const Report &report, bool evidence = false);

} // namespace kobtriage

#endif
