// What the segment walk targets share: every input becomes the segment file
// of the instance ".kobvane.vsm" in a directory of the fuzzer's own, which
// the readers find in the current directory.  The head's marker is put in
// place so that the inputs reach the walks instead of failing the first
// comparison; the head's unused word, which no reader looks at, carries the
// reader's options.  The target leaves the directory it was started in,
// so libFuzzer must be given absolute corpus and artifact paths: it reads
// the seed files only as it runs them.

#ifndef KOB_SEGMENT_FUZZ_H
#define KOB_SEGMENT_FUZZ_H

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <string>
#include <unistd.h>

namespace segfuzz {

constexpr char instance[] = ".kobvane.vsm";
constexpr size_t unusedAt = 8;

inline void enterTempDir() {
    static std::string dir;
    if (!dir.empty())
        return;
    const char *tmp = getenv("TMPDIR");
    std::string tmpl =
        std::string(tmp != nullptr && *tmp != '\0' ? tmp : "/tmp") + "/kobfuzz-segment.XXXXXX";
    if (mkdtemp(tmpl.data()) == nullptr || chdir(tmpl.c_str()) != 0)
        abort();
    dir = tmpl;
    // The directory goes when the fuzzer ends normally; a crash leaves it
    // for the input to be looked at beside the file.
    atexit([] {
        (void)unlink(instance);
        (void)rmdir(dir.c_str());
    });
}

// The input as the segment file, replacing the last one; the reader's
// options from the head's unused word (0 when the input is shorter).
inline uint64_t writeSegment(const uint8_t *data, size_t size) {
    enterTempDir();
    std::string bytes(reinterpret_cast<const char *>(data), size);
    if (bytes.size() >= 8)
        memcpy(bytes.data(), "VSMHEAD0", 8);
    uint64_t options = 0;
    if (bytes.size() >= unusedAt + sizeof options)
        memcpy(&options, bytes.data() + unusedAt, sizeof options);
    // A new file each time, as a daemon makes it: a reader's old mapping is
    // never cut short under it.
    (void)unlink(instance);
    int fd = open(instance, O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644);
    if (fd < 0)
        abort();
    size_t off = 0;
    while (off < bytes.size()) {
        ssize_t n = write(fd, bytes.data() + off, bytes.size() - off);
        if (n <= 0)
            abort();
        off += static_cast<size_t>(n);
    }
    if (close(fd) != 0)
        abort();
    return options;
}

} // namespace segfuzz

#endif
