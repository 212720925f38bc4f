// Bit sets, grown in whole 1024-bit blocks.

#include "vbm.h"

#include <cstdlib>
#include <cstring>

#include "vas.h"

namespace {

constexpr unsigned blockBits = 1024;
constexpr unsigned wordBits = 32;

} // namespace

extern "C" {

void vbit_expand(struct vbitmap *vb, unsigned bit) {
    bit = (bit + blockBits - 1) / blockBits * blockBits;
    if (bit <= vb->nbits)
        return;
    void *p = realloc(vb->bits, bit / 8);
    VAS_CHECK(p != nullptr, "p != NULL");
    vb->bits = static_cast<uint32_t *>(p);
    memset(reinterpret_cast<char *>(vb->bits) + vb->nbits / 8, 0, (bit - vb->nbits) / 8);
    vb->nbits = bit;
}

struct vbitmap *vbit_init(unsigned initial) {
    auto *vb = static_cast<vbitmap *>(calloc(1, sizeof(vbitmap)));
    VAS_CHECK(vb != nullptr, "vb != NULL");
    vbit_expand(vb, initial == 0 ? blockBits : initial);
    return vb;
}

void vbit_set(struct vbitmap *vb, unsigned bit) {
    if (bit >= vb->nbits)
        vbit_expand(vb, bit + 1);
    vb->bits[bit / wordBits] |= 1u << (bit % wordBits);
}

void vbit_clr(struct vbitmap *vb, unsigned bit) {
    if (bit < vb->nbits)
        vb->bits[bit / wordBits] &= ~(1u << (bit % wordBits));
}

unsigned vbit_isset(const struct vbitmap *vb, unsigned bit) {
    if (bit >= vb->nbits)
        return 0;
    return vb->bits[bit / wordBits] & (1u << (bit % wordBits));
}

void vbit_free(struct vbitmap *vb) {
    if (vb == nullptr)
        return;
    free(vb->bits);
    free(vb);
}

} // extern "C"
