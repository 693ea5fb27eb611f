// command.cpp - an install command run: /bin/sh -c in the bundle directory, in a process group
// of its own (a terminal's interrupt does not reach it), standard input from /dev/null, its
// output into the log line by line, a time limit; and the signals that stop an install. The
// first SIGINT or SIGTERM lets the running command finish (the caller stops before the next
// component); a second ends the command's process group (SIGTERM, SIGKILL 5 s later). SIGPIPE
// is ignored: a closed screen must not end an install half-way.
// Writes SignalCount and SignalPipe, the only state the signal handler touches.
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstring>
#include <deque>
#include <string>

#include "install.h"
#include "process.h"

#define TAIL_LINES 10       // lines of a failed command's output shown on the screen
#define KILL_GRACE_MS 5000  // from SIGTERM to SIGKILL of a command's process group
#define LINE_MAX_SHOWN 4096 // a longer line without a break goes to the log in pieces

static std::atomic<int> SignalCount{0};
static int SignalPipe[2] = {-1, -1};

static void OnSignal(int)
{
    int Saved = errno;
    SignalCount++;
    char Byte = 1;
    ssize_t Written = write(SignalPipe[1], &Byte, 1);
    (void)Written; // a full pipe already wakes the waiter
    errno = Saved;
}

void InCatchSignals(void)
{
    if (SignalPipe[0] < 0 && pipe2(SignalPipe, O_CLOEXEC | O_NONBLOCK) != 0)
        return;
    struct sigaction Action = {};
    Action.sa_handler = OnSignal;
    sigemptyset(&Action.sa_mask);
    sigaction(SIGINT, &Action, nullptr);
    sigaction(SIGTERM, &Action, nullptr);
    signal(SIGPIPE, SIG_IGN); // a screen that went away must not end an install half-way
}

int InSignalsSeen(void)
{
    return SignalCount.load();
}

std::string InMask(std::string Text, const std::vector<std::string> &Secrets)
{
    for (const std::string &S : Secrets)
        for (size_t At; S.size() >= 4 && (At = Text.find(S)) != std::string::npos;)
            Text.replace(At, S.size(), "********");
    return Text;
}

static long long NowMs(void)
{
    struct timespec T;
    clock_gettime(CLOCK_MONOTONIC, &T);
    return (long long)T.tv_sec * 1000 + T.tv_nsec / 1000000;
}

// In the child: only async-signal-safe calls.
[[noreturn]] static void RunChild(char *const Argv[], const char *Dir, int Null, int Out)
{
    setpgid(0, 0);
    signal(SIGINT, SIG_DFL);
    signal(SIGTERM, SIG_DFL);
    signal(SIGPIPE, SIG_DFL);
    sigset_t None;
    sigemptyset(&None);
    sigprocmask(SIG_SETMASK, &None, nullptr);
    if (dup2(Null, 0) < 0 || dup2(Out, 1) < 0 || dup2(Out, 2) < 0)
        _exit(ZP_CHILD_FAILED);
    if (chdir(Dir) != 0) {
        static const char Msg[] = "zelrzp-manager: cannot enter the bundle directory\n";
        ssize_t W = write(2, Msg, sizeof Msg - 1);
        (void)W;
        _exit(ZP_CHILD_FAILED);
    }
    execv(Argv[0], Argv);
    _exit(ZP_CHILD_FAILED);
}

struct Watch {
    pid_t Pid = -1;
    int Out = -1, LogFd = -1;
    const std::vector<std::string> *Secrets = nullptr;
    std::string Partial;
    std::deque<std::string> Tail;
    long long Deadline = 0, KillAt = 0;
    bool Eof = false, Exited = false;
    int Status = 0;
};

static void TakeLine(Watch *W, const std::string &Raw)
{
    std::string Line = InMask(Raw, *W->Secrets);
    std::string Logged = "    " + Line + "\n";
    if (W->LogFd >= 0 && write(W->LogFd, Logged.data(), Logged.size()) < 0) {
        // a log that fills up must not stop the command; the outcome is still journaled
    }
    W->Tail.push_back(Line);
    if (W->Tail.size() > TAIL_LINES)
        W->Tail.pop_front();
}

static void ReadOutput(Watch *W)
{
    char Buffer[8192];
    ssize_t N = read(W->Out, Buffer, sizeof Buffer);
    if (N <= 0) {
        W->Eof = N == 0 || (errno != EINTR && errno != EAGAIN);
        return;
    }
    W->Partial.append(Buffer, (size_t)N);
    for (size_t End; (End = W->Partial.find('\n')) != std::string::npos ||
                     W->Partial.size() >= LINE_MAX_SHOWN;) {
        End = End == std::string::npos ? LINE_MAX_SHOWN : End;
        TakeLine(W, W->Partial.substr(0, End));
        W->Partial.erase(0, std::min(End + 1, W->Partial.size()));
    }
}

static void Escalate(Watch *W, InCommandResult *R, long long Now)
{
    int Seen = SignalCount.load();
    bool Again = Seen >= 2 && !R->Stopped;
    bool Late = Now >= W->Deadline && !R->TimedOut;
    if (Again || Late) {
        R->Stopped = R->Stopped || Again;
        R->TimedOut = R->TimedOut || Late;
        kill(-W->Pid, SIGTERM);
        W->KillAt = Now + KILL_GRACE_MS;
    }
    if (W->KillAt != 0 && Now >= W->KillAt) {
        kill(-W->Pid, SIGKILL);
        W->KillAt = 0;
    }
}

// Until the shell has exited and its output is read (or its exit is seen and nothing more
// comes: a daemon it left may hold the pipe open for ever).
static void WatchCommand(Watch *W, InCommandResult *R)
{
    while (!(W->Exited && W->Eof)) {
        struct pollfd P[2] = {{W->Eof ? -1 : W->Out, POLLIN, 0}, {SignalPipe[0], POLLIN, 0}};
        int Ready = poll(P, 2, 100);
        if (Ready > 0 && (P[0].revents & (POLLIN | POLLHUP)))
            ReadOutput(W);
        char Drain[64];
        if (Ready > 0 && (P[1].revents & POLLIN))
            while (read(SignalPipe[0], Drain, sizeof Drain) > 0) {
            }
        if (!W->Exited && waitpid(W->Pid, &W->Status, WNOHANG) == W->Pid)
            W->Exited = true;
        if (W->Exited && Ready == 0)
            W->Eof = true; // exited and quiet for 100 ms: what holds the pipe is not the command
        if (!W->Exited)
            Escalate(W, R, NowMs());
    }
    if (!W->Partial.empty())
        TakeLine(W, W->Partial);
}

int InRunCommand(const std::string &Command, const std::string &Dir, int TimeoutSeconds, int LogFd,
                 const std::vector<std::string> &Secrets, InCommandResult *R)
{
    std::string Shell = "/bin/sh", Flag = "-c", Text = Command;
    char *const Argv[] = {&Shell[0], &Flag[0], &Text[0], nullptr};
    int Pipe[2];
    int Null = open("/dev/null", O_RDONLY | O_CLOEXEC);
    if (Null < 0 || pipe2(Pipe, O_CLOEXEC) != 0) {
        R->StartFailed = true;
        return -1;
    }
    long long Start = NowMs();
    pid_t Pid = fork();
    if (Pid == 0)
        RunChild(Argv, Dir.c_str(), Null, Pipe[1]);
    close(Null);
    close(Pipe[1]);
    if (Pid < 0) {
        close(Pipe[0]);
        R->StartFailed = true;
        return -1;
    }
    setpgid(Pid, Pid); // also here, so that a signal sent at once finds the group
    Watch W;
    W.Pid = Pid;
    W.Out = Pipe[0];
    W.LogFd = LogFd;
    W.Secrets = &Secrets;
    W.Deadline = Start + (long long)TimeoutSeconds * 1000;
    fcntl(W.Out, F_SETFL, O_NONBLOCK);
    WatchCommand(&W, R);
    close(W.Out);
    R->ExitStatus = WIFEXITED(W.Status) ? WEXITSTATUS(W.Status) : -1;
    R->Signal = WIFSIGNALED(W.Status) ? WTERMSIG(W.Status) : 0;
    R->Seconds = (double)(NowMs() - Start) / 1000.0;
    R->Tail.assign(W.Tail.begin(), W.Tail.end());
    return 0;
}
