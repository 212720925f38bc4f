// Driving kobreportd from tests and from the load and fault drivers: start
// and stop it, talk raw HTTP to it the way kobdiag does, and run a private
// PostgreSQL server for it.

#ifndef KOB_REPORTD_H
#define KOB_REPORTD_H

#include <nlohmann/json.hpp>
#include <string>
#include <sys/types.h>
#include <vector>

namespace reportd {

// The database layout this kobreportd writes.
constexpr int kLayout = 16;

struct Response {
    bool ok = false; // a response arrived
    int status = 0;
    std::string raw; // all bytes read until the server closed
    std::string body;
};

// A browser-like session on the staff side: it keeps the cookies it is
// given and sends forms with the page's form token.
class Browser {
  public:
    explicit Browser(int staffPort) : port_(staffPort) {}
    Response get(const std::string &path);
    // Posts fields (already without the form token) to path, adding the
    // token from the last page that carried one.
    Response post(const std::string &path,
                  const std::vector<std::pair<std::string, std::string>> &fields,
                  const std::string &extraHeaders = "");
    // Opens the sign-in page and signs in; returns the answer to the form.
    Response signIn(const std::string &name, const std::string &password);
    std::string cookie(const std::string &name) const;
    void setCookie(const std::string &name, const std::string &value);
    const std::string &csrf() const { return csrf_; }

  private:
    void keep(const Response &r);
    int port_;
    std::vector<std::pair<std::string, std::string>> cookies_;
    std::string csrf_;
};

// Runs `binary args...` with input on its standard input; returns the exit
// status with standard output and standard error.
struct Command {
    int status = -1;
    std::string out, err;
};
Command command(const std::string &binary, const std::vector<std::string> &args,
                const std::string &input = "", const std::vector<std::string> &env = {});

// kobreportd as a child process: the intake and the staff side each on a
// free loopback port, an admin API token made for the test, and no limit
// on uploads per address unless extra sets one ("--rate", "--quota-per-address").
class Server {
  public:
    Server(const std::string &binary, const std::string &db,
           const std::vector<std::string> &extra = {}, bool staff = true,
           const std::vector<std::string> &env = {});
    ~Server();
    Server(const Server &) = delete;
    Server &operator=(const Server &) = delete;

    int port() const { return port_; }
    int staffPort() const { return staffPort_; }
    const std::string &token() const { return token_; }
    const std::string &readyLine() const { return line_; }
    pid_t pid() const { return pid_; }
    // SIGTERM and wait; returns the wait status.
    int stop();
    // SIGKILL and wait.
    void kill();
    // Everything it wrote to standard error so far (after stop or kill).
    std::string errors() const;
    // A request to the staff side's /api/ with the admin token.
    Response api(const std::string &path, const std::string &method = "GET") const;
    // Makes an account with this role and signs it in; the password is
    // "password of NAME".  Throws when the sign-in does not go through.
    Browser signedIn(const std::string &role = "admin", std::string *name = nullptr) const;
    // Makes an account (password from standard input, as people do).
    Command addUser(const std::string &name, const std::string &role,
                    const std::string &password) const;

  private:
    std::string binary_, db_;
    std::vector<std::string> env_;
    pid_t pid_ = -1;
    int port_ = 0, staffPort_ = 0;
    std::string line_, token_;
    std::string errFile_;
};

// Connects to 127.0.0.1:port, writes each piece with one write (as kobdiag
// writes its head and then its body), reads until the server closes.
Response exchange(int port, const std::vector<std::string> &pieces, int timeoutSeconds = 30);
// The same with another loopback address than 127.0.0.1, and from a given
// source address (another loopback address, as if another machine sent it).
Response exchangeAt(const std::string &host, int port, const std::vector<std::string> &pieces,
                    int timeoutSeconds = 30, const std::string &source = "");

// An upload as kobdiag sends it, from the source address given.
Response uploadFrom(const std::string &source, int port, const std::string &desc);

// An upload as kobdiag sends it.
Response upload(int port, const std::string &desc, const char *username = nullptr,
                const char *why = nullptr);

Response get(int port, const std::string &path);
// Every href="..." and action="..." of a page, in order, but for links
// within the page itself ("#content"), which have no path.
std::vector<std::string> linkTargets(const std::string &html);
Response getAt(const std::string &host, int port, const std::string &path);

// One request on the loopback address with extra header lines (each ending
// in CRLF) and a body.
Response request(int port, const std::string &method, const std::string &path,
                 const std::string &headers = "", const std::string &body = "");

// The first column of the first row an SQL statement gives on an SQLite
// database: "<none>" for no row or NULL, "<error: ...>" for an error.
std::string sqliteValue(const std::string &db, const std::string &sql);

// The value of the first header called name in a response, or "".
std::string header(const Response &r, const std::string &name);

std::string formEncode(const std::vector<std::pair<std::string, std::string>> &fields);

// The reference from "Report received: KOB-..." or empty.
std::string reference(const Response &r);

// The number of a reference given on day ("YYYYMMDD"): "KOB-" day "-" and 9
// or more digits.  -1 for anything else.
long long referenceNumber(const std::string &ref, const std::string &day);

// A report text as the database holds it (a zstd frame) and back, with
// the same library and level as kobreportd; "<not a zstd frame>" when it
// does not decompress.
std::string zstdFrame(const std::string &text);
std::string unzstd(const std::string &frame);

Response parse(const std::string &raw);

// What a socket yields until the peer closes it (or its receive time-out
// passes).
std::string readAll(int fd);

// Uploads every report at once, each from a thread of its own; returns
// their references in the same order (empty where none was given).
std::vector<std::string> uploadTogether(int port, const std::vector<std::string> &descs);

// A PostgreSQL server of its own on a free loopback port, in a temporary
// data directory, run as the "postgres" user.  available() is false with a
// reason when the server programs or the user are missing.
class Postgres {
  public:
    Postgres();
    ~Postgres();
    Postgres(const Postgres &) = delete;
    Postgres &operator=(const Postgres &) = delete;
    bool available() const { return ok_; }
    const std::string &reason() const { return reason_; }
    std::string url(const std::string &db = "postgres") const;
    // Runs SQL through psql; returns its standard output.
    std::string psql(const std::string &sql, const std::string &db = "postgres") const;
    // The path of one of the server's client programs (pg_dump, ...).
    std::string program(const std::string &name) const { return bin_ + "/" + name; }

  private:
    bool ok_ = false;
    std::string reason_, dir_, bin_;
    int port_ = 0;
};

int freePort();

// One PostgreSQL server for the whole test program.
Postgres &sharedPostgres();

// A database of its own for a test on the store named ("sqlite": a file in
// dir; "postgres": a new database on the shared server).  "" with reason
// set when that store cannot be had here.
std::string testDatabase(const std::string &store, const std::string &dir, std::string &reason);

// The first column of the first row an SQL statement gives on either kind
// of database, as sqliteValue() gives it.
std::string databaseValue(const std::string &db, const std::string &sql);

// A connection to 127.0.0.1:port from the loopback address given; -1 when
// it cannot be made.
int connectFrom(const std::string &source, int port);

// The server's log lines in a stream's text, each parsed as the JSON
// object it must be; lines that do not begin with "{" (a command's own
// messages) are left out, and one that begins so but does not parse
// throws.
std::vector<nlohmann::json> logLines(const std::string &text);
// Those of one event.
std::vector<nlohmann::json> logEvents(const std::string &text, const std::string &event);

// The lines of a server's standard error that are not routine: anything
// but a JSON log line at level debug or info (a warning, an error, or a
// sanitizer's finding).  "" for a clean run.
std::string unusualLines(const std::string &text);

// Today's date in UTC as references carry it, "YYYYMMDD".
std::string utcToday();

} // namespace reportd

#endif
