// Installed OS detection: release files as the distributions wrote them, the hand-over
// between the Red Hat codes, the fixed /tmp/release.out, and the SP3 suffix; and the sandbox
// the detection runs in (a second entry starts from a clean /tmp and /dev, files are written
// only below /etc).
#include <sys/stat.h>

#include "../common/helpers.h"
#include "package_fixture.h"

namespace {

class OSDetect : public PackageTest {
protected:
    bool Sandboxed() const override { return true; }
    char Name[OS_NAME_MAX] = {}, Version[OS_NAME_MAX] = {};
    signed char Detect(const std::string &Text)
    {
        SetRelease(Text);
        Name[0] = Version[0] = '\0';
        return DetectInstalledOS(Name, Version);
    }
};

TEST_F(OSDetect, ReleaseFilesGiveNameVersionAndKey)
{
    const char *Cases[][4] = {
        {RH73, "Red Hat Linux", "7.3", "Red_Hat_Linux_7.3"},
        // Code 1 finds "Server" in field 5 and hands over to code 3.
        {AS21, "Red Hat Linux Advanced Server", "2.1", "Red_Hat_Linux_Advanced_Server_2.1"},
        // Codes 1 and 3 find nothing; code 6 takes over.
        {EL3, "Red Hat Enterprise Linux", "3", "Red_Hat_Enterprise_Linux_3"},
        {"Red Hat Enterprise Linux AS release 2.9.5 (Nahant)\n", "Red Hat Enterprise Linux", "3",
         "Red_Hat_Enterprise_Linux_3"},
        {SLES8, "SuSE SLES-8", "8.1", "SuSE_SLES-8_8.1"},
        {UL10, "UnitedLinux", "1.0", "UnitedLinux_1.0"},
        {"Linux\n", "", "", "_"}, // every code fails
    };
    for (auto &Case : Cases) {
        SCOPED_TRACE(Case[0]);
        EXPECT_EQ(TRUE, Detect(Case[0]));
        EXPECT_STREQ(Case[1], Name);
        EXPECT_STREQ(Case[2], Version);
        EXPECT_STREQ(Case[3], CurrentlyInstalledOS);
        EXPECT_FALSE(Exists(RELEASE_OUT_FILE));
    }
    // An overlong name is refused, not cut.
    std::string Out = Captured(
        [&] { Detect(std::string(300, 'R') + " Hat Linux release 7.3 (V)\n"); });
    EXPECT_TRUE(Has(Out, "The installed OS name in release.out is longer than 255")) << Out;
    EXPECT_STREQ("_7.3", CurrentlyInstalledOS);
}

// Without a release file, or with a /tmp/release.out that cannot be made safe, the detection
// fails, names the reason and keeps the key; a link planted there is neither followed nor read.
TEST_F(OSDetect, FailuresKeepTheKeyAndNothingPlantedAtReleaseOutIsFollowed)
{
    SetInstalledOS("Earlier_1.0");
    EXPECT_EQ("An attempt was made to install the Rezapak on an unsupported operating system.  "
              "Installation FAILED.\n",
              Captured([] { EXPECT_EQ(FALSE, IsOSSupportedByBundle(nullptr)); }));
    EXPECT_STREQ("Earlier_1.0", CurrentlyInstalledOS);

    std::ofstream("/tmp/target") << "9.9 Other OS\n";
    ASSERT_EQ(0, symlink("/tmp/target", RELEASE_OUT_FILE));
    EXPECT_EQ(TRUE, Detect(RH73));
    EXPECT_STREQ("Red_Hat_Linux_7.3", CurrentlyInstalledOS);
    EXPECT_EQ("9.9 Other OS\n", ReadAll("/tmp/target"));
    EXPECT_FALSE(Exists(RELEASE_OUT_FILE));

    ASSERT_EQ(0, mkdir(RELEASE_OUT_FILE, 0755)); // an empty directory is removed
    EXPECT_EQ(TRUE, GetInstalledOSVersion(OS_RED_HAT, Name, Version));
    ASSERT_EQ(0, mkdir(RELEASE_OUT_FILE, 0755)); // one that cannot be removed fails
    std::ofstream(RELEASE_OUT_FILE "/keep") << "x";
    SetInstalledOS("Earlier_1.0");
    EXPECT_EQ("The installed OS cannot be detected: /tmp/release.out cannot be used safely "
              "(Directory not empty).\n",
              Captured([&] { EXPECT_EQ(FALSE, DetectInstalledOS(Name, Version)); }));
    EXPECT_STREQ("Earlier_1.0", CurrentlyInstalledOS);
    std::filesystem::remove_all(RELEASE_OUT_FILE);
    // A /tmp in which anyone may rename the file away is no place for it.
    ASSERT_EQ(0, chmod("/tmp", 0777));
    std::string Out = Captured([&] { EXPECT_EQ(FALSE, DetectInstalledOS(Name, Version)); });
    ASSERT_EQ(0, chmod("/tmp", 01777));
    EXPECT_TRUE(Has(Out, "/tmp/release.out cannot be used safely (/tmp is not a sticky")) << Out;
}

TEST_F(OSDetect, ServicePackSuffixOnlyForUnitedLinux10WithYes)
{
    const char *Cases[][3] = {
        {"UnitedLinux_1.0", "YES", "UnitedLinux_1.0_SP3"},
        {"UnitedLinux_1.0", "yes", "UnitedLinux_1.0"},
        {"UnitedLinux_1.0", nullptr, "UnitedLinux_1.0"},
        {"Red_Hat_Linux_7.3", "YES", "Red_Hat_Linux_7.3"},
        {nullptr, "YES", nullptr},
    };
    for (auto &Case : Cases) {
        SetInstalledOS(Case[0]);
        Case[1] ? setenv("SP3", Case[1], 1) : unsetenv("SP3");
        CheckForULSP3();
        CheckForULSP3(); // never twice
        EXPECT_STREQ(Case[2], CurrentlyInstalledOS) << (Case[0] ? Case[0] : "unset") << " "
                                                    << (Case[1] ? Case[1] : "unset");
    }
    unsetenv("SP3");
}

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
