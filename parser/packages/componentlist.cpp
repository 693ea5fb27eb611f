// componentlist.cpp - the component list of the bundle being parsed: appending a component
// record as the bundle reader and the TQR list create it, and freeing the list.
// Owns ComponentList and its tail pointer (written by the parse worker's thread only).
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "packages.h"
#include "support.h"

COMPONENTINFOPTR ComponentList = nullptr;
// The last record of ComponentList, so that an append takes constant time: a bundle of 10^5
// packages made the walk to the end quadratic. Trusted only while ComponentList is not empty;
// records linked behind it by other code are stepped over.
static COMPONENTINFOPTR ComponentListTail = nullptr;

// ---- The component list -------------------------------------------------------------------------

static void FreeComponent(COMPONENTINFOPTR Component)
{
    char *Strings[] = {Component->FileName,       Component->Version,
                       Component->Name,           Component->Description,
                       Component->xmlfilename,    Component->InstallCommand,
                       Component->RebootRequired, Component->ScratchField};
    for (char *String : Strings)
        free(String);
    FreeInstallPacket(Component->InstallPacket);
    free(Component);
}

void FreeInstallPacket(PRZP_INSTALL_PACKET Packet)
{
    if (Packet == nullptr)
        return;
    char *Strings[] = {Packet->FailureReasonString, Packet->ComponentFileName,
                       Packet->ComponentName, Packet->ComponentDescription,
                       Packet->ComponentVersion, Packet->InstallCommand,
                       Packet->ConfigurationInputFileName, Packet->ConfigurationOutputFileName};
    for (char *String : Strings)
        free(String);
    free(Packet);
}

COMPONENTINFOPTR AppendComponent(const char *FileName)
{
    if (FileName == nullptr)
        return nullptr;
    if (strlen(FileName) >= COMPONENT_FIELD_SIZE) {
        printf("The component file name %s is longer than %d characters; it is refused.\n",
               FileName, COMPONENT_FIELD_SIZE - 1);
        return nullptr;
    }
    COMPONENTINFOPTR Component = static_cast<COMPONENTINFOPTR>(calloc(1, sizeof(ComponentInfo)));
    if (Component == nullptr)
        return nullptr;
    Component->FileName = static_cast<char *>(calloc(1, COMPONENT_FIELD_SIZE));
    Component->xmlfilename = static_cast<char *>(calloc(1, COMPONENT_FIELD_SIZE));
    Component->ScratchField = static_cast<char *>(calloc(1, COMPONENT_SCRATCH_SIZE));
    if (Component->FileName == nullptr || Component->xmlfilename == nullptr ||
        Component->ScratchField == nullptr) {
        FreeComponent(Component);
        return nullptr;
    }
    CopyBounded(Component->FileName, COMPONENT_FIELD_SIZE, FileName);
    Component->Status = COMPONENT_LISTED;
    Component->InstallStatus = INSTALL_STATUS_NOT_BUILT;
    AppendToList(&ComponentList, &ComponentListTail, Component, &ComponentInfo::next);
    return Component;
}

void FreeComponentList(void)
{
    while (ComponentList != nullptr) {
        COMPONENTINFOPTR Next = ComponentList->next;
        FreeComponent(ComponentList);
        ComponentList = Next;
    }
    ComponentListTail = nullptr;
}
