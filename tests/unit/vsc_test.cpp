#include "vsc.h"

#include <cstring>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "segtest.h"
#include "segwriter.h"

using kobseg::Segment;
using kobtest::runChild;
using kobtest::vasAbort;

namespace {

const char kName[] = ".kobrun.vsm";

// What a callback saw: "-" for the null point, else ident/name=value.
struct Seen {
    std::vector<std::string> calls;
    int stopAt = -1;
};

int record(void *priv, const VSC_point *pt) {
    auto *s = static_cast<Seen *>(priv);
    if (pt == nullptr) {
        s->calls.push_back("-");
        return 0;
    }
    EXPECT_STREQ(pt->class_, "");
    EXPECT_EQ(pt->vf->chunk->ident, pt->ident);
    s->calls.push_back(std::string(pt->ident) + "/" + pt->desc->name + "=" +
                       std::to_string(*pt->ptr));
    if (static_cast<int>(s->calls.size()) == s->stopAt)
        return 7;
    return 0;
}

TEST(VscTable, ThirtyRowsMadeByTheRule) {
    const char *groups[] = {"ath", "bwn", "re", "msk", "zyd"};
    struct Field {
        const char *name, *dir, *qty;
    } fields[] = {{"if_opackets", "output", "packets"}, {"if_ipackets", "input", "packets"},
                  {"if_oerrors", "output", "errors"},   {"if_ierrors", "input", "errors"},
                  {"if_obytes", "output", "bytes"},     {"if_ibytes", "input", "bytes"}};
    int row = 0;
    for (const char *g : groups) {
        for (const Field &f : fields) {
            SCOPED_TRACE(row);
            const VSC_desc &d = VSC_desc_all[row++];
            std::string group(g);
            EXPECT_EQ(std::string(d.name), group + "_" + f.name);
            EXPECT_STREQ(d.type, "uint64_t");
            EXPECT_EQ(d.kind, 99);
            EXPECT_EQ(std::string(d.sdesc),
                      std::string("Interface ") + f.dir + " " + f.qty + " for " + g + "(4)");
            std::string ldir = std::string(f.name) == "if_ipackets" ? "intput" : f.dir;
            EXPECT_EQ(std::string(d.ldesc),
                      "Count of " + ldir + " " + f.qty + " from the " + group + "(4) interface");
        }
    }
    EXPECT_EQ(row, VSC_NCOUNTERS);
}

TEST(VscTable, SpelledOutRows) {
    EXPECT_STREQ(VSC_desc_all[0].name, "ath_if_opackets");
    EXPECT_STREQ(VSC_desc_all[0].sdesc, "Interface output packets for ath(4)");
    EXPECT_STREQ(VSC_desc_all[1].sdesc, "Interface input packets for ath(4)");
    EXPECT_STREQ(VSC_desc_all[1].ldesc, "Count of intput packets from the ath(4) interface");
    EXPECT_STREQ(VSC_desc_all[29].name, "zyd_if_ibytes");
    EXPECT_STREQ(VSC_desc_all[28].ldesc, "Count of output bytes from the zyd(4) interface");
    EXPECT_STREQ(VSC_desc_all[19].ldesc, "Count of intput packets from the msk(4) interface");
    EXPECT_STREQ(VSC_desc_all[15].name, "re_if_ierrors");
}

class Vsc : public InTempDir {
  protected:
    void SetUp() override {
        InTempDir::SetUp();
        vd_ = VSM_New();
        ASSERT_EQ(VSM_n_Arg(vd_, kName), 1);
    }
    void TearDown() override {
        VSM_Delete(vd_);
        InTempDir::TearDown();
    }
    VSM_data *vd_ = nullptr;
};

TEST_F(Vsc, MainFindsTheBlockWithEmptyTypeAndIdent) {
    Segment seg(kName, 4096);
    uint64_t named = seg.addChunk("Stat", "", "other", 240);
    uint64_t main = seg.addChunk("Stat", "", "", 240);
    seg.setCounter(named, 0, 5);
    for (unsigned i = 0; i < 30; i++)
        seg.setCounter(main, i, 1000 + i);
    VSC_C_main *m = VSC_Main(vd_);
    ASSERT_NE(m, nullptr);
    EXPECT_EQ(reinterpret_cast<char *>(m), seg.payload(main) - seg.base() + vd_->seg_start);
    EXPECT_EQ(m->ath_if_opackets, 1000u);
    EXPECT_EQ(m->ath_if_ipackets, 1001u);
    EXPECT_EQ(m->zyd_if_ibytes, 1029u);
    seg.setCounter(main, 29, 77);
    EXPECT_EQ(m->zyd_if_ibytes, 77u);
}

TEST_F(Vsc, MainIsNullWithoutSegmentOrBlock) {
    EXPECT_EQ(VSC_Main(vd_), nullptr);
    EXPECT_STREQ(VSM_Error(vd_), "Cannot open .kobrun.vsm: No such file or directory\n");
    Segment seg(kName, 4096);
    seg.addChunk("Stat", "x", "", 240);
    seg.addChunk("Stat", "", "id", 240);
    EXPECT_EQ(VSC_Main(vd_), nullptr);
}

TEST_F(Vsc, ShortCounterChunksAreNotRead) {
    Segment seg(kName, 4096);
    seg.addChunk("Stat", "", "", 239);
    EXPECT_EQ(VSC_Main(vd_), nullptr);
    Seen s;
    EXPECT_EQ(VSC_Iter(vd_, record, &s), 0);
    EXPECT_EQ(s.calls, std::vector<std::string>{"-"});
}

TEST_F(Vsc, TwoCounterChunksGiveSixtyPointsInChainAndTableOrder) {
    Segment seg(kName, 4096);
    uint64_t a = seg.addChunk("Stat", "", "", 240);
    seg.addChunk("Log", "", "", 64);
    uint64_t b = seg.addChunk("Stat", "", "second", 240);
    for (unsigned i = 0; i < 30; i++) {
        seg.setCounter(a, i, i);
        seg.setCounter(b, i, 100 + i);
    }
    Seen s;
    EXPECT_EQ(VSC_Iter(vd_, record, &s), 0);
    std::vector<std::string> want{"-"};
    for (unsigned i = 0; i < 30; i++)
        want.push_back(std::string("/") + VSC_desc_all[i].name + "=" + std::to_string(i));
    for (unsigned i = 0; i < 30; i++)
        want.push_back(std::string("second/") + VSC_desc_all[i].name + "=" +
                       std::to_string(100 + i));
    EXPECT_EQ(s.calls, want);
}

TEST_F(Vsc, FirstCallAnnouncesTheListAndASecondGoesStraightToThePoints) {
    Segment seg(kName, 4096);
    uint64_t a = seg.addChunk("Stat", "", "", 240);
    Seen first, second;
    EXPECT_EQ(VSC_Iter(vd_, record, &first), 0);
    ASSERT_EQ(first.calls.size(), 31u);
    EXPECT_EQ(first.calls[0], "-");
    seg.setCounter(a, 0, 9);
    EXPECT_EQ(VSC_Iter(vd_, record, &second), 0);
    ASSERT_EQ(second.calls.size(), 30u);
    EXPECT_EQ(second.calls[0], "/ath_if_opackets=9");
}

TEST_F(Vsc, LayoutChangeRebuildsTheList) {
    Segment seg(kName, 4096, 4);
    seg.addChunk("Stat", "", "", 240);
    Seen first, second;
    EXPECT_EQ(VSC_Iter(vd_, record, &first), 0);
    seg.addChunk("Stat", "", "more", 240);
    seg.setSeq(5);
    EXPECT_EQ(VSC_Iter(vd_, record, &second), 0);
    ASSERT_EQ(second.calls.size(), 61u);
    EXPECT_EQ(second.calls[0], "-");
}

TEST_F(Vsc, CounterChunkWithATypeGivesNoPoints) {
    Segment seg(kName, 4096);
    seg.addChunk("Stat", "", "", 240);
    seg.addChunk("Stat", "x", "typed", 240);
    seg.addChunk("Stats", "", "cls", 240);
    Seen s;
    EXPECT_EQ(VSC_Iter(vd_, record, &s), 0);
    EXPECT_EQ(s.calls.size(), 31u);
    for (const std::string &c : s.calls)
        EXPECT_EQ(c.find("typed"), std::string::npos);
}

TEST_F(Vsc, CallbackAnswerStopsTheWalk) {
    Segment seg(kName, 4096);
    seg.addChunk("Stat", "", "", 240);
    Seen s;
    s.stopAt = 4;
    EXPECT_EQ(VSC_Iter(vd_, record, &s), 7);
    EXPECT_EQ(s.calls.size(), 4u);
}

TEST_F(Vsc, IterIsMinusOneWithoutCounters) {
    Seen s;
    EXPECT_EQ(VSC_Iter(vd_, record, &s), -1);
    Segment seg(kName, 4096);
    seg.addChunk("Log", "", "", 64);
    EXPECT_EQ(VSC_Iter(vd_, record, &s), -1);
    EXPECT_EQ(s.calls, std::vector<std::string>{});
}

TEST_F(Vsc, NewSegmentFileIsFoundAfterTheOldOneGoes) {
    auto seg = std::make_unique<Segment>(kName, 4096);
    seg->setCounter(seg->addChunk("Stat", "", "", 240), 0, 1);
    Seen s;
    EXPECT_EQ(VSC_Iter(vd_, record, &s), 0);
    seg->remove();
    seg = std::make_unique<Segment>(kName, 8192);
    seg->addChunk("Log", "", "", 64);
    seg->setCounter(seg->addChunk("Stat", "", "", 240), 0, 2);
    s.calls.clear();
    EXPECT_EQ(VSC_Iter(vd_, record, &s), 0);
    ASSERT_EQ(s.calls.size(), 31u);
    EXPECT_EQ(s.calls[1], "/ath_if_opackets=2");
}

TEST_F(Vsc, StateRules) {
    auto r = runChild([&] { VSC_Delete(vd_); });
    EXPECT_TRUE(vasAbort(r, "VSC_Delete", "lib/libkob/vsc.cpp", "(vsc) != NULL"));
    r = runChild([&] { VSC_Main(nullptr); });
    EXPECT_TRUE(vasAbort(r, "vsc_setup", "lib/libkob/vsc.cpp", "(vd) != NULL"));
    r = runChild([&] {
        VSC_Main(vd_);
        *reinterpret_cast<uint32_t *>(vd_->vsc) = 1; // the magic comes first
        VSC_Iter(vd_, record, nullptr);
    });
    EXPECT_TRUE(vasAbort(r, "vsc_setup", "lib/libkob/vsc.cpp", "(vd->vsc)->magic == 0x3373554a"));
}

} // namespace
