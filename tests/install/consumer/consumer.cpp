// A C++ program that uses the installed libkob and libkobec; like the C one,
// it defines VAS_Fail and with "misuse" lets the library's check reach it.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>
#include <string_view>

#include <libkob.h>

extern "C" void VAS_Fail(const char *func, const char *file, int line, const char *cond, int kind) {
    std::printf("assert fail! %s %s:%d %s %d\n", func, file, line, cond, kind);
    std::fflush(stdout);
    std::abort();
}

namespace {

struct VsbDeleter {
    void operator()(vsb *s) const { vsb_delete(s); }
};

} // namespace

int main(int argc, char **argv) {
    std::unique_ptr<vsb, VsbDeleter> buffer(vsb_newauto());
    if (!buffer)
        return 2;
    if (argc > 1 && std::string_view(argv[1]) == "misuse") {
        // Reading a buffer before vsb_finish is a broken invariant.
        std::puts(vsb_data(buffer.get()));
        return 3;
    }
    uint64_t bytes = 0;
    const char *err = NUM_toBytes("1.5k", &bytes, 0);
    std::string text = "C++: ";
    text += err == nullptr ? "1.5k is" : err;
    vsb_printf(buffer.get(), "%s %llu", text.c_str(), static_cast<unsigned long long>(bytes));
    vsb_finish(buffer.get());
    std::printf("%s bytes, %d characters\n", vsb_data(buffer.get()), vsb_len(buffer.get()));
    std::fflush(stdout);
    KOBEC_showMsg_debug(KOBEC_LEVEL_INFO, "KOB-0001", nullptr, "main", 1, "from %s", "C++");
    return VTIM_mono() > 0.0 ? 0 : 4;
}
