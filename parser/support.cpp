// support.cpp - small string helpers shared by every part of the sub-service: in-place
// upper-casing, the one bounded copy through which every fixed buffer is filled, and string
// duplication. Writes no globals.
#include "support.h"

#include <cstdlib>
#include <cstring>

int strupr(char *Value)
{
    if (Value == nullptr)
        return 0;
    for (unsigned char *p = reinterpret_cast<unsigned char *>(Value); *p; p++)
        if (*p >= 'a' && *p <= 'z')
            *p = static_cast<unsigned char>(*p - 0x20);
    return 0;
}

int CopyBounded(char *Dest, size_t DestSize, const char *Src)
{
    if (DestSize == 0)
        return 1;
    if (Src == nullptr) {
        Dest[0] = '\0';
        return 1;
    }
    size_t Length = strnlen(Src, DestSize);
    if (Length >= DestSize) {
        memcpy(Dest, Src, DestSize - 1);
        Dest[DestSize - 1] = '\0';
        return 1;
    }
    memcpy(Dest, Src, Length + 1);
    return 0;
}

int CopyWhole(char *Dest, size_t DestSize, const char *Src)
{
    if (Src == nullptr || strnlen(Src, DestSize) >= DestSize)
        return 1;
    memcpy(Dest, Src, strlen(Src) + 1);
    return 0;
}

char *DuplicateString(const char *Src)
{
    if (Src == nullptr)
        return nullptr;
    size_t Length = strlen(Src) + 1;
    char *Copy = static_cast<char *>(malloc(Length));
    if (Copy != nullptr)
        memcpy(Copy, Src, Length);
    return Copy;
}
