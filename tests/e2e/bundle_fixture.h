// bundle_fixture.h - what the end-to-end tests share: test bundles (component descriptions
// written out as bundle and component XML files), the install records and messages the
// sub-service must produce for them, encoded here by hand from the record layout, and the
// fixture that holds one manager session with the real zelparser in the sandbox.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "sandbox.h"
#include "zelrzpmanager.h"

typedef std::vector<unsigned char> Bytes;

// Plain records, written with positional initial values in the order of their fields.
struct TDevice {
    std::string Ven{}, Dev{}, SubVen{}, SubDev{}; // an empty part is left out of the XML
};
struct TRequisite {
    uint32_t SubType = 0;
    std::string Value{};
};
struct TVariable {
    bool Required = false;
    uint32_t Minimum = 0, Maximum = 16384;
    bool WriteMaximum = true;
    std::string Prompt{}; // the "en" prompt; a "de" one is written before it
    // The optional strings: an empty one is absent.
    std::string Acceptable{}, Format{}, OutputName{}, Default{}, Actual{}, OutputFile{};
    uint32_t OutputType = 0, Attributes = 0;
};
struct TComponent {
    std::string FileName{}, Version = "1.0", Name{}, Description{}, Command{};
    bool Reboot = false, PreCompilation = false, PostCompilation = false;
    std::vector<TDevice> Devices{};
    std::vector<TRequisite> Prerequisites{}, Postrequisites{};
    std::vector<TVariable> PreConfiguration{}, PostConfiguration{};
    bool WritePackage = true, WriteXml = true;
    bool BreakXml = false; // the XML lacks its installation section: the builder fails
};

#define TEST_BUNDLE_DIR "/tmp/bundle"
#define TEST_BUNDLE_FILE "./bp000001.xml"
#define TEST_BUNDLE_NAME "Test Support Pack"
#define TEST_BUNDLE_VERSION "7.10"

// A component of every kind: devices, requisites, configuration variables, flags.
TComponent AgentComponent(void);
TComponent DriverComponent(void);
TComponent PlainComponent(const std::string &FileName);

Bytes ExpectedRecord(const TComponent &C, uint32_t Number);

// Enters the sandbox as a Red Hat Linux 7.3 machine.
bool EnterRedHat73(void);
// A header for a packet of the manager to the sub-service, on the session's connections.
RZP_HEADER_PACKET HeaderTo(ZmSession *S, uint32_t OpCode, int Sequence, int ReturnCode);
// Enters the sandbox as a Red Hat Linux 7.3 machine, writes the bundle of Components in
// TEST_BUNDLE_DIR and starts the sub-service there with Args; fails the test when it cannot.
// Its waits are 15 s long, for a loaded machine or a sanitizer build.
bool StartParser(ZmSession *S, const std::vector<TComponent> &Components,
                 const std::vector<std::string> &Args = {}, ZmConfig Config = ZmConfig());
// Sends a parse request and waits for the sub-service's first log request: a manager that
// does not answer requests (ZmConfig::AnswerRequests false) holds the parse worker there.
bool BlockMidParse(ZmSession *S);
// Writes a bundle file named Name for operating system System, of one component a-1.0.rpm.
void WriteOtherBundle(const std::string &Path, const std::string &Name, const std::string &System);
// One request and its answer; a missing answer fails the test.
ZmPacket Ask(ZmSession *S, uint32_t OpCode, const Bytes &Payload = Bytes());

// Messages of a parse, as the manager's screen and log receive them.
struct TMessages {
    std::vector<std::string> Screen, Log;
};
TMessages BundleOpening(void); // the bundle file announced, its name and version
// What a parse made of a component; one the view filter left out says nothing.
enum { OUTCOME_BUILT, OUTCOME_NO_PACKAGE, OUTCOME_NO_XML, OUTCOME_ERRATA, OUTCOME_UNSELECTED };
// The messages received so far are Opening and then each component's by its outcome (every one
// built when Outcomes is empty), on a coloured screen or not; they are then forgotten.
void ExpectMessages(ZmSession *S, TMessages Opening, const std::vector<TComponent> &C,
                    const std::vector<int> &Outcomes = {}, bool Coloured = false);

// The records of the last parse, fetched whole; the number of items answered in *Count.
std::vector<Bytes> FetchRecords(ZmSession *S, int32_t *Count);
// Raw holds Built's records, byte for byte, numbered on from First.
void ExpectRecords(const std::vector<Bytes> &Raw, const std::vector<TComponent> &Built,
                   uint32_t First = 0);

// A test with one session S, closed at the end of the test however the test ended.
class BundleTest : public testing::Test {
protected:
    ZmSession S;
    void TearDown() override { ZmClose(&S); }
    // The sub-service still serves requests: the number of items is answered.
    void ExpectStillServing()
    {
        EXPECT_EQ(Ask(&S, RZP_PARSER_RETURN_NUMBER_OF_ITEMS).Header.ReturnCode, 0)
            << ZmConsoleSnapshot(&S);
    }
};
