// main.cpp - entry of the sub-service: --version, the root and context checks, the command
// line, the start-up of the transport, the listener, the registration and the shut-down thread.
// Writes ThreadCount (the main thread and the two threads it starts) and ManagerProcessId
// (the parent that started the process), before any thread starts.
//
// DESIGN: threads, locks and what they guard
// -------------------------------------------
// Threads (ThreadCount counts the live ones; Parser_Exiting set to 1 ends every loop):
// - main: checks, command line, InitializeCommunicationsInterface, starts the listener,
//   registers the seven parser opcodes (RegisterWithRZPManager), starts the shut-down thread
//   and joins it.
// - listener (Listen, protocol/listener.cpp): the only reader of the read connection. It
//   answers control packets itself (shut-down, debug on/off, run-flag update, registration
//   answers), parks answers and parser requests on the pending-I/O list and starts one
//   detached worker per parser request, counted before it is created. Any other opcode gets
//   the "not supported" answer. Between receives it waits in poll on the read connection for
//   at most 10 ms.
// - workers (operations/): take their request back by opcode (BeginParserWork), do their work
//   on the shared state under ParserStateMutex (RunParserWorker), answer through the send path
//   and uncount themselves (EndParserWork, UncountThread). A worker that asks the manager
//   something (protocol/requests.cpp, operations/prompts.cpp) announces the answer it expects
//   (ExpectAnswer), sends, and waits on the pending-I/O list: woken when the listener parks a
//   packet, and at least every 10 ms to look at Parser_Exiting.
// - shut-down (Shutdown, service/comms.cpp): sleeps on ThreadCountChanged, signalled by every
//   thread that uncounts itself and at least once a second, until only it and main are left;
//   at each wake it also ends the service when the manager that started it has gone. Then it
//   deregisters, closes the connections, frees the lists and the tree, unloads the library.
//
// Locks, outermost first; no thread takes them in another order:
//   1. the registration connection's fcntl lock: only while registering, around each send;
//   2. ParserStateMutex (operations/workers.cpp): held by a parser worker across its work on
//      BundleList, ComponentList, InstallPacketList, the XML tree and CurrentlyInstalledOS,
//      its waits for the manager's answers included; the listener and the shut-down thread
//      never take it, so the answers a worker waits for always arrive;
//   3. SendDataMutex (protocol/sendpath.cpp): around every single send, never across a wait;
//   4. the write connection's fcntl lock: inside the send path (HandleOutgoingPacket).
// The read connection's fcntl lock is held by the listener around each receive only.
// PendingIOMutex (protocol/pendingio.cpp) guards PendingIOList, its tail and count, the
// expected answers and the condition PendingIOParked; ThreadCountMutex (service/comms.cpp)
// guards the condition ThreadCountChanged. Each is taken alone, never with another lock. The
// fcntl locks order the sub-service against other processes that use the same connection
// files. Run flags that the listener changes (DEBUG_FLAG, FORCE_INSTALL_FLAG,
// NO_USER_INTERFACE, REBOOT_IF_NEEDED), ThreadCount, Parser_Exiting and LocalSequenceNumber
// are atomics (runflags.h).
#include <pthread.h>
#include <signal.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "protocol.h"
#include "runflags.h"
#include "service.h"

#ifndef ZEL_VERSION
#define ZEL_VERSION "0"
#endif

namespace {

// Removes the read and write connection files left by an earlier run with two shell commands.
// Their results are ignored: a failure shows itself when the connection is opened.
void RemoveConnectionFiles(void)
{
    int Ignored = system("rm -f " PARSER_READ_CONNECTION);
    Ignored = system("rm -f " PARSER_WRITE_CONNECTION);
    (void)Ignored;
}

// Starts the listener, registers, starts the shut-down thread and waits for it.
int RunService(void)
{
    pthread_t Listener, ShutdownThread;
    ThreadCount++;
    if (pthread_create(&Listener, nullptr, Listen, nullptr) != 0) {
        // Nobody else runs: this thread takes the shut-down thread's place (count stays 2).
        printf("Unable to start the listener thread.\n");
        Parser_Exiting = 1;
        Shutdown(nullptr);
        return -1;
    }
    ThreadCount++;
    int Result = RegisterWithRZPManager();
    if (pthread_create(&ShutdownThread, nullptr, Shutdown, nullptr) != 0) {
        // This thread shuts down in its place, once the listener has left its loop.
        printf("Unable to start the shut-down thread.\n");
        Parser_Exiting = 1;
        Shutdown(nullptr);
        pthread_detach(Listener);
        return -1;
    }
    pthread_join(ShutdownThread, nullptr);
    pthread_detach(Listener);
    return Result;
}

} // namespace

int main(int argc, char **argv)
{
    setvbuf(stdout, nullptr, _IOLBF, 0);
    // A console whose reader has gone (the manager died) must not kill the service before it
    // has shut down in order.
    signal(SIGPIPE, SIG_IGN);
    ManagerProcessId = getppid();
    // The installed version, for an administrator: needs neither root nor the manager.
    if (argc == 2 && strcmp(argv[1], "--version") == 0) {
        printf("zelparser %s\n", ZEL_VERSION);
        return 0;
    }
    if (getuid() != 0) {
        printf("Root access required to use the Parser utility.\n");
        return -1;
    }
    ThreadCount++;
    int Result = 0;
    if (argc > 1)
        Result = CheckCommandLineParameters(argc, argv);
    if (OK_TO_RUN == 0) {
        printf("This program can only be executed within the context of the Dovrel.\n");
        FreeCommandLineState();
        return -1;
    }
    if (Result == 0 && Parser_Exiting != 1) {
        RemoveConnectionFiles();
        Result = InitializeCommunicationsInterface();
        if (Result == 0)
            Result = RunService();
    }
    VerbosePrint("Parser sub-service is unloading\n");
    FreeCommandLineState();
    ThreadCount--;
    return Result;
}
