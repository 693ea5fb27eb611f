// queue_fixture.h - shared by the tests that send the sub-service's requests inside one process:
// its connection pair (ParserQueue) over real FIFOs in a scratch directory. Writes ParserQueue.
#pragma once

#include <cstdlib>
#include <filesystem>
#include <string>

#include "service.h"

// Binds the transport library and opens ParserQueue's read and write connections below a new
// directory made from Directory (a mkdtemp template, rewritten in place). False on a failure.
inline bool OpenTestQueue(char *Directory)
{
    if (BindTransportLibrary() != 0 || mkdtemp(Directory) == nullptr)
        return false;
    ParserQueue = static_cast<PQUEUE>(calloc(1, sizeof(QUEUE)));
    std::string Base = Directory;
    ParserQueue->ReadConnectionHandle = OpenTransport((Base + "/read").c_str());
    ParserQueue->WriteConnectionHandle = OpenTransport((Base + "/write").c_str());
    return ParserQueue->ReadConnectionHandle >= 0 && ParserQueue->WriteConnectionHandle >= 0;
}

inline void CloseTestQueue(const char *Directory)
{
    CloseTransport(ParserQueue->ReadConnectionHandle);
    CloseTransport(ParserQueue->WriteConnectionHandle);
    free(ParserQueue);
    ParserQueue = nullptr;
    std::filesystem::remove_all(Directory);
}
