// What a viewer sees of the user's addresses: each kind of address masked
// to its first two parts, what follows it kept, the run's targets readable,
// and text that only looks like an address left alone.

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
        {"::1", "0:0:x:x:x:x:x:x"},
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
             "192.168.1/24",
             "10.0.1 link#4",
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
