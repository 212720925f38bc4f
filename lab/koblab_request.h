// How koblab's report server decides that a POST has arrived whole: apart
// from the server so that the fuzz target parses requests exactly as the
// server does.

#ifndef KOBLAB_REQUEST_H
#define KOBLAB_REQUEST_H

#include <cstdlib>
#include <cstring>
#include <string>
#include <strings.h>

namespace koblab {

// The bytes of a request so far make a whole one: a head, and as many body
// bytes as its Content-Length says (none without one).
inline bool requestComplete(const std::string &data) {
    auto end = data.find("\r\n\r\n");
    if (end == std::string::npos)
        return false;
    size_t bodyStart = end + 4;
    size_t length = 0;
    size_t pos = 0;
    while ((pos = data.find("\r\n", pos)) != std::string::npos && pos < end) {
        pos += 2;
        static const char name[] = "content-length:";
        if (strncasecmp(data.c_str() + pos, name, sizeof name - 1) == 0) {
            length = strtoul(data.c_str() + pos + sizeof name - 1, nullptr, 10);
            break;
        }
    }
    // Compared as what is left, since a huge length would wrap the sum.
    return length <= data.size() - bodyStart;
}

} // namespace koblab

#endif
