// Fails the test program when a sub-service it ran printed a sanitizer report: under the
// sanitizer builds, the sub-service's own memory and thread errors fail the suite even where a
// test looked only at the packets.
#include <gtest/gtest.h>

#include "zelrzpmanager.h"

namespace {

struct SanitizerCheck : testing::Environment {
    void TearDown() override
    {
        EXPECT_EQ(ZmSanitizerReports(), 0) << "a sub-service printed a sanitizer report";
    }
};

const testing::Environment *const Registered =
    testing::AddGlobalTestEnvironment(new SanitizerCheck);

} // namespace
