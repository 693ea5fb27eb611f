// op_open.cpp - the open-input-file worker: finds the bundle XML files of the current
// directory, keeps those that support the installed distribution and answers with the name
// of the one left. Writes, holding ParserStateMutex, ParserQueue->BundleList (and through the
// detection CurrentlyInstalledOS and the tree); when no bundle fits, Parser_Exiting.
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "operations.h"
#include "packages.h"
#include "runflags.h"
#include "service.h"
#include "support.h"

#define BUNDLE_NAME_SIZE 512 /* the display name answered; a longer one fails its reader */
#define TQR_OPEN_TEXT "Performing TQR Install."
#define BAD_BUNDLE_NAME_TEXT "Error in Bundle XML KVB Name"

// A zeroed candidate record with its three zeroed 256-byte buffers, or NULL.
static BUNDLEINFOPTR NewBundleCandidate(void)
{
    BUNDLEINFOPTR Bundle = static_cast<BUNDLEINFOPTR>(calloc(1, sizeof(BundleInfo)));
    if (Bundle == nullptr)
        return nullptr;
    Bundle->FileName = static_cast<char *>(calloc(1, BUNDLE_FIELD_SIZE));
    Bundle->Version = static_cast<char *>(calloc(1, BUNDLE_FIELD_SIZE));
    Bundle->OSVersion = static_cast<char *>(calloc(1, BUNDLE_FIELD_SIZE));
    Bundle->Status = BUNDLE_FOUND;
    if (Bundle->FileName == nullptr || Bundle->Version == nullptr || Bundle->OSVersion == nullptr) {
        FreeBundleInfo(Bundle);
        return nullptr;
    }
    return Bundle;
}

// A second open starts from an empty list, so that its answer reflects the directory now.
static void ClearBundleList(void)
{
    FreeBundleList(&ParserQueue->BundleList);
}

// Appends every bundle file of "." to BundleList; returns how many were found.
static int FindBundleFiles(void)
{
    BUNDLEINFOPTR Tail = nullptr;
    int Count = 0;
    for (;;) {
        BUNDLEINFOPTR Bundle = NewBundleCandidate();
        if (Bundle == nullptr)
            return Count;
        long Result = FindBundleXmlFile(".", Count, Bundle);
        if (Result != 0) {
            DebugPrint("Return code from FindBundleXmlFile is %lx\n", Result);
            FreeBundleInfo(Bundle);
            return Count;
        }
        DebugPrint("Bundle Filename is %s\n", Bundle->FileName);
        if (Tail == nullptr)
            ParserQueue->BundleList = Bundle;
        else
            Tail->Next = Bundle;
        Tail = Bundle;
        Count++;
    }
}

// Removes from BundleList every bundle that does not support the installed distribution;
// returns Count less the removed ones.
static int KeepSupportedBundles(int Count)
{
    BUNDLEINFOPTR Previous = nullptr;
    BUNDLEINFOPTR Bundle = ParserQueue->BundleList;
    while (Bundle != nullptr) {
        BUNDLEINFOPTR Next = Bundle->Next;
        VerbosePrint("Now checking bundle %s for support of this version of Linux.\n",
                     Bundle->FileName);
        if (IsOSSupportedByBundle(Bundle->FileName) == 1) {
            Previous = Bundle;
        } else {
            if (Previous == nullptr)
                ParserQueue->BundleList = Next;
            else
                Previous->Next = Next;
            FreeBundleInfo(Bundle);
            Count--;
        }
        Bundle = Next;
    }
    return Count;
}

// Success answer: Text as one string item whose length leaves out the NUL.
static void AnswerWithText(PPARSERWORK Work, const char *Text)
{
    memset(Work->Buffer, 0, RZP_MAX_PAYLOAD);
    int Length = EncodeStringItem(Work->Buffer, RZP_MAX_PAYLOAD, Text, 0);
    SendParserAnswer(Work, RZP_SUCCESS, Work->Buffer, Length < 0 ? 0 : Length);
}

static void OpenForTQRInstall(PPARSERWORK Work)
{
    if (IsOSSupportedByBundle(nullptr) == 1)
        AnswerWithText(Work, TQR_OPEN_TEXT);
    else
        SendParserAnswerWithRequest(Work, RZP_PARSER_NOT_ONE_BUNDLE);
}

static void AnswerWithBundleName(PPARSERWORK Work)
{
    char Name[BUNDLE_NAME_SIZE] = {0};
    if (GetBundleName(ParserQueue->BundleList->FileName, "en", Name, sizeof(Name)) != 0)
        CopyBounded(Name, sizeof(Name), BAD_BUNDLE_NAME_TEXT);
    AnswerWithText(Work, Name);
}

static void OpenBundle(PPARSERWORK Work)
{
    ClearBundleList();
    int Count = KeepSupportedBundles(FindBundleFiles());
    if (Count == 0) {
        SendParserAnswerWithRequest(Work, RZP_PARSER_NO_BUNDLE);
        printf("No supported Bundle XML files were found.\n");
        Parser_Exiting = 1;
    } else if (Count == 1) {
        AnswerWithBundleName(Work);
    } else {
        printf("More than one supported Bundle XML file found.\n");
        SendParserAnswerWithRequest(Work, RZP_PARSER_NOT_ONE_BUNDLE);
    }
}

static void OpenInputFile(PPARSERWORK Work)
{
    if (TQR_INSTALL != 0)
        OpenForTQRInstall(Work);
    else
        OpenBundle(Work);
}

void *HandleParserOpenInputFilePacket(void *parm1)
{
    (void)parm1;
    RunParserWorker(RZP_PARSER_OPEN_INPUT_FILE, "RZP_PARSER_OPEN_INPUT_FILE", OpenInputFile,
                    WORK_ON_PARSER_STATE);
    return nullptr;
}
