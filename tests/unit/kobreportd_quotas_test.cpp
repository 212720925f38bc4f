// What anonymous uploads may take: each address's bytes a day, counted as
// received; the disk's free share and the database's size for everyone.

#include "quotas.h"

#include <gtest/gtest.h>

using kobreportd::DiskState;
using kobreportd::QuotaOptions;
using kobreportd::Quotas;

namespace {

constexpr uint64_t MiB = uint64_t{1} << 20;
constexpr std::time_t kDay = 1800000000 / 86400 * 86400; // a UTC midnight

DiskState roomy() {
    return {uint64_t{900} << 30, uint64_t{1000} << 30, 0};
}

} // namespace

TEST(Quotas, EachAddressHasItsBytesADayCountedAsReceived) {
    Quotas q(QuotaOptions{}, roomy);
    const std::time_t t = kDay + 3600;
    EXPECT_FALSE(q.admit("198.51.100.7", 200 * MiB, t));
    // While that body comes, its claim holds the room.
    auto held = q.admit("198.51.100.7", 57 * MiB, t);
    ASSERT_TRUE(held);
    EXPECT_EQ(held->status, 429);
    // It claimed 200 MiB; 150 MiB arrived, and that is what counts.
    q.received("198.51.100.7", 200 * MiB, 150 * MiB, t);
    EXPECT_FALSE(q.admit("198.51.100.7", 106 * MiB, t));
    auto r = q.admit("198.51.100.7", 107 * MiB, t);
    ASSERT_TRUE(r);
    EXPECT_EQ(r->status, 429);
    EXPECT_STREQ(r->reason, "address_quota");
    EXPECT_EQ(r->text, "Too many report bytes from this address today (at most 256 MiB), please "
                       "send the report again tomorrow\n");
    EXPECT_EQ(r->retry_after, 86400 - 3600);
    // Another address is not held to it; the next day starts afresh.
    EXPECT_FALSE(q.admit("198.51.100.8", 256 * MiB, t));
    EXPECT_FALSE(q.admit("198.51.100.7", 256 * MiB, kDay + 86400));
    EXPECT_TRUE(q.admit("198.51.100.7", 257 * MiB, kDay + 86400));
}

TEST(Quotas, AnUploadThatBroughtNothingGivesItsRoomBack) {
    QuotaOptions o;
    o.per_address_per_day = 100 * MiB;
    Quotas q(o, roomy);
    EXPECT_FALSE(q.admit("2001:db8::7", 100 * MiB, kDay));
    EXPECT_TRUE(q.admit("2001:db8::7", 1, kDay));
    q.received("2001:db8::7", 100 * MiB, 0, kDay);
    EXPECT_FALSE(q.admit("2001:db8::7", 100 * MiB, kDay));
    // A claim made before midnight is forgotten with the day; what came is
    // counted on the new one.
    q.received("2001:db8::7", 100 * MiB, 30 * MiB, kDay + 86400);
    EXPECT_FALSE(q.admit("2001:db8::7", 70 * MiB, kDay + 86400));
    EXPECT_TRUE(q.admit("2001:db8::7", 1, kDay + 86400));
}

TEST(Quotas, NoBudgetWhenTheOperatorSetsNone) {
    QuotaOptions o;
    o.per_address_per_day = 0;
    Quotas q(o, roomy);
    q.received("198.51.100.7", 0, uint64_t{10} << 30, kDay);
    EXPECT_FALSE(q.admit("198.51.100.7", uint64_t{10} << 30, kDay));
}

TEST(Quotas, TheDiskKeepsItsFreeShareAndTheDatabaseItsCap) {
    DiskState d{uint64_t{6} << 30, uint64_t{100} << 30, 900 * MiB};
    QuotaOptions o;
    o.max_db_size = uint64_t{1} << 30;
    Quotas q(o, [&d] { return d; });
    // 6 GiB free of 100: half a GiB more leaves 5.5, above the 5% kept.
    EXPECT_FALSE(q.admit("a", 100 * MiB, kDay));
    auto full = q.admit("a", 125 * MiB, kDay);
    ASSERT_TRUE(full);
    EXPECT_EQ(full->status, 507);
    EXPECT_STREQ(full->reason, "db_size");
    EXPECT_EQ(full->text,
              "Report not stored: the server's store is full, please send it again later\n");
    d.db_bytes = 0;
    d.free_bytes = uint64_t{5} << 30;
    // The disk is looked at again only after five seconds.
    EXPECT_FALSE(q.admit("a", 1, kDay + 4));
    auto low = q.admit("a", 1, kDay + 5);
    ASSERT_TRUE(low);
    EXPECT_EQ(low->status, 507);
    EXPECT_STREQ(low->reason, "disk_free");
    EXPECT_EQ(low->text, "Report not stored: the server is short of disk space, please send it "
                         "again later\n");
    EXPECT_EQ(low->retry_after, 3600);
}

TEST(Quotas, AProbeThatCannotTellGuardsNothing) {
    Quotas q(QuotaOptions{}, [] { return DiskState{}; });
    EXPECT_FALSE(q.admit("a", 255 * MiB, kDay));
}
