// package_fixture.h - shared by the unit tests: stdout capture, the readers' "section cannot be
// found" message, the release files of the distributions, and a fixture that resets the tree,
// the component list and the run flags around a scratch directory (inside the sandbox when the
// test needs /etc and /tmp of its own, where it writes the release file). Writes the globals it
// resets.
#pragma once

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>

#include "packages.h"
#include "runflags.h"
#include "sandbox.h"
#include "support.h"
#include "xmltokenizer.h"

inline std::string Captured(const std::function<void()> &Run)
{
    fflush(stdout);
    testing::internal::CaptureStdout();
    Run();
    fflush(stdout);
    return testing::internal::GetCapturedStdout();
}

inline bool Has(const std::string &Text, const std::string &Part)
{
    return Text.find(Part) != std::string::npos;
}

// What a reader prints when the section Name is not where it looks.
inline std::string Missing(const std::string &Name)
{
    return "The XML file is corrupt.  The '" + Name + "' section cannot be found.\n";
}

typedef std::vector<unsigned char> Bytes;

const char RH73[] = "Red Hat Linux release 7.3 (Valhalla)\n";
const char AS21[] = "Red Hat Linux Advanced Server release 2.1AS (Pensacola)\n";
const char EL3[] = "Red Hat Enterprise Linux AS release 3 (Taroon)\n";
const char UL10[] = "UnitedLinux 1.0 (i586)\nVERSION = 1.0\n";
const char SLES8[] = "SuSE SLES-8 (i386)\nVERSION = 8.1\n";

class PackageTest : public testing::Test {
protected:
    std::string Dir;
    int Serial = 0;
    virtual bool Sandboxed() const { return false; }
    void SetUp() override
    {
        if (Sandboxed()) {
            ASSERT_EQ(0, SandboxEnter());
            ASSERT_EQ(0, SandboxClearReleaseFiles());
        }
        char Template[] = "/tmp/zelpkg.XXXXXX";
        ASSERT_NE(nullptr, mkdtemp(Template));
        Dir = Template;
        Reset();
    }
    void TearDown() override
    {
        Reset();
        std::filesystem::remove_all(Dir);
    }
    static void Reset()
    {
        DeleteTree();
        FreeComponentList();
        SetInstalledOS(nullptr);
        VERBOSE_MODE = SILENT_INSTALL = DEBUG_FLAG = 0;
    }
    static void SetInstalledOS(const char *Key)
    {
        free(CurrentlyInstalledOS);
        CurrentlyInstalledOS = DuplicateString(Key);
    }
    std::string Write(const std::string &Name, const std::string &Text)
    {
        std::ofstream(Dir + "/" + Name, std::ios::binary) << Text;
        return Dir + "/" + Name;
    }
    // Leaves Text as the only release file, in the file its distribution writes (sandboxed).
    static void SetRelease(const std::string &Text)
    {
        const char *File = Has(Text, "SuSE")          ? "/etc/SuSE-release"
                           : Has(Text, "UnitedLinux") ? "/etc/UnitedLinux-release"
                                                      : "/etc/redhat-release";
        EXPECT_EQ(0, SandboxClearReleaseFiles());
        EXPECT_EQ(0, SandboxSetFile(File, Text.c_str()));
    }
};
