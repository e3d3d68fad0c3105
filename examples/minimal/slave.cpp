// The least that a slave does: it shows where the ball is at the moment of its display's next refresh.
#include <kor/kor.h>

#include <cstdio>

class Slave : public kor::KorLogicClient {
public:
    // Called inside swapEnd(): with weight 1 for the frame before the refresh, then with a smaller weight for
    // the one after it, which tells how far to go from the one to the other.
    void applyData(kor::KorData* block, double weight) override {
        kor::BufferReader reader(block->data, static_cast<unsigned>(block->size));
        do {
            if (kor::openRecord(reader, 20, 24)) {
                const kor::dvec3 next = kor::KorKit::readDVec3(reader);
                ball.x += (next.x - ball.x) * weight;
                ball.y += (next.y - ball.y) * weight;
                return;
            }
        } while (kor::skipRecord(reader));
    }
    kor::dvec3 ball;
};

int main() {
    Slave slave;
    // Listen on port 7100, connect from any free port, and be known as node-a with one camera.
    if (!slave.init(7100, 0, "node-a", {"left"}))
        return 1;
    for (;;) {
        std::printf("frame %9.2f   ball %+.4f %+.4f\n", slave.getFrameID(), slave.ball.x, slave.ball.y);
        slave.swapBegin(true);
        kor::jKit::sleep(10); // a renderer swaps its buffers here, which lasts until the refresh
        slave.swapEnd(true);
    }
}
