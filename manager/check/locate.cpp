// locate.cpp - where a requisite is written: the component XML file and the line of its
// prerequisite_data, postrequisite_data or supported_device element, read with pugixml.
// Each file is read once, by CkLocatePrepare before the machines are judged; Cache then only
// is read (by every judging thread at once).
#include <pugixml.hpp>

#include <algorithm>
#include <fstream>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "check.h"
#include "zelfindings.h"

namespace {

struct Element {
    std::string Section; // the platform section it is written in ("" for devices)
    uint32_t Structure, SubType;
    std::string Value;
    int Line;
};

std::map<std::string, std::vector<Element>> Cache;

int LineAt(const std::string &Text, ptrdiff_t Offset)
{
    if (Offset < 0 || (size_t)Offset > Text.size())
        return 0;
    return 1 + (int)std::count(Text.begin(), Text.begin() + Offset, '\n');
}

// The name of the child of LINUX that holds Node, or "".
std::string SectionOf(pugi::xml_node Node)
{
    for (; Node && Node.parent(); Node = Node.parent())
        if (std::string(Node.parent().name()) == "LINUX")
            return Node.name();
    return "";
}

void Collect(const std::string &Text, pugi::xml_node Root, std::vector<Element> *Out)
{
    for (pugi::xpath_node X : Root.select_nodes("//prerequisite_data | //postrequisite_data")) {
        pugi::xml_node N = X.node();
        uint32_t Structure = std::string(N.name()) == "prerequisite_data" ? RZP_STRUCT_PREREQ
                                                                          : RZP_STRUCT_POSTREQ;
        Out->push_back({SectionOf(N), Structure, N.attribute("SubType").as_uint(),
                        N.attribute("value").value(), LineAt(Text, N.offset_debug())});
    }
    for (pugi::xpath_node X : Root.select_nodes("//supported_device"))
        Out->push_back({"", RZP_STRUCT_PREREQ, SUBTYPE_PCI_DEVICE_PRESENT, "",
                        LineAt(Text, X.node().offset_debug())});
}

} // namespace

void CkLocatePrepare(const std::string &ComponentFile)
{
    std::string Xml = ZfXmlFileOf(ComponentFile);
    if (Cache.count(Xml))
        return;
    std::vector<Element> &Out = Cache[Xml];
    std::ifstream In(Xml, std::ios::binary);
    std::stringstream Text;
    Text << In.rdbuf();
    std::string Bytes = Text.str();
    pugi::xml_document Doc;
    if (In && Doc.load_buffer(Bytes.data(), Bytes.size()))
        Collect(Bytes, Doc, &Out);
}

CkPlace CkLocate(const std::string &ComponentFile, const std::string &Key, uint32_t Structure,
                 uint32_t SubType, const std::string &Value, int Index)
{
    std::string Xml = ZfXmlFileOf(ComponentFile);
    auto Found = Cache.find(Xml);
    if (Found == Cache.end())
        return {Xml, 0};
    const std::vector<Element> &Elements = Found->second;
    int Line = 0, Devices = 0;
    for (const Element &E : Elements) {
        if (E.Structure != Structure || E.SubType != SubType)
            continue;
        if (SubType == SUBTYPE_PCI_DEVICE_PRESENT) {
            if (Devices++ == Index)
                return {Xml, E.Line};
        } else if (E.Value == Value && E.Section == Key) {
            return {Xml, E.Line}; // the distribution's own section first
        } else if (E.Value == Value && Line == 0) {
            Line = E.Line;
        }
    }
    return {Xml, Line};
}
