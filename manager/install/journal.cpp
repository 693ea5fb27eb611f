// journal.cpp - the install journal: the state directory and its lock (one install at a time),
// one line of JSON per event appended and forced to the disk, and the journal read back into
// what it says of each component. A crash can cut only the last line; it is passed over, and
// the next install starts on a line of its own. Writes no globals.
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <ctime>
#include <fstream>
#include <sstream>
#include <string>

#include "install.h"

std::string InTimeText(void)
{
    struct timespec Now;
    clock_gettime(CLOCK_REALTIME, &Now);
    struct tm Utc;
    gmtime_r(&Now.tv_sec, &Utc);
    char Text[48];
    size_t N = strftime(Text, sizeof Text, "%Y-%m-%dT%H:%M:%S", &Utc);
    snprintf(Text + N, sizeof Text - N, ".%03ldZ", Now.tv_nsec / 1000000);
    return Text;
}

std::string InComponentKey(const std::string &BundleFile, const std::string &File,
                           const std::string &Digest)
{
    return BundleFile + "/" + File + "@" + Digest;
}

int InMakeDirectories(const std::string &Dir, mode_t Mode, std::string *Error)
{
    for (size_t Slash = 0; Slash != std::string::npos;) {
        Slash = Dir.find('/', Slash + 1);
        std::string Part = Dir.substr(0, Slash);
        if (!Part.empty() && mkdir(Part.c_str(), Mode) != 0 && errno != EEXIST) {
            *Error = "cannot make " + Part + ": " + strerror(errno);
            return -1;
        }
    }
    return 0;
}

static int SyncDirectory(const std::string &Dir)
{
    int Fd = open(Dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    int Synced = Fd >= 0 ? fsync(Fd) : -1;
    if (Fd >= 0)
        close(Fd);
    return Synced;
}

static std::string Holder(int Fd)
{
    char Text[32] = {};
    ssize_t N = pread(Fd, Text, sizeof Text - 1, 0);
    std::string Pid = N > 0 ? std::string(Text, (size_t)N) : "";
    while (!Pid.empty() && (Pid.back() == '\n' || Pid.back() == ' '))
        Pid.pop_back();
    return Pid.empty() ? "" : " (pid " + Pid + ")";
}

static int TakeLock(InJournal *J, std::string *Error)
{
    std::string Path = J->Dir + "/lock";
    J->LockFd = open(Path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0644);
    if (J->LockFd < 0) {
        *Error = "cannot open " + Path + ": " + strerror(errno);
        return -1;
    }
    if (flock(J->LockFd, LOCK_EX | LOCK_NB) != 0) {
        bool Held = errno == EWOULDBLOCK;
        *Error = Held ? "another install" + Holder(J->LockFd) + " holds " + Path +
                            "; only one install at a time per state directory"
                      : "cannot lock " + Path + ": " + strerror(errno);
        return Held ? -2 : -1;
    }
    std::string Pid = std::to_string(getpid()) + "\n";
    if (ftruncate(J->LockFd, 0) != 0 || pwrite(J->LockFd, Pid.data(), Pid.size(), 0) < 0) {
        *Error = "cannot write " + Path + ": " + strerror(errno);
        return -1;
    }
    return 0;
}

// A journal whose last line a crash cut gets a line break first, so the next event stands alone.
static int EndCutLine(int Fd)
{
    struct stat St;
    char Last = '\n';
    if (fstat(Fd, &St) != 0 || (St.st_size > 0 && pread(Fd, &Last, 1, St.st_size - 1) != 1))
        return -1;
    return Last == '\n' || write(Fd, "\n", 1) == 1 ? 0 : -1;
}

static std::string NewId(void)
{
    time_t Now = time(nullptr);
    struct tm Utc;
    gmtime_r(&Now, &Utc);
    char Text[32];
    strftime(Text, sizeof Text, "%Y%m%dT%H%M%SZ", &Utc);
    return std::string(Text) + "-" + std::to_string(getpid());
}

int InJournalOpen(const std::string &StateDir, InJournal *J, std::string *Error)
{
    J->Dir = StateDir;
    J->Path = StateDir + "/journal";
    J->Id = NewId();
    if (InMakeDirectories(StateDir, 0755, Error) != 0)
        return -1;
    int Locked = TakeLock(J, Error);
    if (Locked != 0)
        return Locked;
    bool Existed = access(J->Path.c_str(), F_OK) == 0;
    J->Fd = open(J->Path.c_str(), O_RDWR | O_APPEND | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600);
    if (J->Fd < 0 || EndCutLine(J->Fd) != 0 || (!Existed && SyncDirectory(StateDir) != 0)) {
        *Error = "cannot write the journal " + J->Path + ": " + strerror(errno);
        return -1;
    }
    return 0;
}

void InJournalClose(InJournal *J)
{
    if (J->Fd >= 0)
        close(J->Fd);
    if (J->LockFd >= 0)
        close(J->LockFd); // the lock goes with it
    J->Fd = J->LockFd = -1;
}

int InJournalWrite(InJournal *J, Json Event)
{
    if (J->Fd < 0)
        return 0; // a dry run keeps no journal
    Json Line = {{"time", InTimeText()}, {"install", J->Id}};
    for (auto &Field : Event.items())
        Line[Field.key()] = std::move(Field.value());
    std::string Text = Line.dump(-1, ' ', false, Json::error_handler_t::replace) + "\n";
    for (size_t Done = 0; Done < Text.size();) {
        ssize_t N = write(J->Fd, Text.data() + Done, Text.size() - Done);
        if (N < 0 && errno == EINTR)
            continue;
        if (N <= 0)
            return -1;
        Done += (size_t)N;
    }
    return fdatasync(J->Fd);
}

std::vector<Json> InJournalEvents(const std::string &StateDir)
{
    std::vector<Json> Events;
    std::ifstream In(StateDir + "/journal", std::ios::binary);
    std::string Line;
    while (std::getline(In, Line)) {
        Json Event = Json::parse(Line, nullptr, false);
        if (!Event.is_discarded() && InField(Event, "event").is_string())
            Events.push_back(std::move(Event));
    }
    return Events;
}

const Json &InField(const Json &Object, const char *Key)
{
    static const Json Null;
    if (!Object.is_object())
        return Null;
    auto Found = Object.find(Key);
    return Found == Object.end() ? Null : *Found;
}

static void TakeStep(InPast *P, const Json &E)
{
    if (InField(E, "step") != "command")
        return;
    if (InField(E, "phase") == "start") {
        P->CommandRunning = true;
        P->CommandSucceeded = false;
        P->StartedBy = CliStr(InField(E, "install"));
    } else {
        P->CommandRunning = false;
        P->CommandSucceeded = InField(E, "exitStatus") == 0;
    }
}

std::map<std::string, InPast> InJournalPast(const std::vector<Json> &Events)
{
    std::map<std::string, InPast> Past;
    for (const Json &E : Events) {
        const Json &Key = InField(E, "key"), &Event = InField(E, "event");
        if (!Key.is_string())
            continue;
        InPast &P = Past[Key.get<std::string>()];
        if (Event == "step")
            TakeStep(&P, E);
        else if (Event == "component" && InField(E, "state") == "installed")
            P = InPast{true, false, false, ""};
        else if (Event == "component" && InField(E, "state") == "failed")
            P.Installed = P.CommandSucceeded = false;
    }
    return Past;
}
