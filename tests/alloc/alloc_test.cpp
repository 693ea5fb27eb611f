// Allocation failures: the n-th allocation of a parse (ParseFile) and of the record builder
// (BuildRZPInstallStructures over the example bundle's component files) is made to fail, for
// every n until a run completes without reaching n. No failure may crash; one that ends in a
// failure result keeps nothing; a token the tokenizer could not place is lost and the parse
// goes on. The ASan build (detect_leaks=1) checks that nothing leaks. malloc, calloc, realloc
// and strdup are wrapped at link time (--wrap) over the static core library and failed on the
// test's thread only. The builder's errata question goes out over real FIFOs; Parser_Exiting is
// 1, so its answer is not waited for (it reads as supported). ZEL_ALLOC_TRACE=n prints the stack
// of the n-th allocation of each run when it is failed. Writes the wrappers' counters.
#include <gtest/gtest.h>
#include <execinfo.h>
#include <fcntl.h>

#include "../common/queue_fixture.h"
#include "packages.h"
#include "records.h"
#include "runflags.h"
#include "support.h"
#include "xmltokenizer.h"

extern "C" {
void *__real_malloc(size_t Size);
void *__real_calloc(size_t Count, size_t Size);
void *__real_realloc(void *Old, size_t Size);
char *__real_strdup(const char *Text);
}

namespace {

thread_local bool Armed = false; // counting on this thread
long Seen = 0;                   // allocations seen since armed
long FailAt = 0;                 // the one to fail (1-based)

bool FailThisOne(void)
{
    bool Fail = Armed && ++Seen == FailAt;
    if (Fail && getenv("ZEL_ALLOC_TRACE") != nullptr && atol(getenv("ZEL_ALLOC_TRACE")) == FailAt) {
        fprintf(stderr, "trace of allocation %ld\n", FailAt);
        void *Frames[12];
        backtrace_symbols_fd(Frames, backtrace(Frames, 12), 2);
    }
    return Fail;
}

} // namespace

extern "C" {
void *__wrap_malloc(size_t Size)
{
    return FailThisOne() ? nullptr : __real_malloc(Size);
}
void *__wrap_calloc(size_t Count, size_t Size)
{
    return FailThisOne() ? nullptr : __real_calloc(Count, Size);
}
void *__wrap_realloc(void *Old, size_t Size)
{
    return FailThisOne() ? nullptr : __real_realloc(Old, Size);
}
char *__wrap_strdup(const char *Text)
{
    return FailThisOne() ? nullptr : __real_strdup(Text);
}
}

namespace {

const std::string Examples = ZEL_EXAMPLES "/server-bundle/";

// Runs Body with the n-th allocation failing, for n = 1, 2, ... until Body runs to its end
// without reaching n; Check(Completed, Result) judges each run. Returns the runs made.
template <typename BodyFn, typename CheckFn> long FailEachAllocation(BodyFn Body, CheckFn Check)
{
    for (long N = 1; N < 100000; N++) {
        Seen = 0;
        FailAt = N;
        fflush(stdout); // the sub-service's messages go to /dev/null, the test's own do not
        int Saved = dup(1), Null = open("/dev/null", O_WRONLY);
        dup2(Null, 1);
        Armed = true;
        long Result = Body();
        Armed = false;
        fflush(stdout);
        dup2(Saved, 1);
        close(Saved);
        close(Null);
        bool Completed = Seen < N;
        Check(Completed, Result, N);
        if (Completed)
            return N;
    }
    ADD_FAILURE() << "no run completed";
    return 0;
}

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

} // namespace
