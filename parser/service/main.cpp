// main.cpp - entry of the sub-service: the root and context checks, the command line, the
// start-up of the transport, the listener, the registration and the shut-down thread.
#include <pthread.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>

#include "protocol.h"
#include "runflags.h"
#include "service.h"

namespace {

// Removes the read and write connection files left by an earlier run. The results of the
// shell commands are ignored: a failure shows itself when the connection is opened.
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
