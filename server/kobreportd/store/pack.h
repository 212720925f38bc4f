// Report texts as stored: zstd frames, and the rows from before
// compression as they came.

#ifndef KOBREPORTD_PACK_H
#define KOBREPORTD_PACK_H

#include <cstdint>
#include <string>
#include <string_view>

namespace kobreportd {

// The text as a zstd frame.  Throws StoreError when it cannot compress.
std::string pack(std::string_view text);

// The text of a stored report of `size` bytes: `stored` itself when not
// packed.  Throws StoreError when a frame does not give back exactly that
// size, rather than show a damaged text as something it is not.
std::string unpack(const std::string &stored, bool packed, int64_t size);

// A frame that names its own size, as pack() makes them, of at most
// `limit` bytes.  Throws StoreError as unpack() does.
std::string unpackFrame(const std::string &stored, uint64_t limit);

} // namespace kobreportd

#endif
