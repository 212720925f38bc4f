#include "certificates.h"

#include <atomic>
#include <gnutls/abstract.h>
#include <gnutls/gnutls.h>
#include <mutex>
#include <vector>

namespace kobreportd {

namespace {

// One certificate chain with its key, as the handshake wants them.
struct Pair {
    std::vector<gnutls_pcert_st> chain;
    gnutls_privkey_t key = nullptr;
    ~Pair() {
        for (auto &c : chain)
            gnutls_pcert_deinit(&c);
        if (key)
            gnutls_privkey_deinit(key);
    }
};

// Only one listener uses it: the callback has no argument to find its
// own, so the pair in use is the process's.
std::atomic<Pair *> current{nullptr};

int retrieve(gnutls_session_t, const gnutls_datum_t *, int, const gnutls_pk_algorithm_t *, int,
             gnutls_pcert_st **pcert, unsigned int *pcertLength, gnutls_privkey_t *privkey) {
    Pair *p = current.load();
    if (!p)
        return -1;
    *pcert = p->chain.data();
    *pcertLength = static_cast<unsigned>(p->chain.size());
    *privkey = p->key;
    return 0;
}

gnutls_datum_t datum(const std::string &s) {
    return gnutls_datum_t{reinterpret_cast<unsigned char *>(const_cast<char *>(s.data())),
                          static_cast<unsigned>(s.size())};
}

// Whether the key belongs to the chain's first certificate, checked the
// way the library itself would when it is given both.
bool matching(const std::string &certPem, const std::string &keyPem) {
    gnutls_certificate_credentials_t cred = nullptr;
    if (gnutls_certificate_allocate_credentials(&cred) < 0)
        return false;
    gnutls_datum_t c = datum(certPem), k = datum(keyPem);
    int rc = gnutls_certificate_set_x509_key_mem(cred, &c, &k, GNUTLS_X509_FMT_PEM);
    gnutls_certificate_free_credentials(cred);
    return rc >= 0;
}

} // namespace

struct Certificates::Impl {
    std::mutex mutex;
    // Every pair ever loaded stays until the end: a handshake that began
    // with the old one may still be using it.
    std::vector<std::unique_ptr<Pair>> loaded;
};

Certificates::Certificates() : impl_(std::make_unique<Impl>()) {}

Certificates::~Certificates() {
    current = nullptr;
}

bool Certificates::load(const std::string &certPem, const std::string &keyPem, std::string &error) {
    error = "the certificate or key cannot be used";
    if (!matching(certPem, keyPem))
        return false;
    auto pair = std::make_unique<Pair>();
    unsigned n = 16;
    pair->chain.resize(n);
    gnutls_datum_t c = datum(certPem), k = datum(keyPem);
    if (gnutls_pcert_list_import_x509_raw(pair->chain.data(), &n, &c, GNUTLS_X509_FMT_PEM, 0) < 0) {
        pair->chain.clear();
        return false;
    }
    pair->chain.resize(n);
    if (gnutls_privkey_init(&pair->key) < 0 ||
        gnutls_privkey_import_x509_raw(pair->key, &k, GNUTLS_X509_FMT_PEM, nullptr, 0) < 0)
        return false;
    std::lock_guard<std::mutex> hold(impl_->mutex);
    current = pair.get();
    impl_->loaded.push_back(std::move(pair));
    error.clear();
    return true;
}

void *Certificates::callback() {
    return reinterpret_cast<void *>(&retrieve);
}

} // namespace kobreportd
