// xmltokenizer.cpp - the line-oriented tokenizer of the bundle and component XML dialect
// (docs/xml-dialect.md) and the one process-wide tree it builds. Writes FirstSection,
// ActiveSection and CurrentXMLFileParsed. No lock: one XML-reading request runs at a time.
//
// Memory: the records of a tree and their strings are carved out of a few large blocks that
// DeleteTree releases together, so the strings of the tree must never be freed or replaced
// on their own (changing their bytes in place, as strupr does, is fine). Deleting a
// part of the tree unlinks it; its memory goes with the tree. A section's record also keeps
// the tails of its four lists, so that appending is O(1) however long a list grows.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "runflags.h"
#include "support.h"
#include "xmltokenizer.h"

SECTIONPTR FirstSection = nullptr;
SECTIONPTR ActiveSection = nullptr;
char *CurrentXMLFileParsed = nullptr;

// The tree holds what a failed parse left behind; the next ParseFile starts afresh.
static int TreeIsPartial = 0;

// Source line (1-based) of the logical line being tokenized, put into every record made from
// it; 0 for lines handed to FindXMLTokens directly.
static int TokenLine = 0;

// Working copy W of FindXMLTokens, kept from one line to the next within a parse. One byte
// more than a line: a self-closing tag at the end of a full line gets a space inserted.
// Tokens are handed on as pieces of W, so no separate token buffer is needed.
static char WorkingCopy[XML_LINE_MAX + 1];
static size_t WorkingLength = 0;
static int WorkingHasCDATA = 0;
// The last line of a buffer that has no LF after it.
static char LastLine[XML_LINE_MAX];

static const char CDATA_START[] = "<![CDATA[";
static const size_t CDATA_START_LENGTH = 9;
static const size_t CDATA_END_LENGTH = 3;

// ---- Character classes --------------------------------------------------------------------------

enum {
    CHAR_WHITESPACE = 1, // space, tab, LF, VT, FF, CR
    CHAR_ALNUM = 2,      // ASCII letter or digit
    CHAR_SPECIAL = 4,    // '"', '<', '>', ' ', '=', '/', NUL: what the splitting looks at
    CHAR_MARKUP = 8,     // '"', '<', '>': removed from names and text
    CHAR_NAME_DROP = 16, // '"', '<', '>', ' ': removed from attribute names
    CHAR_VALUE_DROP = 32, // '<', '>', ' ', '/': removed from values outside quotes
    CHAR_SCAN = 64        // LF, NUL, '<', ']': what the line scan looks at
};

typedef struct CHARTABLE {
    unsigned char Class[256];
} CHARTABLE;

static constexpr CHARTABLE MakeCharTable(void)
{
    CHARTABLE Table{};
    for (int c = 0; c < 256; c++) {
        unsigned char Class = 0;
        if (c == ' ' || c == '\t' || c == '\n' || c == '\v' || c == '\f' || c == '\r')
            Class |= CHAR_WHITESPACE;
        if ((c >= '0' && c <= '9') || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z'))
            Class |= CHAR_ALNUM;
        if (c == '"' || c == '<' || c == '>')
            Class |= CHAR_SPECIAL | CHAR_MARKUP | CHAR_NAME_DROP;
        if (c == '=' || c == '/' || c == '\0')
            Class |= CHAR_SPECIAL;
        if (c == ' ')
            Class |= CHAR_SPECIAL | CHAR_NAME_DROP | CHAR_VALUE_DROP;
        if (c == '<' || c == '>' || c == '/')
            Class |= CHAR_VALUE_DROP;
        if (c == '\n' || c == '\0' || c == '<' || c == ']')
            Class |= CHAR_SCAN;
        Table.Class[c] = Class;
    }
    return Table;
}

static constexpr CHARTABLE Chars = MakeCharTable();

static int Is(char c, int Class)
{
    return Chars.Class[static_cast<unsigned char>(c)] & Class;
}

// ---- Tree memory ------------------------------------------------------------------------------

typedef struct TREEBLOCK {
    struct TREEBLOCK *Next;
    size_t Size; // bytes in the block, header included
    size_t Used;
} TREEBLOCK;

static TREEBLOCK *TreeBlocks = nullptr;
static const size_t TREE_BLOCK_FIRST = 64 * 1024;
static const size_t TREE_BLOCK_LARGEST = 1024 * 1024;
// Blocks of released trees, kept for the next tree (files are parsed one after the other);
// at most TREE_SPARE_LIMIT bytes are kept, the rest is freed.
static TREEBLOCK *SpareBlocks = nullptr;
static size_t SpareBytes = 0;
static const size_t TREE_SPARE_LIMIT = 16 * 1024 * 1024;
static const size_t TREE_ALIGN = 16;

static size_t Aligned(size_t Size)
{
    return (Size + TREE_ALIGN - 1) & ~(TREE_ALIGN - 1);
}

// Puts a block with room for Size bytes at the head of TreeBlocks: a spare one if there is
// one, else a new one twice the size of the last (within the limits). NULL without memory.
static TREEBLOCK *AddTreeBlock(size_t Size)
{
    const size_t Header = Aligned(sizeof(TREEBLOCK));
    TREEBLOCK *Block = SpareBlocks;
    if (Block != nullptr && Block->Size - Header >= Size) {
        SpareBlocks = Block->Next;
        SpareBytes -= Block->Size;
    } else {
        size_t Capacity = TreeBlocks == nullptr ? TREE_BLOCK_FIRST : 2 * TreeBlocks->Size;
        if (Capacity > TREE_BLOCK_LARGEST)
            Capacity = TREE_BLOCK_LARGEST;
        if (Capacity < Header + Size)
            Capacity = Header + Size;
        Block = static_cast<TREEBLOCK *>(malloc(Capacity));
        if (Block == nullptr)
            return nullptr;
        Block->Size = Capacity;
    }
    Block->Used = Header;
    Block->Next = TreeBlocks;
    TreeBlocks = Block;
    return Block;
}

// Memory for one record of the tree (not zero-filled: the callers set every field); NULL
// when memory runs out.
static void *TreeAllocate(size_t Size)
{
    Size = Aligned(Size);
    TREEBLOCK *Block = TreeBlocks;
    if (Block == nullptr || Block->Size - Block->Used < Size) {
        Block = AddTreeBlock(Size);
        if (Block == nullptr)
            return nullptr;
    }
    void *Memory = reinterpret_cast<char *>(Block) + Block->Used;
    Block->Used += Size;
    return Memory;
}

static void TreeRelease(void)
{
    while (TreeBlocks != nullptr) {
        TREEBLOCK *Block = TreeBlocks;
        TreeBlocks = Block->Next;
        if (SpareBytes + Block->Size > TREE_SPARE_LIMIT) {
            free(Block);
            continue;
        }
        Block->Next = SpareBlocks;
        SpareBlocks = Block;
        SpareBytes += Block->Size;
    }
}

// ---- Records --------------------------------------------------------------------------------

typedef struct SECTIONRECORD {
    section Section; // first: a SECTIONPTR is the address of its record
    SECTIONPTR LastChild;
    KEYPTR LastKey;
    TOKENPTR LastToken;
    CDATAPTR LastCDATA;
} SECTIONRECORD;

static SECTIONRECORD *RecordOf(SECTIONPTR Section)
{
    return reinterpret_cast<SECTIONRECORD *>(Section);
}

// Copies Length bytes of Source to Dest without the characters of class Drop; returns the
// byte after the terminator.
static char *CopyWithout(char *Dest, const char *Source, size_t Length, int Drop)
{
    for (size_t Index = 0; Index < Length; Index++) {
        *Dest = Source[Index];
        Dest += !Is(Source[Index], Drop);
    }
    *Dest++ = '\0';
    return Dest;
}

// An attribute value: '"' toggles quoting and is dropped; outside quotes '"', '>', '<', ' '
// and '/' are dropped.
static void CopyValue(char *Dest, const char *Source, size_t Length)
{
    int InQuote = 0;
    for (size_t Index = 0; Index < Length; Index++) {
        char c = Source[Index];
        InQuote ^= c == '"';
        *Dest = c;
        Dest += c != '"' && (InQuote || !Is(c, CHAR_VALUE_DROP));
    }
    *Dest = '\0';
}

// A new section named by Token (NULL for the root), all links NULL.
static SECTIONPTR NewSection(const char *Token, size_t Length)
{
    size_t Size = sizeof(SECTIONRECORD) + (Token != nullptr ? Length + 1 : 0);
    SECTIONRECORD *Record = static_cast<SECTIONRECORD *>(TreeAllocate(Size));
    if (Record == nullptr)
        return nullptr;
    *Record = SECTIONRECORD{};
    if (Token != nullptr) {
        Record->Section.Line = TokenLine;
        Record->Section.Name = reinterpret_cast<char *>(Record + 1);
        CopyWithout(Record->Section.Name, Token, Length, CHAR_MARKUP);
    }
    return &Record->Section;
}

static unsigned long AddSection(const char *Token, size_t Length)
{
    SECTIONPTR Section = NewSection(Token, Length);
    if (Section == nullptr)
        return XML_NO_MEMORY;
    SECTIONRECORD *Parent = RecordOf(ActiveSection);
    Section->Parent = ActiveSection;
    Section->PreviousSibling = Parent->LastChild;
    if (Parent->LastChild != nullptr)
        Parent->LastChild->NextSibling = Section;
    else
        ActiveSection->Child = Section;
    Parent->LastChild = Section;
    ActiveSection = Section;
    return 0;
}

// The next run of non-'=' characters from *Text, the way strtok finds it with "=".
static const char *NextField(const char **Text, const char *End, size_t *Length)
{
    const char *Start = *Text;
    while (Start < End && *Start == '=')
        Start++;
    const char *Stop = static_cast<const char *>(memchr(Start, '=', End - Start));
    if (Stop == nullptr)
        Stop = End;
    *Length = static_cast<size_t>(Stop - Start);
    *Text = Stop;
    return Start;
}

// An attribute token: the name is its first field, the value its second; a missing one is
// empty.
static unsigned long AddKey(const char *Token, size_t Length)
{
    const char *End = Token + Length;
    size_t NameLength, ValueLength;
    const char *Name = NextField(&Token, End, &NameLength);
    const char *Value = NextField(&Token, End, &ValueLength);
    KEYPTR Key = static_cast<KEYPTR>(TreeAllocate(sizeof(key) + NameLength + ValueLength + 2));
    if (Key == nullptr)
        return XML_NO_MEMORY;
    Key->NextKey = nullptr;
    Key->Line = TokenLine;
    Key->Attribute = reinterpret_cast<char *>(Key + 1);
    Key->Value = CopyWithout(Key->Attribute, Name, NameLength, CHAR_NAME_DROP);
    CopyValue(Key->Value, Value, ValueLength);
    SECTIONRECORD *Owner = RecordOf(ActiveSection);
    if (Owner->LastKey != nullptr)
        Owner->LastKey->NextKey = Key;
    else
        ActiveSection->NextKey = Key;
    Owner->LastKey = Key;
    return 0;
}

static unsigned long AddText(const char *Token, size_t Length)
{
    TOKENPTR Text = static_cast<TOKENPTR>(TreeAllocate(sizeof(token) + Length + 1));
    if (Text == nullptr)
        return XML_NO_MEMORY;
    Text->NextToken = nullptr;
    Text->Line = TokenLine;
    Text->Token = reinterpret_cast<char *>(Text + 1);
    CopyWithout(Text->Token, Token, Length, CHAR_MARKUP);
    SECTIONRECORD *Owner = RecordOf(ActiveSection);
    if (Owner->LastToken != nullptr)
        Owner->LastToken->NextToken = Text;
    else
        ActiveSection->NextToken = Text;
    Owner->LastToken = Text;
    return 0;
}

static unsigned long AddCDATA(const char *Token, size_t Length)
{
    DebugPrint("CDATA string is being copied to CDATA structure.\n");
    CDATAPTR Block = static_cast<CDATAPTR>(TreeAllocate(sizeof(CDATA) + Length + 1));
    if (Block == nullptr)
        return XML_NO_MEMORY;
    Block->NextCDATA = nullptr;
    Block->Line = TokenLine;
    Block->CDATAString = reinterpret_cast<char *>(Block + 1);
    memcpy(Block->CDATAString, Token, Length);
    Block->CDATAString[Length] = '\0';
    SECTIONRECORD *Owner = RecordOf(ActiveSection);
    if (Owner->LastCDATA != nullptr)
        Owner->LastCDATA->NextCDATA = Block;
    else
        ActiveSection->NextCDATA = Block;
    Owner->LastCDATA = Block;
    DebugPrint("CDATA string has been copied.\n");
    return 0;
}

// InsertToken for a token of Length bytes, which need not be NUL-terminated.
static unsigned long InsertTokenOfLength(const char *Token, size_t Length, int TokenType)
{
    if (FirstSection == nullptr) {
        FirstSection = NewSection(nullptr, 0);
        if (FirstSection == nullptr)
            return XML_NO_MEMORY;
        ActiveSection = FirstSection;
    }
    if (ActiveSection == nullptr)
        ActiveSection = FirstSection;
    switch (TokenType) {
    case XML_ATTRIBUTE:
        return AddKey(Token, Length);
    case XML_TEXT:
        return AddText(Token, Length);
    case XML_ELEMENT_START:
        return AddSection(Token, Length);
    case XML_ELEMENT_END:
        // More end tags than start tags: the root has no parent, so we stay at the root.
        if (ActiveSection->Parent != nullptr)
            ActiveSection = ActiveSection->Parent;
        return 0;
    case XML_CDATA:
        return AddCDATA(Token, Length);
    default:
        return 0;
    }
}

unsigned long InsertToken(char *tokenstring, int tokentype)
{
    if (tokenstring == nullptr)
        return 0;
    return InsertTokenOfLength(tokenstring, strlen(tokenstring), tokentype);
}

// ---- Deletion -------------------------------------------------------------------------------
// Records are unlinked here; their memory is released with the tree (TreeRelease).

unsigned long DeleteKeys(SECTIONPTR CurrentSection)
{
    if (CurrentSection != nullptr) {
        CurrentSection->NextKey = nullptr;
        RecordOf(CurrentSection)->LastKey = nullptr;
    }
    return 0;
}

unsigned long DeleteTokens(SECTIONPTR CurrentSection)
{
    if (CurrentSection != nullptr) {
        CurrentSection->NextToken = nullptr;
        RecordOf(CurrentSection)->LastToken = nullptr;
    }
    return 0;
}

unsigned long DeleteCDATA(SECTIONPTR CurrentSection)
{
    if (CurrentSection != nullptr) {
        CurrentSection->NextCDATA = nullptr;
        RecordOf(CurrentSection)->LastCDATA = nullptr;
    }
    return 0;
}

// Detaches CurrentSection and its later siblings from the tree, so that no pointer of the
// remaining tree (links, list tails, FirstSection) leads into the deleted part.
static void DetachSections(SECTIONPTR CurrentSection)
{
    SECTIONPTR Previous = CurrentSection->PreviousSibling;
    SECTIONPTR Parent = CurrentSection->Parent;
    if (Previous != nullptr)
        Previous->NextSibling = nullptr;
    else if (Parent != nullptr)
        Parent->Child = nullptr;
    if (Parent != nullptr)
        RecordOf(Parent)->LastChild = Previous;
    if (CurrentSection == FirstSection)
        FirstSection = nullptr;
}

// Deletes CurrentSection, its subtree and every later sibling. The trace follows the order
// a section, its children, its next sibling; the walk is iterative, because a long sibling
// list or a deep nesting would exhaust the stack.
unsigned long DeleteSection(SECTIONPTR CurrentSection)
{
    if (CurrentSection == nullptr)
        return 0;
    SECTIONPTR Parent = CurrentSection->Parent;
    int DeletedActive = 0;
    int Trace = Debugging();
    SECTIONPTR Section = CurrentSection;
    while (Section != nullptr) {
        if (Trace && Section->Name != nullptr)
            printf("Now deleting section %s\n", Section->Name);
        DeletedActive |= Section == ActiveSection;
        if (Section->Child != nullptr) {
            Section = Section->Child;
            continue;
        }
        while (Section->NextSibling == nullptr && Section->Parent != Parent)
            Section = Section->Parent;
        Section = Section->NextSibling;
    }
    DetachSections(CurrentSection);
    if (DeletedActive)
        ActiveSection = Parent != nullptr ? Parent : FirstSection;
    return 0;
}

// Frees whatever tree there is, complete or partial, and forgets its file.
static void ReleaseTree(void)
{
    if (FirstSection != nullptr && Debugging())
        DeleteSection(FirstSection); // for its trace; the memory goes below
    TreeRelease();
    FirstSection = nullptr;
    ActiveSection = nullptr;
    free(CurrentXMLFileParsed);
    CurrentXMLFileParsed = nullptr;
    TreeIsPartial = 0;
}

unsigned long DeleteTree(void)
{
    DebugPrint("Now deleting the sections of the tree.\n");
    ReleaseTree();
    return 0;
}

// ---- Tokenizer of one logical line -------------------------------------------------------------

// Step 2: W is the line without the whitespace outside tags. A '<' opens a tag; a '>' closes
// it unless a letter or digit follows, so that text starting that way keeps its spaces.
// Inside a tag only '>' matters, so whole runs up to it are copied at once.
static size_t RemoveWhitespace(const char *Line, size_t Length, int *InToken)
{
    size_t Out = 0;
    size_t Index = 0;
    int Inside = *InToken;
    while (Index < Length) {
        if (Inside) {
            const char *Close = static_cast<const char *>(memchr(Line + Index, '>', Length - Index));
            size_t Stop = Close != nullptr ? static_cast<size_t>(Close - Line) + 1 : Length;
            memcpy(WorkingCopy + Out, Line + Index, Stop - Index);
            Out += Stop - Index;
            Index = Stop;
            Inside = Close == nullptr || Is(Line[Index], CHAR_ALNUM);
            continue;
        }
        while (Is(Line[Index], CHAR_WHITESPACE)) // the terminator is no whitespace
            Index++;
        if (Index < Length) {
            char c = Line[Index++];
            WorkingCopy[Out++] = c;
            Inside = c == '<';
        }
    }
    WorkingCopy[Out] = '\0';
    *InToken = Inside;
    return Out;
}

// What a token holds, gathered while it is split off.
enum { TOKEN_EQUALS = 1, TOKEN_OPEN = 2, TOKEN_CLOSE = 4 };

// First match wins: '=' attribute; "</" or "/>" element end; '<' element start; else text.
static int TokenType(int Holds)
{
    if (Holds & TOKEN_EQUALS)
        return XML_ATTRIBUTE;
    if (Holds & TOKEN_CLOSE)
        return XML_ELEMENT_END;
    return (Holds & TOKEN_OPEN) ? XML_ELEMENT_START : XML_TEXT;
}

// Step 4: a line with "<![CDATA[" is one CDATA token, W less its first 9 and last 3 characters
// (empty when W is shorter than that).
static void InsertCDATALine(void)
{
    size_t Length = 0;
    if (WorkingLength > CDATA_START_LENGTH + CDATA_END_LENGTH)
        Length = WorkingLength - CDATA_START_LENGTH - CDATA_END_LENGTH;
    char *Text = WorkingCopy + CDATA_START_LENGTH; // W holds "<![CDATA[": 9 bytes at least
    char Saved = Text[Length];
    Text[Length] = '\0';
    DebugPrint("CDATA found is %s\n", Text);
    InsertTokenOfLength(Text, Length, XML_CDATA);
    Text[Length] = Saved;
}

// Step 5: splits W into tokens. A token ends before '<', before '>' (which it takes along)
// and before a space inside a tag, but never inside quotes; what is left at the end is
// dropped. InToken comes from the whitespace removal of the same line. Only '"', '<', '>',
// ' ', '=' and '/' matter, so runs of other characters are skipped at once; the last two
// only classify the token ("</" and "/>" always lie within one token).
static void SplitWorkingCopy(int InToken)
{
    int InQuote = 0;
    int Holds = 0;
    size_t Start = 0;
    size_t Index = 0;
    while (Index < WorkingLength) {
        char c = WorkingCopy[Index++];
        if (c == '"') {
            InQuote = !InQuote;
        } else if (c == '<') {
            Holds |= TOKEN_OPEN;
            InToken |= !InQuote;
        } else if (c == '>') {
            InToken &= InQuote;
        } else if (c == '=') {
            Holds |= TOKEN_EQUALS;
        } else if (c == '/') {
            if ((Index - 1 > Start && WorkingCopy[Index - 2] == '<') || WorkingCopy[Index] == '>')
                Holds |= TOKEN_CLOSE;
        }
        while (!Is(WorkingCopy[Index], CHAR_SPECIAL)) // stops at the terminator too
            Index++;
        char Next = WorkingCopy[Index];
        if (InQuote || !(Next == '>' || Next == '<' || (Next == ' ' && InToken)))
            continue;
        if (Next == '>') {
            Index++;
            InToken = 0;
        }
        InsertTokenOfLength(WorkingCopy + Start, Index - Start, TokenType(Holds));
        Start = Index;
        Holds = 0;
    }
}

// Whether any byte of Word is zero (exact as a whole, not per byte).
static uint64_t HasZeroByte(uint64_t Word)
{
    return (Word - 0x0101010101010101ULL) & ~Word & 0x8080808080808080ULL;
}

static uint64_t HasByte(uint64_t Word, unsigned char Byte)
{
    return HasZeroByte(Word ^ (0x0101010101010101ULL * Byte));
}

// Whether the eight bytes at Text hold one that the line scan looks at (LF, NUL, '<', ']').
static int HoldsScanByte(const char *Text)
{
    uint64_t Word;
    memcpy(&Word, Text, sizeof Word);
    return (HasZeroByte(Word) | HasByte(Word, '\n') | HasByte(Word, '<') | HasByte(Word, ']')) != 0;
}

// What a scan of a line found before its first NUL byte (string functions see no further).
enum { SEEN_NUL = 1, SEEN_CDATA_END = 2, SEEN_CDATA_START = 4, SEEN_DECLARATION = 8 };

// Scans from Text up to the next LF (or End) in one pass and returns where it stopped; *Seen
// tells which markers occur before the first NUL, and SEEN_NUL with *Nul where that is. W
// holds "<![CDATA[" exactly when its line does: from a '<' on, the whitespace removal copies
// everything up to the next '>'; so this one scan serves the line assembly and the tokenizer.
static const char *ScanSegment(const char *Text, const char *End, int *Seen, const char **Nul)
{
    int Found = 0;
    while (Text < End) {
        // Groups of eight without such a byte are skipped; the others are looked at bytewise.
        const char *Limit = End - Text >= 8 ? Text + 8 : End;
        if (Limit - Text == 8 && !HoldsScanByte(Text)) {
            Text = Limit;
            continue;
        }
        for (; Text < Limit; Text++) {
            char c = *Text;
            if (!Is(c, CHAR_SCAN))
                continue;
            size_t Left = static_cast<size_t>(End - Text);
            if (c == '\n') {
                *Seen = Found;
                return Text;
            }
            if (c == '\0') {
                *Nul = Text;
                const char *Feed = static_cast<const char *>(memchr(Text, '\n', Left));
                *Seen = Found | SEEN_NUL;
                return Feed != nullptr ? Feed : End;
            }
            if (c == ']')
                Found |= Left >= 3 && Text[1] == ']' && Text[2] == '>' ? SEEN_CDATA_END : 0;
            else if (Left >= CDATA_START_LENGTH && Text[1] == '!' &&
                     memcmp(Text, CDATA_START, CDATA_START_LENGTH) == 0)
                Found |= SEEN_CDATA_START;
            else if (Left >= 5 && Text[1] == '?' && memcmp(Text, "<?xml", 5) == 0)
                Found |= SEEN_DECLARATION;
        }
    }
    *Seen = Found;
    return End;
}

// The markers of a whole string, across its LF characters (it has no NUL inside).
static int LineMarkers(const char *Line, size_t Length)
{
    int Seen = 0;
    const char *End = Line + Length;
    const char *Nul = nullptr;
    for (const char *Text = Line; Text < End; Text++) {
        int Found;
        Text = ScanSegment(Text, End, &Found, &Nul);
        Seen |= Found;
    }
    return Seen;
}

// FindXMLTokens for a line of Length bytes (its terminator at line[Length]) whose markers
// are Seen.
static void TokenizeLine(char *line, size_t Length, int Seen)
{
    if (Seen & SEEN_DECLARATION)
        return;
    int InToken = 0;
    if (WorkingHasCDATA) {
        memcpy(WorkingCopy, line, Length + 1);
        WorkingLength = Length;
    } else {
        WorkingLength = RemoveWhitespace(line, Length, &InToken);
    }
    // Step 3: "x/>" at the end of the line becomes "x />".
    size_t n = WorkingLength;
    if (n >= 3 && WorkingCopy[n - 2] == '/' && WorkingCopy[n - 1] == '>' &&
        WorkingCopy[n - 3] != ' ') {
        memcpy(WorkingCopy + n - 2, " />", 4);
        WorkingLength = n + 1;
    }
    WorkingHasCDATA = (Seen & SEEN_CDATA_START) != 0;
    if (WorkingHasCDATA)
        InsertCDATALine();
    else
        SplitWorkingCopy(InToken);
}

void FindXMLTokens(char *line)
{
    if (line == nullptr)
        return;
    size_t Length = strlen(line);
    // InternalParseXML never passes more; a direct caller's longer line is not read.
    if (Length < XML_LINE_MAX) {
        TokenLine = 0;
        TokenizeLine(line, Length, LineMarkers(line, Length));
    }
}

// ---- Line assembly and files -------------------------------------------------------------------

static void ResetWorkingCopy(void)
{
    WorkingCopy[0] = '\0';
    WorkingLength = 0;
    WorkingHasCDATA = 0;
}

static long LineTooLong(void)
{
    printf("XML file is corrupted.  A line of the file is longer than %d characters.\n",
           XML_LINE_MAX - 1);
    return XML_PARSE_FAILED;
}

// The end of the buffer: the text after the last LF (possibly empty) is the last line, unless
// a CDATA block is still open.
static long FinishBuffer(const char *Rest, size_t Length, int InCDATASection, int LineNumber)
{
    if (Length > XML_LINE_MAX - 1)
        return LineTooLong();
    if (InCDATASection) {
        printf("XML file is corrupted.  Please download the package and restart the \n"
               "installation of the package.\n");
        return XML_PARSE_FAILED;
    }
    memcpy(LastLine, Rest, Length); // the caller's buffer need not have room for a terminator
    TokenLine = LineNumber;
    LastLine[Length] = '\0';
    Length = strlen(LastLine);
    TokenizeLine(LastLine, Length, LineMarkers(LastLine, Length));
    return 0;
}

// Splits the buffer into logical lines: a line that opens a CDATA block without closing it
// goes on, with its LF, until a line closes the block. Lines are handed to the tokenizer in
// place (the LF is replaced by a NUL for the call), so the buffer is briefly written to.
// What a line holds after a NUL byte is invisible to the tests for "]]>" and "<![CDATA[".
long InternalParseXML(char *xmlbuffer, long xmllength)
{
    ResetWorkingCopy();
    if (xmlbuffer == nullptr || xmllength <= 0)
        xmllength = 0;
    // NUL bytes at the end (what a short read leaves, ParseFile) hide nothing from the
    // tokenizer; they are no part of the last line, which they would make over-long.
    while (xmllength > 0 && xmlbuffer[xmllength - 1] == '\0')
        xmllength--;
    const char *End = xmlbuffer + xmllength;
    int InCDATASection = 0;
    int LineSeen = 0;              // markers of the logical line so far
    const char *LineNul = nullptr; // its first NUL byte
    long LineStart = 0;
    long Position = 0;
    int Physical = 1;  // source line of the next LF
    int LogicalFirst = 1; // source line where the logical line began
    while (Position < xmllength) {
        int Seen = 0;
        const char *Nul = nullptr;
        const char *Feed = ScanSegment(xmlbuffer + Position, End, &Seen, &Nul);
        if (Feed == End)
            break;
        long Stop = Feed - xmlbuffer;
        if (Stop - LineStart > XML_LINE_MAX - 1)
            return LineTooLong();
        if (LineNul == nullptr) {
            LineSeen |= Seen;
            LineNul = Nul;
        }
        Position = Stop + 1;
        if (InCDATASection && (LineSeen & SEEN_CDATA_END))
            InCDATASection = 0;
        else if (!InCDATASection)
            InCDATASection = (LineSeen & (SEEN_CDATA_START | SEEN_CDATA_END)) == SEEN_CDATA_START;
        Physical++;
        if (InCDATASection) {
            if (Stop + 1 - LineStart > XML_LINE_MAX - 1)
                return LineTooLong();
            continue;
        }
        TokenLine = LogicalFirst;
        LogicalFirst = Physical;
        char *Line = xmlbuffer + LineStart;
        Line[Stop - LineStart] = '\0';
        TokenizeLine(Line, static_cast<size_t>((LineNul != nullptr ? LineNul : Feed) - Line), LineSeen);
        Line[Stop - LineStart] = '\n';
        LineStart = Position;
        LineSeen = 0;
        LineNul = nullptr;
    }
    return FinishBuffer(xmlbuffer + LineStart, static_cast<size_t>(xmllength - LineStart),
                        InCDATASection, LogicalFirst);
}

long ReadXMLFile(int xmlsfp, char *xmlbuffer, long xmllength)
{
    ssize_t Count = read(xmlsfp, xmlbuffer, static_cast<size_t>(xmllength));
    return Count > 0 ? static_cast<long>(Count) : 0;
}

static long ReadFailed(void)
{
    printf("\n\nAn error was encountered while reading the XML file.\n");
    printf("Please download the package from the Zelcor website again.\n");
    return XML_PARSE_FAILED;
}

// Whether what FileName names (links followed) may be opened: a regular file of at most
// XML_FILE_MAX bytes. Anything else is refused before any open, so that a name that leads to
// a device or a FIFO never reaches its driver; a name that is not a regular file is one that
// cannot be opened, and says so in the same words as a missing one.
static long CheckXMLFile(const char *FileName, struct stat *Named)
{
    if (stat(FileName, Named) != 0 || !S_ISREG(Named->st_mode)) {
        printf("Unable to open XML file %s\n", FileName);
        return XML_OPEN_FAILED;
    }
    if (Named->st_size > XML_FILE_MAX) {
        printf("The XML file %s is larger than %d bytes; it is refused.\n", FileName,
               XML_FILE_MAX);
        return XML_OPEN_FAILED;
    }
    return 0;
}

// Opens FileName and allocates a buffer of its size + 1 (ParseFile zeroes what the read does
// not fill). Returns 0 with the descriptor and buffer, or the failure code with its message
// printed and nothing held.
static long OpenXMLFile(const char *FileName, int *Descriptor, char **Buffer, long *Size)
{
    struct stat Named;
    long Checked = CheckXMLFile(FileName, &Named);
    if (Checked != 0)
        return Checked;
    // O_NONBLOCK: should the name be switched to a FIFO after the check, the open does not
    // stall; what was opened must be the file that was checked.
    int File = open(FileName, O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    if (File < 0) {
        printf("Unable to open XML file %s\n", FileName);
        return XML_OPEN_FAILED;
    }
    struct stat Status;
    if (fstat(File, &Status) != 0 || Status.st_dev != Named.st_dev ||
        Status.st_ino != Named.st_ino || !S_ISREG(Status.st_mode) ||
        Status.st_size > XML_FILE_MAX) {
        printf("Unable to open XML file %s\n", FileName); // it changed since it was checked
        close(File);
        return XML_OPEN_FAILED;
    }
    if (Status.st_size <= 0) {
        printf("XML File is missing for %s\n", FileName);
        close(File);
        return XML_OPEN_FAILED;
    }
    *Buffer = static_cast<char *>(malloc(static_cast<size_t>(Status.st_size) + 1));
    if (*Buffer == nullptr) {
        close(File); // too big to hold: reported as a file that cannot be read
        return ReadFailed();
    }
    *Descriptor = File;
    *Size = static_cast<long>(Status.st_size);
    return 0;
}

long ParseFile(const char *FileName)
{
    DebugPrint("XMLTOKENIZER--Parsing file, %s\n", FileName != nullptr ? FileName : "(null)");
    if (FileName == nullptr)
        return XML_OPEN_FAILED;
    // A tree left by a failed parse never bleeds into the next file.
    if (TreeIsPartial)
        ReleaseTree();
    int File = -1;
    char *Buffer = nullptr;
    long Size = 0;
    long Result = OpenXMLFile(FileName, &File, &Buffer, &Size);
    if (Result != 0)
        return Result;
    long Count = ReadXMLFile(File, Buffer, Size);
    if (Count == 0) {
        close(File);
        free(Buffer);
        return ReadFailed();
    }
    close(File);
    memset(Buffer + Count, 0, static_cast<size_t>(Size - Count) + 1); // a short read leaves zeros
    DebugPrint("XMLTOKENIZER--Calling InternalParseXML, CurrentlyInstalledOS = %s\n",
               CurrentlyInstalledOS != nullptr ? CurrentlyInstalledOS : "(null)");
    Result = InternalParseXML(Buffer, Size);
    free(Buffer);
    if (Result != 0) {
        printf("Error %lx occurred while parsing the XML file %s\n",
               static_cast<unsigned long>(Result), FileName);
        // The tree no longer is the file it named; the next parse discards it.
        free(CurrentXMLFileParsed);
        CurrentXMLFileParsed = nullptr;
        TreeIsPartial = 1;
        return XML_PARSE_FAILED;
    }
    free(CurrentXMLFileParsed);
    CurrentXMLFileParsed = DuplicateString(FileName);
    if (CurrentXMLFileParsed == nullptr) {
        TreeIsPartial = 1;
        return XML_PARSE_FAILED;
    }
    return 0;
}
