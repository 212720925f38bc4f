// The staff listener's certificate and key, replaceable while it runs: the
// TLS library asks for them at each handshake, so a renewed certificate is
// presented from the next connection on, with no restart.

#ifndef KOBREPORTD_CERTIFICATES_H
#define KOBREPORTD_CERTIFICATES_H

#include <memory>
#include <string>

namespace kobreportd {

class Certificates {
  public:
    Certificates();
    ~Certificates();
    Certificates(const Certificates &) = delete;
    Certificates &operator=(const Certificates &) = delete;

    // Takes a PEM certificate chain and its private key.  False with error
    // set, and the ones in use kept, when they cannot be used together.
    bool load(const std::string &certPem, const std::string &keyPem, std::string &error);

    // The handshake's callback (a gnutls_certificate_retrieve_function2)
    // and what to pass the library for it.
    static void *callback();

  private:
    struct Impl;
    std::unique_ptr<Impl> impl_;
};

} // namespace kobreportd

#endif
