// Round trip of one log request through the real listener and pending-I/O queue, beside the
// round trip of a bare frame over the same FIFOs. Both run in this process: the sub-service's
// listener thread and request code, and a manager thread that answers every request it reads
// on the write connection. Reports the median and the 99th percentile in milliseconds.
#include <benchmark/benchmark.h>
#include <poll.h>
#include <pthread.h>
#include <stdlib.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include "protocol.h"
#include "runflags.h"
#include "service.h"

namespace {

std::atomic<bool> ManagerStop{false};
std::string Directory;

// Answers every request read on the write connection on the read connection.
void ManagerLoop()
{
    RZP_HEADER_PACKET Header;
    std::vector<unsigned char> Payload(RZP_MAX_PAYLOAD);
    struct pollfd Fd = {ParserQueue->WriteConnectionHandle, POLLIN, 0};
    while (!ManagerStop) {
        if (poll(&Fd, 1, 5) <= 0)
            continue;
        while (ReceiveDataAsyncRaw(ParserQueue->WriteConnectionHandle, &Header, Payload.data(),
                                   "BENCH") == 0) {
            Header.ReturnCode = 0;
            Header.RemoteSequenceNumber = 1;
            Header.DestHandle = ParserQueue->ReadConnectionHandle;
            Header.DataLength = 0;
            SendDataRaw(&Header, nullptr, "BENCH");
        }
    }
}

void StartService()
{
    char Template[] = "/tmp/zelbench.XXXXXX";
    Directory = mkdtemp(Template);
    BindTransportLibrary();
    ParserQueue = static_cast<PQUEUE>(calloc(1, sizeof(QUEUE)));
    ParserQueue->ReadConnectionHandle = OpenTransport((Directory + "/read").c_str());
    ParserQueue->WriteConnectionHandle = OpenTransport((Directory + "/write").c_str());
}

void Report(benchmark::State &State, std::vector<double> &Ms)
{
    std::sort(Ms.begin(), Ms.end());
    State.counters["median_ms"] = Ms[Ms.size() / 2];
    State.counters["p99_ms"] = Ms[Ms.size() * 99 / 100];
}

void BM_LogRequestThroughListener(benchmark::State &State)
{
    StartService();
    ManagerStop = false;
    Parser_Exiting = 0;
    ThreadCount = 3;
    pthread_t Listener;
    pthread_create(&Listener, nullptr, Listen, nullptr);
    std::thread Manager(ManagerLoop);
    unsigned char Payload[64];
    int Length = Tokenize(Payload, "%U%U%S", 208u, 6u, "hello");
    std::vector<double> Ms;
    for (auto _ : State) {
        auto Start = std::chrono::steady_clock::now();
        SendLogDataPacket(Payload, Length);
        Ms.push_back(std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() -
                                                               Start).count());
    }
    Parser_Exiting = 1;
    pthread_join(Listener, nullptr);
    ManagerStop = true;
    Manager.join();
    Report(State, Ms);
}

void BM_BareFrame(benchmark::State &State)
{
    StartService();
    ManagerStop = false;
    std::thread Manager(ManagerLoop);
    RZP_HEADER_PACKET Header = {};
    std::vector<unsigned char> Answer(RZP_MAX_PAYLOAD);
    std::vector<double> Ms;
    struct pollfd Fd = {ParserQueue->ReadConnectionHandle, POLLIN, 0};
    for (auto _ : State) {
        auto Start = std::chrono::steady_clock::now();
        Header.DestHandle = ParserQueue->WriteConnectionHandle;
        Header.opCode = RZP_LOG_DATA;
        Header.DataLength = 0;
        SendDataRaw(&Header, nullptr, "BENCH");
        while (ReceiveDataAsyncRaw(ParserQueue->ReadConnectionHandle, &Header, Answer.data(),
                                   "BENCH") != 0)
            poll(&Fd, 1, 100);
        Ms.push_back(std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() -
                                                               Start).count());
    }
    ManagerStop = true;
    Manager.join();
    Report(State, Ms);
}

} // namespace

BENCHMARK(BM_BareFrame)->Iterations(2000)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_LogRequestThroughListener)->Iterations(500)->Unit(benchmark::kMillisecond);
BENCHMARK_MAIN();
