// Driving kobreportd from tests and from the load and fault drivers: start
// and stop it, talk raw HTTP to it the way kobdiag does, and run a private
// PostgreSQL server for it.

#ifndef KOB_REPORTD_H
#define KOB_REPORTD_H

#include <string>
#include <sys/types.h>
#include <vector>

namespace reportd {

// kobreportd as a child process, listening on a free loopback port.
class Server {
  public:
    Server(const std::string &binary, const std::string &db,
           const std::vector<std::string> &extra = {});
    ~Server();
    Server(const Server &) = delete;
    Server &operator=(const Server &) = delete;

    int port() const { return port_; }
    const std::string &readyLine() const { return line_; }
    pid_t pid() const { return pid_; }
    // SIGTERM and wait; returns the wait status.
    int stop();
    // SIGKILL and wait.
    void kill();
    // Everything it wrote to standard error so far (after stop or kill).
    std::string errors() const;

  private:
    pid_t pid_ = -1;
    int port_ = 0;
    std::string line_;
    std::string errFile_;
};

struct Response {
    bool ok = false; // a response arrived
    int status = 0;
    std::string raw; // all bytes read until the server closed
    std::string body;
};

// Connects to 127.0.0.1:port, writes each piece with one write (as kobdiag
// writes its head and then its body), reads until the server closes.
Response exchange(int port, const std::vector<std::string> &pieces, int timeoutSeconds = 30);
// The same with another loopback address than 127.0.0.1.
Response exchangeAt(const std::string &host, int port, const std::vector<std::string> &pieces,
                    int timeoutSeconds = 30);

// An upload as kobdiag sends it.
Response upload(int port, const std::string &desc, const char *username = nullptr,
                const char *why = nullptr);

Response get(int port, const std::string &path);
Response getAt(const std::string &host, int port, const std::string &path);

// The reference from "Report received: KOB-..." or empty.
std::string reference(const Response &r);

Response parse(const std::string &raw);

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

  private:
    bool ok_ = false;
    std::string reason_, dir_, bin_;
    int port_ = 0;
};

int freePort();

} // namespace reportd

#endif
