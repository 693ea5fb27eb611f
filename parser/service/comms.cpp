// comms.cpp - the binding of the transport library, the three connections and their locks,
// and the shut-down thread. Owns ParserQueue, TransportLibrary, the seven entry-point
// pointers, ManagerProcessId and ThreadCountMutex; Shutdown releases everything the service
// holds.
//
// The shut-down thread sleeps on ThreadCountChanged, which every thread that uncounts itself
// signals, so it goes on as soon as the last worker has ended; it still wakes at least once a
// second, and then also looks whether the manager that started the process is still its
// parent. A manager that has gone ends the service as opcode 2 does.
#include <dlfcn.h>
#include <time.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "protocol.h"
#include "records.h"
#include "runflags.h"
#include "service.h"
#include "support.h"

PQUEUE ParserQueue = nullptr;
void *TransportLibrary = nullptr;
OpenRZPTransport_t OpenTransport = nullptr;
CloseRZPTransport_t CloseTransport = nullptr;
ReceiveRZPDataAsyncRaw_t ReceiveDataAsyncRaw = nullptr;
DeTokenize_t DeTokenize = nullptr;
DeTokenizeWithOffset_t DeTokenizeWithOffset = nullptr;
SendRZPDataRaw_t SendDataRaw = nullptr;
Tokenize_t Tokenize = nullptr;

struct flock ReadConnectionFileLock;
struct flock WriteConnectionFileLock;
struct flock RegistrationConnectionFileLock;
pid_t ManagerProcessId = 0;
pthread_mutex_t ThreadCountMutex = PTHREAD_MUTEX_INITIALIZER;

namespace {

struct EntryPoint {
    const char *Symbol;
    void **Holder;
};

// Resolution order of the entry points.
const EntryPoint EntryPoints[] = {
    {"OpenRZPTransport", reinterpret_cast<void **>(&OpenTransport)},
    {"CloseRZPTransport", reinterpret_cast<void **>(&CloseTransport)},
    {"ReceiveRZPDataAsyncRaw", reinterpret_cast<void **>(&ReceiveDataAsyncRaw)},
    {"DeTokenize", reinterpret_cast<void **>(&DeTokenize)},
    {"DeTokenizeWithOffset", reinterpret_cast<void **>(&DeTokenizeWithOffset)},
    {"SendRZPDataRaw", reinterpret_cast<void **>(&SendDataRaw)},
    {"Tokenize", reinterpret_cast<void **>(&Tokenize)},
};

void CloseConnections(int Count, const int *Handles)
{
    for (int i = 0; i < Count; i++)
        CloseTransport(Handles[i]);
}

// Frees the connection record with its names and bundle list; ParserQueue becomes NULL.
void FreeQueueRecord(void)
{
    if (ParserQueue == nullptr)
        return;
    FreeBundleList(&ParserQueue->BundleList);
    free(ParserQueue->WriteConnectionName);
    free(ParserQueue->ReadConnectionName);
    free(ParserQueue->SubServiceName);
    free(ParserQueue);
    ParserQueue = nullptr;
}

// A start-up failure after the record exists: message, exit flag, release, code.
int FailStartUp(const char *Message, int Code)
{
    if (Message != nullptr)
        printf("%s", Message);
    Parser_Exiting = 1;
    UnbindTransportLibrary();
    FreeQueueRecord();
    return Code;
}

// Opens the three connections in order; on a failure closes what was opened, prints the
// connection's message and returns its negative handle.
int OpenConnections(void)
{
    int Handles[3];
    Handles[0] = OpenTransport(PARSER_READ_CONNECTION);
    if (Handles[0] < 0)
        return FailStartUp("\nOpening of parser read connection failed.\n", Handles[0]);
    Handles[1] = OpenTransport(PARSER_WRITE_CONNECTION);
    if (Handles[1] < 0) {
        CloseConnections(1, Handles);
        return FailStartUp("Opening of parser write connection failed.\n", Handles[1]);
    }
    Handles[2] = OpenTransport(REGISTRATION_CONNECTION);
    if (Handles[2] < 0) {
        printf("\nOpening of registration connection failed.\n");
        CloseConnections(2, Handles);
        return FailStartUp(nullptr, Handles[2]);
    }
    ParserQueue->ReadConnectionHandle = Handles[0];
    ParserQueue->WriteConnectionHandle = Handles[1];
    ParserQueue->RegistrationConnectionHandle = Handles[2];
    return 0;
}

// Copies the three names into the record, in order; -111 after closing everything.
int CopyConnectionNames(void)
{
    const struct {
        char **Field;
        const char *Name;
        const char *Message;
    } Names[] = {
        {&ParserQueue->WriteConnectionName, PARSER_WRITE_CONNECTION,
         "Unable to allocate memory for write connection name.\n"},
        {&ParserQueue->ReadConnectionName, PARSER_READ_CONNECTION,
         "Unable to allocate memory for read connection name.\n"},
        {&ParserQueue->SubServiceName, PARSER_SUBSERVICE_NAME,
         "Unable to allocate memory for subservice name.\n"},
    };
    for (const auto &Entry : Names) {
        *Entry.Field = DuplicateString(Entry.Name);
        if (*Entry.Field == nullptr) {
            int Handles[3] = {ParserQueue->ReadConnectionHandle, ParserQueue->WriteConnectionHandle,
                              ParserQueue->RegistrationConnectionHandle};
            CloseConnections(3, Handles);
            return FailStartUp(Entry.Message, RZP_OUT_OF_MEMORY);
        }
    }
    return 0;
}

// Loads the library by name. The executable's RUNPATH ($ORIGIN, $ORIGIN/../lib) names where
// it lies; a loader that does not apply the caller's RUNPATH to dlopen (as under some
// sanitizer runtimes) is helped by trying those two places explicitly.
void *LoadTransportLibrary(void)
{
    void *Library = dlopen(RZP_TRANSPORT_LIBRARY, RTLD_LAZY);
    if (Library != nullptr)
        return Library;
    char Error[512];
    CopyBounded(Error, sizeof Error, dlerror());
    char Executable[4096];
    ssize_t Length = readlink("/proc/self/exe", Executable, sizeof Executable - 1);
    if (Length > 0) {
        Executable[Length] = '\0';
        int DirectoryLength = static_cast<int>(strrchr(Executable, '/') - Executable);
        char Candidate[sizeof Executable + sizeof RZP_TRANSPORT_LIBRARY + 8];
        static const char *const Relatives[] = {"/", "/../lib/"};
        for (const char *Relative : Relatives) {
            snprintf(Candidate, sizeof Candidate, "%.*s%s%s", DirectoryLength, Executable, Relative,
                     RZP_TRANSPORT_LIBRARY);
            Library = dlopen(Candidate, RTLD_LAZY);
            if (Library != nullptr)
                return Library;
        }
    }
    printf("Could not open " RZP_TRANSPORT_LIBRARY "...Error %s\n", Error);
    return nullptr;
}

pthread_cond_t ThreadCountChanged = PTHREAD_COND_INITIALIZER;

// True once the process that started the service is no longer its parent (it ended and the
// process was handed to another). Nothing is known without a remembered parent.
bool ManagerHasGone(void)
{
    return ManagerProcessId > 0 && getppid() != ManagerProcessId;
}

// Waits on ThreadCountChanged for at most one second. Called under ThreadCountMutex.
void WaitOneSecond(void)
{
    struct timespec Deadline;
    clock_gettime(CLOCK_REALTIME, &Deadline);
    Deadline.tv_sec += 1;
    pthread_cond_timedwait(&ThreadCountChanged, &ThreadCountMutex, &Deadline);
}

// Returns when only the main thread and this one are left. Ends the service (the listener
// leaves its loop, waits for answers end) when the manager has gone.
void WaitForLastThread(void)
{
    bool Reported = false;
    pthread_mutex_lock(&ThreadCountMutex);
    while (ThreadCount != 2) {
        WaitOneSecond();
        if (!Reported && ManagerHasGone()) {
            Reported = true;
            Parser_Exiting = 1;
            printf("Parser's manager (process %d) has ended; the parser sub-service is shutting "
                   "down.\n",
                   static_cast<int>(ManagerProcessId));
        }
    }
    pthread_mutex_unlock(&ThreadCountMutex);
}

} // namespace

int BindTransportLibrary(void)
{
    if (TransportLibrary != nullptr)
        return 0;
    TransportLibrary = LoadTransportLibrary();
    if (TransportLibrary == nullptr)
        return RZP_TRANSPORT_UNAVAILABLE;
    dlerror();
    for (const EntryPoint &Entry : EntryPoints) {
        *Entry.Holder = dlsym(TransportLibrary, Entry.Symbol);
        if (*Entry.Holder == nullptr) {
            const char *Error = dlerror();
            printf("Could not find %s in " RZP_TRANSPORT_LIBRARY "...Error %s\n", Entry.Symbol,
                   Error != nullptr ? Error : "no such symbol");
            UnbindTransportLibrary();
            return RZP_TRANSPORT_UNAVAILABLE;
        }
    }
    return 0;
}

void UnbindTransportLibrary(void)
{
    if (TransportLibrary != nullptr)
        dlclose(TransportLibrary);
    TransportLibrary = nullptr;
    for (const EntryPoint &Entry : EntryPoints)
        *Entry.Holder = nullptr;
}

int InitializeCommunicationsInterface(void)
{
    if (ParserQueue != nullptr)
        return RZP_ALREADY_INITIALIZED;
    int Result = BindTransportLibrary();
    if (Result != 0) {
        Parser_Exiting = 1;
        return Result;
    }
    ParserQueue = static_cast<PQUEUE>(calloc(1, sizeof(QUEUE)));
    if (ParserQueue == nullptr) {
        UnbindTransportLibrary();
        return RZP_OUT_OF_MEMORY;
    }
    Result = OpenConnections();
    if (Result != 0)
        return Result;
    DebugPrint("Parser RCH is %d         WCH is %d           RegCH is %d\n",
               ParserQueue->ReadConnectionHandle, ParserQueue->WriteConnectionHandle,
               ParserQueue->RegistrationConnectionHandle);
    Result = CopyConnectionNames();
    if (Result != 0)
        return Result;
    ParserQueue->BundleList = nullptr;
    ParserQueue->Provides_RZPParserOpenInputFile = 1;
    ParserQueue->Provides_RZPParserParseInputFile = 1;
    ParserQueue->Provides_RZPParserCloseInputFile = 1;
    ParserQueue->Provides_RZPParserReturnNumberOfItems = 1;
    ParserQueue->Provides_RZPParserReturnFirstItem = 1;
    ParserQueue->Provides_RZPParserReturnNextItem = 1;
    ParserQueue->Provides_RZPParserReturnLastItem = 1;
    ParserQueue->AllowOverride = 1;
    return 0;
}

void LockConnection(int Handle, struct flock *Lock)
{
    for (;;) {
        memset(Lock, 0, sizeof *Lock);
        Lock->l_type = F_WRLCK;
        Lock->l_whence = SEEK_SET;
        if (fcntl(Handle, F_SETLKW, Lock) == 0)
            return;
    }
}

void UnlockConnection(int Handle, struct flock *Lock)
{
    memset(Lock, 0, sizeof *Lock);
    Lock->l_type = F_UNLCK;
    Lock->l_whence = SEEK_SET;
    fcntl(Handle, F_SETLKW, Lock);
}

void UncountThread(void)
{
    pthread_mutex_lock(&ThreadCountMutex);
    ThreadCount--;
    pthread_cond_broadcast(&ThreadCountChanged);
    pthread_mutex_unlock(&ThreadCountMutex);
}

void *Shutdown(void *)
{
    WaitForLastThread();
    DeRegisterWithRZPManager();
    if (ParserQueue != nullptr) {
        CloseTransport(ParserQueue->ReadConnectionHandle);
        CloseTransport(ParserQueue->WriteConnectionHandle);
        CloseTransport(ParserQueue->RegistrationConnectionHandle);
    }
    FreeQueueRecord();
    FreeComponentList();
    DeleteTree();
    free(CurrentlyInstalledOS);
    CurrentlyInstalledOS = nullptr;
    UnbindTransportLibrary();
    FreeInstallPacketList();
    pthread_mutex_destroy(&PendingIOMutex);
    pthread_mutex_destroy(&SendDataMutex);
    Parser_Exiting = 1;
    ThreadCount--;
    return nullptr;
}
