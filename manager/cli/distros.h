// distros.h - the one table of the distributions the program knows: the release files that
// simulate each, and what the sub-service's detection reads from them (name, version and the
// key of a component's platform-specific section). The plan, the matrix and lint use it.
#pragma once

#include <cstddef>
#include <string>

struct CliRelease {
    std::string File;
    std::string Text;
};

struct CliDistro {
    const char *Name;
    const char *Description;
    CliRelease Files[2];
    bool Sp3;    // SP3=YES in the environment (UnitedLinux 1.0 service pack 3)
    bool Linted; // lint checks bundles and components against it
};

// The distributions --distro, the matrix and lint know, in table order.
extern const CliDistro CliDistros[];
extern const size_t CliDistroCount;

// What the detection makes of a distribution's release files.
struct CliDetected {
    std::string Name, Version; // as the bundle's operating_system entries are matched against
    std::string Key;           // the platform-specific section's element name
};
CliDetected CliDetect(const CliDistro &D);
