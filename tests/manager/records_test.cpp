// The manager's record decoder on hand-built byte strings (made with the transport's own
// encoder, then damaged) and its payload helpers. No process is started.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <memory>
#include <vector>

#include "zelrzpmanager.h"
#include "zelrzptransport.h"

namespace {

typedef std::vector<unsigned char> Bytes;

void Append(Bytes *Out, const unsigned char *Data, int Length)
{
    ASSERT_GE(Length, 0);
    Out->insert(Out->end(), Data, Data + Length);
}

// A string item's declared length and text, and an absent string, as Tokenize takes them.
#define TEXT(S) static_cast<unsigned>(strlen(S) + 1), (S)
#define ABSENT 0u, static_cast<const char *>(nullptr)

// Main body as the sub-service's builder encodes it.
void PutBody(Bytes *Out, const char *File, bool Prereq, bool PreConfig, bool PostConfig,
             bool Postreq)
{
    unsigned char B[RZP_MAX_PAYLOAD];
    Append(Out, B,
           Tokenize(B, RZP_INSTALL_BODY_FORMAT, 201, 1, Prereq, 201, 1, PreConfig, 201, 1, 0, 201,
                    1, PostConfig, 201, 1, 0, 201, 1, Postreq, 201, 1, 1, 207, 4, 0, 208,
                    TEXT("SUCCESS"), 208, TEXT(File), 208, TEXT("Driver"), 208, TEXT("A driver"),
                    208, TEXT("1.2"), 208, TEXT("rpm -i x"), 208, TEXT("MG"), 208, TEXT("MG")));
}

void PutRequisite(Bytes *Out, unsigned Structure, unsigned SubType, const char *Value)
{
    unsigned char B[2048];
    int Body = Tokenize(B, "%U%U%S", SubType, TEXT(Value));
    Append(Out, B, Tokenize(B, "%U%U%U%U%S", Structure, (unsigned)Body, SubType, TEXT(Value)));
}

// A configuration variable whose prompt is set and whose other strings are absent (NULL).
void PutConfiguration(Bytes *Out, unsigned Structure, const char *Name)
{
    unsigned char B[4096];
    int Body = Tokenize(B + 8, RZP_CONFIGURATION_FORMAT, 201, 1, 1, 204, 4, 8u, 204, 4, 16384u, 208,
                        TEXT("Password:"), 208, ABSENT, 208, ABSENT, 204, 4, 2u, 208, TEXT(Name),
                        208, ABSENT, 208, ABSENT, 208, ABSENT, 204, 4, 0x1fu);
    Tokenize(B, "%U%U", Structure, (unsigned)Body);
    Append(Out, B, Body + 8);
}

void PutU32s(Bytes *Out, std::initializer_list<uint32_t> Values)
{
    for (uint32_t V : Values)
        ZmPutU32(Out, V);
}

// Record 7: a device, one prerequisite, a postrequisite, one pre- and one post-configuration.
Bytes FullRecord()
{
    Bytes R;
    PutU32s(&R, {204, 4, 7});
    PutBody(&R, "e100.rpm", true, true, true, true);
    PutRequisite(&R, 301, 8, "8086.1229.0000.0000");
    PutRequisite(&R, 301, 3, "/sbin/lsmod");
    PutRequisite(&R, 302, 11, "snmpd");
    PutConfiguration(&R, 303, "ADMINPASSWD");
    PutConfiguration(&R, 304, "COMMUNITY");
    PutU32s(&R, {999, 0});
    return R;
}

// Decodes from a heap copy of exactly the given bytes, so any read past them is caught.
int Decode(const Bytes &B, ZmRecord *R, std::string *Error)
{
    std::unique_ptr<unsigned char[]> Copy(new unsigned char[B.size() + 1]);
    if (!B.empty())
        memcpy(Copy.get(), B.data(), B.size());
    return ZmDecodeRecord(B.empty() ? nullptr : Copy.get(), B.size(), R, Error);
}

size_t Find(const Bytes &B, const Bytes &What)
{
    return std::search(B.begin(), B.end(), What.begin(), What.end()) - B.begin();
}

void SetU32(Bytes *B, size_t At, uint32_t Value)
{
    Bytes V;
    ZmPutU32(&V, Value);
    std::copy(V.begin(), V.end(), B->begin() + At);
}

} // namespace

TEST(ManagerRecords, DecodesEveryFieldAndSubRecordsInAnyOrder)
{
    ZmRecord R;
    std::string Error;
    ASSERT_EQ(Decode(FullRecord(), &R, &Error), 0) << Error;
    EXPECT_EQ(R.Number, 7u);
    EXPECT_TRUE(R.HasPrerequisites && R.RequiresPreConfiguration && R.HasPostrequisites);
    EXPECT_FALSE(R.RequiresPreCompilation || R.RequiresPostCompilation);
    EXPECT_TRUE(R.ComponentRequiresReboot);
    EXPECT_EQ(R.FailureReasonString, "SUCCESS");
    EXPECT_EQ(R.FileName, "e100.rpm");
    EXPECT_EQ(R.InstallCommand, "rpm -i x");
    EXPECT_EQ(R.ConfigurationOutputFileName, "MG");
    ASSERT_EQ(R.Requisites.size(), 3u);
    EXPECT_EQ(R.Requisites[0].SubType, 8u);
    EXPECT_EQ(R.Requisites[1].Value, "/sbin/lsmod");
    EXPECT_EQ(R.Requisites[2].Structure, 302u);
    ASSERT_EQ(R.Configuration.size(), 2u);
    const ZmConfigVariable &V = R.Configuration[0];
    EXPECT_EQ(V.Structure, 303u);
    EXPECT_TRUE(V.IsVariableRequired && V.HasPrompt && V.HasOutputName);
    EXPECT_FALSE(V.HasAcceptableCharacters || V.HasDefaultValue || V.HasOutputFileName);
    EXPECT_EQ(V.Prompt, "Password:");
    EXPECT_EQ(V.OutputName, "ADMINPASSWD");
    EXPECT_EQ(V.MaximumLength, 16384u);
    EXPECT_EQ(V.Attributes, 0x1fu);
    EXPECT_EQ(R.Configuration[1].Structure, 304u);

    // Sub-records in any order, and a minimal record, are accepted.
    Bytes B;
    PutU32s(&B, {204, 4, 0});
    PutBody(&B, "x.rpm", false, false, false, false);
    PutU32s(&B, {999, 0});
    ZmRecord Out;
    ASSERT_EQ(Decode(B, &Out, nullptr), 0);
    EXPECT_TRUE(Out.Requisites.empty() && Out.Configuration.empty());

    B.resize(B.size() - 8);
    PutConfiguration(&B, 304, "B");
    PutRequisite(&B, 302, 1, "libc.so.6");
    PutRequisite(&B, 301, 2, "true");
    PutU32s(&B, {999, 0});
    ASSERT_EQ(Decode(B, &Out, nullptr), 0);
    ASSERT_EQ(Out.Requisites.size(), 2u);
    EXPECT_EQ(Out.Requisites[0].Structure, 302u);
    EXPECT_EQ(Out.Configuration.size(), 1u);
}

// A prefix cut inside a string says that its NUL is missing.
TEST(ManagerRecords, RefusesEveryTruncationWithoutReadingPastIt)
{
    Bytes Full = FullRecord();
    size_t File = Find(Full, {'e', '1', '0', '0', '.'});
    ASSERT_LT(File, Full.size());
    for (size_t N = 0; N < Full.size(); N++) {
        Bytes Cut(Full.begin(), Full.begin() + N);
        ZmRecord R;
        std::string Error;
        EXPECT_EQ(Decode(Cut, &R, &Error), -1) << "prefix of " << N << " bytes";
        EXPECT_FALSE(Error.empty());
        if (N == File + 3) {
            EXPECT_NE(Error.find("NUL"), std::string::npos) << Error;
        }
    }
}

TEST(ManagerRecords, RefusesLyingLengthsAndUnknownCodes)
{
    const Bytes Full = FullRecord();
    size_t DeviceAt = Find(Full, {0x2d, 1, 0, 0}); // 301, little-endian
    size_t ConfigAt = Find(Full, {0x2f, 1, 0, 0}); // 303
    size_t FileAt = Find(Full, {'e', '1', '0', '0', '.'});
    ASSERT_LT(std::max({DeviceAt, ConfigAt, FileAt}), Full.size());
    struct Case {
        const char *What;
        size_t At;
        uint32_t Value;
        const char *Says; // in the error
    } Cases[] = {
        {"requisite body one byte longer", DeviceAt + 4, 4 + 4 + 20 + 1, ""},
        {"requisite body one byte shorter", DeviceAt + 4, 4 + 4 + 20 - 1, ""},
        {"requisite body past the end", DeviceAt + 4, 0xffffffffu, ""},
        {"requisite value length", DeviceAt + 12, 5, ""},
        {"configuration body length", ConfigAt + 4, 12, ""},
        {"record number type", 0, 207, ""},
        {"record number length", 4, 2, ""},
        {"boolean length", 16, 4, ""},
        {"failure reason type", 12 + 7 * 9, 204, ""},
        {"unknown structure code", DeviceAt, 305, ""},
        {"end of list value", Full.size() - 4, 1, ""},
        // "e100.rpm" is 8 characters: a string's length counts its NUL
        {"string length without its NUL", FileAt - 4, 8, "ComponentFileName"},
    };
    for (const Case &C : Cases) {
        Bytes B = Full;
        SetU32(&B, C.At, C.Value);
        ZmRecord R;
        std::string Error;
        EXPECT_EQ(Decode(B, &R, &Error), -1) << C.What;
        EXPECT_FALSE(Error.empty()) << C.What;
        EXPECT_NE(Error.find(C.Says), std::string::npos) << C.What << ": " << Error;
    }
    Bytes Trailing = Full;
    Trailing.push_back(0);
    EXPECT_EQ(Decode(Trailing, nullptr, nullptr), -1);
}

TEST(ManagerRecords, PayloadHelpersMatchTheTransportEncoder)
{
    unsigned char B[64];
    int N = Tokenize(B, "%U%U%S", 208u, 4u, "abc");
    EXPECT_EQ(ZmStringItem("abc"), Bytes(B, B + N));
    N = Tokenize(B, "%U%U%U", 204u, 4u, 4101u);
    EXPECT_EQ(ZmULongItem(4101), Bytes(B, B + N));
    Bytes Open = ZmStringItem("Performing TQR Install.", 23);
    ZmReader Strict = ZmReaderOf(Open), Loose = ZmReaderOf(Open);
    std::string Text;
    EXPECT_FALSE(ZmReadStringItem(&Strict, "name", &Text));
    EXPECT_TRUE(ZmReadStringItem(&Loose, "name", &Text, nullptr, false));
    EXPECT_EQ(Text, "Performing TQR Install.");
    EXPECT_STREQ(ZmSubTypeName(8), "SUBTYPE_PCI_DEVICE_PRESENT");
    EXPECT_STREQ(ZmSubTypeName(0), "SUBTYPE_UNKNOWN");
    EXPECT_STREQ(ZmSubTypeName(12), "SUBTYPE_UNKNOWN");
}
