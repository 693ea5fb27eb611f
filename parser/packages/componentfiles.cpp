// componentfiles.cpp - the file checks of one component: its file exists and is not empty,
// its XML file (the file name with the extension replaced by ".xml") exists and is not empty;
// both must be regular files (links followed).
// Writes no globals; the XML file check runs CheckForULSP3, which writes /tmp/release.out.
#include <sys/stat.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "packages.h"
#include "runflags.h"

// ---- Component and XML files --------------------------------------------------------------------

int FindCorrespondingXMLFileName(const char *InstallFileName, char *XMLFileName)
{
    const char *Dot = InstallFileName != nullptr ? strrchr(InstallFileName, '.') : nullptr;
    if (Dot == nullptr || XMLFileName == nullptr)
        return -1;
    size_t Stem = static_cast<size_t>(Dot - InstallFileName);
    if (Stem + sizeof(".xml") > COMPONENT_FIELD_SIZE) {
        printf("The XML file name for %s would be longer than %d characters; it is refused.\n",
               InstallFileName, COMPONENT_FIELD_SIZE - 1);
        return -1;
    }
    memcpy(XMLFileName, InstallFileName, Stem);
    memcpy(XMLFileName + Stem, ".xml", sizeof(".xml"));
    return 0;
}

int FindComponentXmlFile(const char *FileName, char *XMLFileName)
{
    if (FindCorrespondingXMLFileName(FileName, XMLFileName) != 0)
        return -1;
    struct stat Info;
    if (stat(XMLFileName, &Info) != 0) {
        printf("XML File %s returned error %s\n", XMLFileName, strerror(errno));
        return -1;
    }
    if (!S_ISREG(Info.st_mode)) {
        printf("Unable to open XML file %s\n", XMLFileName);
        return -1;
    }
    if (Info.st_size == 0)
        return RZP_COMPONENT_XML_EMPTY;
    DebugPrint("XMLTOKENIZER--Calling CheckForULSP3\n");
    CheckForULSP3();
    return 0;
}

int DoesComponentFileExist(const char *FileName)
{
    struct stat Info;
    if (FileName == nullptr || stat(FileName, &Info) != 0)
        return -1;
    if (!S_ISREG(Info.st_mode))
        return -1; // refused as a file that is not there: the parse reports it missing
    DebugPrint("XML Filename found is %s\n", FileName);
    return Info.st_size > 0 ? 0 : RZP_COMPONENT_FILE_EMPTY;
}
