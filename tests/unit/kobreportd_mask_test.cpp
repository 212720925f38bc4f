// What a viewer sees of the user's data: each kind of address masked to its
// first two parts, what follows it kept, the run's targets and addresses
// that are no one's readable, home directories and e-mail addresses without
// the person, and text that only looks like any of these left alone.

#include "mask.h"
#include "reportgen.h"

#include <gtest/gtest.h>

using kobreportd::AddressSet;
using kobreportd::maskAddresses;

TEST(Mask, EachKindOfAddressKeepsItsFirstTwoParts) {
    struct Case {
        const char *in, *out;
    } cases[] = {
        {"inet 192.168.1.23 netmask", "inet 192.168.x.x netmask"},
        {"ether a4:83:e7:01:02:03\n", "ether a4:83:xx:xx:xx:xx\n"},
        {"ether 0:1e:c2:a:b:c", "ether 0:1e:xx:xx:xx:xx"},
        {"inet6 2001:db8:5:6::17 prefixlen 64", "inet6 2001:db8:x:x:x:x:x:x prefixlen 64"},
        {"inet6 fe80::1%lo0 prefixlen", "inet6 fe80:0:x:x:x:x:x:x%lo0 prefixlen"},
        // No one's own: loopback and unspecified, in either family.
        {"::1", "::1"},
        {"listen :: port 80", "listen :: port 80"},
        {"127.0.0.1:8080 and 0.0.0.0", "127.0.0.1:8080 and 0.0.0.0"},
        {"default 0.0.0.0 UGSc", "default 0.0.0.0 UGSc"},
        // IPv6 in its other forms: full, with a zone, with IPv4 inside, a
        // prefix.
        {"2001:0db8:0000:0000:0000:ff00:0042:8329", "2001:db8:x:x:x:x:x:x"},
        {"fe80::a4b1:c2ff:fe01:203%en0 ", "fe80:0:x:x:x:x:x:x%en0 "},
        {"from ::ffff:192.168.1.5 to", "from ::ffff:192.168.x.x to"},
        {"nat64 64:ff9b::192.0.2.33", "nat64 64:ff9b:x:x:x:x:x:x"},
        {"2001:db8:5::/48 link#4", "2001:db8:x:x:x:x:x:x/48 link#4"},
        // IPv4 networks as route lists write them.
        {"10.51.135/24 link#4", "10.51.x/24 link#4"},
        {"10.51.135.0/24 link#4", "10.51.x.x/24 link#4"},
        {"10.51/16 link#4", "10.51/16 link#4"},
        // MAC addresses with each separator.
        {"hw a4-83-e7-01-02-03.", "hw a4-83-xx-xx-xx-xx."},
        {"port a483.e701.0203 up", "port a483.xxxx.xxxx up"},
        // The user's name in a home directory, and the person in an e-mail.
        {"open /Users/kim.lee/Library/Logs/x", "open /Users/…/Library/Logs/x"},
        {"cd /home/kim && ls /Users/kim", "cd /home/… && ls /Users/…"},
        {"/Users/Shared/kob.log", "/Users/Shared/kob.log"},
        {"mail kim.lee+vpn@example.co.kr.", "mail …@example.co.kr."},
        {"(kim@corp.example)", "(…@corp.example)"},
        // netstat's address.port and address:port forms keep the port.
        {"tcp4 10.0.0.5.51234 17.1.2.3.443", "tcp4 10.0.x.x.51234 17.1.x.x.443"},
        {"to 10.0.0.5:8080.", "to 10.0.x.x:8080."},
        {"addr:10.9.8.7 Bcast", "addr:10.9.x.x Bcast"},
        {"(10.1.2.3)", "(10.1.x.x)"},
        {"tcp6 2001:db8::1.443 ESTABLISHED", "tcp6 2001:db8:x:x:x:x:x:x.443 ESTABLISHED"},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.in);
        EXPECT_EQ(maskAddresses(c.in, {}), c.out);
    }
}

TEST(Mask, TextThatOnlyLooksLikeAnAddressStays) {
    for (const char *same : {
             "version 4.4.1",
             "at 21:11:25 UTC",
             "1.2.3",
             "1.2.3.4.5.6",
             "256.1.1.1",
             "v1.2.3.4",
             "1.2.3.4abc",
             "deadbeef",
             "12:34",
             "a4:83:e7:01:02",
             "10.0.1 link#4",
             "2026-11-24 10:00",
             "550e8400-e29b-41d4-a716-446655440000",
             "a4-83-e7-01-02",
             "user@localhost",
             "@ 10:00",
             "a@b",
             "no colons here",
         }) {
        SCOPED_TRACE(same);
        EXPECT_EQ(maskAddresses(same, {}), same);
    }
}

TEST(Mask, TheAddressesToKeepStayReadable) {
    AddressSet keep = {"203.0.113.7", "2001:db8::9"};
    EXPECT_EQ(maskAddresses("to 203.0.113.7:10007 via 203.0.113.8", keep),
              "to 203.0.113.7:10007 via 203.0.x.x");
    // An IPv6 address is kept however it is written.
    EXPECT_EQ(maskAddresses("2001:db8:0::9 2001:db8::10", keep),
              "2001:db8:0::9 2001:db8:x:x:x:x:x:x");
}

TEST(Mask, AReportKeepsItsTargetsAndHidesTheRest) {
    auto run = reportgen::healthyRun();
    run.logs["kobvane_stdout.txt"] = "local 192.168.7.7 gateway 10.243.160.1\n";
    std::string text = reportgen::report(run);
    auto keep = kobreportd::targetAddresses(kobtriage::parse(text));
    EXPECT_EQ(keep.count("10.243.160.1"), 1u);
    std::string masked = kobreportd::maskReport(text);
    EXPECT_EQ(masked.find("192.168.7.7"), std::string::npos);
    EXPECT_NE(masked.find("local 192.168.x.x gateway 10.243.160.1\n"), std::string::npos);
    // Masking changes nothing the triage reads about the targets.
    EXPECT_EQ(kobtriage::parse(masked).summary(), kobtriage::parse(text).summary());
}

TEST(Mask, TheOperatorsTargetsAreFoundInTheirNames) {
    auto found = kobreportd::addressesIn({"traceroute to 192.0.2.2", "10.243.160.1:8081",
                                          "UDP pass-through", "tcp [2001:db8::1]:443 2001:db8::2",
                                          "Testing TCP pass-through to port 443"});
    EXPECT_EQ(found, (AddressSet{"10.243.160.1", "192.0.2.2", "2001:db8::2"}));
}

// A whole page or JSON answer is masked as a text is: its markup and times
// are not addresses.
TEST(Mask, APageIsMaskedWithoutTouchingItsMarkup) {
    std::string page = "<tr><td><a href=\"/kob/reports/KOB-20261124-000001\">KOB-20261124-000001"
                       "</a></td><td>2026-11-24 16:44:53</td><td>traceroute stopped at hop 2 "
                       "(last reply from 203.0.113.77)</td></tr>\n"
                       "{\"received_at\":\"2026-11-24T16:44:53Z\",\"summary\":\"via 192.0.2.2\"}";
    EXPECT_EQ(maskAddresses(page, AddressSet{"192.0.2.2"}),
              "<tr><td><a href=\"/kob/reports/KOB-20261124-000001\">KOB-20261124-000001"
              "</a></td><td>2026-11-24 16:44:53</td><td>traceroute stopped at hop 2 "
              "(last reply from 203.0.x.x)</td></tr>\n"
              "{\"received_at\":\"2026-11-24T16:44:53Z\",\"summary\":\"via 192.0.2.2\"}");
}
