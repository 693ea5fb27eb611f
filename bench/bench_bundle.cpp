// bench_bundle.cpp - one whole installation of a generated bundle of 200 components, from open
// to shut-down, through the reference manager in the sandbox. Reports the wall time, the
// sub-service's CPU time and peak memory, the request/answer round trips and how the wall
// time compares with one 10-millisecond poll per round trip.
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <sstream>
#include <string>

#include "sandbox.h"
#include "zelrzpmanager.h"

#define BENCH_DIR "/tmp/bench-bundle"
#define BENCH_COMPONENTS 200

static std::string PackageName(int i)
{
    return "comp" + std::to_string(i) + "-1.0-1.i386.rpm";
}

// A few prerequisites, one configuration variable and two supported PCI devices.
static std::string ComponentXml(int i)
{
    std::ostringstream X;
    X << "<zel_package>\n<version value=\"1.0." << i << "\"/>\n<name>\n<name_xlate lang=\"en\">"
      << "Component " << i << "</name_xlate>\n</name>\n<description>\n<description_xlate lang=\"en\">\n"
      << "<![CDATA[Generated component " << i << " of the benchmark bundle.]]>\n"
      << "</description_xlate>\n</description>\n<installation>\n<install>\n"
      << "<reboot_required value=\"no\"/>\n<command>rpm -Uvh " << PackageName(i)
      << "</command>\n</install>\n</installation>\n<prerequisites>\n<supported_devices>\n";
    for (int d = 0; d < 2; d++)
        X << "<supported_devices_and>\n<supported_device>\n"
          << "<supported_device_data name=\"ven\">8086</supported_device_data>\n"
          << "<supported_device_data name=\"dev\">" << 1200 + d << "</supported_device_data>\n"
          << "</supported_device>\n</supported_devices_and>\n";
    X << "</supported_devices>\n</prerequisites>\n<platform_specific>\n<LINUX>\n<Red_Hat_Linux_7.3>\n"
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
      << "</Red_Hat_Linux_7.3>\n</LINUX>\n</platform_specific>\n</zel_package>\n";
    return X.str();
}

static void WriteBundle(void)
{
    mkdir(BENCH_DIR, 0755);
    std::ofstream Bundle(BENCH_DIR "/bp000001.xml");
    Bundle << "<zel_bundle>\n<version value=\"1.0\"/>\n<name>\n<name_xlate lang=\"en\">Benchmark "
              "bundle</name_xlate>\n</name>\n<operating_systems>\n<operating_system>\n"
              "<operating_system_xlate>Red Hat Linux 7.3</operating_system_xlate>\n"
              "</operating_system>\n</operating_systems>\n<contents>\n";
    for (int i = 0; i < BENCH_COMPONENTS; i++) {
        Bundle << "<package install=\"yes\">" << PackageName(i) << "</package>\n";
        std::string Base = std::string(BENCH_DIR "/") + PackageName(i);
        std::ofstream(Base) << "package " << i << "\n";
        std::ofstream(Base.substr(0, Base.size() - 4) + ".xml") << ComponentXml(i);
    }
    Bundle << "</contents>\n</zel_bundle>\n";
}

struct Usage {
    double CpuSeconds = -1;
    long PeakKiB = -1;
};

// CPU time (user + system) and peak resident memory of a live process.
static Usage ReadUsage(pid_t Pid)
{
    Usage U;
    std::ifstream Stat("/proc/" + std::to_string(Pid) + "/stat");
    std::string Line;
    std::getline(Stat, Line);
    size_t Close = Line.rfind(')');
    if (Close != std::string::npos) {
        std::istringstream Fields(Line.substr(Close + 2));
        std::string Skip;
        unsigned long UserTicks = 0, SystemTicks = 0;
        for (int Field = 3; Field <= 13; Field++) // state .. cmajflt
            Fields >> Skip;
        Fields >> UserTicks >> SystemTicks;
        U.CpuSeconds = double(UserTicks + SystemTicks) / double(sysconf(_SC_CLK_TCK));
    }
    std::ifstream Status("/proc/" + std::to_string(Pid) + "/status");
    while (std::getline(Status, Line))
        if (Line.compare(0, 6, "VmHWM:") == 0)
            U.PeakKiB = std::stol(Line.substr(6));
    return U;
}

// Every packet recorded from index From on that carries -106 is a request, answered once;
// shut-down and deregistration have no answer.
static int CountRoundTrips(ZmSession *S, size_t From)
{
    std::vector<ZmPacket> Packets = ZmPacketsSnapshot(S);
    int Requests = 0;
    for (size_t i = From; i < Packets.size(); i++)
        if (Packets[i].Header.ReturnCode == RZP_NO_RESULT_YET &&
            Packets[i].Header.opCode != RZP_SHUTDOWN)
            Requests++;
    return Requests;
}

static int Fail(const char *What)
{
    fprintf(stderr, "bench_bundle: %s\n", What);
    return 1;
}

int main(void)
{
    if (SandboxEnter() != 0 || SandboxSetFile("/etc/redhat-release",
                                              "Red Hat Linux release 7.3 (Valhalla)\n") != 0)
        return Fail("cannot enter the sandbox (run as root)");
    WriteBundle();
    ZmConfig Config;
    Config.ParserPath = ZEL_PARSER_PATH;
    Config.BundleDir = BENCH_DIR;
    Config.TimeoutMs = 120000;
    ZmSession S;
    std::string Error;
    if (ZmStart(&S, Config, &Error) != 0)
        return Fail(Error.c_str());
    size_t FirstPacket = ZmPacketsSnapshot(&S).size(); // registration is not timed
    auto Start = std::chrono::steady_clock::now();
    ZmPacket Answer;
    if (ZmRequest(&S, RZP_PARSER_OPEN_INPUT_FILE, {}, &Answer) != 0 ||
        ZmRequest(&S, RZP_PARSER_PARSE_INPUT_FILE, {}, &Answer) != 0)
        return Fail("open or parse was not answered");
    std::vector<std::vector<unsigned char>> Raw;
    int32_t Items = 0;
    if (ZmFetchAllRecords(&S, &Raw, nullptr, &Items, &Error) != 0)
        return Fail(Error.c_str());
    Usage U = ReadUsage(S.Pid);
    int Status = ZmStop(&S);
    double Wall = std::chrono::duration<double>(std::chrono::steady_clock::now() - Start).count();
    int RoundTrips = CountRoundTrips(&S, FirstPacket);
    double Floor = RoundTrips * 0.010;
    printf("components %d, items %d, records %zu, exit status %d\n", BENCH_COMPONENTS, Items,
           Raw.size(), Status);
    printf("wall %.3f s, sub-service CPU %.3f s (%.1f%% of wall), peak memory %ld KiB\n", Wall,
           U.CpuSeconds, 100.0 * U.CpuSeconds / Wall, U.PeakKiB);
    printf("round trips %d, floor (10 ms each) %.3f s, wall / floor %.2f\n", RoundTrips, Floor,
           Wall / Floor);
    ZmClose(&S);
    return Items == BENCH_COMPONENTS && int(Raw.size()) == BENCH_COMPONENTS ? 0 : 1;
}
