// helpers.h - shared by the tests that run programs as a user runs them: a program's exit
// status, standard output and standard error, optionally as another user and in another
// working directory; the files it leaves; a scratch bundle directory. Writes no globals.
#pragma once

#include <sys/stat.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "process.h"

struct RunResult {
    int Status = -1; // the exit status, or minus the signal that ended the program
    std::string Out, Err;
};

inline std::string ReadWhole(FILE *File)
{
    std::string Text;
    char Buffer[65536];
    rewind(File);
    size_t N;
    while ((N = fread(Buffer, 1, sizeof Buffer, File)) > 0)
        Text.append(Buffer, N);
    fclose(File);
    return Text;
}

// Runs Program with Args; as user (and group) User when User >= 0; in Directory when given.
inline RunResult RunProgram(const std::string &Program, const std::vector<std::string> &Args,
                            int User = -1, const std::string &Directory = "")
{
    FILE *Out = tmpfile(), *Err = tmpfile();
    RunResult R;
    if (Out == nullptr || Err == nullptr)
        return R;
    ZpChild Child;
    Child.Argv = {Program};
    Child.Argv.insert(Child.Argv.end(), Args.begin(), Args.end());
    Child.Stdout = fileno(Out);
    Child.Stderr = fileno(Err);
    Child.Directory = Directory;
    Child.User = User;
    fflush(nullptr);
    pid_t Pid = ZpSpawn(Child);
    R.Status = Pid < 0 ? -1 : ZpWaitStatus(Pid);
    R.Out = ReadWhole(Out);
    R.Err = ReadWhole(Err);
    return R;
}

inline bool Exists(const char *Path)
{
    struct stat Info;
    return lstat(Path, &Info) == 0;
}

inline std::string ReadAll(const std::string &Path)
{
    std::ifstream In(Path);
    std::stringstream Text;
    Text << In.rdbuf();
    return Text.str();
}

// A fresh bundle directory, readable by every user; removed at the end of the test.
struct BundleDir {
    std::string Path;
    BundleDir()
    {
        char Template[] = "/tmp/zelbundle.XXXXXX";
        Path = mkdtemp(Template);
        chmod(Path.c_str(), 0755);
    }
    ~BundleDir() { int R = system(("rm -rf '" + Path + "'").c_str()); (void)R; }
    void Write(const std::string &Name, const std::string &Text) const
    {
        std::ofstream(Path + "/" + Name) << Text;
        chmod((Path + "/" + Name).c_str(), 0644);
    }
};
