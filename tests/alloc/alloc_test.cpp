// Allocation failures in the sub-service: the n-th allocation of a parse (ParseFile), of the
// record builder (BuildRZPInstallStructures over the example bundle's component files) and of
// Enqueue (the pending-I/O queue) is made to fail, for every n until a run completes without
// reaching n (failing_alloc.h). No failure may crash; one that ends in a failure result keeps
// nothing; a token the tokenizer could not place is lost and the parse goes on. The ASan build
// (detect_leaks=1) checks that nothing leaks. The builder's errata question goes out over real
// FIFOs; Parser_Exiting is 1, so its answer is not waited for (it reads as supported).
#include <gtest/gtest.h>

#include <cstring>

#include "../common/queue_fixture.h"
#include "failing_alloc.h"
#include "packages.h"
#include "protocol.h"
#include "records.h"
#include "runflags.h"
#include "support.h"
#include "xmltokenizer.h"

namespace {

const std::string Examples = ZEL_EXAMPLES "/server-bundle/";

void SetInstalledOS(const char *Key)
{
    free(CurrentlyInstalledOS);
    CurrentlyInstalledOS = DuplicateString(Key);
}

TEST(AllocationFailure, ParseFileFailsCleanlyAtEveryAllocation)
{
    for (const char *Leaf : {"e100-5.2.30-1.i386.xml", "bp000101.xml", "raidutil-1.7-2.i386.xml"}) {
        std::string Path = Examples + Leaf;
        long Runs = FailEachAllocation(
            [&] {
                DeleteTree();
                return ParseFile(Path.c_str());
            },
            [&](bool Completed, long Result, long N) {
                if (Completed) {
                    EXPECT_EQ(0, Result) << Leaf;
                    EXPECT_STREQ(Path.c_str(), CurrentXMLFileParsed);
                } else if (Result != 0) {
                    EXPECT_EQ(nullptr, CurrentXMLFileParsed) << Leaf << " at " << N;
                } else {
                    EXPECT_NE(nullptr, FirstSection) << Leaf << " at " << N; // a lost token
                }
            });
        EXPECT_GT(Runs, 1) << Leaf;
    }
    DeleteTree();
}

class BuilderAllocation : public testing::Test {
protected:
    char Directory[64] = "/tmp/zelalloc.XXXXXX";
    void SetUp() override
    {
        ASSERT_TRUE(OpenTestQueue(Directory));
        Parser_Exiting = 1;
        SetInstalledOS("Red_Hat_Linux_7.3");
    }
    void TearDown() override
    {
        CloseTestQueue(Directory);
        Parser_Exiting = 0;
        SetInstalledOS(nullptr);
        DeleteTree();
        FreeComponentList();
        FreeInstallPacketList();
    }
    // Takes the errata questions off the write connection.
    void Drain()
    {
        RZP_HEADER_PACKET Header;
        static unsigned char Area[RZP_MAX_PAYLOAD];
        while (ReceiveDataAsyncRaw(ParserQueue->WriteConnectionHandle, &Header, Area, "TEST") != -1) {
        }
    }
};

// True when the builder kept exactly one record, and not an empty one.
bool KeptOneRecord(void)
{
    PINSTALL_PACKET_LIST Node = InstallPacketList;
    return Node != nullptr && Node->NextPacket == nullptr && Node->InstallPacketSendBufferLength > 0;
}

// A failed allocation ends in a failure result with no record kept, or in one record (a lost
// tree token or a configuration variable that could not be allocated may leave it shorter than
// a run without failures).
TEST_F(BuilderAllocation, BuildRZPInstallStructuresFailsCleanlyAtEveryAllocation)
{
    for (const char *Leaf : {"e100-5.2.30-1.i386", "raidutil-1.7-2.i386", "mgmtagent-5.0.2-3.i386"}) {
        std::string Xml = Examples + Leaf + ".xml";
        std::string Rpm = std::string(Leaf) + ".rpm";
        long Runs = FailEachAllocation(
            [&] {
                DeleteTree(); // the builder's readers parse the file themselves
                COMPONENTINFOPTR Component = AppendComponent(Rpm.c_str());
                if (Component == nullptr)
                    return -1L;
                return static_cast<long>(BuildRZPInstallStructures(Xml.c_str(), Component, "en"));
            },
            [&](bool Completed, long Result, long N) {
                Drain();
                EXPECT_TRUE(!Completed || Result == 0) << Leaf;
                EXPECT_TRUE(Result == 0 ? KeptOneRecord() : InstallPacketList == nullptr)
                    << Leaf << " at " << N;
                FreeComponentList();
                FreeInstallPacketList();
            });
        EXPECT_GT(Runs, 10) << Leaf;
    }
}

// A packet that cannot be parked is refused with RZP_OUT_OF_MEMORY, leaves the queue as it was
// and winds the service down (Parser_Exiting); a parked one comes back whole.
TEST(AllocationFailure, EnqueueRefusesCleanlyAtEveryAllocation)
{
    unsigned char Payload[64], Back[RZP_MAX_PAYLOAD];
    memset(Payload, 0x5A, sizeof Payload);
    for (int Length : {0, 64}) {
        RZP_HEADER_PACKET Header = {101, 102, 77, -1, RZP_PROMPT_FOR_NUMBER, RZP_NO_RESULT_YET,
                                    Length, 0};
        long Runs = FailEachAllocation(
            [&] {
                Parser_Exiting = 0;
                return static_cast<long>(Enqueue(&Header, Payload));
            },
            [&](bool, long Result, long N) {
                RZP_HEADER_PACKET Out;
                int Parked = Dequeue(&Out, Back, 77);
                if (Result == 0) {
                    EXPECT_EQ(0, Parked);
                    EXPECT_EQ(Length, Out.DataLength);
                    EXPECT_EQ(0, memcmp(Back, Payload, Length));
                } else {
                    EXPECT_EQ(RZP_OUT_OF_MEMORY, Result) << N;
                    EXPECT_EQ(RZP_NOTHING_PENDING, Parked) << N;
                    EXPECT_EQ(1, Parser_Exiting.load()) << N;
                }
            });
        EXPECT_GT(Runs, Length > 0 ? 2 : 1);
    }
    Parser_Exiting = 0;
}

} // namespace
