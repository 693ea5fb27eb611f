// console.cpp - the console reader: the sub-service's standard output and error, appended to
// S->Console and split into S->Messages line by line, in the order the sub-service produced
// them among its packets. Writes only the ZmSession it is given.
//
// It sleeps in poll on the console pipe and S->WakeFd (written by ZmClose).
#include <poll.h>
#include <unistd.h>

#include <cerrno>

#include "session_internal.h"

// Waits until the console pipe has something to read (true). Once Stopping is set it returns
// false when the pipe is quiet: at once after the process was reaped, after 20 ms of quiet
// while it may still write.
static bool ConsoleHasData(ZmSession *S)
{
    for (;;) {
        struct pollfd Fds[2] = {{S->ConsoleFd, POLLIN, 0}, {S->WakeFd, POLLIN, 0}};
        bool Stopping = S->Stopping;
        nfds_t Count = Stopping || S->WakeFd < 0 ? 1 : 2;
        int Timeout = Stopping ? (SessionHasExited(S) ? 0 : 20) : (S->WakeFd < 0 ? 20 : -1);
        int Ready = poll(Fds, Count, Timeout);
        if (Ready < 0 && errno != EINTR)
            return false;
        if (Ready > 0 && Fds[0].revents != 0)
            return true;
        if (Ready == 0 && Stopping)
            return false;
    }
}

// Takes every byte of console output that is waiting (the pipe is non-blocking), echoes it and
// splits the complete lines into S->Messages. Called with S->Lock held, by the console reader
// and by the pump before it records a screen or log text: the sub-service prints a line before
// it sends the packets that follow it, so Messages keeps the order in which it produced them.
// Returns false at the end of the output.
bool SessionReadConsoleLocked(ZmSession *S)
{
    char Buffer[4096];
    for (;;) {
        ssize_t N = S->ConsoleFd < 0 ? 0 : read(S->ConsoleFd, Buffer, sizeof Buffer);
        if (N < 0 && errno == EINTR)
            continue;
        if (N < 0 && errno == EAGAIN)
            return true;
        if (N <= 0)
            return false;
        if (S->Config.EchoConsole) {
            ssize_t Written = write(S->Config.EchoFd, Buffer, (size_t)N);
            (void)Written;
        }
        S->Console.append(Buffer, (size_t)N);
        size_t End;
        while ((End = S->Console.find('\n', S->ConsoleLinesEnd)) != std::string::npos) {
            S->Messages.push_back(
                {ZM_CONSOLE, S->Console.substr(S->ConsoleLinesEnd, End - S->ConsoleLinesEnd)});
            S->ConsoleLinesEnd = End + 1;
        }
        S->Changed.notify_all();
    }
}

// Appends the sub-service's output until the pipe ends or the session stops, then keeps a
// last line without its line feed and marks the console ended.
void SessionConsoleReader(ZmSession *S)
{
    while (ConsoleHasData(S)) {
        std::lock_guard<std::mutex> Guard(S->Lock);
        if (!SessionReadConsoleLocked(S))
            break;
    }
    std::lock_guard<std::mutex> Guard(S->Lock);
    if (S->ConsoleLinesEnd < S->Console.size())
        S->Messages.push_back({ZM_CONSOLE, S->Console.substr(S->ConsoleLinesEnd)});
    S->ConsoleLinesEnd = S->Console.size();
    S->ConsoleEnded = true;
    S->Changed.notify_all();
}

void ZmSyncConsole(ZmSession *S)
{
    std::lock_guard<std::mutex> Guard(S->Lock);
    SessionReadConsoleLocked(S);
}
