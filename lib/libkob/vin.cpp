// Instance names: which daemon's segment file a reader opens.

#include "vin.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string_view>

#include "odr.h"
#include "vas.h"

namespace {

// One file per daemon: the client, the flow and the run daemon.
constexpr std::string_view knownNames[] = {".kobvane.vsm", ".kobflow.vsm", ".kobrun.vsm"};

} // namespace

extern "C" int VIN_N_Arg(const char *n_arg, char **name, char **dir, char **vsl) {
    VAS_ZERO(name);
    VAS_ZERO(dir);
    VAS_NOTNULL(vsl);
    VAS_NOTNULL(n_arg);

    // The name may go on after the known one; what is stored is the known
    // name, so the reader always opens one of the three files.
    std::string_view given(n_arg);
    for (std::string_view known : knownNames) {
        if (given.starts_with(known)) {
            *vsl = ODR_strndup(known.data(), known.size());
            VAS_NOTNULL(*vsl);
            return 0;
        }
    }
    fprintf(stderr, "n_arg %s\n", n_arg);
    VAS_WRONG();
}
