// package_fixture.h - shared by the unit tests: stdout capture, the readers' "section cannot be
// found" message, little-endian packet bytes, and a fixture that resets the tree, the component
// list and the run flags around a scratch directory (inside the sandbox when the test needs /etc
// and /tmp of its own). Writes the globals it resets.
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

inline const std::string CorruptSection = "The XML file is corrupt.  The '";
// What a reader prints when the section Name is not where it looks.
inline std::string Missing(const std::string &Name)
{
    return CorruptSection + Name + "' section cannot be found.\n";
}

typedef std::vector<unsigned char> Bytes;
// Appends 32-bit little-endian Values, as the packets carry them.
inline void PutU32(Bytes *B, std::initializer_list<uint32_t> Values)
{
    for (uint32_t V : Values)
        for (int Shift = 0; Shift < 32; Shift += 8)
            B->push_back(static_cast<unsigned char>(V >> Shift));
}
inline void PutString(Bytes *B, const std::string &S)
{
    B->insert(B->end(), S.c_str(), S.c_str() + S.size() + 1);
}

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
    // Every file gets its own path, so that the current-file rule reads it afresh.
    std::string WriteNew(const std::string &Text)
    {
        return Write("c" + std::to_string(++Serial) + ".xml", Text);
    }
};
