// kobreportd with PostgreSQL: a real server of its own on loopback, shared by
// two kobreportd instances as behind a load balancer.

#include "kobtest.h"
#include "reportd.h"
#include "reportgen.h"

#include <algorithm>
#include <gtest/gtest.h>
#include <set>
#include <thread>

TEST(ReportdPostgres, TwoInstancesShareOneDatabase) {
    reportd::Postgres pg;
    if (!pg.available())
        GTEST_SKIP() << pg.reason();
    reportd::Server a(KOBREPORTD_BIN, pg.url());
    reportd::Server b(KOBREPORTD_BIN, pg.url());

    // Uploads to both at once; every report lands once, under its own number.
    constexpr int kPerThread = 5;
    std::vector<std::string> refs(4 * kPerThread), descs(4 * kPerThread);
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; t++) {
        threads.emplace_back([&, t] {
            int port = t % 2 ? a.port() : b.port();
            for (int i = 0; i < kPerThread; i++) {
                int k = t * kPerThread + i;
                auto run = reportgen::healthyRun();
                run.username = "user" + std::to_string(k);
                run.logs["kobvane_stderr.txt"] = std::string("bytes \xff\x01 survive\n");
                descs[k] = reportgen::report(run);
                refs[k] = reportd::reference(reportd::upload(port, descs[k], "form-user", "why?"));
            }
        });
    }
    for (auto &t : threads)
        t.join();
    std::set<std::string> unique(refs.begin(), refs.end());
    EXPECT_EQ(unique.size(), refs.size());
    EXPECT_EQ(unique.count(""), 0u);
    EXPECT_EQ(pg.psql("SELECT count(*), count(DISTINCT reference) FROM reports"), "20|20\n");
    for (int k = 0; k < 20; k += 7) {
        SCOPED_TRACE(k);
        EXPECT_EQ(a.api("/api/reports/" + refs[k] + "/raw?reveal=1").body, descs[k]);
        EXPECT_EQ(b.api("/api/reports/" + refs[k] + "/raw?reveal=1").body, descs[k]);
        auto j = b.api("/api/reports/" + refs[k]).body;
        EXPECT_NE(j.find("\"username\":\"user" + std::to_string(k) + "\""), std::string::npos);
        EXPECT_NE(j.find("\"why\":\"why?\""), std::string::npos);
    }
    EXPECT_EQ(a.api("/api/reports?q=USER1").body.rfind("{\"total\":11,", 0), 0u);
    EXPECT_EQ(a.api("/api/reports?q=" + refs[3]).body.rfind("{\"total\":1,", 0), 0u);

    // A restarted instance finds everything and goes on numbering.
    EXPECT_EQ(a.stop(), 0) << a.errors();
    reportd::Server again(KOBREPORTD_BIN, pg.url());
    auto list = again.api("/api/reports");
    EXPECT_EQ(list.body.rfind("{\"total\":20,", 0), 0u);
    std::string next = reportd::reference(reportd::upload(again.port(), "after restart\n"));
    // Later than any number given before the restart.
    long long newest = 0;
    for (const auto &ref : refs)
        newest = std::max(newest, std::stoll(ref.substr(13)));
    EXPECT_GT(std::stoll(next.substr(13)), newest) << next;
    EXPECT_EQ(again.signedIn().get("/").status, 200);
}

// Large reports with every byte value and small ones, sent together and
// committed in batches side by side: each lands whole under its own number,
// stored with the faster compression.
TEST(ReportdPostgres, ReportsSentTogetherAreStoredWholeEachUnderItsOwnReference) {
    reportd::Postgres pg;
    if (!pg.available())
        GTEST_SKIP() << pg.reason();
    reportd::Server s(KOBREPORTD_BIN, pg.url(), {"--max-body", "20000000"});
    const std::vector<size_t> sizes = {1, 300u << 10, 7, (3u << 20) + 3, 4096, 262145};
    std::vector<std::string> descs;
    for (size_t i = 0; i < sizes.size(); i++) {
        std::string d(sizes[i], '\0');
        unsigned x = static_cast<unsigned>(i) * 2654435761u + 7;
        for (char &c : d) {
            x = x * 1103515245u + 12345u;
            // Half of it repeats, so that it is worth compressing.
            c = static_cast<char>(x & 0x100 ? 'a' : (x >> 16) & 0xff);
        }
        descs.push_back(d);
    }
    std::vector<std::string> refs = reportd::uploadTogether(s.port(), descs);
    std::set<std::string> unique(refs.begin(), refs.end());
    EXPECT_EQ(unique.size(), sizes.size());
    for (size_t i = 0; i < sizes.size(); i++) {
        SCOPED_TRACE(sizes[i]);
        auto raw = s.api("/api/reports/" + refs[i] + "/raw?reveal=1");
        EXPECT_EQ(raw.status, 200);
        EXPECT_TRUE(raw.body == descs[i]) << raw.body.size();
    }
    // Compressed by kobreportd, and not a second time by the server.
    const std::string big = " FROM reports WHERE size = " + std::to_string((3u << 20) + 3);
    EXPECT_EQ(pg.psql("SELECT desc_zstd, encode(substring(\"desc\" from 1 for 4), 'hex')" + big),
              "1|28b52ffd\n");
    EXPECT_EQ(pg.psql("SELECT pg_column_compression(\"desc\") IS NULL" + big), "t\n");
    EXPECT_EQ(pg.psql("SELECT attstorage FROM pg_attribute WHERE attrelid = 'reports'::regclass"
                      " AND attname = 'desc'"),
              "e\n");
}

TEST(ReportdPostgres, UnreachableDatabaseAtStartExitsOne) {
    int port = reportd::freePort();
    auto r = kobtest::runProgram({KOBREPORTD_BIN, "--listen", "127.0.0.1:0", "--db",
                                  "postgresql://postgres@127.0.0.1:" + std::to_string(port) +
                                      "/postgres?connect_timeout=5"});
    EXPECT_TRUE(r.exited(1));
    EXPECT_EQ(r.err.rfind("kobreportd: cannot connect to PostgreSQL: ", 0), 0u) << r.err;
}
