#include "passwords.h"

#include <fstream>
#include <unistd.h>

namespace kobreportd {

namespace {

std::string lower(std::string s) {
    for (char &c : s)
        if (c >= 'A' && c <= 'Z')
            c = static_cast<char>(c - 'A' + 'a');
    return s;
}

// Each code point's value, or nullopt when s is not well-formed UTF-8
// (overlong forms, surrogates and values past U+10FFFF are not).
std::optional<std::u32string> decodeUtf8(const std::string &s) {
    std::u32string out;
    for (size_t i = 0; i < s.size();) {
        auto b = static_cast<unsigned char>(s[i]);
        size_t n = b < 0x80 ? 1 : (b >> 5) == 6 ? 2 : (b >> 4) == 14 ? 3 : (b >> 3) == 30 ? 4 : 0;
        if (n == 0 || i + n > s.size())
            return std::nullopt;
        char32_t cp = n == 1 ? b : b & (0x7f >> n);
        for (size_t k = 1; k < n; k++) {
            auto c = static_cast<unsigned char>(s[i + k]);
            if ((c >> 6) != 2)
                return std::nullopt;
            cp = (cp << 6) | (c & 0x3f);
        }
        static constexpr char32_t least[] = {0, 0, 0x80, 0x800, 0x10000};
        if (cp < least[n] || cp > 0x10ffff || (cp >= 0xd800 && cp <= 0xdfff))
            return std::nullopt;
        out.push_back(cp);
        i += n;
    }
    return out;
}

bool space(char32_t c) {
    return (c >= 0x09 && c <= 0x0d) || c == 0x20 || c == 0x85 || c == 0xa0 || c == 0x1680 ||
           (c >= 0x2000 && c <= 0x200a) || c == 0x2028 || c == 0x2029 || c == 0x202f ||
           c == 0x205f || c == 0x3000;
}

} // namespace

std::optional<PasswordRules> PasswordRules::fromFile(const std::string &path, std::string &error) {
    std::ifstream in(path);
    if (!in) {
        error = "cannot read the list of common passwords " + path;
        return std::nullopt;
    }
    PasswordRules r;
    for (std::string line; std::getline(in, line);) {
        if (!line.empty() && line.back() == '\r')
            line.pop_back();
        if (!line.empty())
            r.common_.insert(lower(line));
    }
    if (r.common_.empty()) {
        error = "the list of common passwords " + path + " is empty";
        return std::nullopt;
    }
    return r;
}

std::string PasswordRules::defaultPath() {
    char exe[4096];
    ssize_t n = readlink("/proc/self/exe", exe, sizeof exe - 1);
    std::string dir = n > 0 ? std::string(exe, static_cast<size_t>(n)) : std::string();
    dir.resize(dir.rfind('/') + 1);
    std::string beside = dir + "common-passwords.txt";
    if (access(beside.c_str(), R_OK) == 0)
        return beside;
    return dir + "../share/kobreportd/common-passwords.txt";
}

std::string PasswordRules::problem(const std::string &password, const std::string &account) const {
    if (password.size() < kPasswordMinBytes || password.size() > kPasswordMaxBytes)
        return "A password is 12 to 1,024 bytes long.";
    auto points = decodeUtf8(password);
    if (!points)
        return "A password is text in UTF-8.";
    bool blank = true;
    for (char32_t c : *points)
        blank = blank && space(c);
    if (blank)
        return "A password is not all white space.";
    std::string folded = lower(password);
    if (folded == lower(account))
        return "A password is not the name of its account.";
    if (common_.count(folded))
        return "That password is one of the 10,000 most common; choose another.";
    return "";
}

} // namespace kobreportd
