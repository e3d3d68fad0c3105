#include "WallSlave.h"

void WallSlave::applyData(kor::KorData* block, double weight) {
    if (!readFrame(block->data, block->size, received_)) {
        ++badFrames_;
        return;
    }
    captures_.keep(received_);
    if (weight == 1.0) {
        scene_ = received_.scene;
        mode_ = received_.mode;
        shown_.position = received_.id;
        block->applied = true; // in full, so it need not come again when its frame has passed
    } else if (mode_.interpolation) {
        blend(scene_, received_.scene, weight);
        shown_.position += (received_.id - shown_.position) * weight;
        shown_.weight = weight;
    }
}

kor::KorLogicClient::WAIT_RESULT WallSlave::wait(double timeout) {
    shown_.vsync = getFrameDeadlineExpected();
    shown_.weight = 0;
    shown_.result = KorLogicClient::wait(timeout);
    ++counts_[shown_.result];
    const MasterClock master = clock();
    shown_.refresh = master.known() ? (shown_.vsync + master.offset / 1000) / getFrameInterval() : -1;
    if (!mode_.lock)
        showNewest();
    return shown_.result;
}

// What a wall without a lock does: it draws whatever has come last.
void WallSlave::showNewest() {
    const kor::AtomicLock guard(getClient()->getLock());
    kor::KorData* newest = nullptr;
    for (kor::KorData& block : cache)
        if (!newest || block.frameID > newest->frameID)
            newest = &block;
    if (newest && readFrame(newest->data, newest->size, received_)) {
        captures_.keep(received_);
        scene_ = received_.scene;
        shown_.position = received_.id;
        shown_.weight = 0;
    }
}

bool WallSlave::sendKey(int character) {
    char bytes[16];
    kor::BufferWriter writer(bytes, sizeof bytes);
    const int record = kor::beginRecord(writer, kKeyRecord);
    writer.writeInt(character);
    kor::endRecord(writer, record);
    return getClient()->isConnected() && getClient()->sendAsyn(writer.getData(), writer.tell()) >= 0;
}

MasterClock WallSlave::clock() {
    MasterClock clock;
    if (const kor::RTUser* master = getClient()->getUser())
        clock = {master->getTimeOffset(), master->getTimeOffsetErrorBound(), master->getPing()};
    return clock;
}

void WallSlave::on_clear() {
    scene_ = WallScene();
    mode_ = WallMode();
    shown_ = ShownFrame();
    captures_.clear();
}
