// differential.cpp - the differential reading of one XML file: the sub-service's tokenizer builds
// its tree (left current for the readers after it) and pugixml reads the same bytes the
// standard way; every place where the two trees differ is a finding at the line where the
// difference starts. Writes the sub-service's tree (through ParseFile); no globals of its own.
#include <pugixml.hpp>

#include <algorithm>
#include <cstdio>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "xmltokenizer.h"
#include "zellint.h"

namespace {

// The file's bytes and the offset of each line's start, to turn pugixml offsets into lines.
struct SourceText {
    std::string Bytes;
    std::vector<size_t> LineStarts;
};

int LineAt(const SourceText &S, ptrdiff_t Offset)
{
    if (Offset < 0)
        return 0;
    auto It = std::upper_bound(S.LineStarts.begin(), S.LineStarts.end(), static_cast<size_t>(Offset));
    return static_cast<int>(It - S.LineStarts.begin());
}

int LineOf(const SourceText &S, const pugi::xml_node &Node)
{
    return LineAt(S, Node.offset_debug());
}

std::string Trim(const std::string &Text)
{
    const char *Blank = " \t\r\n\v\f";
    size_t First = Text.find_first_not_of(Blank);
    if (First == std::string::npos)
        return "";
    return Text.substr(First, Text.find_last_not_of(Blank) - First + 1);
}

// A text quoted for a message: at most 60 characters, line breaks shown as \n.
std::string Quote(const std::string &Text)
{
    std::string Out;
    for (char c : Text.substr(0, 60))
        Out += c == '\n' ? std::string("\\n") : std::string(1, c);
    return "\"" + Out + (Text.size() > 60 ? "...\"" : "\"");
}

struct DiffContext {
    const SourceText *Source;
    std::string Shown;
    LintReport *Report;
};

void Report(DiffContext *C, int Line, const char *Tag, const std::string &Message)
{
    AddFinding(C->Report, C->Shown, Line, Tag, Message);
}

std::string Where(const pugi::xml_node &E)
{
    return E.type() == pugi::node_document ? std::string("the document") : "<" + std::string(E.name()) + ">";
}

// Attributes: each standard attribute must be the dialect's first of that name, with the same
// value; a dialect attribute the standard reading lacks is a construct read as an attribute.
void CompareAttributes(DiffContext *C, const pugi::xml_node &E, SECTIONPTR S, int Line)
{
    for (pugi::xml_attribute A : E.attributes()) {
        KEYPTR Key = S->NextKey;
        while (Key != nullptr && std::string(Key->Attribute) != A.name())
            Key = Key->NextKey;
        if (Key == nullptr)
            Report(C, Line, "dialect-attribute",
                   "attribute '" + std::string(A.name()) + "' of " + Where(E) +
                       " is lost: XML reads " + Quote(A.value()) + ", zelparser reads nothing");
        else if (std::string(Key->Value) != A.value())
            Report(C, Key->Line != 0 ? Key->Line : Line, "dialect-attribute",
                   "attribute '" + std::string(A.name()) + "' of " + Where(E) + ": XML reads " +
                       Quote(A.value()) + ", zelparser reads " + Quote(Key->Value));
    }
    for (KEYPTR Key = S->NextKey; Key != nullptr; Key = Key->NextKey)
        if (!E.attribute(Key->Attribute))
            Report(C, Key->Line != 0 ? Key->Line : Line, "dialect-attribute",
                   "zelparser reads an attribute '" + std::string(Key->Attribute) + "' = " +
                       Quote(Key->Value) + " in " + Where(E) + " that XML does not have");
}

// Text: the element's character data against the dialect's text pieces, both without the
// whitespace around them; whitespace-only pieces are ignored on both sides. The readers use
// the first piece, so text read in several pieces is a difference too.
void CompareText(DiffContext *C, const pugi::xml_node &E, SECTIONPTR S, int Line)
{
    std::string Standard;
    for (pugi::xml_node N : E.children())
        if (N.type() == pugi::node_pcdata)
            Standard += N.value();
    Standard = Trim(Standard);
    std::string Dialect;
    int Pieces = 0;
    int PieceLine = 0;
    for (TOKENPTR T = S->NextToken; T != nullptr; T = T->NextToken) {
        if (Trim(T->Token).empty())
            continue;
        Dialect += T->Token;
        Pieces++;
        if (PieceLine == 0)
            PieceLine = T->Line;
    }
    Dialect = Trim(Dialect);
    if (Standard == Dialect && Pieces <= 1)
        return;
    std::string Message = "text of " + Where(E) + ": XML reads " + Quote(Standard) +
                          ", zelparser reads " + (Pieces == 0 ? std::string("no text") : Quote(Dialect));
    if (Pieces > 1)
        Message += " in " + std::to_string(Pieces) + " pieces (the readers take the first)";
    Report(C, Line != 0 ? Line : PieceLine, "dialect-text", Message);
}

void CompareCDATA(DiffContext *C, const pugi::xml_node &E, SECTIONPTR S, int Line)
{
    std::vector<std::pair<std::string, int>> Standard;
    for (pugi::xml_node N : E.children())
        if (N.type() == pugi::node_cdata)
            Standard.emplace_back(N.value(), LineOf(*C->Source, N));
    CDATAPTR Block = S->NextCDATA;
    size_t Index = 0;
    for (; Index < Standard.size(); Index++, Block = Block->NextCDATA) {
        int At = Standard[Index].second != 0 ? Standard[Index].second : Line;
        if (Block == nullptr) {
            Report(C, At, "dialect-cdata",
                   "CDATA block " + Quote(Standard[Index].first) + " of " + Where(E) +
                       " is lost by zelparser");
            return;
        }
        if (Standard[Index].first != Block->CDATAString) {
            Report(C, At, "dialect-cdata",
                   "CDATA block of " + Where(E) + ": XML reads " + Quote(Standard[Index].first) +
                       ", zelparser reads " + Quote(Block->CDATAString));
            return;
        }
    }
    if (Block != nullptr)
        Report(C, Block->Line != 0 ? Block->Line : Line, "dialect-cdata",
               "zelparser reads a CDATA block " + Quote(Block->CDATAString) + " in " + Where(E) +
                   " that XML does not have");
}

std::vector<pugi::xml_node> ElementChildren(const pugi::xml_node &E)
{
    std::vector<pugi::xml_node> Out;
    for (pugi::xml_node N : E.children())
        if (N.type() == pugi::node_element)
            Out.push_back(N);
    return Out;
}

void CompareElement(DiffContext *C, const pugi::xml_node &E, SECTIONPTR S);

// The children in order; at the first element that is not where the standard reading has it,
// one finding, and the rest of this list is not compared (everything after it is shifted).
void CompareChildren(DiffContext *C, const pugi::xml_node &E, SECTIONPTR S, int Line)
{
    std::vector<pugi::xml_node> Standard = ElementChildren(E);
    SECTIONPTR Child = S->Child;
    size_t Index = 0;
    for (; Index < Standard.size() && Child != nullptr; Index++, Child = Child->NextSibling) {
        if (std::string(Child->Name) == Standard[Index].name()) {
            CompareElement(C, Standard[Index], Child);
            continue;
        }
        int At = LineOf(*C->Source, Standard[Index]);
        if (Child->Line != 0 && (At == 0 || Child->Line < At))
            At = Child->Line;
        Report(C, At, "dialect-element",
               "in " + Where(E) + ", XML reads <" + Standard[Index].name() + ">, zelparser reads <" +
                   Child->Name + "> (from line " + std::to_string(Child->Line) +
                   "); the elements after it are not where XML has them");
        return;
    }
    if (Index < Standard.size()) {
        size_t Lost = Standard.size() - Index;
        Report(C, LineOf(*C->Source, Standard[Index]), "dialect-element",
               "<" + std::string(Standard[Index].name()) + "> is missing from zelparser's reading of " +
                   Where(E) + (Lost > 1 ? " (with the " + std::to_string(Lost - 1) + " elements after it)" : ""));
    } else if (Child != nullptr) {
        Report(C, Child->Line != 0 ? Child->Line : Line, "dialect-element",
               "zelparser reads an element <" + std::string(Child->Name) + "> inside " + Where(E) +
                   " that XML does not have there");
    }
}

void CompareElement(DiffContext *C, const pugi::xml_node &E, SECTIONPTR S)
{
    int Line = E.type() == pugi::node_document ? 0 : LineOf(*C->Source, E);
    CompareAttributes(C, E, S, Line);
    CompareText(C, E, S, Line);
    CompareCDATA(C, E, S, Line);
    CompareChildren(C, E, S, Line);
}

bool ReadSource(const std::string &Path, SourceText *S)
{
    std::ifstream In(Path, std::ios::binary);
    if (!In)
        return false;
    S->Bytes.assign(std::istreambuf_iterator<char>(In), std::istreambuf_iterator<char>());
    S->LineStarts.push_back(0);
    for (size_t i = 0; i < S->Bytes.size(); i++)
        if (S->Bytes[i] == '\n')
            S->LineStarts.push_back(i + 1);
    return true;
}

// The tokenizer's own reading; its messages (an unreadable file) are findings.
int DialectReading(const std::string &Path, DiffContext *C)
{
    DeleteTree();
    long Result = ParseFile(Path.c_str());
    std::string Printed = LintCaptureTake();
    if (Result == 0)
        return 0;
    std::string Message = Trim(Printed);
    for (char &c : Message)
        if (c == '\n')
            c = ' ';
    Report(C, 0, "xml-unreadable",
           "zelparser cannot read the file" + (Message.empty() ? std::string() : ": " + Message));
    return -1;
}

} // namespace

int LintDifferential(const std::string &Path, const std::string &Shown, LintReport *R)
{
    SourceText Source;
    DiffContext C = {&Source, Shown, R};
    if (!ReadSource(Path, &Source)) {
        Report(&C, 0, "xml-unreadable", "the file cannot be opened");
        return -1;
    }
    int Readable = DialectReading(Path, &C);
    pugi::xml_document Doc;
    pugi::xml_parse_result Parsed =
        Doc.load_buffer(Source.Bytes.data(), Source.Bytes.size(), pugi::parse_default);
    if (!Parsed) {
        Report(&C, LineAt(Source, Parsed.offset), "not-well-formed",
               std::string("not well-formed XML: ") + Parsed.description());
        return Readable;
    }
    if (Readable == 0 && FirstSection != nullptr)
        CompareElement(&C, Doc, FirstSection);
    else if (Readable == 0 && Doc.document_element())
        Report(&C, LineOf(Source, Doc.document_element()), "dialect-element",
               "zelparser reads no element at all; XML reads <" +
                   std::string(Doc.document_element().name()) + ">");
    return Readable;
}
