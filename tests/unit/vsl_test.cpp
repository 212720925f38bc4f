#include "vsl.h"

#include <cerrno>
#include <cstring>
#include <functional>
#include <memory>
#include <sstream>
#include <sched.h>
#include <string>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

#include <gtest/gtest.h>

#include "segtest.h"
#include "segwriter.h"
#include "vsc.h"
#include "vbm.h"

using kobseg::LogRing;
using kobseg::Segment;
using kobtest::runChild;
using kobtest::vasAbort;

namespace {

const char kName[] = ".kobvane.vsm";

// One record as a reader sees it.
struct Rec {
    unsigned tag, id, side;
    std::string payload;
    bool operator==(const Rec &) const = default;
};

std::ostream &operator<<(std::ostream &os, const Rec &r) {
    return os << "{" << r.tag << "," << r.id << "," << r.side << ",\"" << r.payload << "\"}";
}

Rec take(const uint32_t *p) {
    return {VSL_TAG(p), VSL_ID(p), VSL_SIDE(p), std::string(VSL_DATA(p), VSL_LEN(p))};
}

class Vsl : public InTempDir {
  protected:
    void SetUp() override {
        InTempDir::SetUp();
        seg_ = std::make_unique<Segment>(kName, 1 << 16);
        seg_->addChunk("Stat", "", "", 240);
        log_ = seg_->addChunk("Log", "", "", ringBytes_);
        // Generation 0, as a fresh reader state's last_gen: the reader
        // starts at the ring's current end.
        ring_ = std::make_unique<LogRing>(*seg_, log_, 0);
        vd_ = VSM_New();
        ASSERT_EQ(VSL_Arg(vd_, 'n', kName), 1);
    }
    void TearDown() override {
        VSM_Delete(vd_);
        InTempDir::TearDown();
    }
    void fromStart() { vd_->vsl->from_start = 1; }
    // Read until the reader has nothing more; the last result is kept.
    std::vector<Rec> drain(int *last = nullptr) {
        std::vector<Rec> out;
        uint32_t *p;
        int i;
        while ((i = VSL_NextLog(vd_, &p, nullptr)) == 1 && out.size() < 10000)
            out.push_back(take(p));
        if (last != nullptr)
            *last = i;
        return out;
    }

    uint64_t ringBytes_ = 1024;
    std::unique_ptr<Segment> seg_;
    uint64_t log_ = 0;
    std::unique_ptr<LogRing> ring_;
    VSM_data *vd_ = nullptr;
};

TEST(VslTags, TableNamesEveryTagFrom1To49) {
    const char *names[] = {
        "Debug",
        "VaneGet",
        "VaneGracefulHalting",
        "VaneInterface",
        "VaneInterfaceUP",
        "VaneInterfaceBind",
        "VaneMinidumpPath",
        "VanePacketDump",
        "VanePanicMsg",
        "VanePanicMsgBegin",
        "VanePanicMsgEnd",
        "VaneReady",
        "VaneSet",
        "VaneUserInfo",
        "FlowADNAdd",
        "FlowADNDel",
        "FlowFullVPNRefresh",
        "FlowGet",
        "FlowMinidumpPath",
        "FlowMTU",
        "FlowPanicMsg",
        "FlowPanicMsgBegin",
        "FlowPanicMsgEnd",
        "FlowPingStat",
        "FlowSet",
        "FlowSidAutoSelect",
        "FlowStaticNodeInfo",
        "FlowStaticNodeRefresh",
        "HostDefaultGateway",
        "NewMapIP",
        "NotifyMsgCrit",
        "NotifyMsgError",
        "NotifyMsgFatal",
        "NotifyMsgInfo",
        "NotifyMsgWarn",
        "RouteAdd",
        "RouteAddConfirm",
        "RouteDel",
        "RouteDelConfirm",
        "RouteDefault",
        "RTEnd",
        "RTEntry",
        "RTStart",
        "RTT_PacketLossRate",
        "RTT_toStatic",
        "RunGet",
        "RunSet",
        "SIFTR",
        "TrafficUsage",
    };
    static_assert(sizeof names / sizeof names[0] == 49);
    EXPECT_EQ(sizeof VSL_tags / sizeof VSL_tags[0], 256u);
    EXPECT_EQ(VSL_tags[0], nullptr);
    for (int t = 1; t <= 49; t++) {
        SCOPED_TRACE(t);
        ASSERT_NE(VSL_tags[t], nullptr);
        EXPECT_STREQ(VSL_tags[t], names[t - 1]);
    }
    for (int t = 50; t < 256; t++) {
        SCOPED_TRACE(t);
        EXPECT_EQ(VSL_tags[t], nullptr);
    }
}

TEST(Vbm, InitRoundsUpToWholeBlocksOf1024) {
    struct Case {
        unsigned asked, bits;
    } cases[] = {{0, 1024}, {1, 1024}, {256, 1024}, {1024, 1024}, {1025, 2048}, {4000, 4096}};
    for (const Case &c : cases) {
        SCOPED_TRACE(c.asked);
        vbitmap *vb = vbit_init(c.asked);
        EXPECT_EQ(vb->nbits, c.bits);
        for (unsigned i = 0; i < c.bits; i++)
            ASSERT_EQ(vbit_isset(vb, i), 0u);
        vbit_free(vb);
    }
}

TEST(Vbm, IssetGivesTheMaskInItsWordAndZeroPastTheEnd) {
    vbitmap *vb = vbit_init(256);
    vbit_set(vb, 0);
    vbit_set(vb, 37);
    vbit_set(vb, 1023);
    EXPECT_EQ(vbit_isset(vb, 0), 1u);
    EXPECT_EQ(vbit_isset(vb, 37), 1u << 5);
    EXPECT_EQ(vbit_isset(vb, 1023), 1u << 31);
    EXPECT_EQ(vbit_isset(vb, 36), 0u);
    EXPECT_EQ(vbit_isset(vb, 1024), 0u);
    EXPECT_EQ(vbit_isset(vb, ~0u), 0u);
    vbit_clr(vb, 37);
    vbit_clr(vb, 5000);
    EXPECT_EQ(vbit_isset(vb, 37), 0u);
    EXPECT_EQ(vb->nbits, 1024u);
    vbit_free(vb);
}

TEST(Vbm, ExpandKeepsBitsAndClearsTheAddedOnes) {
    vbitmap *vb = vbit_init(0);
    vbit_set(vb, 1000);
    vbit_expand(vb, 3000);
    EXPECT_EQ(vb->nbits, 3072u);
    EXPECT_NE(vbit_isset(vb, 1000), 0u);
    for (unsigned i = 1024; i < 3072; i++)
        ASSERT_EQ(vbit_isset(vb, i), 0u);
    vbit_expand(vb, 10);
    EXPECT_EQ(vb->nbits, 3072u);
    vbit_set(vb, 5000);
    EXPECT_EQ(vb->nbits, 5120u);
    EXPECT_NE(vbit_isset(vb, 5000), 0u);
    vbit_free(vb);
    vbit_free(nullptr);
}

TEST_F(Vsl, SetupMakesTheStateWithItsDefaults) {
    vsl *s = vd_->vsl;
    ASSERT_NE(s, nullptr);
    EXPECT_EQ(s->magic, 0x7a31db38u);
    EXPECT_EQ(s->r_fd, -1);
    EXPECT_EQ(s->ptr, nullptr);
    EXPECT_EQ(s->tags_selected->nbits, 1024u);
    EXPECT_EQ(s->tags_suppressed->nbits, 1024u);
    EXPECT_EQ(s->skip, 0u);
    EXPECT_EQ(s->keep, 0u);
    EXPECT_EQ(s->from_start + s->only_a + s->only_b, 0);
}

TEST_F(Vsl, ArgNSetsTheNameAsVsmNArgDoes) {
    EXPECT_EQ(VSL_Arg(vd_, 'n', ".kobflow.vsm.more"), 1);
    EXPECT_STREQ(VSM_Name(vd_), ".kobflow.vsm.more");
    EXPECT_STREQ(vd_->fname, ".kobflow.vsm");
    VSM_data *other = VSM_New();
    EXPECT_EQ(VSM_n_Arg(other, ".kobflow.vsm.more"), 1);
    EXPECT_STREQ(VSM_Name(other), VSM_Name(vd_));
    EXPECT_STREQ(other->fname, vd_->fname);
    VSM_Delete(other);
}

TEST_F(Vsl, ArgOtherLettersEndTheProcess) {
    for (int letter : {int('d'), int('i'), int('x'), int('r'), 0}) {
        SCOPED_TRACE(letter);
        auto r = runChild([&] { VSL_Arg(vd_, letter, "x"); });
        EXPECT_TRUE(vasAbort(r, "VSL_Arg", "lib/libkob/vsl_arg.cpp", "0 == 1"));
    }
}

TEST_F(Vsl, RingEndingAtItsStartYieldsZeroAtEveryCall) {
    for (int from : {0, 1}) {
        SCOPED_TRACE(from);
        vd_->vsl->from_start = from;
        for (int i = 0; i < 3; i++) {
            uint32_t *p = nullptr;
            EXPECT_EQ(VSL_NextLog(vd_, &p, nullptr), 0);
            EXPECT_EQ(p, nullptr);
        }
        VSM_Close(vd_);
        vd_->vsl->ptr = nullptr;
    }
}

TEST_F(Vsl, FromStartReadsEveryRecordInOrderAndWhole) {
    ring_->append(1, 7, 0, "hello");
    ring_->append(49, 0x3fffffff, kobseg::sideA, "");
    ring_->append(12, 3, kobseg::sideB, std::string("a\0b\n", 4));
    ring_->append(200, 4, kobseg::sideA | kobseg::sideB, "four");
    fromStart();
    int last;
    EXPECT_EQ(drain(&last), (std::vector<Rec>{{1, 7, 0, "hello"},
                                              {49, 0x3fffffff, 1, ""},
                                              {12, 3, 2, std::string("a\0b\n", 4)},
                                              {200, 4, 3, "four"}}));
    EXPECT_EQ(last, 0);
}

TEST_F(Vsl, SideFlagsReachTheDispatchCallback) {
    ring_->append(1, 7, 0, "n");
    ring_->append(2, 8, kobseg::sideA, "a");
    ring_->append(3, 9, kobseg::sideB, "b");
    ring_->append(4, 10, kobseg::sideA | kobseg::sideB, "ab");
    fromStart();
    std::vector<Rec> seen;
    auto cb = [](void *priv, unsigned tag, unsigned id, unsigned len, unsigned side,
                 const char *ptr, uint64_t bits) -> int {
        EXPECT_EQ(bits, 0u);
        static_cast<std::vector<Rec> *>(priv)->push_back({tag, id, side, std::string(ptr, len)});
        return 0;
    };
    EXPECT_EQ(VSL_Dispatch(vd_, cb, &seen), 0);
    EXPECT_EQ(seen,
              (std::vector<Rec>{{1, 7, 0, "n"}, {2, 8, 1, "a"}, {3, 9, 2, "b"}, {4, 10, 3, "ab"}}));
}

TEST_F(Vsl, DispatchStopsAtTheFirstNonzeroAnswer) {
    for (unsigned i = 1; i <= 5; i++)
        ring_->append(i, i, 0, "x");
    fromStart();
    int calls = 0;
    auto cb = [](void *priv, unsigned tag, unsigned, unsigned, unsigned, const char *,
                 uint64_t) -> int {
        ++*static_cast<int *>(priv);
        return tag == 3 ? 42 : 0;
    };
    EXPECT_EQ(VSL_Dispatch(vd_, cb, &calls), 42);
    EXPECT_EQ(calls, 3);
    vd_->vsl->keep = 2;
    EXPECT_EQ(VSL_Dispatch(vd_, cb, &calls), -2);
    EXPECT_EQ(calls, 4);
}

TEST_F(Vsl, BitsAreSetToZero) {
    ring_->append(1, 1, 0, "x");
    fromStart();
    uint64_t bits = 99;
    uint32_t *p;
    EXPECT_EQ(VSL_NextLog(vd_, &p, &bits), 1);
    EXPECT_EQ(bits, 0u);
    bits = 99;
    EXPECT_EQ(VSL_NextLog(vd_, &p, &bits), 0);
    EXPECT_EQ(bits, 0u);
}

TEST_F(Vsl, ReaderStartsAtTheCurrentEnd) {
    ring_->append(1, 1, 0, "old");
    ring_->append(2, 2, 0, "old");
    EXPECT_EQ(drain(), std::vector<Rec>{});
    ring_->append(3, 3, 0, "new");
    EXPECT_EQ(drain(), (std::vector<Rec>{{3, 3, 0, "new"}}));
    EXPECT_EQ(drain(), std::vector<Rec>{});
}

TEST_F(Vsl, NewReaderOnALaterGenerationReadsItFromOffsetFour) {
    LogRing ring(*seg_, log_, 5);
    ring.append(1, 1, 0, "present");
    ring.append(2, 2, kobseg::sideA, "at open");
    uint32_t *p;
    ASSERT_EQ(VSL_NextLog(vd_, &p, nullptr), 1);
    EXPECT_EQ(p, vd_->vsl->log_start + 1);
    EXPECT_EQ(take(p), (Rec{1, 1, 0, "present"}));
    EXPECT_EQ(vd_->vsl->last_gen, 5u);
    EXPECT_EQ(drain(), (std::vector<Rec>{{2, 2, 1, "at open"}}));
    // Having stood at the start under generation 5, it stays at the end.
    EXPECT_EQ(drain(), std::vector<Rec>{});
    ring.append(3, 3, 0, "new");
    EXPECT_EQ(drain(), (std::vector<Rec>{{3, 3, 0, "new"}}));
}

TEST_F(Vsl, RestartedRingIsReadFromOffsetFour) {
    ring_->append(1, 1, 0, "first");
    fromStart();
    EXPECT_EQ(drain(), (std::vector<Rec>{{1, 1, 0, "first"}}));
    EXPECT_EQ(vd_->vsl->last_gen, 0u);
    ring_->append(2, 2, 0, "second");
    // The writer restarts: new generation, the old end marker left behind.
    ring_->restart(2);
    // What was written before the restart is still read; then the old end
    // marker, under a new generation, sends the reader to the start.
    EXPECT_EQ(drain(), (std::vector<Rec>{{2, 2, 0, "second"}}));
    EXPECT_EQ(vd_->vsl->ptr, vd_->vsl->log_start + 1);
    ring_->append(3, 3, 0, "third");
    ring_->append(4, 4, 0, "fourth");
    EXPECT_EQ(drain(), (std::vector<Rec>{{3, 3, 0, "third"}, {4, 4, 0, "fourth"}}));
    EXPECT_EQ(vd_->vsl->last_gen, 2u);
}

TEST_F(Vsl, RestartSeenWhileStandingAtTheOldEnd) {
    ring_->append(1, 1, 0, "aaaaaaaaaaaaaaaaaaaa");
    ring_->append(2, 2, 0, "bbbbbbbbbbbbbbbbbbbb");
    EXPECT_EQ(drain(), std::vector<Rec>{});
    uint32_t *oldEnd = vd_->vsl->ptr;
    ring_->restart(7);
    ring_->append(3, 3, 0, "c");
    ASSERT_EQ(ring_->word(oldEnd - vd_->vsl->log_start), kobseg::endMarker);
    EXPECT_EQ(drain(), (std::vector<Rec>{{3, 3, 0, "c"}}));
}

TEST_F(Vsl, WrapMarkerSendsTheReaderToTheStart) {
    std::string payload(100, 'p');
    std::vector<Rec> want;
    EXPECT_EQ(drain(), std::vector<Rec>{});
    // 108 bytes a record in a 1024-byte ring: the tenth one wraps.
    for (unsigned i = 1; i <= 9; i++) {
        ring_->append(i, i, 0, payload);
        want.push_back({i, i, 0, payload});
    }
    EXPECT_EQ(drain(), want);
    uint64_t before = ring_->pos();
    ring_->append(10, 10, 0, payload);
    EXPECT_LT(ring_->pos(), before);
    EXPECT_EQ(ring_->word(before), kobseg::wrapMarker);
    EXPECT_EQ(drain(), (std::vector<Rec>{{10, 10, 0, payload}}));
}

TEST_F(Vsl, WrapMarkerAtTheStartIsMinusOne) {
    ring_->putWord(1, kobseg::wrapMarker);
    fromStart();
    uint32_t *p;
    EXPECT_EQ(VSL_NextLog(vd_, &p, nullptr), -1);
}

TEST_F(Vsl, ZeroWordEndsTheWrittenPart) {
    ring_->append(1, 1, 0, "x");
    ring_->putWord(ring_->pos(), 0);
    fromStart();
    int last;
    EXPECT_EQ(drain(&last).size(), 1u);
    EXPECT_EQ(last, 0);
}

TEST_F(Vsl, KeepOneReturnsMinusTwoAtTheFirstWantedRecord) {
    ring_->append(1, 1, 0, "x");
    ring_->append(2, 2, 0, "y");
    fromStart();
    vd_->vsl->keep = 1;
    uint32_t *p = nullptr;
    EXPECT_EQ(VSL_NextLog(vd_, &p, nullptr), -2);
    EXPECT_EQ(p, nullptr);
    EXPECT_EQ(vd_->vsl->keep, 0u);
}

TEST_F(Vsl, KeepNDeliversNMinusOneRecords) {
    for (unsigned i = 1; i <= 6; i++)
        ring_->append(i, i, 0, "x");
    fromStart();
    vd_->vsl->keep = 4;
    int last;
    EXPECT_EQ(drain(&last).size(), 3u);
    EXPECT_EQ(last, -2);
}

TEST_F(Vsl, SkipDropsRecordsAfterTheFilters) {
    for (unsigned i = 1; i <= 6; i++)
        ring_->append(i % 2 ? 1 : 2, i, 0, "x");
    fromStart();
    vbit_set(vd_->vsl->tags_suppressed, 2);
    vd_->vsl->skip = 1;
    std::vector<unsigned> ids;
    for (const Rec &r : drain())
        ids.push_back(r.id);
    EXPECT_EQ(ids, (std::vector<unsigned>{3, 5}));
}

TEST_F(Vsl, FiltersSelectSuppressAndSides) {
    ring_->append(1, 1, 0, "");
    ring_->append(2, 2, kobseg::sideA, "");
    ring_->append(3, 3, kobseg::sideB, "");
    ring_->append(4, 4, kobseg::sideA | kobseg::sideB, "");
    ring_->append(5, 5, 0, "");
    struct Case {
        const char *what;
        std::function<void(vsl *)> set;
        std::vector<unsigned> ids;
    } cases[] = {
        {"none", [](vsl *) {}, {1, 2, 3, 4, 5}},
        {"suppressed", [](vsl *s) { vbit_set(s->tags_suppressed, 3); }, {1, 2, 4, 5}},
        {"selected and suppressed",
         [](vsl *s) {
             vbit_set(s->tags_suppressed, 3);
             vbit_set(s->tags_selected, 3);
         },
         {1, 2, 3, 4, 5}},
        {"only a", [](vsl *s) { s->only_a = 1; }, {2, 4}},
        {"only b", [](vsl *s) { s->only_b = 1; }, {3, 4}},
        {"only b, 5 selected",
         [](vsl *s) {
             s->only_b = 1;
             vbit_set(s->tags_selected, 5);
         },
         {3, 4, 5}},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.what);
        VSL_Delete(vd_);
        VSM_Close(vd_);
        ASSERT_EQ(VSL_Arg(vd_, 'n', kName), 1);
        fromStart();
        c.set(vd_->vsl);
        std::vector<unsigned> ids;
        for (const Rec &r : drain())
            ids.push_back(r.id);
        EXPECT_EQ(ids, c.ids);
    }
}

TEST_F(Vsl, SegmentClosedUnderTheLogIsOpenedAfresh) {
    // Found by the log ring fuzz target: closing the segment while the log
    // stood in it left the reader stepping through the unmapped ring.  The
    // next read now opens the log again, from the start here.
    ring_->append(1, 1, 0, "one");
    ring_->append(2, 2, 0, "two");
    fromStart();
    uint32_t *p;
    ASSERT_EQ(VSL_NextLog(vd_, &p, nullptr), 1);
    EXPECT_EQ(VSL_ID(p), 1u);
    VSM_Close(vd_);
    EXPECT_EQ(drain(), (std::vector<Rec>{{1, 1, 0, "one"}, {2, 2, 0, "two"}}));
    EXPECT_NE(vd_->head, nullptr);
}

TEST_F(Vsl, CounterWalkReopeningTheSegmentLeavesTheLogReadable) {
    // A segment without the main counter block: the counter walk closes and
    // reopens the segment on the same handle, which maps it anew.
    Segment seg(kName, 1 << 16);
    LogRing ring(seg, seg.addChunk("Log", "", "", ringBytes_), 1);
    ring.append(1, 7, 0, "seven");
    fromStart();
    uint32_t *p;
    ASSERT_EQ(VSL_NextLog(vd_, &p, nullptr), 1);
    auto none = [](void *, const VSC_point *) { return 0; };
    EXPECT_EQ(VSC_Iter(vd_, none, nullptr), -1);
    // Closing the segment closed the log, wherever the new mapping lies:
    // it opens afresh, here from the start, and delivers the record again.
    EXPECT_EQ(vd_->vsl->ptr, nullptr);
    EXPECT_EQ(drain(), (std::vector<Rec>{{1, 7, 0, "seven"}}));
    // From the current end, it stays there: it has stood at the start
    // under this generation.
    vd_->vsl->from_start = 0;
    EXPECT_EQ(VSC_Iter(vd_, none, nullptr), -1);
    EXPECT_EQ(drain(), std::vector<Rec>{});
    ring.append(2, 8, 0, "eight");
    EXPECT_EQ(drain(), (std::vector<Rec>{{2, 8, 0, "eight"}}));
}

TEST_F(Vsl, MissingLogChunkLeavesItsTextAndClosesTheSegment) {
    Segment seg(kName, 4096);
    seg.addChunk("Stat", "", "", 240);
    uint32_t *p;
    EXPECT_EQ(VSL_NextLog(vd_, &p, nullptr), 0);
    ASSERT_NE(VSM_Error(vd_), nullptr);
    EXPECT_STREQ(VSM_Error(vd_), "No VSL chunk found  (child not started ?)\n");
    EXPECT_EQ(vd_->head, nullptr);
    EXPECT_EQ(vd_->vsl->ptr, nullptr);
}

TEST_F(Vsl, MissingSegmentIsNothingReadyAndLeavesTheOpenText) {
    seg_->remove();
    uint32_t *p;
    EXPECT_EQ(VSL_NextLog(vd_, &p, nullptr), 0);
    EXPECT_STREQ(VSM_Error(vd_), "Cannot open .kobvane.vsm: No such file or directory\n");
}

TEST_F(Vsl, SegmentGoingAwayClosesTheLogAndALaterCallReopens) {
    EXPECT_EQ(drain(), std::vector<Rec>{});
    ASSERT_NE(vd_->head, nullptr);
    seg_->remove();
    EXPECT_EQ(drain(), std::vector<Rec>{});
    EXPECT_EQ(vd_->head, nullptr);
    EXPECT_EQ(vd_->vsl->ptr, nullptr);
    // The daemon comes back with a new file and a new generation: its
    // records are all new to the reader, from offset 4.
    auto again = std::make_unique<Segment>(kName, 1 << 16, 11);
    auto ring = std::make_unique<LogRing>(*again, again->addChunk("Log", "", "", 512), 3);
    ring->append(9, 1, 0, "before");
    EXPECT_EQ(drain(), (std::vector<Rec>{{9, 1, 0, "before"}}));
    EXPECT_NE(vd_->head, nullptr);
    EXPECT_EQ(vd_->vsl->last_gen, 3u);
    ring->append(9, 2, 0, "after");
    EXPECT_EQ(drain(), (std::vector<Rec>{{9, 2, 0, "after"}}));
    // Closing the log keeps last_gen: a rebuilt ring under the generation
    // the reader last stood in is taken as already read up to its end.
    again->remove();
    EXPECT_EQ(drain(), std::vector<Rec>{});
    EXPECT_EQ(vd_->head, nullptr);
    ring.reset();
    again = std::make_unique<Segment>(kName, 1 << 16, 12);
    ring = std::make_unique<LogRing>(*again, again->addChunk("Log", "", "", 512), 3);
    ring->append(9, 3, 0, "same generation");
    EXPECT_EQ(drain(), std::vector<Rec>{});
    ring->append(9, 4, 0, "later");
    EXPECT_EQ(drain(), (std::vector<Rec>{{9, 4, 0, "later"}}));
}

TEST_F(Vsl, LayoutChangeKeepingTheLogChunkKeepsReading) {
    ring_->append(1, 1, 0, "x");
    EXPECT_EQ(drain(), std::vector<Rec>{});
    seg_->setSeq(2);
    EXPECT_EQ(drain(), std::vector<Rec>{});
    EXPECT_NE(vd_->head, nullptr);
    ring_->append(1, 2, 0, "y");
    EXPECT_EQ(drain(), (std::vector<Rec>{{1, 2, 0, "y"}}));
}

// ---- rings that contradict themselves --------------------------------------

TEST_F(Vsl, RecordRunningPastTheChunkIsOutsideTheRing) {
    ring_->append(1, 1, 0, "x");
    // A length that takes the record past the end of the 1024-byte ring.
    ring_->putWord(ring_->pos(), kobseg::recordWord0(2, 2000));
    fromStart();
    int last;
    EXPECT_EQ(drain(&last).size(), 1u);
    EXPECT_EQ(last, -3);
    uint32_t *p;
    EXPECT_EQ(VSL_NextLog(vd_, &p, nullptr), -3);
}

TEST_F(Vsl, RecordEndingExactlyAtTheChunkEndLeavesThePointerOutside) {
    // 1024 bytes: generation word, then one record of 1012 payload bytes fills the ring.
    ring_->putWord(1, kobseg::recordWord0(1, 1012));
    fromStart();
    int last;
    EXPECT_EQ(drain(&last).size(), 1u);
    EXPECT_EQ(last, -3);
}

TEST_F(Vsl, PointerOutsideTheRingIsMinusThree) {
    ring_->append(1, 1, 0, "x");
    fromStart();
    EXPECT_EQ(drain().size(), 1u);
    uint32_t *p;
    vd_->vsl->ptr = vd_->vsl->log_start;
    EXPECT_EQ(VSL_NextLog(vd_, &p, nullptr), -3);
    vd_->vsl->ptr = vd_->vsl->log_end;
    EXPECT_EQ(VSL_NextLog(vd_, &p, nullptr), -3);
}

TEST_F(Vsl, GarbageRingFromTheEndNeverReadsPastIt) {
    // No end marker anywhere: the walk to the end stops at the ring's edge.
    for (uint64_t i = 1; i < ring_->words(); i++)
        ring_->putWord(i, kobseg::recordWord0(1, 4));
    int last;
    EXPECT_EQ(drain(&last).size(), 0u);
    EXPECT_EQ(last, -3);
}

TEST_F(Vsl, RingWithoutEndMarkerCannotKeepOneCallGoingRound) {
    ring_->append(1, 1, 0, "x");
    ring_->append(1, 2, 0, "y");
    ring_->putWord(ring_->pos(), kobseg::wrapMarker);
    fromStart();
    vbit_set(vd_->vsl->tags_suppressed, 1);
    uint32_t *p;
    EXPECT_EQ(VSL_NextLog(vd_, &p, nullptr), 0);
}

TEST_F(Vsl, TinyLogChunksAreOutsideTheRing) {
    for (uint64_t len : {1, 3, 4, 7}) {
        SCOPED_TRACE(len);
        Segment seg(kName, 4096);
        seg.addChunk("Log", "", "", len);
        VSM_Close(vd_);
        VSL_Delete(vd_);
        ASSERT_EQ(VSL_Arg(vd_, 'n', kName), 1);
        uint32_t *p;
        EXPECT_EQ(VSL_NextLog(vd_, &p, nullptr), -3);
    }
}

TEST_F(Vsl, DeleteRules) {
    auto r = runChild([&] {
        vd_->vsl->r_fd = 3;
        VSL_Delete(vd_);
    });
    EXPECT_TRUE(vasAbort(r, "VSL_Delete", "lib/libkob/vsl.cpp", "0 == 1"));
    r = runChild([&] {
        VSL_Delete(vd_);
        VSL_Delete(vd_);
    });
    EXPECT_TRUE(vasAbort(r, "VSL_Delete", "lib/libkob/vsl.cpp", "(vsl) != NULL"));
    r = runChild([&] {
        vd_->vsl->magic = 0;
        VSL_NextLog(vd_, nullptr, nullptr);
    });
    EXPECT_TRUE(vasAbort(r, "vsl_Setup", "lib/libkob/vsl.cpp", "(vd->vsl)->magic == 0x7a31db38"));
    r = runChild([&] { VSL_NextLog(nullptr, nullptr, nullptr); });
    EXPECT_TRUE(vasAbort(r, "vsl_Setup", "lib/libkob/vsl.cpp", "(vd) != NULL"));
    r = runChild([&] {
        vd_->vsl->r_fd = 0;
        uint32_t *p;
        VSL_NextLog(vd_, &p, nullptr);
    });
    EXPECT_TRUE(vasAbort(r, "vsl_nextslt", "lib/libkob/vsl.cpp", "0 == 1"));
}

// ---- a writer and a reader in two processes ----------------------------------

// The writer's record i: everything derived from i, so the reader can check it.
Rec recordFor(unsigned i) {
    std::string payload(i % 201, '\0');
    for (size_t k = 0; k < payload.size(); k++)
        payload[k] = static_cast<char>(i * 7 + k);
    return {1 + i % 49, i, i % 4, payload};
}

TEST_F(Vsl, ConcurrentWriterProcessIsReadOnceInOrderAndWhole) {
    // A bigger ring; the writer keeps at most `window` records ahead of the
    // reader's acknowledgements so that it never overwrites unread records,
    // and goes round the ring many times.
    const unsigned total = 20000, window = 96, restartAt = total / 2;
    VSM_Delete(vd_);
    Segment seg(kName, 1 << 17);
    LogRing ring(seg, seg.addChunk("Log", "", "", 1 << 16), 1);
    vd_ = VSM_New();
    ASSERT_EQ(VSL_Arg(vd_, 'n', kName), 1);
    uint32_t *p;
    ASSERT_EQ(VSL_NextLog(vd_, &p, nullptr), 0); // standing at the end before the writer starts

    int acks[2];
    ASSERT_EQ(pipe(acks), 0);
    pid_t pid = fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) {
        close(acks[1]);
        unsigned acked = 0;
        auto waitFor = [&](unsigned n) {
            while (acked < n) {
                uint32_t v[64];
                ssize_t got = read(acks[0], v, sizeof v);
                if (got <= 0)
                    _exit(2);
                acked = v[got / 4 - 1];
            }
        };
        for (unsigned i = 1; i <= total; i++) {
            if (i > window)
                waitFor(i - window);
            if (i == restartAt) {
                // The reader has everything so far; it must find the new
                // generation's first record before the ring refills.
                waitFor(i - 1);
                ring.restart(2);
                Rec r = recordFor(i);
                ring.append(r.tag, r.id, r.side, r.payload);
                waitFor(i);
                continue;
            }
            Rec r = recordFor(i);
            if (!ring.append(r.tag, r.id, r.side, r.payload))
                _exit(3);
        }
        waitFor(total);
        _exit(0);
    }
    close(acks[0]);
    unsigned next = 1;
    std::string failure;
    while (next <= total && failure.empty()) {
        int i = VSL_NextLog(vd_, &p, nullptr);
        if (i == 0) {
            int status;
            if (waitpid(pid, &status, WNOHANG) == pid) {
                failure = "writer ended early, status " + std::to_string(status);
                pid = -1;
            }
            sched_yield();
            continue;
        }
        if (i != 1) {
            failure = "NextLog " + std::to_string(i) + " at record " + std::to_string(next);
            break;
        }
        Rec got = take(p), want = recordFor(next);
        if (!(got == want)) {
            std::ostringstream os;
            os << "record " << next << ": got " << got << " want " << want;
            failure = os.str();
            break;
        }
        uint32_t ack = next++;
        if (write(acks[1], &ack, sizeof ack) != sizeof ack)
            failure = "ack write failed";
    }
    close(acks[1]);
    if (pid > 0) {
        int status;
        ASSERT_EQ(waitpid(pid, &status, 0), pid);
        EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
    }
    EXPECT_EQ(failure, "");
    EXPECT_EQ(next, total + 1);
    EXPECT_EQ(vd_->vsl->last_gen, 2u);
    EXPECT_EQ(VSL_NextLog(vd_, &p, nullptr), 0);
}

} // namespace
