// What koblog and kobstat share.

#include "segment_tool.h"

#include <cstdio>
#include <cstdlib>

#include "vsl.h"
#include "vsm.h"

namespace segtool {

bool knownInstance(std::string_view name) {
    for (std::string_view known : {".kobvane.vsm", ".kobflow.vsm", ".kobrun.vsm"})
        if (name.starts_with(known))
            return true;
    return false;
}

std::string withoutNewline(const char *text) {
    std::string s = text == nullptr ? "unknown error" : text;
    while (!s.empty() && s.back() == '\n')
        s.pop_back();
    return s;
}

VSM_data *openSegment(const char *prog, const char *instance, Reader reader) {
    if (!knownInstance(instance)) {
        fprintf(stderr, "%s: unknown instance %s\n", prog, instance);
        return nullptr;
    }
    VSM_data *vd = VSM_New();
    if (vd == nullptr) {
        fprintf(stderr, "%s: out of memory\n", prog);
        return nullptr;
    }
    if (reader == Reader::Log)
        (void)VSL_Arg(vd, 'n', instance);
    else
        (void)VSM_n_Arg(vd, instance);
    if (VSM_Open(vd) != 0) {
        fprintf(stderr, "%s: %s\n", prog, withoutNewline(VSM_Error(vd)).c_str());
        VSM_Delete(vd);
        return nullptr;
    }
    return vd;
}

} // namespace segtool
