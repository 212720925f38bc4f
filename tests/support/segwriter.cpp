// The write side of a shared segment file.

#include "segwriter.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <stdexcept>
#include <sys/mman.h>
#include <unistd.h>

namespace kobseg {

namespace {

[[noreturn]] void fail(const std::string &what) {
    throw std::runtime_error(what + ": " + strerror(errno));
}

void putText(char *field, size_t width, std::string_view text) {
    memset(field, 0, width);
    memcpy(field, text.data(), text.size() < width ? text.size() : width - 1);
}

} // namespace

Segment::Segment(const std::string &path, uint64_t size, uint32_t seq) : path_(path), size_(size) {
    if (size < headSize)
        throw std::invalid_argument("segment smaller than its head");
    // A reader may still map the old file: give it a new inode instead.
    (void)unlink(path.c_str());
    int fd = open(path.c_str(), O_RDWR | O_CREAT | O_EXCL, 0644);
    if (fd < 0)
        fail("open " + path);
    if (ftruncate(fd, static_cast<off_t>(size)) != 0) {
        close(fd);
        fail("ftruncate " + path);
    }
    void *p = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    close(fd);
    if (p == MAP_FAILED)
        fail("mmap " + path);
    base_ = static_cast<char *>(p);
    memcpy(base_, "VSMHEAD0", 8);
    put64(headSegSizeAt, size);
    put64(headFirstAt, 0);
    setSeq(seq);
}

Segment::~Segment() {
    if (base_ != nullptr)
        munmap(base_, size_);
}

uint64_t Segment::addChunk(std::string_view cls, std::string_view type, std::string_view ident,
                           uint64_t len) {
    uint64_t off = (free_ + 7) / 8 * 8;
    if (off + chunkHeaderSize + len > size_)
        throw std::length_error("chunk does not fit in the segment");
    char *c = base_ + off;
    memcpy(c, "VSMCHUNK", 8);
    put64(off + chunkLenAt, len);
    put64(off + chunkNextAt, 0);
    putText(c + chunkClassAt, 8, cls);
    putText(c + chunkTypeAt, 8, type);
    putText(c + chunkIdentAt, 64, ident);
    if (last_ == 0)
        put64(headFirstAt, off);
    else
        put64(last_ + chunkNextAt, off);
    last_ = off;
    free_ = off + chunkHeaderSize + len;
    return off;
}

void Segment::setSeq(uint32_t seq) {
    __atomic_store_n(reinterpret_cast<uint32_t *>(base_ + headSeqAt), seq, __ATOMIC_RELEASE);
}

uint32_t Segment::seq() const {
    return __atomic_load_n(reinterpret_cast<uint32_t *>(base_ + headSeqAt), __ATOMIC_ACQUIRE);
}

void Segment::setCounter(uint64_t chunk, unsigned i, uint64_t value) {
    __atomic_store_n(reinterpret_cast<uint64_t *>(payload(chunk) + 8 * i), value, __ATOMIC_RELAXED);
}

void Segment::put64(uint64_t off, uint64_t v) {
    memcpy(base_ + off, &v, sizeof v);
}

void Segment::put32(uint64_t off, uint32_t v) {
    memcpy(base_ + off, &v, sizeof v);
}

uint64_t Segment::get64(uint64_t off) const {
    uint64_t v;
    memcpy(&v, base_ + off, sizeof v);
    return v;
}

void Segment::remove() {
    setSeq(0);
    (void)unlink(path_.c_str());
}

LogRing::LogRing(Segment &seg, uint64_t chunk, uint32_t gen)
    : ring_(reinterpret_cast<uint32_t *>(seg.payload(chunk))),
      words_(seg.get64(chunk + chunkLenAt) / 4) {
    if (words_ < 2)
        throw std::length_error("ring too small");
    putWord(1, endMarker);
    putWord(0, gen);
}

uint32_t LogRing::word(uint64_t i) const {
    return __atomic_load_n(&ring_[i], __ATOMIC_ACQUIRE);
}

void LogRing::putWord(uint64_t i, uint32_t v) {
    __atomic_store_n(&ring_[i], v, __ATOMIC_RELEASE);
}

bool LogRing::append(unsigned tag, uint32_t id, unsigned side, std::string_view payload) {
    uint64_t need = 2 + (payload.size() + 3) / 4;
    if (payload.size() > 0xffff || 1 + need + 1 > words_)
        return false;
    if (pos_ + need + 1 > words_)
        wrap();
    putWord(pos_ + need, endMarker);
    uint32_t *body = &ring_[pos_ + 2];
    memset(body, 0, (need - 2) * 4);
    memcpy(body, payload.data(), payload.size());
    putWord(pos_ + 1, recordWord1(id, side));
    putWord(pos_, recordWord0(tag, static_cast<unsigned>(payload.size())));
    pos_ += need;
    return true;
}

void LogRing::wrap() {
    // The start must read as the end before the reader is sent there.
    putWord(1, endMarker);
    putWord(pos_, wrapMarker);
    pos_ = 1;
}

void LogRing::restart(uint32_t gen) {
    putWord(1, endMarker);
    putWord(0, gen);
    pos_ = 1;
}

} // namespace kobseg
