#include <kor/kor.h>
#include <kor/trace.h>

#include <cstdio>

// Proves that the installed headers and library fit together: derives from both logic classes, which needs
// their virtual tables, and runs code from each room of the library.

namespace {

class Master : public kor::KorLogicServer {
public:
    void update() override { ++updates; }
    int updates = 0;
};

class Slave : public kor::KorLogicClient {
public:
    void applyData(kor::KorData*, double) override {}
};

bool recordsSurviveTheBuffer() {
    char bytes[64];
    kor::BufferWriter writer(bytes, sizeof bytes);
    kor::KorCoderBase::codeBegin(writer, 7);
    kor::KorCoderBase::codeEnd(writer);
    kor::BufferReader reader(bytes, static_cast<unsigned>(writer.tell()));
    int frame = 0;
    return kor::KorCoderBase::decodeBegin(reader, frame) && kor::KorCoderBase::decodeEnd(reader) &&
           frame == 7;
}

bool masterPacesFrames() {
    Master master;
    master.setFrameInterval(0.001);
    master.setFrameID(static_cast<int>(kor::jTimer::getTimeSecond() / master.getFrameInterval()));
    while (master.updates < 3)
        master.swap();
    return master.getFrameID() > 0;
}

bool slaveStartsWithoutMaster() {
    Slave slave;
    return !slave.isInit() && slave.getNumCache() == 0 && slave.getFrameID() == -1.0;
}

bool framesAreRecorded() {
    kor::Trace trace;
    kor::TracedMaster<Master> master(trace);
    kor::TracedSlave<Slave> slave(trace);
    if (!trace.begin({.process = "consumer"}))
        return false;
    master.swap();
    slave.wait(0);
    return trace.counts().recorded >= 2 && trace.write("/dev/null");
}

} // namespace

int main() {
    if (!recordsSurviveTheBuffer() || !masterPacesFrames() || !slaveStartsWithoutMaster() ||
        !framesAreRecorded()) {
        std::puts("consumer: failed");
        return 1;
    }
    std::puts("consumer: works");
    return 0;
}
