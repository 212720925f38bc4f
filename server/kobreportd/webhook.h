// Deliveries to the alert webhook: what the receiver is told in one line
// (chat tools show `text` and ignore the rest), and the signature that lets
// it tell our posts from anyone else's.

#ifndef KOBREPORTD_WEBHOOK_H
#define KOBREPORTD_WEBHOOK_H

#include <ctime>
#include <string>

namespace kobreportd {

struct WebhookOptions {
    std::string url;    // "" posts nothing
    std::string secret; // "" sends no signature
    // The staff side as staff reach it ("https://staff.example.net/kob/"),
    // or "" when unknown: the links are then paths alone.
    std::string public_url;
    int tries = 3; // per delivery, with back-off between them
};

// Reads the secret from a file: its bytes without a final line break.
// False when the file cannot be read or holds nothing.
bool readWebhookSecret(const std::string &path, std::string &secret);

// "t=TIMESTAMP,v1=HEX": HMAC-SHA256 under secret over "TIMESTAMP.BODY".
std::string webhookSignature(const std::string &secret, std::time_t t, const std::string &body);

// A staff page's path ("/fleet/reports?...") as a link: under the public URL
// when there is one.
std::string webhookLink(const WebhookOptions &o, const std::string &path);

} // namespace kobreportd

#endif
