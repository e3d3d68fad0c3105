#include "tests/unit/EndpointFixture.h"

#include "support/Tracked.h"
#include <kor/KorLogicClient.h>
#include <support/memInfo.h>

#include <FuzzedDataProvider.h>

#include <cstdlib>

// A slave's frame data from a hostile master: blocks of any bytes, at any position of the frame clock.

namespace {

using namespace kor;

struct Slave : KorLogicClient {
    using KorLogicClient::client;
    unsigned sum = 0;

    void applyData(KorData* block, double weight) override {
        if (!(weight > 0.0) || weight > 1.0)
            std::abort();
        for (int i = 0; i != block->size; ++i)
            sum += block->data[i];
    }
};

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    jLog::setHandler([](LogLevel, const char*) {});
    FuzzedDataProvider input(data, size);
    {
        testing_support::FakeUser user{RTAddr(0x0A000001, 7000)};
        user.offset = 0;
        Slave slave;
        slave.client = detail::makeTracked<KorClient>("fuzz", __LINE__, "fuzz");
        detail::KorClientAccess::setUser(*slave.client, &user);
        for (int step = 0; step != 16 && input.remaining_bytes() != 0; ++step) {
            for (int blocks = input.ConsumeIntegralInRange(0, 4); blocks != 0; --blocks) {
                const std::string bytes = input.ConsumeRandomLengthString(512);
                testing_support::deliver(*slave.client, &user, bytes);
            }
            if (input.ConsumeBool())
                user.offset = input.ConsumeFloatingPoint<double>();
            slave.setFrameDeadlineExpected(input.ConsumeBool() ? input.ConsumeFloatingPoint<double>()
                                                               : input.ConsumeIntegralInRange(0, 10) / 60.0);
            slave.wait(0);
        }
        detail::KorClientAccess::setUser(*slave.client, nullptr);
    }
    if (memReport().liveBlocks != 0)
        std::abort();
    return 0;
}
