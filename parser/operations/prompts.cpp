// prompts.cpp - the three prompt requests: a support query for the prompt's opcode, then the
// prompt itself, whose answer the manager sends back with the same opcode. The answer is
// decoded item by item inside its DataLength and shown in debug mode. Writes
// LocalSequenceNumber (each request's number) and, through the waits, the pending-I/O list.
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "operations.h"
#include "protocol.h"
#include "runflags.h"
#include "service.h"

namespace {

struct PromptKind {
    uint32_t OpCode;
    const char *Name;
    const char *Text;
    int32_t Minimum, Maximum;  // number and hexadecimal prompts
    const char *AllowedCharacters; // character prompt, else NULL
    const char *ReturnedLabel; // "Number" or "Hex"
};

const PromptKind NumberPrompt = {RZP_PROMPT_FOR_NUMBER, "RZP_PROMPT_FOR_NUMBER",
                                 "Please enter a value from 0 to 6", 0, 6, nullptr, "Number"};
const PromptKind HexPrompt = {RZP_PROMPT_FOR_HEX, "RZP_PROMPT_FOR_HEX",
                              "Please enter a value from 0 to 0xff", 0, 255, nullptr, "Hex"};
const PromptKind CharacterPrompt = {RZP_PROMPT_FOR_CHARACTER, "RZP_PROMPT_FOR_CHARACTER",
                                    "Please enter a character [A..Z,a..z,0..9]", 0, 0,
                                    "A..Za..z0..9", nullptr};

int EncodePrompt(unsigned char *Payload, const PromptKind &Kind)
{
    uint32_t TextLength = strlen(Kind.Text); // without its NUL
    if (Kind.AllowedCharacters != nullptr)
        return Tokenize(Payload, "%U%U%S%U%U%S", RZP_TYPE_STRING, TextLength, Kind.Text,
                        RZP_TYPE_STRING, static_cast<uint32_t>(strlen(Kind.AllowedCharacters) + 1),
                        Kind.AllowedCharacters);
    return Tokenize(Payload, "%U%U%S%U%U%L%U%U%L", RZP_TYPE_STRING, TextLength, Kind.Text,
                    RZP_TYPE_SLONG, 4u, Kind.Minimum, RZP_TYPE_SLONG, 4u, Kind.Maximum);
}

// The items of an answer: the prompt, the bounds or allowed characters, the answer.
struct PromptAnswer {
    uint32_t PromptType, PromptLength;
    char *Prompt; // RZP_MAX_PAYLOAD bytes, as are Chars and Returned
    uint32_t MinType, MinLength, MaxType, MaxLength;
    int32_t Minimum, Maximum;
    uint32_t CharsType, CharsLength;
    char *Chars;
    uint32_t ReturnedType, ReturnedLength;
    char *Returned;
    unsigned char ReturnedCharacter;
};

// Decodes the answer; returns the bytes decoded, or -1 for an answer that does not hold the
// items.
int DecodeAnswer(const unsigned char *Payload, int Length, const PromptKind &Kind, PromptAnswer *A)
{
    PAYLOADREADER R = {Payload, Length, 0, 0};
    A->PromptType = ReadPayloadU32(&R);
    A->PromptLength = ReadPayloadU32(&R);
    ReadPayloadString(&R, A->Prompt, RZP_MAX_PAYLOAD);
    if (Kind.AllowedCharacters != nullptr) {
        A->CharsType = ReadPayloadU32(&R);
        A->CharsLength = ReadPayloadU32(&R);
        ReadPayloadString(&R, A->Chars, RZP_MAX_PAYLOAD);
        A->ReturnedType = ReadPayloadU32(&R);
        A->ReturnedLength = ReadPayloadU32(&R);
        A->ReturnedCharacter = ReadPayloadByte(&R);
    } else {
        A->MinType = ReadPayloadU32(&R);
        A->MinLength = ReadPayloadU32(&R);
        A->Minimum = static_cast<int32_t>(ReadPayloadU32(&R));
        A->MaxType = ReadPayloadU32(&R);
        A->MaxLength = ReadPayloadU32(&R);
        A->Maximum = static_cast<int32_t>(ReadPayloadU32(&R));
        A->ReturnedType = ReadPayloadU32(&R);
        A->ReturnedLength = ReadPayloadU32(&R);
        ReadPayloadString(&R, A->Returned, RZP_MAX_PAYLOAD);
    }
    return R.Failed ? -1 : R.Offset;
}

void PrintAnswer(const PromptKind &Kind, const PromptAnswer &A)
{
    printf("Parser...PromptType: %d   PromptLength: %d    Prompt:  %s\n", A.PromptType,
           A.PromptLength, A.Prompt);
    if (Kind.AllowedCharacters != nullptr) {
        printf("Parser...Supported Chars Type: %d   Supported Chars Length: %d     Supported "
               "Chars: %s\n",
               A.CharsType, A.CharsLength, A.Chars);
        printf("Parser...Returned Type: %d   Returned Length: %d     Returned Character: %c\n",
               A.ReturnedType, A.ReturnedLength, A.ReturnedCharacter);
        return;
    }
    printf("Parser...Min Type: %d   Min Length: %d     Minimum: %d\n", A.MinType, A.MinLength,
           A.Minimum);
    printf("Parser...Max Type: %d   Max Length: %d     Maximum: %d\n", A.MaxType, A.MaxLength,
           A.Maximum);
    printf("Parser...Returned Type: %d   Returned Length: %d     Returned %s: %s\n",
           A.ReturnedType, A.ReturnedLength, Kind.ReturnedLabel, A.Returned);
}

void FreeAnswer(PromptAnswer *A)
{
    free(A->Prompt);
    free(A->Chars);
    free(A->Returned);
}

// Decodes the answer of Length bytes in Payload and shows it in debug mode. The bytes
// decoded, -1 for an answer without its items, -111 when its areas cannot be allocated.
int TakeAnswer(const PromptKind &Kind, const unsigned char *Payload, int Length)
{
    PromptAnswer Answer;
    memset(&Answer, 0, sizeof Answer);
    Answer.Prompt = static_cast<char *>(calloc(1, RZP_MAX_PAYLOAD));
    Answer.Chars = static_cast<char *>(calloc(1, RZP_MAX_PAYLOAD));
    Answer.Returned = static_cast<char *>(calloc(1, RZP_MAX_PAYLOAD));
    int Result = RZP_OUT_OF_MEMORY;
    if (Answer.Prompt != nullptr && Answer.Chars != nullptr && Answer.Returned != nullptr)
        Result = DecodeAnswer(Payload, Length, Kind, &Answer);
    if (Result == -1)
        printf("Parser...The answer to %s does not hold its items (Data Length %d).\n", Kind.Name,
               Length);
    else if (Result >= 0 && Debugging())
        PrintAnswer(Kind, Answer);
    FreeAnswer(&Answer);
    return Result;
}

int SendPrompt(const PromptKind &Kind)
{
    if (QueryOpcodeSupport(Kind.OpCode, Kind.Name) != 0)
        return RZP_OPCODE_NOT_SUPPORTED;
    unsigned char *Payload = static_cast<unsigned char *>(calloc(1, RZP_MAX_PAYLOAD));
    if (Payload == nullptr)
        return RZP_OUT_OF_MEMORY;
    RZP_HEADER_PACKET Header;
    FillRequestHeader(&Header, Kind.OpCode, ParserQueue->WriteConnectionHandle,
                      EncodePrompt(Payload, Kind));
    PENDINGWAIT Wait;
    ExpectAnswerByOpCode(&Wait, Kind.OpCode);
    SendPacketLocked(&Header, Payload);
    // The answer is the first parked packet of the prompt's opcode. The header is not cleared
    // first: a wait ended by the exit flag leaves the request's own -106.
    memset(Payload, 0, RZP_MAX_PAYLOAD);
    WaitForExpectedAnswer(&Wait, &Header, Payload);
    int Result = Header.ReturnCode;
    if (Result == 0)
        Result = TakeAnswer(Kind, Payload, Header.DataLength);
    free(Payload);
    return Result;
}

} // namespace

int SendPromptForNumberPacket(void)
{
    return SendPrompt(NumberPrompt);
}

int SendPromptForHexPacket(void)
{
    return SendPrompt(HexPrompt);
}

int SendPromptForCharacterPacket(void)
{
    return SendPrompt(CharacterPrompt);
}
