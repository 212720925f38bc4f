// The rules a new password must meet, the same for the command line, the
// pages and the API: 12 to 1,024 bytes of UTF-8, not all white space, not
// the account's name, and not one of the common passwords of a list the
// package ships (or the operator gives).

#ifndef KOBREPORTD_PASSWORDS_H
#define KOBREPORTD_PASSWORDS_H

#include <optional>
#include <string>
#include <unordered_set>

namespace kobreportd {

constexpr size_t kPasswordMinBytes = 12;
constexpr size_t kPasswordMaxBytes = 1024;

class PasswordRules {
  public:
    // The list at path, one password a line (compared without regard to
    // ASCII case).  nullopt with error set when it cannot be read.
    static std::optional<PasswordRules> fromFile(const std::string &path, std::string &error);
    // Where the list is when no file is named: beside the executable (a
    // build tree), else in ../share/kobreportd/ from it (an install).
    static std::string defaultPath();
    // "" when the password may be used, else why not: one sentence, the
    // same bytes wherever it is shown.
    std::string problem(const std::string &password, const std::string &account) const;
    size_t size() const { return common_.size(); }

  private:
    std::unordered_set<std::string> common_;
};

} // namespace kobreportd

#endif
