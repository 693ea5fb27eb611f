// bench_lint.cpp - `zelrzp-manager lint` on a generated bundle of 200 components (each with
// three prerequisites, one pre-configuration variable, two supported PCI devices and sections
// for two distributions): the whole lint of the directory, in process, per iteration.
#include <benchmark/benchmark.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <string>

#include "zellint.h"

namespace {

const int Components = 200;

std::string Platform(const std::string &Key, const std::string &N)
{
    return "      <" + Key + ">\n"
           "        <has_prerequisites value=\"yes\"/>\n"
           "        <has_postrequisites value=\"no\"/>\n"
           "        <requires_preconfiguration value=\"yes\"/>\n"
           "        <requires_postconfiguration value=\"no\"/>\n"
           "        <requires_precompilation value=\"no\"/>\n"
           "        <requires_postcompilation value=\"no\"/>\n"
           "        <prerequisites>\n"
           "          <prerequisite_data SubType=\"3\" value=\"/sbin/lsmod\"/>\n"
           "          <prerequisite_data SubType=\"5\" value=\"/lib/modules\"/>\n"
           "          <prerequisite_data SubType=\"7\" value=\"2.4." + N + "\"/>\n"
           "        </prerequisites>\n"
           "        <preconfiguration>\n"
           "          <preconfiguration_data_and>\n"
           "            <requirements required=\"yes\" minimumlength=\"1\" maximumlength=\"8\"/>\n"
           "            <prompt>\n"
           "              <prompt_xlate lang=\"en\">\n"
           "                <![CDATA[Port number for agent " + N + ":]]>\n"
           "              </prompt_xlate>\n"
           "            </prompt>\n"
           "            <outputname type=\"1\" name=\"PORT" + N + "\"/>\n"
           "          </preconfiguration_data_and>\n"
           "        </preconfiguration>\n"
           "      </" + Key + ">\n";
}

std::string Component(int Number)
{
    std::string N = std::to_string(Number);
    return "<?xml version=\"1.0\"?>\n<zel_package>\n  <version value=\"1." + N + "\"/>\n"
           "  <name>\n    <name_xlate lang=\"en\">Component " + N + "</name_xlate>\n  </name>\n"
           "  <description>\n    <description_xlate lang=\"en\">\n"
           "      <![CDATA[Component number " + N + ",\n      on two lines.]]>\n"
           "    </description_xlate>\n  </description>\n"
           "  <installation>\n    <install>\n      <reboot_required value=\"no\"/>\n"
           "      <command>rpm -Uvh c" + N + "-1.0-1.i386.rpm</command>\n    </install>\n  </installation>\n"
           "  <prerequisites>\n    <supported_devices>\n"
           "      <supported_devices_and>\n        <supported_device>\n"
           "          <supported_device_data name=\"ven\">8086</supported_device_data>\n"
           "          <supported_device_data name=\"dev\">1229</supported_device_data>\n"
           "        </supported_device>\n      </supported_devices_and>\n"
           "      <supported_devices_and>\n        <supported_device>\n"
           "          <supported_device_data name=\"ven\">8086</supported_device_data>\n"
           "          <supported_device_data name=\"dev\">100e</supported_device_data>\n"
           "        </supported_device>\n      </supported_devices_and>\n"
           "    </supported_devices>\n  </prerequisites>\n"
           "  <platform_specific>\n    <LINUX>\n" +
           Platform("Red_Hat_Linux_7.3", N) + Platform("Red_Hat_Enterprise_Linux_3", N) +
           "    </LINUX>\n  </platform_specific>\n</zel_package>\n";
}

std::string MakeBundle(void)
{
    char Dir[] = "/tmp/benchlintXXXXXX";
    if (mkdtemp(Dir) == nullptr)
        abort();
    std::string Contents;
    for (int i = 0; i < Components; i++) {
        std::string Base = std::string(Dir) + "/c" + std::to_string(i) + "-1.0-1.i386";
        std::ofstream(Base + ".rpm") << "placeholder\n";
        std::ofstream(Base + ".xml") << Component(i);
        Contents += "    <package install=\"yes\">c" + std::to_string(i) + "-1.0-1.i386.rpm</package>\n";
    }
    std::ofstream(std::string(Dir) + "/bp000001.xml")
        << "<?xml version=\"1.0\"?>\n<zel_bundle>\n  <version value=\"1.0\"/>\n"
           "  <name>\n    <name_xlate lang=\"en\">Benchmark Pack</name_xlate>\n  </name>\n"
           "  <operating_systems>\n"
           "    <operating_system>\n      <operating_system_xlate lang=\"en\">Red Hat Linux 7.3</operating_system_xlate>\n    </operating_system>\n"
           "    <operating_system>\n      <operating_system_xlate lang=\"en\">Red Hat Enterprise Linux AS 3</operating_system_xlate>\n    </operating_system>\n"
           "  </operating_systems>\n  <contents>\n" + Contents + "  </contents>\n</zel_bundle>\n";
    return Dir;
}

void BM_LintBundle200(benchmark::State &State)
{
    std::string Dir = MakeBundle();
    size_t Findings = 0;
    for (auto _ : State) {
        LintReport R;
        LintBundleDirectory(Dir, &R);
        Findings = R.Findings.size();
    }
    State.counters["findings"] = static_cast<double>(Findings);
    State.counters["components"] = Components;
    std::string Clean = "rm -rf " + Dir;
    if (system(Clean.c_str()) != 0)
        fprintf(stderr, "could not remove %s\n", Dir.c_str());
}
BENCHMARK(BM_LintBundle200)->Unit(benchmark::kMillisecond)->MinTime(2.0);

} // namespace

BENCHMARK_MAIN();
