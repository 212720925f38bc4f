// Report texts as stored: zstd frames, and the rows from before
// compression as they came.

#ifndef KOBREPORTD_PACK_H
#define KOBREPORTD_PACK_H

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <cstddef>

namespace kobreportd {

// The text as a zstd frame, at zstd's level 1 unless another is given.
// Throws StoreError when it cannot compress.
std::string pack(std::string_view text, int level = 1);

// The text of a stored report of `size` bytes: `stored` itself when not
// packed.  Throws StoreError when a frame does not give back exactly that
// size, rather than show a damaged text as something it is not.
std::string unpack(const std::string &stored, bool packed, int64_t size);

// A stored report's text a piece at a time, never whole in memory.
// read() gives at most max bytes, 0 at the end; it throws StoreError when
// the frame is damaged or does not give back exactly `size` bytes.
class TextReader {
  public:
    // Several readers may share one stored text.
    TextReader(std::shared_ptr<const std::string> stored, bool packed, int64_t size);
    // The stored bytes from a source that gives them in order, a piece at
    // a time, and "" after the last.
    TextReader(std::function<std::string()> pieces, bool packed, int64_t size);
    ~TextReader();
    TextReader(const TextReader &) = delete;
    TextReader &operator=(const TextReader &) = delete;
    std::size_t read(char *buf, std::size_t max);

  private:
    void begin();
    // The next piece into view; false at the end.
    bool refill();

    std::shared_ptr<const std::string> stored_;
    std::function<std::string()> pieces_;
    std::string piece_;
    std::string_view input_; // what is in view of the stored bytes
    bool packed_;
    uint64_t size_, given_ = 0;
    std::size_t in_ = 0;
    void *stream_ = nullptr; // ZSTD_DStream
};

// A frame that names its own size, as pack() makes them, of at most
// `limit` bytes.  Throws StoreError as unpack() does.
std::string unpackFrame(const std::string &stored, uint64_t limit);

} // namespace kobreportd

#endif
