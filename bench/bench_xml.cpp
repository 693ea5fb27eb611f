// bench_xml.cpp - ParseFile + DeleteTree on generated files of the dialect (about 50 KB and
// 5 MB), beside expat and pugixml on the same files. Every benchmark reads the file from disk
// (page cache) in each iteration, as ParseFile does, and reports bytes per second.
#include <benchmark/benchmark.h>
#include <expat.h>
#include <unistd.h>

#include <pugixml.hpp>

#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "xmltokenizer.h"

namespace {

// One component-like block of the dialect: elements, attributes, text, CDATA on one and on
// several lines, a self-closing tag, deep platform-specific nesting.
std::string Block(int Number)
{
    std::string N = std::to_string(Number);
    return "    <component id=\"" + N + "\">\n"
           "        <version value=\"2.1." + N + "\"/>\n"
           "        <name>\n"
           "            <name_xlate lang=\"en\">Network driver " + N + "</name_xlate>\n"
           "            <name_xlate lang=\"de\">Netzwerktreiber " + N + "</name_xlate>\n"
           "        </name>\n"
           "        <description>\n"
           "            <description_xlate lang=\"en\">\n"
           "                <![CDATA[Driver for the network adapters of the server, release " + N + "]]>\n"
           "            </description_xlate>\n"
           "            <description_xlate lang=\"de\">\n"
           "                <![CDATA[Treiber fuer die Netzwerkadapter\n"
           "                des Servers]]>\n"
           "            </description_xlate>\n"
           "        </description>\n"
           "        <reboot_required value=\"yes\" />\n"
           "        <install_command>rpm -Uvh net-2.1." + N + "-1.i386.rpm</install_command>\n"
           "        <platform_specific>\n"
           "            <LINUX>\n"
           "                <Red_Hat_Linux_7.3>\n"
           "                    <has_prerequisites value=\"yes\"/>\n"
           "                    <prerequisites>\n"
           "                        <prerequisite type=\"rpm\">kernel-source</prerequisite>\n"
           "                        <prerequisite type=\"file\">/lib/modules</prerequisite>\n"
           "                    </prerequisites>\n"
           "                    <supported_devices>\n"
           "                        <supported_device_data name=\"ven\">8086</supported_device_data>\n"
           "                        <supported_device_data name=\"dev\">100E</supported_device_data>\n"
           "                    </supported_devices>\n"
           "                </Red_Hat_Linux_7.3>\n"
           "            </LINUX>\n"
           "        </platform_specific>\n"
           "    </component>\n";
}

std::string Directory;
std::string SmallFile, LargeFile;
size_t SmallSize, LargeSize;

std::string Generate(const char *Name, size_t Target, size_t *Size)
{
    std::string Text = "<?xml version=\"1.0\"?>\n<zel_package>\n";
    for (int Number = 0; Text.size() < Target; Number++)
        Text += Block(Number);
    Text += "</zel_package>\n";
    std::string Path = Directory + "/" + Name;
    FILE *File = fopen(Path.c_str(), "wb");
    if (File == nullptr || fwrite(Text.data(), 1, Text.size(), File) != Text.size())
        abort();
    fclose(File);
    *Size = Text.size();
    return Path;
}

void Setup()
{
    char Template[] = "/tmp/bench_xml-XXXXXX";
    if (mkdtemp(Template) == nullptr)
        abort();
    Directory = Template;
    SmallFile = Generate("small.xml", 50 * 1024, &SmallSize);
    LargeFile = Generate("large.xml", 5 * 1024 * 1024, &LargeSize);
}

std::vector<char> ReadWhole(const std::string &Path, size_t Size)
{
    std::vector<char> Buffer(Size);
    FILE *File = fopen(Path.c_str(), "rb");
    if (File == nullptr || fread(Buffer.data(), 1, Size, File) != Size)
        abort();
    fclose(File);
    return Buffer;
}

const std::string &PathOf(const benchmark::State &State, size_t *Size)
{
    *Size = State.range(0) ? LargeSize : SmallSize;
    return State.range(0) ? LargeFile : SmallFile;
}

void BM_ParseFile(benchmark::State &State)
{
    size_t Size;
    const std::string &Path = PathOf(State, &Size);
    for (auto _ : State) {
        if (ParseFile(Path.c_str()) != 0)
            State.SkipWithError("ParseFile failed");
        benchmark::DoNotOptimize(FirstSection);
        DeleteTree();
    }
    State.SetBytesProcessed(static_cast<int64_t>(State.iterations()) * Size);
}

void XMLCALL ExpatStart(void *Count, const XML_Char *, const XML_Char **)
{
    ++*static_cast<long *>(Count);
}
void XMLCALL ExpatEnd(void *, const XML_Char *) {}
void XMLCALL ExpatText(void *, const XML_Char *, int) {}

void BM_Expat(benchmark::State &State)
{
    size_t Size;
    const std::string &Path = PathOf(State, &Size);
    for (auto _ : State) {
        std::vector<char> Buffer = ReadWhole(Path, Size);
        long Count = 0;
        XML_Parser Parser = XML_ParserCreate(nullptr);
        XML_SetUserData(Parser, &Count);
        XML_SetElementHandler(Parser, ExpatStart, ExpatEnd);
        XML_SetCharacterDataHandler(Parser, ExpatText);
        if (XML_Parse(Parser, Buffer.data(), static_cast<int>(Size), 1) != XML_STATUS_OK)
            State.SkipWithError("expat failed");
        XML_ParserFree(Parser);
        benchmark::DoNotOptimize(Count);
    }
    State.SetBytesProcessed(static_cast<int64_t>(State.iterations()) * Size);
}

void BM_Pugixml(benchmark::State &State)
{
    size_t Size;
    const std::string &Path = PathOf(State, &Size);
    for (auto _ : State) {
        pugi::xml_document Document;
        if (!Document.load_file(Path.c_str()))
            State.SkipWithError("pugixml failed");
        benchmark::DoNotOptimize(Document.first_child());
    }
    State.SetBytesProcessed(static_cast<int64_t>(State.iterations()) * Size);
}

// Argument 0: the 50 KB file; 1: the 5 MB file.
BENCHMARK(BM_ParseFile)->Arg(0)->Arg(1);
BENCHMARK(BM_Expat)->Arg(0)->Arg(1);
BENCHMARK(BM_Pugixml)->Arg(0)->Arg(1);

} // namespace

int main(int argc, char **argv)
{
    Setup();
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    std::string Command = "rm -rf '" + Directory + "'";
    return system(Command.c_str()) == 0 ? 0 : 1;
}
