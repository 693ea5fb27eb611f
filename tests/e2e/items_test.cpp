// items_test.cpp - choosing the bundle (open) and walking the records (first, next, last,
// close) through the real sub-service, with every "no more items" answer.
#include <unistd.h>

#include "bundle_fixture.h"

namespace {

void ExpectAnswer(const ZmPacket &P, int ReturnCode, const Bytes &Payload)
{
    EXPECT_EQ(P.Header.ReturnCode, ReturnCode) << "opcode " << P.Header.opCode;
    EXPECT_EQ(P.Payload, Payload) << "opcode " << P.Header.opCode;
    EXPECT_EQ(P.Header.DataLength, (int32_t)Payload.size());
}

using Items = BundleTest;

TEST_F(Items, OpenKeepsTheOneSupportedBundleAndTheWalkEndsOnNoMoreItems)
{
    std::vector<TComponent> C = {PlainComponent("a-1.0.rpm"), PlainComponent("b-1.0.rpm"),
                                 PlainComponent("c-1.0.rpm")};
    ASSERT_TRUE(StartParser(&S, C));
    WriteOtherBundle(TEST_BUNDLE_DIR "/BP000002.XML", "Other pack", "SUSE Linux Enterprise Server 8");
    // A parse before any open is refused and says nothing.
    const Bytes Request = ZmStringItem("parse");
    ExpectAnswer(Ask(&S, RZP_PARSER_PARSE_INPUT_FILE, Request), RZP_PARSER_BAD_XML, Request);
    ExpectMessages(&S, {}, {});
    const Bytes Name = ZmStringItem(TEST_BUNDLE_NAME, sizeof(TEST_BUNDLE_NAME) - 1);
    ExpectAnswer(Ask(&S, RZP_PARSER_OPEN_INPUT_FILE), 0, Name);
    // Before the parse there is nothing to hand out.
    const Bytes Held = ZmULongItem(0);
    ExpectAnswer(Ask(&S, RZP_PARSER_RETURN_FIRST_ITEM, Held), RZP_PARSER_NO_MORE_ITEMS, {});
    ExpectAnswer(Ask(&S, RZP_PARSER_RETURN_NEXT_ITEM, Held), RZP_PARSER_NO_MORE_ITEMS, Held);
    ExpectAnswer(Ask(&S, RZP_PARSER_RETURN_LAST_ITEM, Held), RZP_PARSER_NO_MORE_ITEMS, Held);
    ExpectAnswer(Ask(&S, RZP_PARSER_RETURN_NUMBER_OF_ITEMS), 0, ZmULongItem(0));

    Ask(&S, RZP_PARSER_PARSE_INPUT_FILE);
    ExpectAnswer(Ask(&S, RZP_PARSER_RETURN_NUMBER_OF_ITEMS), 0, ZmULongItem(3));
    ExpectAnswer(Ask(&S, RZP_PARSER_RETURN_FIRST_ITEM), 0, ExpectedRecord(C[0], 0));
    ExpectAnswer(Ask(&S, RZP_PARSER_RETURN_NEXT_ITEM, ZmULongItem(0)), 0, ExpectedRecord(C[1], 1));
    ExpectAnswer(Ask(&S, RZP_PARSER_RETURN_NEXT_ITEM, ZmULongItem(1)), 0, ExpectedRecord(C[2], 2));
    // The last record, a handle never issued, and requests that name no whole handle.
    Bytes Cut = ZmULongItem(0);
    Cut.pop_back();
    for (const Bytes &Request : {ZmULongItem(2), ZmULongItem(77), Cut, Bytes()})
        ExpectAnswer(Ask(&S, RZP_PARSER_RETURN_NEXT_ITEM, Request), RZP_PARSER_NO_MORE_ITEMS, {});
    ExpectAnswer(Ask(&S, RZP_PARSER_RETURN_LAST_ITEM), 0, ExpectedRecord(C[2], 2));

    // Close answers with the request's own payload and frees nothing.
    const Bytes Note = ZmStringItem("closing");
    ExpectAnswer(Ask(&S, RZP_PARSER_CLOSE_INPUT_FILE, Note), 0, Note);
    ExpectAnswer(Ask(&S, RZP_PARSER_RETURN_FIRST_ITEM), 0, ExpectedRecord(C[0], 0));
    ExpectAnswer(Ask(&S, RZP_PARSER_RETURN_NUMBER_OF_ITEMS), 0, ZmULongItem(3));

    // A second open looks at the directory afresh rather than adding to the first answer.
    ExpectAnswer(Ask(&S, RZP_PARSER_OPEN_INPUT_FILE), 0, Name);
    WriteOtherBundle(TEST_BUNDLE_DIR "/bp000003.xml", "Other pack", "Red Hat Linux 7.3");
    const Bytes Open = ZmStringItem("open");
    ExpectAnswer(Ask(&S, RZP_PARSER_OPEN_INPUT_FILE, Open), RZP_PARSER_NOT_ONE_BUNDLE, Open);
    EXPECT_EQ(ZmWaitForConsole(&S, "More than one supported Bundle XML file found.\n"), 0);
    EXPECT_EQ(ZmStop(&S), 0);
}

TEST_F(Items, AnEmptyBundleHasNoItemsAndNoSupportedBundleEndsTheSubService)
{
    ASSERT_TRUE(StartParser(&S, {}));
    Ask(&S, RZP_PARSER_OPEN_INPUT_FILE);
    EXPECT_EQ(Ask(&S, RZP_PARSER_PARSE_INPUT_FILE).Header.ReturnCode, 0);
    ExpectAnswer(Ask(&S, RZP_PARSER_RETURN_NUMBER_OF_ITEMS), 0, ZmULongItem(0));
    ExpectAnswer(Ask(&S, RZP_PARSER_RETURN_FIRST_ITEM), RZP_PARSER_NO_MORE_ITEMS, {});
    unlink(TEST_BUNDLE_DIR "/bp000001.xml");
    WriteOtherBundle(TEST_BUNDLE_DIR "/bp000002.xml", "Other pack", "SUSE Linux Enterprise Server 8");
    ExpectAnswer(Ask(&S, RZP_PARSER_OPEN_INPUT_FILE), RZP_PARSER_NO_BUNDLE, {});
    EXPECT_EQ(ZmWaitForConsole(&S, "No supported Bundle XML files were found.\n"), 0);
    EXPECT_GE(ZmWaitExit(&S), 0);
}

} // namespace
