// The staff side's public address: what --public-url takes and how it is
// understood (origin, prefix, the final slash), what it refuses and why, and
// the paths Links makes from routes under a prefix.

#include "public_url.h"

#include <gtest/gtest.h>

using kobreportd::Links;
using kobreportd::parsePublicUrl;
using kobreportd::PublicUrl;

TEST(PublicUrl, OriginAndPrefixAsBrowsersWriteThem) {
    struct Case {
        std::string given, url, origin, prefix;
        bool https;
    };
    const std::vector<Case> cases = {
        {"https://staff.example.net/kob/", "https://staff.example.net/kob/",
         "https://staff.example.net", "/kob/", true},
        // The final slash is added; the scheme's own port and upper case go.
        {"https://staff.example.net/kob", "https://staff.example.net/kob/",
         "https://staff.example.net", "/kob/", true},
        {"HTTPS://Staff.Example.NET:443/kob", "https://staff.example.net/kob/",
         "https://staff.example.net", "/kob/", true},
        {"http://10.1.0.5:80", "http://10.1.0.5/", "http://10.1.0.5", "/", false},
        {"http://10.1.0.5:8080/", "http://10.1.0.5:8080/", "http://10.1.0.5:8080", "/", false},
        {"https://127.0.0.1:8443/a/b-c/", "https://127.0.0.1:8443/a/b-c/", "https://127.0.0.1:8443",
         "/a/b-c/", true},
        {"https://[::1]:8443/kob/", "https://[::1]:8443/kob/", "https://[::1]:8443", "/kob/", true},
        // An IPv6 address as browsers write it: lower case, shortest form.
        {"https://[2001:DB8:0:0::7]/kob/", "https://[2001:db8::7]/kob/", "https://[2001:db8::7]",
         "/kob/", true},
        {"https://h/%7Estaff/", "https://h/%7Estaff/", "https://h", "/%7Estaff/", true},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.given);
        std::string error;
        auto u = parsePublicUrl(c.given, error);
        ASSERT_TRUE(u) << error;
        EXPECT_EQ(u->url, c.url);
        EXPECT_EQ(u->origin, c.origin);
        EXPECT_EQ(u->prefix, c.prefix);
        EXPECT_EQ(u->https, c.https);
        EXPECT_EQ(error, "");
    }
}

TEST(PublicUrl, RefusesWhatCannotBeAPublicAddressWithTheReason) {
    const std::vector<std::pair<std::string, std::string>> cases = {
        {"/kob/", "must be an absolute http:// or https:// URL"},
        {"staff.example.net/kob/", "must be an absolute http:// or https:// URL"},
        {"ftp://staff.example.net/", "must be an absolute http:// or https:// URL"},
        {"https:/staff.example.net/", "must be an absolute http:// or https:// URL"},
        {"", "must be an absolute http:// or https:// URL"},
        {"https://h/kob/?a=1", "may not have a query or a fragment"},
        {"https://h/kob/#top", "may not have a query or a fragment"},
        {"https://h?x", "may not have a query or a fragment"},
        {"https://ada:pw@h/kob/", "may not name a user"},
        {"https:///kob/", "has no valid host"},
        {"https://", "has no valid host"},
        {"https://:8443/", "has no valid host"},
        {"https://h st/", "has no valid host"},
        {"https://[::1/", "has no valid host"},
        {"https://[nonsense]/", "has no valid host"},
        {"https://h:/", "has a bad port"},
        {"https://h:0/", "has a bad port"},
        {"https://h:65536/", "has a bad port"},
        {"https://h:84x/", "has a bad port"},
        // A path beginning "//" would send a browser to another host.
        {"https://h//evil.example/", "has a path that cannot serve as a prefix"},
        {"https://h/kob//x/", "has a path that cannot serve as a prefix"},
        {"https://h/./", "has a path that cannot serve as a prefix"},
        {"https://h/kob/../", "has a path that cannot serve as a prefix"},
        {"https://h/a b/", "has a path that cannot serve as a prefix"},
        {"https://h/a\"b/", "has a path that cannot serve as a prefix"},
        {"https://h/a\\b/", "has a path that cannot serve as a prefix"},
        {"https://h/%zz/", "has a path that cannot serve as a prefix"},
        {"https://h/%2/", "has a path that cannot serve as a prefix"},
    };
    for (const auto &[given, why] : cases) {
        SCOPED_TRACE(given);
        std::string error;
        EXPECT_FALSE(parsePublicUrl(given, error));
        EXPECT_EQ(error, "--public-url " + why + ": " + given);
    }
}

TEST(Links, RoutesUnderThePrefixAndEscapedForAttributes) {
    Links kob("/kob/");
    EXPECT_EQ(kob.path("/"), "/kob/");
    EXPECT_EQ(kob.path("/signin"), "/kob/signin");
    EXPECT_EQ(kob.path("/reports/KOB-20270115-000001/raw"), "/kob/reports/KOB-20270115-000001/raw");
    EXPECT_EQ(kob.prefix(), "/kob/");
    Links root;
    EXPECT_EQ(root.path("/"), "/");
    EXPECT_EQ(root.path("/static/style.css"), "/static/style.css");
    // A prefix may hold what an attribute must escape.
    Links odd("/a&b'/");
    EXPECT_EQ(odd.href("/fleet").str(), "/a&amp;b&#39;/fleet");
}
