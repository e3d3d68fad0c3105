// The least that a master does: 60 times a second it tells all slaves where a ball is.
#include <kor/kor.h>

#include <cmath>

class Master : public kor::KorLogicServer {
public:
    // Called by swap() once per frame. What it sends is for a frame a little ahead, so that every slave has
    // it in time.
    void update() override {
        const int lead = 2;
        const int frame = getFrameID() + lead;
        const double time = frame * getFrameInterval();

        char bytes[256];
        kor::BufferWriter writer(bytes, sizeof bytes);
        kor::KorCoderBase::codeBegin(writer, frame);
        const int record = kor::beginRecord(writer, 20); // codes above 6 are ours
        kor::KorKit::writeDVec3(writer, {std::sin(time), std::cos(time), 0});
        kor::endRecord(writer, record);
        kor::KorCoderBase::codeEnd(writer);
        server->send(writer.getData(), writer.tell());
    }
};

int main() {
    Master master;
    // Announce at 127.255.255.255:7100 (this machine), from port 7200, that slaves may connect to port 7300.
    if (!master.init("127.255.255.255", 7100, 7200, 7300))
        return 1;
    // Frames are counted on the clock: begin with the present one instead of with all that have passed.
    master.setFrameID(static_cast<int>(kor::jTimer::getTimeSecond() / master.getFrameInterval()));
    for (;;)
        master.swap(); // waits for the next frame and calls update()
}
