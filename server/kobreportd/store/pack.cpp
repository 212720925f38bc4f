#include "pack.h"

#include <algorithm>
#include <cstring>
#include <memory>
#include <zstd.h>

#include "sql.h"

namespace kobreportd {

// Reports are kept as zstd frames: their logs shrink several times over,
// and with them the database, its log and every sync to disk before an
// answer.  Level 1 keeps up with the intake.
std::string pack(std::string_view text, int level) {
    thread_local std::unique_ptr<ZSTD_CCtx, size_t (*)(ZSTD_CCtx *)> cctx(ZSTD_createCCtx(),
                                                                          ZSTD_freeCCtx);
    if (!cctx)
        throw StoreError("cannot compress the report: out of memory");
    // Left uninitialised: of a large report's bound only the compressed
    // part is ever touched.
    size_t bound = ZSTD_compressBound(text.size());
    std::unique_ptr<char[]> out(new char[bound]);
    size_t n = ZSTD_compressCCtx(cctx.get(), out.get(), bound, text.data(), text.size(), level);
    if (ZSTD_isError(n))
        throw StoreError(std::string("cannot compress the report: ") + ZSTD_getErrorName(n));
    return std::string(out.get(), n);
}

std::string unpack(const std::string &stored, bool packed, int64_t size) {
    if (!packed)
        return stored;
    unsigned long long want = ZSTD_getFrameContentSize(stored.data(), stored.size());
    if (want == ZSTD_CONTENTSIZE_ERROR || want == ZSTD_CONTENTSIZE_UNKNOWN ||
        want != static_cast<unsigned long long>(size))
        throw StoreError("a stored report is damaged: its text does not decompress");
    std::string text(static_cast<size_t>(want), '\0');
    size_t n = ZSTD_decompress(text.data(), text.size(), stored.data(), stored.size());
    if (ZSTD_isError(n) || n != want)
        throw StoreError("a stored report is damaged: its text does not decompress");
    return text;
}

TextReader::TextReader(std::shared_ptr<const std::string> stored, bool packed, int64_t size)
    : stored_(std::move(stored)), input_(*stored_), packed_(packed),
      size_(static_cast<uint64_t>(size)) {
    begin();
}

TextReader::TextReader(std::function<std::string()> pieces, bool packed, int64_t size)
    : pieces_(std::move(pieces)), packed_(packed), size_(static_cast<uint64_t>(size)) {
    refill();
    begin();
}

void TextReader::begin() {
    if (!packed_)
        return;
    // A frame that does not say it holds this many bytes is refused before
    // anything of it is sent.  Its header is at most 18 bytes, in the
    // first piece.
    if (ZSTD_getFrameContentSize(input_.data(), input_.size()) != size_)
        throw StoreError("a stored report is damaged: its text does not decompress");
    if (!(stream_ = ZSTD_createDStream()))
        throw StoreError("cannot read the report: out of memory");
}

bool TextReader::refill() {
    if (!pieces_)
        return false;
    piece_ = pieces_();
    input_ = piece_;
    in_ = 0;
    return !piece_.empty();
}

TextReader::~TextReader() {
    ZSTD_freeDStream(static_cast<ZSTD_DStream *>(stream_));
}

std::size_t TextReader::read(char *buf, std::size_t max) {
    const char *damaged = "a stored report is damaged: its text does not decompress";
    if (!packed_) {
        if (in_ == input_.size() && !refill())
            return 0;
        std::size_t n = std::min(max, input_.size() - in_);
        std::copy_n(input_.data() + in_, n, buf);
        in_ += n;
        given_ += n;
        if (given_ > size_)
            throw StoreError(damaged);
        return n;
    }
    ZSTD_outBuffer out{buf, max, 0};
    while (out.pos == 0) {
        // Called even with no new input: what it holds back is flushed.
        ZSTD_inBuffer in{input_.data(), input_.size(), in_};
        size_t rc = ZSTD_decompressStream(static_cast<ZSTD_DStream *>(stream_), &out, &in);
        in_ = in.pos;
        if (ZSTD_isError(rc))
            throw StoreError(damaged);
        if (out.pos > 0 || rc == 0)
            break; // something to give, or the frame's end
        if (in_ == input_.size() && !refill())
            break; // all of it read
    }
    given_ += out.pos;
    if (given_ > size_ || (out.pos == 0 && given_ != size_))
        throw StoreError(damaged);
    return out.pos;
}

std::string unpackFrame(const std::string &stored, uint64_t limit) {
    unsigned long long size = ZSTD_getFrameContentSize(stored.data(), stored.size());
    if (size == ZSTD_CONTENTSIZE_ERROR || size == ZSTD_CONTENTSIZE_UNKNOWN || size > limit)
        throw StoreError("a stored report is damaged: its text does not decompress");
    return unpack(stored, true, static_cast<int64_t>(size));
}

} // namespace kobreportd
