// startstop.cpp - the start and the end of a session: the sub-service's process, the console
// pipe, the registration connection, the pump and the console reader, its exit and its stop.
// Writes the ZmSession it is given and the process-wide count of sanitizer reports.
#include <fcntl.h>
#include <signal.h>
#include <sys/eventfd.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "process.h"
#include "session_internal.h"
#include "zelrzptransport.h"

static int Fail(std::string *Error, const std::string &What)
{
    if (Error != nullptr)
        *Error = What;
    return -1;
}

// ---- The process -------------------------------------------------------------------------------

// The sub-service with "-MG" and the caller's arguments, in the bundle directory; its
// standard input /dev/null, its standard output and error the console pipe.
static int StartProcess(ZmSession *S, std::string *Error)
{
    ZpChild Child;
    Child.Argv = {S->Config.ParserPath};
    if (S->Config.PassMG)
        Child.Argv.push_back("-MG");
    Child.Argv.insert(Child.Argv.end(), S->Config.Args.begin(), S->Config.Args.end());
    int Pipe[2];
    if (pipe2(Pipe, O_CLOEXEC) != 0)
        return Fail(Error, std::string("cannot make the console pipe: ") + strerror(errno));
    int Null = open("/dev/null", O_RDONLY | O_CLOEXEC);
    Child.Stdin = Null;
    Child.Stdout = Child.Stderr = Pipe[1];
    Child.Directory = S->Config.BundleDir;
    Child.DirectoryFailed = "zelrzp-manager: cannot enter the bundle directory\n";
    Child.ExecFailed = "zelrzp-manager: cannot start the sub-service\n";
    pid_t Pid = ZpSpawn(Child);
    int Failure = errno;
    close(Pipe[1]);
    if (Null >= 0)
        close(Null);
    if (Pid < 0) {
        close(Pipe[0]);
        return Fail(Error, std::string("cannot fork: ") + strerror(Failure));
    }
    S->Pid = Pid;
    S->ConsoleFd = Pipe[0];
    S->PidFd = (int)syscall(SYS_pidfd_open, Pid, 0); // -1 on kernels without it: the pump polls
    fcntl(S->ConsoleFd, F_SETFL, fcntl(S->ConsoleFd, F_GETFL) | O_NONBLOCK);
    return 0;
}

static int DecodeWaitStatus(int Status)
{
    if (WIFEXITED(Status))
        return WEXITSTATUS(Status);
    if (WIFSIGNALED(Status))
        return -WTERMSIG(Status);
    return -1;
}

// Reaps the sub-service under the lock, so that nobody signals a pid that is gone.
void SessionReap(ZmSession *S, int Flags)
{
    std::lock_guard<std::mutex> Guard(S->Lock);
    if (S->Pid <= 0 || S->ExitStatus != ZM_RUNNING)
        return;
    int Status = 0;
    if (waitpid(S->Pid, &Status, Flags) == S->Pid) {
        S->ExitStatus = DecodeWaitStatus(Status);
        S->Changed.notify_all();
    }
}

bool SessionHasExited(ZmSession *S)
{
    std::lock_guard<std::mutex> Guard(S->Lock);
    return S->ExitStatus != ZM_RUNNING;
}

// ---- Start -------------------------------------------------------------------------------------

static void ResetRecorded(ZmSession *S, const ZmConfig &Config)
{
    std::lock_guard<std::mutex> Guard(S->Lock);
    S->Config = Config;
    S->Pid = -1;
    S->ExitStatus = ZM_RUNNING;
    S->Stopping = false;
    S->Packets.clear();
    S->Console.clear();
    S->ConsoleLinesEnd = 0;
    S->Messages.clear();
    S->ScreenTexts.clear();
    S->LogTexts.clear();
    S->SupportQueries.clear();
    S->ErrataQuestions.clear();
    S->Problems.clear();
    S->RegistrationsSeen = 0;
    S->ConsoleEnded = false;
}

static int CheckConfig(const ZmConfig &Config, std::string *Error)
{
    struct stat St;
    if (stat(Config.BundleDir.c_str(), &St) != 0 || !S_ISDIR(St.st_mode))
        return Fail(Error, "bundle directory " + Config.BundleDir + " does not exist");
    if (access(Config.ParserPath.c_str(), X_OK) != 0)
        return Fail(Error, "sub-service " + Config.ParserPath + " is not an executable file");
    return 0;
}

// Frames left on the registration connection by an earlier run belong to nobody.
static void DrainStale(int Handle)
{
    std::vector<unsigned char> Buffer(RZP_MAX_PAYLOAD);
    RZP_HEADER_PACKET H;
    for (int i = 0; i < 10000 && ReceiveRZPDataAsyncRaw(Handle, &H, Buffer.data(), ZM_CALLER) != -1;
         i++) {
    }
}

// Why a start failed; called after ZmClose, so the console output is complete.
static std::string StartFailure(ZmSession *S, bool Ended)
{
    std::lock_guard<std::mutex> Guard(S->Lock);
    std::string Why = Ended ? "the sub-service ended with status " + std::to_string(S->ExitStatus)
                            : "the sub-service did not register in time and was killed";
    Why += " after " + std::to_string(S->RegistrationsSeen) + " of 7 registrations";
    if (!S->Console.empty())
        Why += "; its output:\n" + S->Console;
    return Why;
}

int ZmStart(ZmSession *S, const ZmConfig &Config, std::string *Error)
{
    if (S->Pump.joinable() || S->ConsoleReader.joinable() || S->Pid > 0)
        return Fail(Error, "the session is already running");
    ResetRecorded(S, Config);
    if (CheckConfig(Config, Error) != 0)
        return -1;
    SetRZPTransportHandleBase(ZM_HANDLE_BASE);
    S->RegistrationHandle = OpenRZPTransport(ZM_REGISTRATION_CONNECTION);
    if (S->RegistrationHandle < 0)
        return Fail(Error, "cannot open " ZM_REGISTRATION_CONNECTION);
    DrainStale(S->RegistrationHandle);
    S->WakeFd = eventfd(0, EFD_CLOEXEC);
    if (S->WakeFd < 0) {
        ZmClose(S);
        return Fail(Error, std::string("cannot make an eventfd: ") + strerror(errno));
    }
    if (StartProcess(S, Error) != 0) {
        ZmClose(S);
        return -1;
    }
    S->ConsoleReader = std::thread(SessionConsoleReader, S);
    S->Pump = std::thread(SessionPump, S);
    ZmGuard Guard(S->Lock);
    SessionWaitUntil(S, Guard, -1, [S] {
        return S->RegistrationsSeen >= ZM_REGISTRATIONS || S->ExitStatus != ZM_RUNNING;
    });
    bool Registered = S->RegistrationsSeen >= ZM_REGISTRATIONS;
    bool Ended = S->ExitStatus != ZM_RUNNING;
    Guard.unlock();
    if (Registered)
        return 0;
    ZmClose(S);
    return Fail(Error, StartFailure(S, Ended));
}

// ---- Exit and stop -----------------------------------------------------------------------------

// Waits for the exit; after the timeout kills the process and returns -1. After the exit the
// console output is complete once the pipe has ended, which takes a moment more (at most a
// second is granted: a child of the sub-service may hold the pipe open).
static int WaitForExit(ZmSession *S, int TimeoutMs)
{
    ZmGuard Guard(S->Lock);
    if (S->Pid <= 0 && S->ExitStatus == ZM_RUNNING)
        return -1;
    if (SessionWaitUntil(S, Guard, TimeoutMs, [S] { return S->ExitStatus != ZM_RUNNING; })) {
        SessionWaitUntil(S, Guard, 1000, [S] { return S->ConsoleEnded; });
        return S->ExitStatus;
    }
    kill(S->Pid, SIGKILL);
    SessionWaitUntil(S, Guard, 5000, [S] { return S->ExitStatus != ZM_RUNNING; });
    return -1;
}

int ZmStop(ZmSession *S, int TimeoutMs)
{
    int Receive = -1, Send = -1;
    SessionHandles(S, &Receive, &Send);
    if (!SessionHasExited(S) && Receive >= 0 && Send >= 0) {
        RZP_HEADER_PACKET H{};
        H.SrcHandle = Receive;
        H.DestHandle = Send;
        H.LocalSequenceNumber = S->NextSequence++;
        H.RemoteSequenceNumber = -1;
        H.opCode = RZP_SHUTDOWN;
        H.ReturnCode = RZP_NO_RESULT_YET;
        SessionSend(S, H, {});
    }
    return WaitForExit(S, TimeoutMs);
}

int ZmWaitExit(ZmSession *S, int TimeoutMs)
{
    return WaitForExit(S, TimeoutMs);
}

// ---- Close -------------------------------------------------------------------------------------

static std::atomic<int> SanitizerReports{0};

// Counts (and shows on standard error) a sanitizer's report in the sub-service's console, so
// that a test whose sub-service misbehaved under a sanitizer build fails even when the test
// looked only at packets.
static void CheckSanitizerReports(ZmSession *S)
{
    static const char *const Markers[] = {"ERROR: AddressSanitizer", "ERROR: LeakSanitizer",
                                          "WARNING: ThreadSanitizer", "runtime error:"};
    std::lock_guard<std::mutex> Guard(S->Lock);
    for (const char *Marker : Markers) {
        size_t At = S->Console.find(Marker);
        if (At == std::string::npos)
            continue;
        SanitizerReports++;
        fprintf(stderr, "zelrzp-manager: the sub-service's console holds a sanitizer report:\n%s\n",
                S->Console.substr(At > 200 ? At - 200 : 0, 4000).c_str());
        return;
    }
}

int ZmSanitizerReports(void)
{
    return SanitizerReports.load();
}

// Wakes the pump and the console reader out of their polls; the eventfd stays readable.
static void WakeThreads(ZmSession *S)
{
    if (S->WakeFd < 0)
        return;
    uint64_t One = 1;
    ssize_t Written = write(S->WakeFd, &One, sizeof One);
    (void)Written;
}

void ZmClose(ZmSession *S)
{
    S->Stopping = true;
    WakeThreads(S);
    if (S->Pump.joinable())
        S->Pump.join();
    {
        std::lock_guard<std::mutex> Guard(S->Lock);
        if (S->Pid > 0 && S->ExitStatus == ZM_RUNNING)
            kill(S->Pid, SIGKILL);
    }
    SessionReap(S, 0);
    if (S->ConsoleReader.joinable())
        S->ConsoleReader.join();
    for (int *Fd : {&S->ConsoleFd, &S->PidFd, &S->WakeFd}) {
        if (*Fd >= 0)
            close(*Fd);
        *Fd = -1;
    }
    CheckSanitizerReports(S);
    std::lock_guard<std::mutex> Guard(S->Lock);
    for (int *Handle : {&S->RegistrationHandle, &S->ReceiveHandle, &S->SendHandle}) {
        if (*Handle >= 0)
            CloseRZPTransport(*Handle);
        *Handle = -1;
    }
    S->Pid = -1;
    S->Changed.notify_all();
}
