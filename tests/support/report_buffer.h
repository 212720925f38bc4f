// The tool's report buffer, dia_msg, for tests of the units that append to
// it: empty at the start of every test.

#ifndef KOB_REPORT_BUFFER_H
#define KOB_REPORT_BUFFER_H

#include <string>

#include <gtest/gtest.h>

#include "kobdiag.h"
#include "vsb.h"

namespace kobtest {

// Made once, emptied for each use: the tool never frees it either.
inline void freshReport() {
    if (dia_msg == nullptr)
        dia_msg = vsb_newauto();
    ASSERT_NE(dia_msg, nullptr);
    vsb_clear(dia_msg);
}

inline std::string reportText() {
    return std::string(dia_msg->s_buf, dia_msg->s_len);
}

class ReportBuffer : public ::testing::Test {
  protected:
    void SetUp() override { freshReport(); }
    static std::string report() { return reportText(); }
};

} // namespace kobtest

#endif
