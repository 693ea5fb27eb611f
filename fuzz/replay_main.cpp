// replay_main.cpp - runs a fuzz target's LLVMFuzzerTestOneInput over files, the way libFuzzer
// replays a corpus: every argument is a file or a directory of files. The suite uses it to
// replay each target's seed corpus and every input that once crashed it, in the plain and the
// sanitizer builds. Exits 1 when an argument cannot be read or no file was replayed.
#include <dirent.h>
#include <sys/stat.h>

#include <cstdint>
#include <cstdio>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerInitialize(int *argc, char ***argv);
extern "C" int LLVMFuzzerTestOneInput(const uint8_t *Data, size_t Size);

static bool ReplayFile(const std::string &Path)
{
    std::ifstream In(Path, std::ios::binary);
    if (!In)
        return false;
    std::vector<unsigned char> Bytes((std::istreambuf_iterator<char>(In)),
                                     std::istreambuf_iterator<char>());
    fprintf(stderr, "replay %s (%zu bytes)\n", Path.c_str(), Bytes.size());
    LLVMFuzzerTestOneInput(Bytes.data(), Bytes.size());
    return true;
}

int main(int argc, char **argv)
{
    LLVMFuzzerInitialize(&argc, &argv);
    int Replayed = 0;
    for (int i = 1; i < argc; i++) {
        struct stat Info;
        if (stat(argv[i], &Info) != 0)
            continue; // a target without kept crash inputs has no crash directory
        if (!S_ISDIR(Info.st_mode)) {
            Replayed += ReplayFile(argv[i]) ? 1 : 0;
            continue;
        }
        DIR *Directory = opendir(argv[i]);
        while (struct dirent *Entry = Directory != nullptr ? readdir(Directory) : nullptr)
            if (Entry->d_name[0] != '.')
                Replayed += ReplayFile(std::string(argv[i]) + "/" + Entry->d_name) ? 1 : 0;
        if (Directory != nullptr)
            closedir(Directory);
    }
    fprintf(stderr, "%d inputs replayed\n", Replayed);
    return Replayed > 0 ? 0 : 1;
}
