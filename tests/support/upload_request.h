// kobdiag's upload request, byte for byte as the operator's server expects
// it, built here independently of the tool: for the tests of the upload and
// of whole runs, and for the operator's programs' tests and drivers.

#ifndef KOB_UPLOAD_REQUEST_H
#define KOB_UPLOAD_REQUEST_H

#include <cstddef>
#include <string>

namespace kobtest {

inline constexpr char kBoundary[] = "------kobvaneFormBoundaryj2U6RdY2ckKXjaso";
inline const std::string kDelimiter = std::string("--") + kBoundary;

// One form part as the operator's server reads it: no part headers beyond
// the disposition.
inline std::string formPart(const std::string &name, const std::string &content) {
    return kDelimiter + "\r\nContent-Disposition: form-data; name=\"" + name + "\"\r\n\r\n" +
           content + "\r\n";
}

inline std::string formEnd() {
    return kDelimiter + "--\r\n";
}

inline std::string requestHead(size_t bodyLength, const std::string &host) {
    return "POST /report/problem.php HTTP/1.1\r\n"
           "Connection: close\r\n"
           "Content-Length: " +
           std::to_string(bodyLength) +
           "\r\n"
           "Content-Type: multipart/form-data; boundary=" +
           kBoundary +
           "\r\n"
           "Host: " +
           host + "\r\n\r\n";
}

// The text up to its first zero byte, as "%.*s" passes it on.
inline std::string upToZero(const std::string &s) {
    return s.substr(0, s.find('\0'));
}

} // namespace kobtest

#endif
