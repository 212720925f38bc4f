#include "webhook.h"

#include <fstream>
#include <iterator>
#include <sodium.h>

namespace kobreportd {

bool readWebhookSecret(const std::string &path, std::string &secret) {
    std::ifstream in(path, std::ios::binary);
    if (!in)
        return false;
    secret.assign(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
    while (!secret.empty() && (secret.back() == '\n' || secret.back() == '\r'))
        secret.pop_back();
    return !secret.empty();
}

std::string webhookSignature(const std::string &secret, std::time_t t, const std::string &body) {
    std::string stamp = std::to_string(static_cast<long long>(t));
    std::string signed_ = stamp + "." + body;
    crypto_auth_hmacsha256_state state;
    unsigned char mac[crypto_auth_hmacsha256_BYTES];
    crypto_auth_hmacsha256_init(&state, reinterpret_cast<const unsigned char *>(secret.data()),
                                secret.size());
    crypto_auth_hmacsha256_update(&state, reinterpret_cast<const unsigned char *>(signed_.data()),
                                  signed_.size());
    crypto_auth_hmacsha256_final(&state, mac);
    char hex[2 * sizeof mac + 1];
    sodium_bin2hex(hex, sizeof hex, mac, sizeof mac);
    return "t=" + stamp + ",v1=" + hex;
}

std::string webhookLink(const WebhookOptions &o, const std::string &path) {
    if (o.public_url.empty())
        return path;
    // The public URL ends with '/', the path begins with one.
    return o.public_url + path.substr(1);
}

} // namespace kobreportd
