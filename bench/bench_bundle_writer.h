// bench_bundle_writer.h - the generated bundle that the whole-installation and lint benchmarks
// read: each component has three prerequisites, one pre-configuration variable, two supported
// PCI devices and a section for every distribution the bundle supports.
#pragma once

#include <sys/stat.h>

#include <fstream>
#include <sstream>
#include <string>
#include <vector>

struct BenchSystem {
    const char *Name; // as the bundle names it
    const char *Key;  // the component's platform section
};

inline std::string BenchPackageName(int i)
{
    return "comp" + std::to_string(i) + "-1.0-1.i386.rpm";
}

inline void BenchPlatformXml(std::ostringstream &X, const char *Key, int i)
{
    X << "<" << Key << ">\n"
      << "<has_prerequisites value=\"yes\"/>\n<has_postrequisites value=\"no\"/>\n"
      << "<requires_preconfiguration value=\"yes\"/>\n<requires_postconfiguration value=\"no\"/>\n"
      << "<prerequisites>\n<prerequisite_data SubType=\"6\" value=\"2.4.18\"/>\n"
      << "<prerequisite_data SubType=\"3\" value=\"/sbin/lsmod\"/>\n"
      << "<prerequisite_data SubType=\"11\" value=\"syslogd\"/>\n</prerequisites>\n"
      << "<preconfiguration>\n<preconfiguration_data_and>\n"
      << "<requirements required=\"yes\" minimumlength=\"1\" maximumlength=\"5\"/>\n<prompt>\n"
      << "<prompt_xlate lang=\"en\">\n<![CDATA[Port number:]]>\n</prompt_xlate>\n</prompt>\n"
      << "<outputname type=\"1\" name=\"PORT" << i << "\"/>\n<default_value value=\"80\"/>\n"
      << "</preconfiguration_data_and>\n</preconfiguration>\n"
      << "</" << Key << ">\n";
}

inline std::string BenchComponentXml(int i, const std::vector<BenchSystem> &Systems)
{
    std::ostringstream X;
    X << "<zel_package>\n<version value=\"1.0." << i << "\"/>\n<name>\n<name_xlate lang=\"en\">"
      << "Component " << i << "</name_xlate>\n</name>\n<description>\n<description_xlate lang=\"en\">\n"
      << "<![CDATA[Generated component " << i << " of the benchmark bundle.]]>\n"
      << "</description_xlate>\n</description>\n<installation>\n<install>\n"
      << "<reboot_required value=\"no\"/>\n<command>rpm -Uvh " << BenchPackageName(i)
      << "</command>\n</install>\n</installation>\n<prerequisites>\n<supported_devices>\n";
    for (int d = 0; d < 2; d++)
        X << "<supported_devices_and>\n<supported_device>\n"
          << "<supported_device_data name=\"ven\">8086</supported_device_data>\n"
          << "<supported_device_data name=\"dev\">" << 1200 + d << "</supported_device_data>\n"
          << "</supported_device>\n</supported_devices_and>\n";
    X << "</supported_devices>\n</prerequisites>\n<platform_specific>\n<LINUX>\n";
    for (const BenchSystem &S : Systems)
        BenchPlatformXml(X, S.Key, i);
    X << "</LINUX>\n</platform_specific>\n</zel_package>\n";
    return X.str();
}

// The bundle file bp000001.xml, and each component's package and XML file, in Dir.
inline void WriteBenchBundle(const std::string &Dir, int Components,
                             const std::vector<BenchSystem> &Systems)
{
    mkdir(Dir.c_str(), 0755);
    std::ofstream Bundle(Dir + "/bp000001.xml");
    Bundle << "<zel_bundle>\n<version value=\"1.0\"/>\n<name>\n<name_xlate lang=\"en\">Benchmark "
              "bundle</name_xlate>\n</name>\n<operating_systems>\n";
    for (const BenchSystem &S : Systems)
        Bundle << "<operating_system>\n<operating_system_xlate>" << S.Name
               << "</operating_system_xlate>\n</operating_system>\n";
    Bundle << "</operating_systems>\n<contents>\n";
    for (int i = 0; i < Components; i++) {
        Bundle << "<package install=\"yes\">" << BenchPackageName(i) << "</package>\n";
        std::string Base = Dir + "/" + BenchPackageName(i);
        std::ofstream(Base) << "package " << i << "\n";
        std::ofstream(Base.substr(0, Base.size() - 4) + ".xml") << BenchComponentXml(i, Systems);
    }
    Bundle << "</contents>\n</zel_bundle>\n";
}
