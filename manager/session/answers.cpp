// answers.cpp - the manager's answers to what the sub-service sends: its registrations (which
// open its two connections), support queries, output and log texts, the log file's name,
// prompts and errata questions. Writes only the ZmSession it is given.
#include <unistd.h>

#include "session_internal.h"
#include "zelrzptransport.h"

static void Echo(ZmSession *S, const std::string &Text)
{
    std::string Line = Text;
    if (Line.empty() || Line.back() != '\n')
        Line += '\n';
    ssize_t Written = write(S->Config.EchoFd, Line.data(), Line.size());
    (void)Written; // an echo that cannot be shown is not worth failing over
}

// The header of our answer to a packet of the sub-service: its sequence number and opcode
// back, our next number, our two handles.
static RZP_HEADER_PACKET AnswerHeader(ZmSession *S, const RZP_HEADER_PACKET &Request,
                                      int ReturnCode, size_t Length)
{
    RZP_HEADER_PACKET H{};
    SessionHandles(S, &H.SrcHandle, &H.DestHandle);
    H.LocalSequenceNumber = Request.LocalSequenceNumber;
    H.RemoteSequenceNumber = S->NextSequence++;
    H.opCode = Request.opCode;
    H.ReturnCode = ReturnCode;
    H.DataLength = (int32_t)Length;
    return H;
}

static void Answer(ZmSession *S, const RZP_HEADER_PACKET &Request, int ReturnCode,
                   const std::vector<unsigned char> &Payload)
{
    if (SessionSend(S, AnswerHeader(S, Request, ReturnCode, Payload.size()), Payload) != 0)
        SessionNote(S, "could not send the answer to opcode " + std::to_string(Request.opCode));
}

// ---- Registration ------------------------------------------------------------------------------

struct ZmRegistration {
    uint32_t OpCode = 0;
    std::string SubServiceName, SendConnectionName, ReceiveConnectionName;
};

static bool DecodeRegistration(const std::vector<unsigned char> &Payload, ZmRegistration *Out,
                               std::string *Error)
{
    ZmReader R = ZmReaderOf(Payload);
    bool Override = false, Allow = false;
    ZmReadU32Item(&R, RZP_TYPE_ULONG, "opCode", &Out->OpCode);
    ZmReadBoolItem(&R, "OverrideExisting", &Override);
    ZmReadBoolItem(&R, "AllowOverride", &Allow);
    ZmReadStringItem(&R, "SubServiceName", &Out->SubServiceName, nullptr, false);
    ZmReadStringItem(&R, "SendConnectionName", &Out->SendConnectionName, nullptr, false);
    ZmReadStringItem(&R, "ReceiveConnectionName", &Out->ReceiveConnectionName, nullptr, false);
    *Error = R.Error;
    return R.Error.empty();
}

// Opens the sub-service's two connections once it has created them (its first registration
// names them). Runs on the pump only.
static int OpenParserConnections(ZmSession *S, const ZmRegistration &Reg)
{
    int Receive = -1, Send = -1;
    SessionHandles(S, &Receive, &Send);
    if (Receive >= 0 && Send >= 0)
        return 0;
    Receive = OpenRZPTransport(Reg.SendConnectionName.c_str());
    Send = OpenRZPTransport(Reg.ReceiveConnectionName.c_str());
    if (Receive < 0 || Send < 0) {
        if (Receive >= 0)
            CloseRZPTransport(Receive);
        if (Send >= 0)
            CloseRZPTransport(Send);
        SessionNote(S, "could not open the connections " + Reg.SendConnectionName + " and " +
                           Reg.ReceiveConnectionName);
        return -1;
    }
    std::lock_guard<std::mutex> Guard(S->Lock);
    S->ReceiveHandle = Receive;
    S->SendHandle = Send;
    return 0;
}

static void AnswerRegistration(ZmSession *S, const ZmPacket &P)
{
    ZmRegistration Reg;
    std::string Why;
    if (!DecodeRegistration(P.Payload, &Reg, &Why)) {
        SessionNote(S, "malformed registration: " + Why);
        return;
    }
    if (OpenParserConnections(S, Reg) != 0)
        return;
    auto Found = S->Config.RegistrationAnswer.find(Reg.OpCode);
    int ReturnCode = Found == S->Config.RegistrationAnswer.end() ? 0 : Found->second;
    Answer(S, P.Header, ReturnCode, P.Payload);
    std::lock_guard<std::mutex> Guard(S->Lock);
    S->RegistrationsSeen++;
    S->Changed.notify_all();
}

// ---- Requests of the sub-service ---------------------------------------------------------------

static int SupportAnswer(ZmSession *S, const ZmPacket &P)
{
    ZmReader R = ZmReaderOf(P.Payload);
    uint32_t OpCode = 0;
    if (!ZmReadU32Item(&R, RZP_TYPE_ULONG, "opcode asked about", &OpCode)) {
        SessionNote(S, "malformed support query: " + R.Error);
        return RZP_OPCODE_NOT_SUPPORTED;
    }
    auto Limit = S->Config.NotSupportedAnswers.find(OpCode);
    int Refusals = Limit == S->Config.NotSupportedAnswers.end() ? 0 : Limit->second;
    std::lock_guard<std::mutex> Guard(S->Lock);
    int Asked = S->SupportQueries[OpCode]++;
    return Asked < Refusals ? RZP_OPCODE_NOT_SUPPORTED : S->Config.SupportedAnswer;
}

// Output (2001) and log (2002): one string item, kept in the session.
static int TextAnswer(ZmSession *S, const ZmPacket &P, std::vector<std::string> *Texts)
{
    ZmReader R = ZmReaderOf(P.Payload);
    std::string Text;
    if (!ZmReadStringItem(&R, "message", &Text, nullptr, false)) {
        SessionNote(S, "malformed message (opcode " + std::to_string(P.Header.opCode) +
                           "): " + R.Error);
    } else {
        {
            std::lock_guard<std::mutex> Guard(S->Lock);
            SessionReadConsoleLocked(S); // the lines printed before this message come first
            Texts->push_back(Text);
            S->Messages.push_back({P.Header.opCode == RZP_OUTPUT_DATA ? ZM_SCREEN : ZM_LOG, Text});
        }
        if (P.Header.opCode == RZP_OUTPUT_DATA && S->Config.EchoScreen)
            Echo(S, Text);
    }
    return P.Header.opCode == RZP_OUTPUT_DATA ? S->Config.OutputReturnCode
                                              : S->Config.LogReturnCode;
}

// A prompt's answer is the request's items followed by the answer item.
static void AnswerPrompt(ZmSession *S, const ZmPacket &P)
{
    std::vector<unsigned char> Out = P.Payload;
    std::vector<unsigned char> Item;
    if (P.Header.opCode == RZP_PROMPT_FOR_CHARACTER) {
        ZmPutU32(&Item, RZP_TYPE_USHORT);
        ZmPutU32(&Item, 1);
        ZmPutByte(&Item, S->Config.PromptCharacterAnswer);
    } else if (P.Header.opCode == RZP_PROMPT_FOR_NUMBER) {
        Item = ZmStringItem(S->Config.PromptNumberAnswer);
    } else {
        Item = ZmStringItem(S->Config.PromptHexAnswer);
    }
    if (Out.size() + Item.size() > RZP_MAX_PAYLOAD) {
        SessionNote(S,
                    "prompt too long to answer (opcode " + std::to_string(P.Header.opCode) + ")");
        Answer(S, P.Header, RZP_OUT_OF_MEMORY, {});
        return;
    }
    Out.insert(Out.end(), Item.begin(), Item.end());
    Answer(S, P.Header, S->Config.PromptReturnCode, Out);
}

// The errata question carries a whole install record; a record we cannot read is refused.
static int ErrataAnswer(ZmSession *S, const ZmPacket &P)
{
    ZmRecord Rec;
    std::string Why;
    if (ZmDecodeRecord(P.Payload.data(), P.Payload.size(), &Rec, &Why) != 0) {
        SessionNote(S, "malformed install record in errata question: " + Why);
        return S->Config.ErrataRefusal;
    }
    std::lock_guard<std::mutex> Guard(S->Lock);
    S->ErrataQuestions.push_back(Rec.FileName);
    return S->Config.ErrataUnsupported.count(Rec.FileName) ? S->Config.ErrataRefusal : 0;
}

static void AnswerRequest(ZmSession *S, const ZmPacket &P)
{
    const ZmConfig &C = S->Config;
    switch (P.Header.opCode) {
    case RZP_IS_OPCODE_SUPPORTED: Answer(S, P.Header, SupportAnswer(S, P), P.Payload); break;
    case RZP_OUTPUT_DATA: Answer(S, P.Header, TextAnswer(S, P, &S->ScreenTexts), {}); break;
    case RZP_LOG_DATA: Answer(S, P.Header, TextAnswer(S, P, &S->LogTexts), {}); break;
    case RZP_GET_LOG_FILE_NAME:
        Answer(S, P.Header, C.LogFileNameReturnCode, ZmStringItem(C.LogFileName));
        break;
    case RZP_PROMPT_FOR_NUMBER:
    case RZP_PROMPT_FOR_HEX:
    case RZP_PROMPT_FOR_CHARACTER: AnswerPrompt(S, P); break;
    case RZP_IS_COMPONENT_SUPPORTED_ON_THIS_ERRATA:
        Answer(S, P.Header, ErrataAnswer(S, P), {});
        break;
    default: Answer(S, P.Header, RZP_OPCODE_NOT_SUPPORTED, P.Payload); break;
    }
}

void SessionDispatch(ZmSession *S, const ZmPacket &P)
{
    if (P.Connection == ZM_REGISTRATION_CONNECTION) {
        if (P.Header.opCode == RZP_REGISTER)
            AnswerRegistration(S, P);
        else if (P.Header.opCode != RZP_SHUTDOWN)
            SessionNote(S, "opcode " + std::to_string(P.Header.opCode) +
                               " on the registration connection");
    } else if (P.Header.ReturnCode == RZP_NO_RESULT_YET && S->Config.AnswerRequests) {
        AnswerRequest(S, P);
    }
    // Anything else answers one of our requests: recorded, and the waiters look for it.
}
