#include "tests/unit/EndpointFixture.h"

#include <kor/Client.h>
#include <support/memInfo.h>

#include <cstdio>
#include <cstdlib>

// The first packet of a hostile slave: what the master keeps of it never exceeds what was sent.

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using namespace kor;
    static const bool quiet = std::freopen("/dev/null", "w", stdout) != nullptr;
    jLog::setHandler([](LogLevel, const char*) {});
    if (size == 0 || !quiet)
        return 0;
    {
        testing_support::FakeUser user{RTAddr(0x0A000001, 7000)};
        Client client;
        client.setUser(&user);
        const std::string_view bytes(reinterpret_cast<const char*>(data), size);
        testing_support::deliver(client, &user, bytes);
        testing_support::deliver(client, &user, bytes);
        std::size_t kept = client.getName().size();
        for (const jString& camera : client.getCamNames())
            kept += camera.size() + 1;
        if (kept > size || (client.isInit() && client.getData().count != 0))
            std::abort();
        client.clearData();
        client.release();
    }
    if (memReport().liveBlocks != 0)
        std::abort();
    return 0;
}
