#include "vsm.h"

#include <cstdint>
#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "segtest.h"
#include "segwriter.h"

using kobseg::Segment;
using kobtest::platformAssert;
using kobtest::runChild;

namespace {

const char kVsm[] = "lib/libkob/vsm.cpp";
const char kName[] = ".kobvane.vsm";

class Vsm : public InTempDir {
  protected:
    void TearDown() override {
        if (vd_ != nullptr)
            VSM_Delete(vd_);
        InTempDir::TearDown();
    }
    VSM_data *named() {
        vd_ = VSM_New();
        EXPECT_NE(vd_, nullptr);
        EXPECT_EQ(VSM_n_Arg(vd_, kName), 1);
        return vd_;
    }
    // The idents of the chunks a full walk visits.
    std::vector<std::string> walk() {
        std::vector<std::string> idents;
        VSM_fantom vf;
        VSM_FOREACH(&vf, vd_) {
            idents.push_back(vf.chunk->ident);
            if (idents.size() > 1000)
                break;
        }
        return idents;
    }
    std::string error() const {
        const char *e = VSM_Error(vd_);
        return e == nullptr ? "(null)" : e;
    }

    VSM_data *vd_ = nullptr;
};

void put64(std::string &s, size_t off, uint64_t v) {
    memcpy(&s[off], &v, 8);
}

// A segment of two chunks, byte by byte at the layout's own offsets.
std::string handBuiltSegment() {
    std::string seg(400, '\0');
    memcpy(&seg[0], "VSMHEAD0", 8);
    put64(seg, 8, 0x1122334455667788u);
    put64(seg, 16, 400);
    put64(seg, 24, 40);
    uint32_t seq = 7;
    memcpy(&seg[32], &seq, 4);
    memcpy(&seg[40], "VSMCHUNK", 8);
    put64(seg, 48, 16);
    put64(seg, 56, 160);
    memcpy(&seg[64], "Stat", 4);
    memcpy(&seg[80], "main", 4);
    put64(seg, 144 + 8, 0x0102030405060708u);
    memcpy(&seg[160], "VSMCHUNK", 8);
    put64(seg, 168, 21);
    put64(seg, 176, 0);
    memcpy(&seg[184], "Log", 3);
    memcpy(&seg[192], "t", 1);
    memcpy(&seg[200], "ring", 4);
    memcpy(&seg[264], "payload", 7);
    return seg;
}

TEST_F(Vsm, ReadsAHandBuiltSegmentAtItsOffsets) {
    kobtest::writeFile(dir_.file(kName), handBuiltSegment());
    named();
    ASSERT_EQ(VSM_Open(vd_), 0);
    EXPECT_EQ(VSM_Seq(vd_), 7u);
    EXPECT_EQ(vd_->seg_end - vd_->seg_start, 400);
    EXPECT_EQ(walk(), (std::vector<std::string>{"main", "ring"}));
    VSM_fantom vf;
    ASSERT_EQ(VSM_Get(vd_, &vf, "Stat", "", "main"), 1);
    EXPECT_EQ(reinterpret_cast<char *>(vf.chunk) - vd_->seg_start, 40);
    EXPECT_EQ(static_cast<char *>(vf.start) - vd_->seg_start, 144);
    EXPECT_EQ(static_cast<char *>(vf.end) - vd_->seg_start, 160);
    EXPECT_EQ(vf.priv, 7u);
    uint64_t counter;
    memcpy(&counter, static_cast<char *>(vf.start) + 8, 8);
    EXPECT_EQ(counter, 0x0102030405060708u);
    ASSERT_EQ(VSM_Get(vd_, &vf, "Log", "t", "ring"), 1);
    EXPECT_EQ(reinterpret_cast<char *>(vf.chunk) - vd_->seg_start, 160);
    EXPECT_EQ(static_cast<char *>(vf.start) - vd_->seg_start, 264);
    EXPECT_EQ(static_cast<char *>(vf.end) - vd_->seg_start, 285);
    EXPECT_EQ(std::string(static_cast<char *>(vf.start), 7), "payload");
    EXPECT_EQ(VSM_Get(vd_, &vf, "Log", "", "ring"), 0);
}

TEST_F(Vsm, TheTestsWriterMakesTheSameBytes) {
    // The other cases build their files with the writer: it must lay them
    // out as the hand-built image the reader is checked against.
    {
        Segment seg(kName, 400, 7);
        seg.put64(8, 0x1122334455667788u);
        uint64_t a = seg.addChunk("Stat", "", "main", 16);
        uint64_t b = seg.addChunk("Log", "t", "ring", 21);
        EXPECT_EQ(a, 40u);
        EXPECT_EQ(b, 160u);
        seg.setCounter(a, 1, 0x0102030405060708u);
        memcpy(seg.payload(b), "payload", 7);
    }
    EXPECT_EQ(kobtest::readFile(dir_.file(kName)), handBuiltSegment());
}

TEST_F(Vsm, OpenWalksTheChainInOrder) {
    Segment seg(kName, 4096);
    seg.addChunk("Stat", "", "a", 8);
    seg.addChunk("Log", "", "b", 64);
    seg.addChunk("Stat", "x", "c", 8);
    named();
    ASSERT_EQ(VSM_Open(vd_), 0);
    EXPECT_EQ(walk(), (std::vector<std::string>{"a", "b", "c"}));
    EXPECT_EQ(VSM_Seq(vd_), 1u);
    EXPECT_EQ(VSM_Error(vd_), nullptr);
}

TEST_F(Vsm, IteratorCarriesPayloadBoundsAndSequence) {
    Segment seg(kName, 4096, 42);
    uint64_t a = seg.addChunk("Stat", "", "a", 24);
    named();
    ASSERT_EQ(VSM_Open(vd_), 0);
    VSM_fantom vf;
    VSM__iter0(vd_, &vf);
    EXPECT_EQ(vf.chunk, nullptr);
    EXPECT_EQ(vf.priv, 0u);
    ASSERT_EQ(VSM__itern(vd_, &vf), 1);
    EXPECT_EQ(reinterpret_cast<char *>(vf.chunk), vd_->seg_start + a);
    EXPECT_EQ(vf.start, vd_->seg_start + a + 104);
    EXPECT_EQ(vf.end, vd_->seg_start + a + 104 + 24);
    EXPECT_EQ(vf.priv, 42u);
    EXPECT_EQ(VSM__itern(vd_, &vf), 0);
}

TEST_F(Vsm, SequenceZeroIsRefusedAsNotAVsmFile) {
    Segment seg(kName, 4096, 0);
    seg.addChunk("Stat", "", "a", 8);
    named();
    EXPECT_EQ(VSM_Open(vd_), -1);
    EXPECT_EQ(error(), "Not a VSM file .kobvane.vsm\n");
    EXPECT_EQ(vd_->head, nullptr);
    // The handle stays usable: once the daemon is done, the open succeeds.
    seg.setSeq(3);
    EXPECT_EQ(VSM_Open(vd_), 0);
}

TEST_F(Vsm, MissingFileCannotBeOpened) {
    named();
    EXPECT_EQ(VSM_Open(vd_), -1);
    EXPECT_EQ(error(), "Cannot open .kobvane.vsm: No such file or directory\n");
}

TEST_F(Vsm, SecondChunkWithEmptyPayloadEndsTheWalk) {
    Segment seg(kName, 4096);
    seg.addChunk("Stat", "", "a", 8);
    seg.addChunk("Stat", "", "b", 0);
    seg.addChunk("Stat", "", "c", 8);
    named();
    ASSERT_EQ(VSM_Open(vd_), 0);
    EXPECT_EQ(walk(), (std::vector<std::string>{"a"}));
}

TEST_F(Vsm, GetWithoutTypeAndIdentFindsTheFirstOfTheClass) {
    Segment seg(kName, 4096);
    seg.addChunk("Log", "", "x", 8);
    seg.addChunk("Stat", "t1", "first", 8);
    seg.addChunk("Stat", "", "second", 8);
    named();
    ASSERT_EQ(VSM_Open(vd_), 0);
    VSM_fantom vf;
    ASSERT_EQ(VSM_Get(vd_, &vf, "Stat", nullptr, nullptr), 1);
    EXPECT_STREQ(vf.chunk->ident, "first");
}

TEST_F(Vsm, GetComparesTypeAndIdentExactly) {
    Segment seg(kName, 4096);
    seg.addChunk("Stat", "t", "one", 8);
    seg.addChunk("Stat", "", "two", 8);
    seg.addChunk("Stat", "", "", 8);
    named();
    ASSERT_EQ(VSM_Open(vd_), 0);
    struct Case {
        const char *cls, *type, *ident, *found;
    } cases[] = {
        {"Stat", "", nullptr, "two"},    {"Stat", "", "", ""},
        {"Stat", nullptr, "two", "two"}, {"Stat", "t", "one", "one"},
        {"Stat", "T", nullptr, ""},      {"stat", nullptr, nullptr, ""},
        {"Sta", nullptr, nullptr, ""},   {"Log", nullptr, nullptr, ""},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(std::string(c.cls) + "/" + (c.type ? c.type : "*") + "/" +
                     (c.ident ? c.ident : "*"));
        VSM_fantom vf;
        memset(&vf, 0xa5, sizeof vf);
        bool want = c.found[0] != '\0' || (c.type && !c.type[0] && c.ident && !c.ident[0]);
        ASSERT_EQ(VSM_Get(vd_, &vf, c.cls, c.type, c.ident), want ? 1 : 0);
        if (want) {
            EXPECT_STREQ(vf.chunk->ident, c.found);
        } else {
            VSM_fantom zero{};
            EXPECT_EQ(memcmp(&vf, &zero, sizeof vf), 0);
        }
    }
}

TEST_F(Vsm, StillValidAfterSequenceChangeSaysTwoOnceThenOne) {
    Segment seg(kName, 4096, 5);
    seg.addChunk("Stat", "", "a", 8);
    seg.addChunk("Log", "", "b", 8);
    named();
    ASSERT_EQ(VSM_Open(vd_), 0);
    VSM_fantom vf;
    ASSERT_EQ(VSM_Get(vd_, &vf, "Log", nullptr, nullptr), 1);
    EXPECT_EQ(VSM_StillValid(vd_, &vf), 1);
    seg.setSeq(6);
    EXPECT_EQ(VSM_StillValid(vd_, &vf), 2);
    EXPECT_EQ(vf.priv, 6u);
    EXPECT_EQ(VSM_StillValid(vd_, &vf), 1);
}

TEST_F(Vsm, StillValidSaysGoneWhenRebuildingMovedOrClosed) {
    Segment seg(kName, 4096, 5);
    uint64_t a = seg.addChunk("Stat", "", "a", 8);
    uint64_t b = seg.addChunk("Log", "", "b", 8);
    named();
    ASSERT_EQ(VSM_Open(vd_), 0);
    VSM_fantom vf;
    ASSERT_EQ(VSM_Get(vd_, &vf, "Log", nullptr, nullptr), 1);
    seg.setSeq(0);
    EXPECT_EQ(VSM_StillValid(vd_, &vf), 0);
    // The daemon unlinks the chunk and publishes a new layout.
    seg.put64(a + kobseg::chunkNextAt, 0);
    seg.setSeq(9);
    EXPECT_EQ(VSM_StillValid(vd_, &vf), 0);
    seg.put64(a + kobseg::chunkNextAt, b);
    EXPECT_EQ(VSM_StillValid(vd_, &vf), 2);
    VSM_Close(vd_);
    EXPECT_EQ(VSM_StillValid(vd_, &vf), 0);
}

TEST_F(Vsm, NameIsReturnedAsGivenWhileTheFileNameIsTheKnownOne) {
    vd_ = VSM_New();
    EXPECT_EQ(VSM_Name(vd_), nullptr);
    EXPECT_EQ(VSM_n_Arg(vd_, ".kobflow.vsm-and-more"), 1);
    EXPECT_STREQ(VSM_Name(vd_), ".kobflow.vsm-and-more");
    EXPECT_STREQ(vd_->fname, ".kobflow.vsm");
    EXPECT_EQ(VSM_n_Arg(vd_, ".kobrun.vsm"), 1);
    EXPECT_STREQ(VSM_Name(vd_), ".kobrun.vsm");
    EXPECT_STREQ(vd_->fname, ".kobrun.vsm");
}

TEST_F(Vsm, CloseReleasesAndTheHandleOpensAgain) {
    Segment seg(kName, 4096);
    seg.addChunk("Stat", "", "a", 8);
    named();
    ASSERT_EQ(VSM_Open(vd_), 0);
    EXPECT_NE(vd_->vsm_fd, nullptr);
    EXPECT_EQ(vd_->seg_end - vd_->seg_start, 4096);
    VSM_Close(vd_);
    EXPECT_EQ(vd_->head, nullptr);
    EXPECT_EQ(vd_->seg_start, nullptr);
    EXPECT_EQ(vd_->vsm_fd, nullptr);
    VSM_Close(vd_);
    ASSERT_EQ(VSM_Open(vd_), 0);
    EXPECT_EQ(walk(), (std::vector<std::string>{"a"}));
}

TEST_F(Vsm, OpenReleasesTheFileLockOnceMapped) {
    Segment seg(kName, 4096);
    seg.addChunk("Stat", "", "a", 8);
    named();
    ASSERT_EQ(VSM_Open(vd_), 0);
    // A second reader can open while the first one keeps its mapping.
    VSM_data *other = VSM_New();
    ASSERT_EQ(VSM_n_Arg(other, kName), 1);
    EXPECT_EQ(VSM_Open(other), 0);
    VSM_Delete(other);
}

TEST_F(Vsm, OpenWithoutNameEndsTheProcessInTheNameLookup) {
    auto r = runChild([] {
        VSM_data *vd = VSM_New();
        VSM_Open(vd);
    });
    EXPECT_EQ(r.err, "n_arg \n");
    EXPECT_TRUE(kobtest::vasAbort(r, "VIN_N_Arg", "lib/libkob/vin.cpp", "0 == 1"));
}

TEST_F(Vsm, CallingRulesAreThePlatformsAssertions) {
    Segment seg(kName, 4096);
    seg.addChunk("Stat", "", "a", 8);
    struct Case {
        const char *func, *text;
        std::function<void(VSM_data *)> call;
    } cases[] = {
        {"VSM_Name", "(vd) != NULL", [](VSM_data *) { VSM_Name(nullptr); }},
        {"VSM_Open", "(vd)->magic == 0x6e3bd69b",
         [](VSM_data *vd) {
             vd->magic = 1;
             VSM_Open(vd);
         }},
        {"VSM__itern", "(vf) != 0", [](VSM_data *vd) { VSM__itern(vd, nullptr); }},
        {"VSM__iter0", "(vf) != 0", [](VSM_data *vd) { VSM__iter0(vd, nullptr); }},
        {"VSM_Get", "(vf) != 0",
         [](VSM_data *vd) { VSM_Get(vd, nullptr, "Stat", nullptr, nullptr); }},
        {"VSM_StillValid", "(vf) != 0", [](VSM_data *vd) { VSM_StillValid(vd, nullptr); }},
        {"VSM_n_Arg", "(opt) != 0", [](VSM_data *vd) { VSM_n_Arg(vd, nullptr); }},
        {"VSM_Open", "(vd->head) == 0",
         [](VSM_data *vd) {
             VSM_n_Arg(vd, kName);
             if (VSM_Open(vd) == 0)
                 VSM_Open(vd);
         }},
        {"VSM_Seq", "(vd->head) != 0", [](VSM_data *vd) { VSM_Seq(vd); }},
        {"VSM__itern", "(vf->chunk) == 0",
         [](VSM_data *vd) {
             VSM_n_Arg(vd, kName);
             VSM_Open(vd);
             VSM_fantom vf{};
             vf.chunk = reinterpret_cast<VSM_chunk *>(vd->seg_start);
             VSM__itern(vd, &vf);
         }},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.text);
        auto r = runChild([&] { c.call(VSM_New()); });
        EXPECT_TRUE(platformAssert(r, c.func, kVsm, c.text));
        EXPECT_EQ(r.out, "");
    }
}

// ---- files that break the rules ------------------------------------------

TEST_F(Vsm, HeadsThatDoNotFitTheirFileAreRefused) {
    struct Case {
        const char *what;
        std::function<void()> make;
    } cases[] = {
        {"empty file", [] { kobtest::writeFile(kName, ""); }},
        {"marker only", [] { kobtest::writeFile(kName, "VSMHEAD0"); }},
        {"head cut short",
         [] {
             Segment seg(kName, 4096);
             seg.addChunk("Stat", "", "a", 8);
             EXPECT_EQ(truncate(kName, 39), 0);
         }},
        {"segment larger than the file",
         [] {
             Segment seg(kName, 4096);
             seg.addChunk("Stat", "", "a", 8);
             seg.put64(kobseg::headSegSizeAt, 4097);
         }},
        {"segment far larger than the file",
         [] {
             Segment seg(kName, 4096);
             seg.put64(kobseg::headSegSizeAt, ~uint64_t{0});
         }},
        {"file truncated after the head",
         [] {
             Segment seg(kName, 4096);
             seg.addChunk("Stat", "", "a", 8);
             EXPECT_EQ(truncate(kName, 100), 0);
         }},
        {"segment smaller than its head",
         [] {
             Segment seg(kName, 4096);
             seg.put64(kobseg::headSegSizeAt, 39);
         }},
        {"foreign marker",
         [] {
             Segment seg(kName, 4096);
             memcpy(seg.base(), "VSMHEAD1", 8);
         }},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.what);
        c.make();
        auto r = runChild([] {
            VSM_data *vd = VSM_New();
            VSM_n_Arg(vd, kName);
            int i = VSM_Open(vd);
            printf("%d %s", i, VSM_Error(vd));
            VSM_Delete(vd);
        });
        EXPECT_TRUE(r.exited(0)) << r.status;
        EXPECT_EQ(r.out, "-1 Not a VSM file .kobvane.vsm\n");
    }
}

TEST_F(Vsm, ChainsThatLeaveTheSegmentOrGoBackEndTheWalk) {
    const uint64_t size = 4096;
    struct Case {
        const char *what;
        std::function<void(Segment &, uint64_t, uint64_t, uint64_t)> spoil;
        std::vector<std::string> walked;
    } cases[] = {
        {"intact", [](Segment &, uint64_t, uint64_t, uint64_t) {}, {"a", "b", "c"}},
        {"first past the end",
         [&](Segment &s, uint64_t, uint64_t, uint64_t) { s.put64(kobseg::headFirstAt, size); },
         {}},
        {"first far past the end",
         [](Segment &s, uint64_t, uint64_t, uint64_t) {
             s.put64(kobseg::headFirstAt, ~uint64_t{0} - 7);
         },
         {}},
        {"first header crossing the end",
         [&](Segment &s, uint64_t, uint64_t, uint64_t) { s.put64(kobseg::headFirstAt, size - 96); },
         {}},
        {"first misaligned",
         [](Segment &s, uint64_t a, uint64_t, uint64_t) { s.put64(kobseg::headFirstAt, a + 1); },
         {}},
        {"next past the end",
         [&](Segment &s, uint64_t a, uint64_t, uint64_t) {
             s.put64(a + kobseg::chunkNextAt, size + 64);
         },
         {"a"}},
        {"next at itself",
         [](Segment &s, uint64_t, uint64_t b, uint64_t) { s.put64(b + kobseg::chunkNextAt, b); },
         {"a", "b"}},
        {"next back at the first",
         [](Segment &s, uint64_t a, uint64_t, uint64_t c) { s.put64(c + kobseg::chunkNextAt, a); },
         {"a", "b", "c"}},
        {"next back at the head",
         [](Segment &s, uint64_t a, uint64_t, uint64_t) { s.put64(a + kobseg::chunkNextAt, 0x8); },
         {"a"}},
        {"payload past the end",
         [&](Segment &s, uint64_t, uint64_t b, uint64_t) {
             s.put64(b + kobseg::chunkLenAt, size - b - 104 + 1);
         },
         {"a"}},
        {"payload length wrapping around",
         [](Segment &s, uint64_t a, uint64_t, uint64_t) {
             s.put64(a + kobseg::chunkLenAt, ~uint64_t{0} - 100);
         },
         {}},
        {"payload up to the last byte",
         [&](Segment &s, uint64_t, uint64_t, uint64_t c) {
             s.put64(c + kobseg::chunkLenAt, size - c - 104);
         },
         {"a", "b", "c"}},
        {"chunk marker broken",
         [](Segment &s, uint64_t, uint64_t b, uint64_t) { s.base()[b] = 'X'; },
         {"a"}},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.what);
        Segment seg(kName, size);
        uint64_t a = seg.addChunk("Stat", "", "a", 16);
        uint64_t b = seg.addChunk("Log", "", "b", 32);
        uint64_t cc = seg.addChunk("Stat", "", "c", 16);
        c.spoil(seg, a, b, cc);
        // In a child: whatever the file holds, the walk ends without a signal.
        auto r = runChild([&] {
            VSM_data *vd = VSM_New();
            VSM_n_Arg(vd, kName);
            if (VSM_Open(vd) != 0)
                _exit(3);
            VSM_fantom vf;
            int n = 0;
            VSM_FOREACH(&vf, vd) {
                printf("%s,", vf.chunk->ident);
                if (++n > 100)
                    break;
            }
            VSM_Get(vd, &vf, "Nope", nullptr, nullptr);
            VSM_Get(vd, &vf, "Stat", "", "zz");
            VSM_Delete(vd);
        });
        EXPECT_TRUE(r.exited(0)) << r.status << " " << r.err;
        std::string want;
        for (const auto &s : c.walked)
            want += s + ",";
        EXPECT_EQ(r.out, want);
    }
}

TEST_F(Vsm, UnterminatedTextsNeverMatchAndAreNotReadPast) {
    Segment seg(kName, 4096);
    uint64_t a = seg.addChunk("Stat", "", "a", 8);
    memcpy(seg.base() + a + kobseg::chunkClassAt, "StatStat", 8);
    memset(seg.base() + a + kobseg::chunkIdentAt, 'x', 64);
    uint64_t b = seg.addChunk("Stat", "", "b", 8);
    memcpy(seg.base() + b + kobseg::chunkTypeAt, "TTTTTTTT", 8);
    named();
    ASSERT_EQ(VSM_Open(vd_), 0);
    VSM_fantom vf;
    EXPECT_EQ(VSM_Get(vd_, &vf, "StatStat", nullptr, nullptr), 0);
    EXPECT_EQ(VSM_Get(vd_, &vf, "Stat", "TTTTTTTT", nullptr), 0);
    EXPECT_EQ(VSM_Get(vd_, &vf, "Stat", nullptr, std::string(64, 'x').c_str()), 0);
    ASSERT_EQ(VSM_Get(vd_, &vf, "Stat", nullptr, "b"), 1);
}

} // namespace
