// check.h - the zelrzp-manager commands check, snapshot and answers: a machine's facts (this
// machine or a snapshot directory), one verdict per requisite of a plan against those facts,
// the configuration answers, the fleet (one plan per distinct set of release files) and the
// output (table, JSON). Only manager/check/*.cpp and the program's dispatch include it.
#pragma once

#include <functional>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "zelcli.h"

// ---- Facts -------------------------------------------------------------------------------------

struct CkDevice {
    std::string Address; // as its directory is named, 0000:00:03.0
    unsigned Vendor = 0, Device = 0, SubVendor = 0, SubDevice = 0;
};

// A fact that may be missing: Known false with the reason why.
struct CkFact {
    bool Known = false;
    std::string Why;
};

// What the check knows of one machine. Paths are read below Root as if Root were "/".
struct CkFacts {
    std::string Name;                 // the snapshot directory as given, or "this machine"
    std::string Root;                 // "/" or the snapshot directory
    bool Live = false;                // this machine: the environment is this process's own
    int RootFd = -1;                  // O_PATH descriptor of Root
    std::vector<CliRelease> Releases; // "/etc/redhat-release" etc. with their texts
    CkFact KernelFact, EnvironFact, ProcessFact, DeviceFact;
    std::string Kernel;
    std::map<std::string, std::string> Environ;
    std::set<std::string> Programs; // comm of every process
    std::vector<CkDevice> Devices;
    std::vector<std::string> LibraryDirs; // /lib, /usr/lib, their 64-bit twins, ld.so.conf's
};

// facts.cpp: opens Root and reads the fixed facts (release files, kernel, environment,
// processes, PCI devices). 0, or -1 with *Error when Root cannot be opened. CkOpenFacts opens
// Root and reads what the plan is made from (the release files and the environment);
// CkReadFacts then the rest (nothing if not open).
int CkLoadFacts(const std::string &Root, bool Live, CkFacts *F, std::string *Error);
int CkOpenFacts(const std::string &Root, bool Live, CkFacts *F, std::string *Error);
void CkReadFacts(CkFacts *F);
void CkCloseFacts(CkFacts *F);
// A file of the machine read whole (at most Limit bytes): 0, or -1 with a reason.
int CkReadFile(const CkFacts &F, const std::string &Path, size_t Limit, std::string *Text,
               std::string *Why);
// stat of a path of the machine, links resolved inside it: 0, -1 absent (Why says), -2 another
// failure (Why says).
int CkStat(const CkFacts &F, const std::string &Path, struct stat *St, std::string *Why);
// The names of a directory of the machine: 0 or -1 with a reason.
int CkList(const CkFacts &F, const std::string &Path, std::vector<std::string> *Names,
           std::string *Why);

// pci.cpp: the machine's devices read through libpci from a mirror of its sys/bus/pci;
// a device's name from the PCI ID database.
int CkReadDevices(const CkFacts &F, std::vector<CkDevice> *Devices, std::string *Why);
std::string CkDeviceName(unsigned Vendor, unsigned Device);

// version.cpp: kernel versions compared as RPM compares them: <0, 0, >0.
int CkCompareVersions(const std::string &A, const std::string &B);

// ---- The check ---------------------------------------------------------------------------------

struct CkOptions {
    std::vector<std::string> Snapshots;
    std::string AnswersFile, BundleDir, ParserPath;
    bool Json = false, Strict = false;
    int TimeoutSeconds = 60;
};

// What a plan is made from: the release files and the two variables of the environment that the
// sub-service reads, each of which counts only when it is exactly "YES": SP3 (UnitedLinux 1.0
// becomes UnitedLinux_1.0_SP3, so other platform-specific sections are read) and
// RZPELMCONFIGURED (the three password variables are not required). Machines share a plan
// only when all three are the same.
struct CkPlanInput {
    std::vector<CliRelease> Releases;
    bool Sp3 = false, Configured = false;
};
CkPlanInput CkPlanInputOf(const CkFacts &F);

// What the plan of one plan input gave: the plan's JSON (manager/cli/run.cpp) and the name and
// version the sub-service detected.
struct CkPlan {
    Json Result;
    std::string OSName, OSVersion;
};

// locate.cpp: the component XML file and line where each requisite of a component is written.
struct CkPlace {
    std::string File;
    int Line = 0;
};
// CkLocatePrepare reads a component's XML file (once, before any thread calls CkLocate).
void CkLocatePrepare(const std::string &ComponentFile);
// Structure 301 or 302; SubType 8 for a device (Index: its place among the devices).
CkPlace CkLocate(const std::string &ComponentFile, const std::string &Key, uint32_t Structure,
                 uint32_t SubType, const std::string &Value, int Index);

// evaluate.cpp: one component of a plan judged on a machine: its JSON with verdict and
// requisites (configuration left to answers.cpp).
Json CkEvaluateComponent(const CkFacts &F, const CkPlan &P, const Json &Component, bool Strict);
// The program or path a command or script requisite names: its first word.
std::string CkFirstWord(const std::string &Text);

// answers.cpp: the answers file read (0, or -1 with the errors, each with its line number);
// a component's variables judged; the answers that name no variable of any plan.
struct CkAnswers {
    bool Given = false;
    std::map<std::string, std::string> Values;
    std::map<std::string, int> Lines; // NAME -> line
};
int CkReadAnswers(const std::string &Path, CkAnswers *A, std::vector<std::string> *Errors);
Json CkJudgeConfiguration(const Json &Component, const CkAnswers &A);
bool CkIsPassword(const Json &Variable);
int CkAnswersMain(int Argc, char **Argv);

// plans.cpp: the plans of every distinct plan input (one sandboxed child each, a few at a
// time). Enters the bundle directory first; an input without release files gets a plan that
// failed.
std::vector<CkPlan> CkMakePlans(const CkOptions &O, const std::vector<CkPlanInput> &Inputs);
// The plan input of a known distribution (Distro: its release files and SP3 flag, this
// process's RZPELMCONFIGURED), of a snapshot, or else of this machine: 0, or -1 with *Error
// (starting "unknown" for an unknown distribution).
int CkPlanInputFor(const std::string &Distro, const std::vector<std::string> &Snapshots,
                   CkPlanInput *Input, std::string *Error);

// fleet.cpp: the machines grouped by plan input and evaluated on all cores.
// The whole check, each machine's result handed to Each in order as soon as its batch is
// judged (a fleet is never held whole); Begin gets the summary (bundleDirectory, strict,
// answers, plans) first. Returns the exit status. The working directory becomes the bundle
// directory.
int CkRunCheck(const CkOptions &O, const std::function<void(const Json &)> &Begin,
               const std::function<void(Json &&)> &Each);
// The whole check as one JSON object (the shape of docs/check.md), for a report to read.
Json CkCheckJson(const CkOptions &O);

// check_output.cpp: the result as a table, machine by machine, and as JSON, machine by machine.
struct CkTable {
    size_t Machines = 0;
    std::vector<std::string> Names, Files;
    std::vector<std::map<std::string, std::string>> Columns; // file -> cell, per machine
};
void CkTableBegin(CkTable *T, const Json &Summary, size_t Machines);
void CkTableMachine(CkTable *T, const Json &Machine);
void CkTableEnd(const CkTable &T, const Json &Summary, int Status);
void CkJsonBegin(const Json &Summary);
void CkJsonMachine(const Json &Machine, bool First);
void CkJsonEnd(int Status);

// snapshot.cpp: zelrzp-manager snapshot.
int CkSnapshotMain(int Argc, char **Argv);
// The requisites named by every component XML file of a bundle directory, all sections.
struct CkNamed {
    uint32_t SubType = 0;
    std::string Value;
};
std::vector<CkNamed> CkBundleRequisites(const std::string &BundleDir);

// check.cpp: zelrzp-manager check.
int CkMain(int Argc, char **Argv);
