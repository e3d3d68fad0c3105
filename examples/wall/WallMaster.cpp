#include "WallMaster.h"

#include <algorithm>
#include <cmath>
#include <map>
#include <sstream>

namespace {

// An order comes with so many frames beyond its own, for slaves that were away in between.
constexpr int kOrderFrames = 60;
constexpr int kFarAhead = 3600; // frames

int keyIn(const kor::KorData& block) {
    kor::BufferReader reader(block.data, static_cast<unsigned>(block.size));
    return kor::openRecord(reader, kKeyRecord, 4) ? reader.readInt() : 0;
}

} // namespace

void WallMaster::update() {
    frame_.id = getFrameID() + lead_;
    if (!frozen_)
        time_ = frame_.id * getFrameInterval();
    if (frame_.id > orderUntil_)
        frame_.order.number = 0;
    animate(frame_.scene, time_, wall_);
    bytes_.resize(static_cast<std::size_t>(packetSize(frame_)));
    kor::BufferWriter writer(bytes_.data(), static_cast<int>(bytes_.size()));
    writeFrame(writer, frame_);
    server->send(writer.getData(), writer.tell());
}

int WallMaster::wait(double timeout) {
    if (server) {
        std::vector<int> keys;
        {
            const kor::AtomicLock endpoint(server->getLock());
            for (int i = 0; i < server->getClientCount(); ++i) {
                kor::Client* slave = server->getClientByIndex(i);
                const kor::AtomicLock mail(&slave->getLock());
                for (const kor::KorData& block : slave->getData())
                    keys.push_back(keyIn(block));
            }
        }
        for (const int character : keys)
            key(character);
    }
    return KorLogicServer::wait(timeout);
}

void WallMaster::key(int character) {
    switch (character) {
    case 'f':
        frozen_ = !frozen_;
        break;
    case 'l':
        frame_.mode.lock = !frame_.mode.lock;
        break;
    case 'i':
        frame_.mode.interpolation = !frame_.mode.interpolation;
        break;
    case 'o':
        frame_.mode.overlay = !frame_.mode.overlay;
        break;
    case 'p':
        frame_.mode.flash = !frame_.mode.flash;
        break;
    case 'c':
        capture("+30.5");
        break;
    default:
        break;
    }
}

std::string WallMaster::command(const std::string& line) {
    std::istringstream words(line);
    std::string verb;
    std::string argument;
    std::string surplus;
    words >> verb >> argument;
    if (words >> surplus)
        return "'" + line + "' has a word too many";
    if (verb == "capture")
        return capture(argument.empty() ? "+30" : argument);
    const std::map<std::string, bool*> switches = {{"lock", &frame_.mode.lock},
                                                   {"interpolation", &frame_.mode.interpolation},
                                                   {"overlay", &frame_.mode.overlay},
                                                   {"flash", &frame_.mode.flash},
                                                   {"freeze", &frozen_}};
    const auto target = switches.find(verb);
    if (target == switches.end())
        return "no such command: '" + line + "'";
    if (argument != "on" && argument != "off")
        return "'" + line + "': on or off?";
    *target->second = argument == "on";
    return {};
}

std::string WallMaster::capture(const std::string& when) {
    std::istringstream number(when);
    double position = 0;
    if (!(number >> position) || !number.eof() || !std::isfinite(position) || position < 0)
        return "'" + when + "' is not a frame position";
    if (when.front() == '+')
        position += getFrameID();
    if (position > getFrameID() + kFarAhead)
        return "'" + when + "' is more than " + std::to_string(kFarAhead) + " frames ahead";
    frame_.order = {++captureNumber_, position};
    orderUntil_ = std::max(getFrameID(), static_cast<int>(position)) + lead_ + kOrderFrames;
    return {};
}
