// The sandbox: a second entry in the same process starts from a clean /tmp and /dev, and
// files are written only below /etc.
#include <gtest/gtest.h>

#include <sys/stat.h>

#include <fstream>

#include "../common/helpers.h"
#include "sandbox.h"

namespace
{

TEST(Sandbox, ReentryEmptiesTmpAndDevButKeepsDevices)
{
    ASSERT_EQ(0, SandboxEnter());
    ASSERT_EQ(0, mkdir("/tmp/nested", 0755));
    std::ofstream("/tmp/nested/file") << "x";
    ASSERT_EQ(0, mkfifo("/dev/zelparser_read", 0600));
    ASSERT_EQ(0, symlink("/etc/passwd", "/tmp/link"));
    ASSERT_EQ(0, SandboxEnter());
    EXPECT_EQ(1, SandboxActive());
    for (const char *Gone : {"/tmp/nested", "/tmp/link", "/dev/zelparser_read"})
        EXPECT_FALSE(Exists(Gone)) << Gone;
    for (const char *Kept :
         {"/etc/passwd", "/dev/null", "/dev/zero", "/dev/random", "/dev/urandom", "/dev/fd"})
        EXPECT_TRUE(Exists(Kept)) << Kept;
    EXPECT_TRUE(std::ofstream("/dev/null") << "written");
    EXPECT_EQ(-1, SandboxSetFile("/etc/../tmp/elsewhere", "x")); // only below /etc
    EXPECT_FALSE(Exists("/tmp/elsewhere"));
}

} // namespace
