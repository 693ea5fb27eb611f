// process.cpp - ZpSpawn and ZpWaitStatus: a child process started from a ZpChild record and
// its end. Writes no globals.
#include "process.h"

#include <grp.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

// Ends the child, after writing Message (when given) to its standard error.
[[noreturn]] static void EndChild(const char *Message)
{
    if (Message != nullptr) {
        ssize_t Written = write(2, Message, strlen(Message));
        (void)Written;
    }
    _exit(ZP_CHILD_FAILED);
}

// The child's side: nothing here allocates. Never returns.
[[noreturn]] static void RunChild(const ZpChild &Child, char *const *Argv)
{
    const int Wanted[3] = {Child.Stdin, Child.Stdout, Child.Stderr};
    for (int Fd = 0; Fd < 3; Fd++)
        if (Wanted[Fd] >= 0)
            dup2(Wanted[Fd], Fd);
    if (!Child.Directory.empty() && chdir(Child.Directory.c_str()) != 0)
        EndChild(Child.DirectoryFailed);
    if (Child.User >= 0 &&
        (setgroups(0, nullptr) != 0 || setgid(Child.User) != 0 || setuid(Child.User) != 0))
        EndChild(nullptr);
    execv(Argv[0], Argv);
    EndChild(Child.ExecFailed);
}

pid_t ZpSpawn(const ZpChild &Child)
{
    if (Child.Argv.empty()) {
        errno = EINVAL;
        return -1;
    }
    std::vector<std::string> Words = Child.Argv;
    std::vector<char *> Argv;
    for (std::string &W : Words)
        Argv.push_back(&W[0]);
    Argv.push_back(nullptr);
    pid_t Pid = fork();
    if (Pid == 0)
        RunChild(Child, Argv.data());
    return Pid;
}

int ZpWaitStatus(pid_t Pid)
{
    int Status = 0;
    if (waitpid(Pid, &Status, 0) != Pid)
        return -1000;
    return WIFEXITED(Status) ? WEXITSTATUS(Status) : -WTERMSIG(Status);
}
