// The write side of a shared segment file, for tests, tools and benchmarks:
// a head, a chain of chunks, a log ring to append records to, and counter
// blocks.  It writes the file layout by its own offsets, independently of
// the reader's records, and leaves the file unlocked so that readers may
// open it at any time.  Every store goes straight into a shared mapping, so
// a reader in another process sees it at once.

#ifndef KOB_SEGWRITER_H
#define KOB_SEGWRITER_H

#include <cstdint>
#include <string>
#include <string_view>

namespace kobseg {

// Layout of the file.
constexpr uint64_t headSize = 40;
constexpr uint64_t chunkHeaderSize = 104;
constexpr uint64_t headSegSizeAt = 16, headFirstAt = 24, headSeqAt = 32;
constexpr uint64_t chunkLenAt = 8, chunkNextAt = 16, chunkClassAt = 24, chunkTypeAt = 32,
                   chunkIdentAt = 40;

// Ring words.
constexpr uint32_t endMarker = 0xff454545u;
constexpr uint32_t wrapMarker = 0xff575757u;
constexpr uint32_t sideA = 1, sideB = 2;

class Segment {
  public:
    // Make path afresh (an existing file is unlinked first, never truncated
    // under a reader's mapping) with size zero bytes and a head: marker,
    // seg_size = size, no chunk, alloc_seq = seq.
    Segment(const std::string &path, uint64_t size, uint32_t seq = 1);
    ~Segment();
    Segment(const Segment &) = delete;
    Segment &operator=(const Segment &) = delete;

    // Put a chunk at the next free 8-byte boundary and link it at the end
    // of the chain; returns its offset.  The texts are cut to their fields.
    uint64_t addChunk(std::string_view cls, std::string_view type, std::string_view ident,
                      uint64_t len);

    // Where the payload of the chunk at off starts.
    char *payload(uint64_t chunk) { return base_ + chunk + chunkHeaderSize; }

    void setSeq(uint32_t seq);
    uint32_t seq() const;
    // Counter i of a counter chunk.
    void setCounter(uint64_t chunk, unsigned i, uint64_t value);

    // Raw access for files that break the rules.
    char *base() { return base_; }
    uint64_t size() const { return size_; }
    void put64(uint64_t off, uint64_t v);
    void put32(uint64_t off, uint32_t v);
    uint64_t get64(uint64_t off) const;

    // The daemon going away: alloc_seq to 0, then the file is unlinked.
    void remove();

    const std::string &path() const { return path_; }

  private:
    std::string path_;
    char *base_ = nullptr;
    uint64_t size_ = 0;
    uint64_t free_ = headSize; // next free offset
    uint64_t last_ = 0;        // last chunk of the chain, 0: none
};

// The log ring in the payload of a "Log" chunk.  Records are published the
// way a concurrent reader needs: the new end marker first, then the body,
// then the record's first word in place of the old end marker.
class LogRing {
  public:
    // Start a ring: generation word gen, an end marker at offset 4.
    LogRing(Segment &seg, uint64_t chunk, uint32_t gen = 1);

    // Append a record (tag 0-255, identifier below 2^30, side flags
    // sideA/sideB, payload below 64 KiB).  When the rest of the ring cannot
    // hold it and an end marker, a wrap marker sends the ring back to its
    // start first.  false when the ring could never hold it.
    bool append(unsigned tag, uint32_t id, unsigned side, std::string_view payload);

    // Put a wrap marker at the current position and continue at the start.
    void wrap();
    // Restart the ring with a new generation: records begin at the start
    // again, the old end marker stays where it was.
    void restart(uint32_t gen);

    // Word i of the payload (0 is the generation word).
    uint32_t word(uint64_t i) const;
    void putWord(uint64_t i, uint32_t v);
    // The word index where the next record goes.
    uint64_t pos() const { return pos_; }
    uint64_t words() const { return words_; }

  private:
    uint32_t *ring_;
    uint64_t words_;
    uint64_t pos_ = 1;
};

// The first word and the second word of a record.
constexpr uint32_t recordWord0(unsigned tag, unsigned len) {
    return (static_cast<uint32_t>(tag) << 24) | (len & 0xffffu);
}
constexpr uint32_t recordWord1(uint32_t id, unsigned side) {
    return (id & 0x3fffffffu) | ((side & sideA) ? 1u << 30 : 0) | ((side & sideB) ? 1u << 31 : 0);
}

} // namespace kobseg

#endif
