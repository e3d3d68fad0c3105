// A master for the cluster tests: sends numbered frames, reports what it sees, does as it is told.

#include "Console.h"
#include "Frame.h"

#include <kor/kor.h>

#include <chrono>
#include <cstdlib>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

namespace {

kor::jVector<unsigned short> ports(const std::string& list) {
    kor::jVector<unsigned short> result;
    std::istringstream words(list);
    for (std::string word; std::getline(words, word, ',');) {
        result.push_back(static_cast<unsigned short>(std::atoi(word.c_str())));
    }
    return result;
}

class Master : public kor::KorLogicServer {
public:
    explicit Master(const Console& console)
        : broadcast_(console.argument("broadcast", "127.255.255.255")),
          announcePorts_(ports(console.argument("announce", ""))),
          bindPorts_(ports(console.argument("bind", ""))),
          dataPorts_(ports(console.argument("data", ""))),
          lead_(static_cast<int>(console.number("lead", 3))),
          spin_(console.number("spin", 0) != 0),
          payload_(static_cast<int>(console.number("payload", 200))),
          timeout_(static_cast<unsigned int>(console.number("timeout", 2000))) {}

    void open() {
        const bool opened = init(broadcast_.c_str(), announcePorts_, bindPorts_, dataPorts_);
        if (opened) {
            server->getNet()->setTimeoutTime(timeout_);
        }
        Console::report(ReportLine("init").add("result", static_cast<long long>(opened)));
    }

    void close() { release(); }

    /// One pass of the frame loop.
    void step() {
        if (!server) {
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
            return;
        }
        const double interval = getFrameInterval();
        const int present = static_cast<int>(kor::jTimer::getTimeSecond() / interval);
        if (present - getFrameID() > 60) {
            setFrameID(present);
        }
        // swap() spins up to the boundary, and tests want the processor for others as well.
        const double left = (getFrameID() + 1) * interval - kor::jTimer::getTimeSecond() - 0.002;
        if (!spin_ && left > 0) {
            std::this_thread::sleep_for(std::chrono::duration<double>(left));
        }
        swap();
    }

    void update() override {
        const int payload = once_ >= 0 ? once_ : payload_;
        once_ = -1;
        writeFrame(bytes_, getFrameID() + lead_, number_, payload);
        if (server->send(bytes_.data(), static_cast<int>(bytes_.size()))) {
            ++number_;
        }
    }

    void obey(const std::vector<std::string>& command) {
        const int value = command.size() > 1 ? std::atoi(command[1].c_str()) : 0;
        if (command[0] == "payload") { // of every frame
            payload_ = value;
        } else if (command[0] == "once") { // of the next frame alone
            once_ = value;
        } else if (command[0] == "raw") { // bytes that are no frame at all
            const std::vector<std::uint8_t> bytes(static_cast<std::size_t>(value) + 1, 0x41);
            server->send(bytes.data(), value);
        }
    }

    void reportStatus() {
        ReportLine line("status");
        line.add("zero", clockZero()).add("frame", static_cast<long long>(getFrameID()));
        line.add("interval", getFrameInterval()).add("sent", number_);
        std::string names;
        std::string reports;
        long long introduced = 0;
        for (int i = 0; i < getNumSlaves(); ++i) {
            const Slave* slave = getSlave(i);
            if (slave && slave->isInit && slave->client) {
                ++introduced;
                names += std::string(slave->client->getName()) + ",";
                reports += std::to_string(slave->client->getIDCheck()) + ",";
            }
        }
        line.add("slaves", static_cast<long long>(getNumSlaves())).add("introduced", introduced);
        line.add("names", names).add("reports", reports);
        addNetwork(line);
        addProcess(line);
        Console::reportIfRoom(line);
    }

private:
    void addNetwork(ReportLine& line) {
        if (!server || !server->getNet()) {
            return;
        }
        const kor::NetStatistics net = server->getNet()->getStatistics();
        const kor::MalformedCounters& bad = net.malformed;
        line.add("malformed", static_cast<long long>(bad.tooShort + bad.checksum + bad.unknownKind +
                                                     bad.badFrame + bad.unknownConnection));
    }

    std::string broadcast_;
    kor::jVector<unsigned short> announcePorts_;
    kor::jVector<unsigned short> bindPorts_;
    kor::jVector<unsigned short> dataPorts_;
    int lead_;
    bool spin_;
    int payload_;
    unsigned int timeout_; // milliseconds
    int once_ = -1;
    long long number_ = 0;
    std::vector<std::uint8_t> bytes_;
};

} // namespace

int main(int argc, char** argv) {
    return runNode<Master>(argc, argv);
}
