// version.cpp - kernel versions compared the way RPM compares package versions: an optional
// epoch ("1:"), the version and the release after the last '-', each part by librpm's own
// segment comparison (rpmverParse, rpmverCmp; rpmvercmp for what does not parse). No globals.
#include <rpm/rpmver.h>

#include <string>

#include "check.h"

int CkCompareVersions(const std::string &A, const std::string &B)
{
    rpmver VA = rpmverParse(A.c_str()), VB = rpmverParse(B.c_str());
    int Result = VA != nullptr && VB != nullptr ? rpmverCmp(VA, VB)
                                                : rpmvercmp(A.c_str(), B.c_str());
    rpmverFree(VA);
    rpmverFree(VB);
    return Result;
}
