// codec.cpp - the payload codec of libzelrzptransport.so.0: Tokenize writes values by a format
// of "%" letters, DeTokenize and DeTokenizeWithOffset read them back. Writes no globals.
// Layout: %U %L 4 bytes little-endian; %B %C %X one byte; %S the text and one NUL.
#include "zelrzptransport.h"

#include <climits>
#include <cstdarg>
#include <cstdint>
#include <cstring>

#define RZP_EXPORT extern "C" __attribute__((visibility("default")))

// Returns the letter of the next "%" pair of the format and moves the cursor past it, or 0 at
// the end. Characters that are not part of a pair (including a "%" at the very end) are skipped.
static char NextLetter(const char **Cursor)
{
    const char *p = *Cursor;
    while (*p != '\0') {
        if (p[0] == '%' && p[1] != '\0') {
            *Cursor = p + 2;
            return p[1];
        }
        p++;
    }
    *Cursor = p;
    return 0;
}

// Encoded size of a fixed-width letter; 0 for %S (sized by its text), -1 for an unknown letter.
static int LetterWidth(char Letter)
{
    switch (Letter) {
    case 'U':
    case 'L':
        return 4;
    case 'B':
    case 'C':
    case 'X':
        return 1;
    case 'S':
        return 0;
    default:
        return -1;
    }
}

// Checked before anything is written, so that a refused call leaves every buffer untouched.
static bool FormatIsKnown(const char *Format)
{
    for (const char *Cursor = Format; char Letter = NextLetter(&Cursor);)
        if (LetterWidth(Letter) < 0)
            return false;
    return true;
}

static void PutLE32(unsigned char *At, uint32_t Value)
{
    At[0] = static_cast<unsigned char>(Value);
    At[1] = static_cast<unsigned char>(Value >> 8);
    At[2] = static_cast<unsigned char>(Value >> 16);
    At[3] = static_cast<unsigned char>(Value >> 24);
}

static uint32_t GetLE32(const unsigned char *At)
{
    return static_cast<uint32_t>(At[0]) | static_cast<uint32_t>(At[1]) << 8 |
           static_cast<uint32_t>(At[2]) << 16 | static_cast<uint32_t>(At[3]) << 24;
}

// Encodes one value at Offset; returns its size, or -1 when the total would pass INT_MAX.
static int EncodeOne(unsigned char *Buffer, size_t Offset, char Letter, va_list *Args)
{
    if (Letter == 'S') {
        const char *Text = va_arg(*Args, const char *);
        size_t Size = Text != nullptr ? strlen(Text) + 1 : 1;
        if (Size > static_cast<size_t>(INT_MAX) - Offset)
            return -1;
        if (Text != nullptr)
            memcpy(Buffer + Offset, Text, Size);
        else
            Buffer[Offset] = '\0';
        return static_cast<int>(Size);
    }
    if (Offset > static_cast<size_t>(INT_MAX) - 4)
        return -1;
    if (Letter == 'U')
        PutLE32(Buffer + Offset, va_arg(*Args, unsigned int));
    else if (Letter == 'L')
        PutLE32(Buffer + Offset, static_cast<uint32_t>(va_arg(*Args, int)));
    else
        Buffer[Offset] = static_cast<unsigned char>(va_arg(*Args, int));
    return LetterWidth(Letter);
}

// Decodes one value at Offset into Dest (skipped when Dest is null); returns its size, or -1
// when the offset after it would pass INT_MAX.
static int DecodeOne(const unsigned char *Buffer, int Offset, char Letter, void *Dest)
{
    int Size = LetterWidth(Letter);
    if (Letter == 'S') {
        size_t Length = strlen(reinterpret_cast<const char *>(Buffer) + Offset) + 1;
        if (Length > static_cast<size_t>(INT_MAX - Offset))
            return -1;
        Size = static_cast<int>(Length);
    }
    if (Size < 0 || Size > INT_MAX - Offset)
        return -1;
    if (Dest == nullptr)
        return Size;
    if (Letter == 'U' || Letter == 'L') {
        uint32_t Value = GetLE32(Buffer + Offset);
        memcpy(Dest, &Value, sizeof Value);
    } else {
        memcpy(Dest, Buffer + Offset, static_cast<size_t>(Size));
    }
    return Size;
}

static int DecodeValues(unsigned char *Buffer, const char *Format, int Offset, va_list *Args)
{
    if (Buffer == nullptr || Format == nullptr || Offset < 0 || !FormatIsKnown(Format))
        return -1;
    for (const char *Cursor = Format; char Letter = NextLetter(&Cursor);) {
        int Size = DecodeOne(Buffer, Offset, Letter, va_arg(*Args, void *));
        if (Size < 0)
            return -1;
        Offset += Size;
    }
    return Offset;
}

RZP_EXPORT int Tokenize(unsigned char *Buffer, const char *Format, ...)
{
    if (Buffer == nullptr || Format == nullptr || !FormatIsKnown(Format))
        return -1;
    va_list Args;
    va_start(Args, Format);
    size_t Offset = 0;
    int Result = 0;
    for (const char *Cursor = Format; char Letter = NextLetter(&Cursor);) {
        int Size = EncodeOne(Buffer, Offset, Letter, &Args);
        if (Size < 0) {
            Result = -1;
            break;
        }
        Offset += static_cast<size_t>(Size);
    }
    va_end(Args);
    return Result < 0 ? -1 : static_cast<int>(Offset);
}

RZP_EXPORT int DeTokenize(unsigned char *Buffer, const char *Format, ...)
{
    va_list Args;
    va_start(Args, Format);
    int Result = DecodeValues(Buffer, Format, 0, &Args);
    va_end(Args);
    return Result;
}

RZP_EXPORT int DeTokenizeWithOffset(unsigned char *Buffer, const char *Format, int Offset, ...)
{
    va_list Args;
    va_start(Args, Offset);
    int Result = DecodeValues(Buffer, Format, Offset, &Args);
    va_end(Args);
    return Result;
}
