// session_fixture.h - a test fixture that holds one manager session with the real zelparser in
// the sandbox: enters the sandbox, starts the sub-service on demand, closes it after the test.
#pragma once

#include <gtest/gtest.h>

#include <string>

#include "sandbox.h"
#include "zelrzpmanager.h"

class SessionTest : public testing::Test {
protected:
    ZmSession Session;
    ZmConfig Config;

    void SetUp() override
    {
        ASSERT_EQ(SandboxEnter(), 0);
        Config.ParserPath = ZEL_PARSER_PATH;
        Config.BundleDir = "/tmp";
        Config.TimeoutMs = 15000;
    }
    void Start()
    {
        std::string Error;
        ASSERT_EQ(ZmStart(&Session, Config, &Error), 0) << Error << ZmConsoleSnapshot(&Session);
    }
    void TearDown() override { ZmClose(&Session); }

    // The sub-service still serves requests: the number of items is answered.
    void ExpectStillServing()
    {
        ZmPacket Answer;
        ASSERT_EQ(ZmRequest(&Session, RZP_PARSER_RETURN_NUMBER_OF_ITEMS, {}, &Answer), 0)
            << ZmConsoleSnapshot(&Session);
        EXPECT_EQ(Answer.Header.ReturnCode, 0);
    }
};
