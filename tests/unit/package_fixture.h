// package_fixture.h - shared by the OS detection, bundle and component tests: a fixture that
// resets the tree, the component list and the run flags around a scratch directory (inside
// the sandbox when the test needs /etc and /tmp of its own), and stdout capture.
#pragma once

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <functional>

#include "packages.h"
#include "runflags.h"
#include "support.h"
#include "sandbox.h"
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

inline const std::string CorruptSection = "The XML file is corrupt.  The '";

class PackageTest : public testing::Test
{
protected:
    std::string Dir;
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
        VERBOSE_MODE = SILENT_INSTALL = 0;
        DEBUG_FLAG = 0;
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
};
