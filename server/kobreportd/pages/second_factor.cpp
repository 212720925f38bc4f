// The second factor's pages: setting one up, its recovery codes, and the
// code asked for after the password.

#include "pages.h"

#include <memory>
#include <qrencode.h>

#include "parts.h"

namespace kobreportd::pages {

using html::Html;
using html::text;

Html qrCode(const std::string &data) {
    std::unique_ptr<QRcode, decltype(&QRcode_free)> qr(
        QRcode_encodeString(data.c_str(), 0, QR_ECLEVEL_M, QR_MODE_8, 1), &QRcode_free);
    Html h;
    if (!qr)
        return h;
    // Four modules of quiet zone around the symbol, as readers need.
    int w = qr->width, side = w + 8;
    h << "<svg xmlns=\"http://www.w3.org/2000/svg\" class=\"qr\" id=\"qr\" width=\"" << side * 6
      << "\" height=\"" << side * 6 << "\" viewBox=\"0 0 " << side << " " << side
      << "\" shape-rendering=\"crispEdges\" role=\"img\" aria-label=\"QR code\">"
         "<rect width=\"100%\" height=\"100%\" fill=\"#fff\"/><path fill=\"#000\" d=\"";
    for (int y = 0; y < w; y++)
        for (int x = 0; x < w; x++)
            if (qr->data[y * w + x] & 1)
                h << "M" << x + 4 << " " << y + 4 << "h1v1h-1z";
    h << "\"/></svg>";
    return h;
}

Html secondFactor(bool enrolled, int recoveryCodesLeft, bool required, const Viewer &v,
                  const std::string &msg) {
    Html b;
    b << "<h2>Second factor</h2>\n";
    if (!msg.empty())
        b << "<p class=\"notice\" id=\"message\">" << text(msg) << "</p>\n";
    if (enrolled) {
        b << "<p id=\"status\">Your account asks for a code from your authenticator app after "
             "the password. Recovery codes left: "
          << recoveryCodesLeft
          << ".</p>\n<p>An admin can remove it if you lose the app and its recovery codes.</p>\n";
        return b;
    }
    if (required)
        b << "<p class=\"error\" id=\"required\">This server requires a second factor for your "
             "account: set one up to go on.</p>\n";
    b << "<p id=\"status\">Your account has no second factor.</p>\n<form method=\"post\" "
         "action=\""
      << v.links.href("/account/second-factor") << "\">" << csrfField(v)
      << "<button class=\"plain\" type=\"submit\" id=\"enrol\">Set up a second factor</button>"
         "</form>\n";
    return b;
}

Html secondFactorEnrol(const std::string &secret, const std::string &uri, const Viewer &v,
                       const std::string &msg) {
    Html b;
    b << "<h2>Set up a second factor</h2>\n";
    if (!msg.empty())
        b << "<p class=\"error\" id=\"message\">" << text(msg) << "</p>\n";
    b << "<p>Scan this code with an authenticator app, or type the key into it by hand; then "
         "enter the six-digit code it shows.</p>\n"
      << qrCode(uri) << "\n<p>Key: <code class=\"token\" id=\"secret\">" << text(secret)
      << "</code></p>\n<form class=\"signin\" method=\"post\" action=\""
      << v.links.href("/account/second-factor/confirm") << "\">" << csrfField(v)
      << "<label>Code <input name=\"code\" id=\"code\" inputmode=\"numeric\" "
         "autocomplete=\"one-time-code\" required></label>"
         "<button class=\"plain\" type=\"submit\" id=\"confirm\">Confirm</button></form>\n";
    return b;
}

Html recoveryCodes(const std::vector<std::string> &codes, const Viewer &) {
    Html b;
    b << "<h2>Second factor set up</h2>\n<p class=\"notice\" id=\"message\">Your account now "
         "asks for a code after the password. Keep these recovery codes somewhere safe: each "
         "signs you in once without the app, and they are shown this once.</p>\n"
         "<ul id=\"recovery\">";
    for (const auto &c : codes)
        b << "<li><code>" << text(c) << "</code></li>";
    b << "</ul>\n";
    return b;
}

Html signInCode(const std::string &csrf, const std::string &next, const std::string &msg,
                const Links &links) {
    Html b;
    b << "<h2>Sign in: second factor</h2>\n";
    if (!msg.empty())
        b << "<p class=\"error\" id=\"message\">" << text(msg) << "</p>\n";
    b << "<form class=\"signin\" method=\"post\" action=\"" << links.href("/signin/code")
      << "\"><input type=\"hidden\" name=\"csrf\" value=\"" << text(csrf)
      << "\"><input type=\"hidden\" name=\"next\" value=\"" << text(next)
      << "\"><label>Code from your app, or a recovery code <input name=\"code\" id=\"code\" "
         "autocomplete=\"one-time-code\" required></label>"
         "<button class=\"plain\" type=\"submit\" id=\"signin\">Sign in</button></form>\n";
    return b;
}

} // namespace kobreportd::pages
