// Debian's nginx in front of kobreportd, for the tests: the example site the
// kobreportd package ships, run as it is but for its ports, its upstreams and
// its certificate, which become free loopback ports, the test's kobreportd
// and a self-signed certificate made for the run.  nginx runs in the
// foreground as a child of the test, in a temporary directory, and ends
// with it.

#ifndef KOB_NGINX_H
#define KOB_NGINX_H

#include <condition_variable>
#include <mutex>
#include <string>
#include <sys/types.h>
#include <thread>

namespace nginx {

// Why no nginx can run here ("" when nginx and openssl are installed).
std::string missing();

// A self-signed certificate for 127.0.0.1 and its key, made with openssl in
// dir; throws std::runtime_error when openssl fails.
struct Certificate {
    std::string cert, key;
};
Certificate selfSigned(const std::string &dir);
// The SHA-256 of the certificate's public key, in base64, as Chromium's
// --ignore-certificate-errors-spki-list takes it: that key alone is
// trusted without a CA.
std::string publicKeyHash(const Certificate &c);

// The example site's ports, replaced: where nginx listens for the intake
// (its port 80) and for the staff side (its port 443, TLS), and
// kobreportd's two listeners behind it.
struct Ports {
    int intake = 0, staff = 0;
    int upstreamIntake = 0, upstreamStaff = 0;
};

class Proxy {
  public:
    // Runs nginx with the site in the file sitePath, in dir (which must
    // exist), and returns once it listens.  Throws std::runtime_error, with
    // what nginx said, when it does not start.
    Proxy(const std::string &dir, const std::string &sitePath, const Ports &ports,
          const Certificate &certificate);
    ~Proxy();
    Proxy(const Proxy &) = delete;
    Proxy &operator=(const Proxy &) = delete;

    // The configuration nginx runs with.
    const std::string &config() const { return config_; }
    // What nginx wrote on its standard error so far.
    std::string log() const;

  private:
    void readLog(int fd);
    void stop();

    pid_t pid_ = -1;
    std::string config_;
    std::thread reader_;
    mutable std::mutex mutex_;
    std::condition_variable changed_;
    std::string log_;
    bool ended_ = false;
};

} // namespace nginx

#endif
