#include "tests/unit/EndpointFixture.h"

#include "support/Tracked.h"
#include <kor/KorLogicServer.h>
#include <kor/KorServer.h>
#include <support/memInfo.h>

#include <FuzzedDataProvider.h>

#include <cstdio>
#include <cstdlib>

// A master's slaves come, go and send whatever they like.

namespace {

using namespace kor;

struct Master : KorLogicServer {
    using KorLogicServer::server;
    void update() override {}
};

void event(RTUserHandler& server, FuzzedDataProvider& input) {
    const RTAddr addr(0x0A000001, static_cast<std::uint16_t>(input.ConsumeIntegralInRange(1, 4)));
    switch (input.ConsumeIntegralInRange(0, 7)) {
    case 0:
        return server.onReConnect(addr);
    case 1:
        return server.onDisConnect(addr);
    case 2:
        return server.onConnectLost(addr);
    case 3:
        return server.onConnect(addr, false);
    default:
        return server.onConnect(addr, true);
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static const bool quiet = std::freopen("/dev/null", "w", stdout) != nullptr;
    if (!quiet)
        return 0;
    jLog::setHandler([](LogLevel, const char*) {});
    FuzzedDataProvider input(data, size);
    {
        Master master;
        auto* server = detail::makeTracked<KorServer>("fuzz", __LINE__, "fuzz");
        master.server = server;
        server->setHandler(&master);
        for (int step = 0; step != 64 && input.remaining_bytes() != 0; ++step) {
            if (input.ConsumeBool())
                event(*server, input);
            const int index = input.ConsumeIntegralInRange(0, 3);
            if (Client* client = server->getClientByIndex(index)) {
                const std::string bytes = input.ConsumeRandomLengthString(512);
                testing_support::deliver(*client, nullptr, bytes);
            }
            if (input.ConsumeBool())
                master.wait(0);
            const int slaves = master.getNumSlaves();
            for (int i = 0; i != slaves; ++i)
                if (master.getSlave(i) == nullptr || !master.isSlaveExist(master.getSlave(i)->addr))
                    std::abort();
        }
    }
    if (memReport().liveBlocks != 0)
        std::abort();
    return 0;
}
