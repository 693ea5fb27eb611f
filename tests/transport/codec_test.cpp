// The payload codec: the byte layout of each letter, round trips, joined outputs, refusals.
#include "zelrzptransport.h"

#include <gtest/gtest.h>

#include <climits>
#include <cstring>

TEST(Codec, EveryLetterRoundTripsWithItsDocumentedLayout)
{
    unsigned char Buffer[64];
    memset(Buffer, 0xEE, sizeof Buffer);
    int Written = Tokenize(Buffer, "%U%L%B%C%X%S%S", 0x12345678u, INT_MIN, 1, -5, 0xAB, "text",
                           static_cast<const char *>(nullptr));
    ASSERT_EQ(Written, 4 + 4 + 1 + 1 + 1 + 5 + 1);
    const unsigned char Expected[] = {0x78, 0x56, 0x34, 0x12, 0x00, 0x00, 0x00, 0x80, 0x01,
                                      0xFB, 0xAB, 't',  'e',  'x',  't',  0x00, 0x00};
    EXPECT_EQ(memcmp(Buffer, Expected, sizeof Expected), 0);
    EXPECT_EQ(Buffer[Written], 0xEE) << "nothing written after the last value";

    uint32_t U = 0;
    int32_t L = 0;
    unsigned char B = 0, X = 0;
    signed char C = 0;
    char Text[8], Empty[4];
    memset(Text, 0x55, sizeof Text);
    memset(Empty, 0x55, sizeof Empty);
    EXPECT_EQ(DeTokenize(Buffer, "%U%L%B%C%X%S%S", &U, &L, &B, &C, &X, Text, Empty), Written);
    unsigned char Again[64]; // the values read back encode to the same bytes
    EXPECT_EQ(Tokenize(Again, "%U%L%B%C%X%S%S", U, L, B, C, X, Text, Empty), Written);
    EXPECT_EQ(memcmp(Again, Expected, sizeof Expected), 0);
    EXPECT_EQ(Text[5], 0x55) << "a string is copied up to its NUL and no further";
    EXPECT_EQ(Empty[1], 0x55);
}

TEST(Codec, JoinedOutputsDecodeInOrderItemByItem)
{
    unsigned char Payload[128];
    int Length = Tokenize(Payload, "%U%U%S", RZP_TYPE_STRING, 6u, "hello");
    Length += Tokenize(Payload + Length, "%U%U%B", RZP_TYPE_BOOL, 1u, 1);
    Length += Tokenize(Payload + Length, "%U%U", RZP_TERMINATE_LIST, 0u);
    ASSERT_EQ(Length, 14 + 9 + 8);

    uint32_t Type = 0, ItemLength = 0;
    char Text[16];
    unsigned char Flag = 0;
    int Offset = DeTokenizeWithOffset(Payload, "%U", 0, &Type);
    EXPECT_EQ(Type, static_cast<uint32_t>(RZP_TYPE_STRING));
    Offset = DeTokenizeWithOffset(Payload, "%U%S", Offset, &ItemLength, Text);
    EXPECT_STREQ(Text, "hello");
    Offset = DeTokenizeWithOffset(Payload, "%U%U%B", Offset, &Type, &ItemLength, &Flag);
    EXPECT_EQ(Type, static_cast<uint32_t>(RZP_TYPE_BOOL));
    EXPECT_EQ(Flag, 1);
    Offset = DeTokenizeWithOffset(Payload, "%U%U", Offset, &Type, &ItemLength);
    EXPECT_EQ(Type, static_cast<uint32_t>(RZP_TERMINATE_LIST));
    EXPECT_EQ(Offset, Length);
}

TEST(Codec, CharactersOutsideLetterPairsAreIgnoredNullDestinationsSkipUnknownLettersRefused)
{
    unsigned char Buffer[32];
    ASSERT_EQ(Tokenize(Buffer, "value=%U, name=%S.%", 7u, "ab"), 7);
    char Name[4];
    EXPECT_EQ(DeTokenize(Buffer, "[%U] %S", static_cast<void *>(nullptr), Name), 7);
    EXPECT_STREQ(Name, "ab");

    // An unknown letter is refused before anything is written.
    memset(Buffer, 0xEE, sizeof Buffer);
    EXPECT_EQ(Tokenize(Buffer, "%U%Q", 1u, 2u), -1);
    EXPECT_EQ(Tokenize(Buffer, "%u", 1u), -1) << "letters are upper case";
    EXPECT_EQ(Tokenize(Buffer, "%%", 1u), -1);
    EXPECT_EQ(Buffer[0], 0xEE);

    Tokenize(Buffer, "%U", 9u);
    uint32_t Value = 0;
    EXPECT_EQ(DeTokenize(Buffer, "%U%Z", &Value, &Value), -1);
    EXPECT_EQ(DeTokenizeWithOffset(Buffer, "%U", -4, &Value), -1);
    EXPECT_EQ(Value, 0u);
}
