#include "koblab_request.h"

#include <string>

#include <gtest/gtest.h>

namespace {

const std::string kHead = "POST /report/problem.php HTTP/1.1\r\nHost: 127.10.0.9\r\n";

TEST(KoblabRequest, WholeOnlyWithTheBodyTheLengthAsksFor) {
    EXPECT_FALSE(koblab::requestComplete(kHead));
    EXPECT_TRUE(koblab::requestComplete(kHead + "\r\n"));
    EXPECT_FALSE(koblab::requestComplete(kHead + "Content-Length: 3\r\n\r\nab"));
    EXPECT_TRUE(koblab::requestComplete(kHead + "content-length: 3\r\n\r\nabc"));
}

TEST(KoblabRequest, HugeLengthNeverCountsAsArrived) {
    for (const char *length :
         {"18446744073709551615", "18446744073709551614", "-1", "99999999999999999999999"}) {
        SCOPED_TRACE(length);
        EXPECT_FALSE(koblab::requestComplete(kHead + "Content-Length: " + length + "\r\n\r\nx"));
    }
}

} // namespace
