// The reference manager's session against the real sub-service in the sandbox: configured
// answers to support queries and errata questions, and a sub-service that ends at once.
#include <mutex>

#include "bundle_fixture.h"

namespace {

class ManagerSession : public BundleTest {
protected:
    ZmConfig C;
    void SetUp() override
    {
        ASSERT_TRUE(EnterRedHat73());
        C.ParserPath = ZEL_PARSER_PATH;
        C.BundleDir = ZEL_EXAMPLES "/server-bundle";
    }
};

bool IsDeregistration(const ZmPacket &P, const void *)
{
    return P.Connection == "/dev/zelrzp_np1" && P.Header.opCode == RZP_SHUTDOWN;
}

TEST_F(ManagerSession, AnswersSupportQueriesAndErrataQuestionsAsConfigured)
{
    C.NotSupportedAnswers[RZP_IS_COMPONENT_SUPPORTED_ON_THIS_ERRATA] = 2;
    C.ErrataUnsupported.insert("raidutil-1.7-2.i386.rpm");
    std::string Error;
    ASSERT_EQ(ZmStart(&S, C, &Error), 0) << Error;
    ASSERT_EQ(Ask(&S, RZP_PARSER_OPEN_INPUT_FILE).Header.ReturnCode, 0);
    Ask(&S, RZP_PARSER_PARSE_INPUT_FILE);
    std::vector<ZmRecord> Records;
    int32_t Items = -1;
    ASSERT_EQ(ZmFetchAllRecords(&S, nullptr, &Records, &Items, &Error), 0) << Error;
    ASSERT_EQ(Records.size(), 2u);
    EXPECT_EQ(Items, 2);
    EXPECT_EQ(Records[1].FileName, "mgmtagent-5.0.2-3.i386.rpm");
    EXPECT_EQ(Records[1].Number, 1u);
    {
        std::lock_guard<std::mutex> Guard(S.Lock);
        // Two refusals, then one query per component built: three components reach the builder.
        EXPECT_EQ(S.SupportQueries[RZP_IS_COMPONENT_SUPPORTED_ON_THIS_ERRATA], 5);
        EXPECT_EQ(S.ErrataQuestions.size(), 3u);
        EXPECT_TRUE(S.Problems.empty()) << S.Problems[0];
        EXPECT_FALSE(S.ScreenTexts.empty());
        EXPECT_EQ(S.ScreenTexts.size(), S.LogTexts.size() - 2); // two banner lines are log only
    }
    EXPECT_EQ(ZmStop(&S), 0);
    size_t From = 0;
    EXPECT_EQ(ZmWaitForPacket(&S, IsDeregistration, nullptr, &From, nullptr, 0), 0);
}

TEST_F(ManagerSession, StartReportsASubServiceThatEndsBeforeRegistering)
{
    C.PassMG = false;
    std::string Error;
    EXPECT_EQ(ZmStart(&S, C, &Error), -1);
    EXPECT_NE(Error.find("status 255"), std::string::npos) << Error;
    EXPECT_NE(ZmConsoleSnapshot(&S).find("can only be executed"), std::string::npos);
    ZmPacket A;
    EXPECT_EQ(ZmRequest(&S, RZP_PARSER_OPEN_INPUT_FILE, {}, &A, 100), -1);
    ZmClose(&S); // closing twice (once more in TearDown) is harmless
}

} // namespace
