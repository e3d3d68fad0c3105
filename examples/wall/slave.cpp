// kor-wall-slave: draws its part of the wall in a window, locked to kor-wall-master.

#include "Overlay.h"
#include "PictureOutput.h"
#include "Program.h"
#include "Renderer.h"
#include "WallSlave.h"
#include "WallSlaveOptions.h"
#include "Window.h"

#include <cmath>
#include <cstdio>

namespace {

/// Slave, window and what is drawn into it.
class WallWindow {
public:
    WallWindow(const WallSlaveOptions& options, WallSlave& slave, Window& window, Report& report)
        : options_(options),
          slave_(slave),
          window_(window),
          overlay_(window),
          output_(options.pictures, report),
          part_(around(options.cameras)) {}

    /// Draws, presents, and lets the slave choose what comes next.
    void frame() {
        const ShownFrame shown = slave_.shown();
        drawAll(shown);
        const std::vector<Held> held = takeShown(shown);
        if (slave_.mode().overlay)
            overlay_.draw(slave_);
        slave_.swapBegin(true);
        const double refresh = window_.present();
        slave_.swapEnd(true);

        for (const Held& picture : held)
            saveShown(picture, shown, refresh);
        for (const Captures::Exact& exact : slave_.captures().takeExact())
            saveExact(exact);
        for (const std::string& text : slave_.captures().takeComplaints())
            output_.complain(text);
    }

    bool failed() const { return output_.failed(); }

private:
    struct Held { // read before it was presented; saved after
        CaptureOrder order;
        const Camera* camera;
        Picture picture;
    };

    // Where the camera's picture lies in the window, whatever size that has by now.
    glm::ivec4 viewportOf(const Camera& camera) const {
        const glm::dvec2 scale = glm::dvec2(window_.pixels()) / glm::dvec2(part_.size);
        const glm::ivec2 low = glm::round(glm::dvec2(camera.corner - part_.corner) * scale);
        const glm::ivec2 high = glm::round(glm::dvec2(camera.corner + camera.size - part_.corner) * scale);
        return {low.x, window_.pixels().y - high.y, high.x - low.x, high.y - low.y};
    }

    void draw(const WallScene& scene, double position, const Camera& camera, const glm::ivec4& viewport) {
        const int number = position < 0 ? -1 : static_cast<int>(position);
        if (slave_.mode().flash && number >= 0)
            Renderer::drawFlash(number, viewport);
        else
            renderer_.draw(scene, camera, number, viewport);
    }

    void drawAll(const ShownFrame& shown) {
        for (const Camera& camera : options_.cameras)
            draw(slave_.scene(), shown.position, camera, viewportOf(camera));
    }

    std::vector<Held> takeShown(const ShownFrame& shown) {
        std::vector<Held> held;
        while (const auto order = slave_.captures().nextShown(shown.refresh))
            for (const Camera& camera : options_.cameras)
                held.push_back({*order, &camera, readPicture(viewportOf(camera))});
        return held;
    }

    PictureText texts(double position, double weight, double clock) {
        const MasterClock master = slave_.clock();
        return {{"position", std::to_string(position)},
                {"weight", std::to_string(weight)},
                {"clock", std::to_string(clock)},
                {"clock-bound-ms", std::to_string(master.bound)},
                {"lock", slave_.mode().lock ? "on" : "off"},
                {"interpolation", slave_.mode().interpolation ? "on" : "off"}};
    }

    void saveExact(const Captures::Exact& exact) {
        for (const Camera& camera : options_.cameras) {
            const Picture picture = drawPicture(camera.size, [&] {
                draw(exact.scene, exact.order.position, camera, {0, 0, camera.size.x, camera.size.y});
            });
            PictureText text =
                texts(exact.order.position, exact.weight, exact.order.position * slave_.getFrameInterval());
            text.emplace_back("frames", std::to_string(exact.earlier) + " " + std::to_string(exact.later));
            output_.save(exact.order, "exact", camera, picture, text);
        }
    }

    void saveShown(const Held& held, const ShownFrame& shown, double refresh) {
        PictureText text = texts(shown.position, shown.weight, shown.refresh * slave_.getFrameInterval());
        text.emplace_back("vsync", std::to_string(shown.vsync + kor::jTimer::getZeroOnSystemClock()));
        text.emplace_back("refresh", std::to_string(refresh));
        text.emplace_back("result", resultName(shown.result));
        output_.save(held.order, "shown", *held.camera, held.picture, text);
    }

    const WallSlaveOptions& options_;
    WallSlave& slave_;
    Window& window_;
    Renderer renderer_;
    Overlay overlay_;
    PictureOutput output_;
    Camera part_; // of the wall that is in this window
};

Window::Options windowOptions(const WallSlaveOptions& options) {
    return {options.name,       options.window,  options.size.value_or(around(options.cameras).size),
            options.fullScreen, options.refresh, options.phase};
}

bool open(WallSlave& slave, const WallSlaveOptions& options) {
    kor::jVector<kor::jString> cameras;
    for (const Camera& camera : options.cameras)
        cameras.push_back(kor::jString(camera.name));
    return slave.init(options.announcePort, options.port, kor::jString(options.name), cameras);
}

void tellStatus(WallSlave& slave, Report& report, double now, const WallSlaveOptions& options) {
    using Slave = kor::KorLogicClient;
    const MasterClock clock = slave.clock();
    report.add({{"type", "status"},
                {"time", now},
                {"position", slave.getFrameID()},
                {"lerp", slave.count(Slave::WAIT_LERP)},
                {"hit", slave.count(Slave::WAIT_HIT)},
                {"over_hit", slave.count(Slave::WAIT_OVER_HIT)},
                {"none", slave.count(Slave::WAIT_NONE)},
                {"bad_frames", slave.badFrames()}});
    if (!options.quiet) {
        std::printf("%s: position %.3f  %s  clock offset %.3f ms +- %.3f\n", options.name.c_str(),
                    slave.getFrameID(), resultName(slave.shown().result), clock.known() ? clock.offset : 0.0,
                    clock.bound);
        std::fflush(stdout);
    }
}

} // namespace

int main(int argc, char** argv) {
    WallSlaveOptions options;
    if (const int status = parseWallSlaveOptions(argc, argv, options); status >= 0)
        return status;
    Report report;
    if (!beginProgram(options, report))
        return kExitFailed;
    const std::unique_ptr<Window> window = Window::open(windowOptions(options));
    if (!window)
        return kExitFailed;

    WallSlave slave;
    slave.setShowLog(options.verbose);
    slave.setFrameInterval(1 / options.rate);
    // swapEnd() expects the next refresh one frame less this margin after the last one. Where the display
    // refreshes at another rate than frames are counted in, the margin makes up the difference.
    slave.setUnstableError(
        static_cast<float>(1 / options.rate - 1 / window->refreshRate() + options.marginMs / 1000));
    if (!open(slave, options)) {
        std::fprintf(stderr, "kor-wall-slave: cannot start, see above\n");
        return kExitPortsInUse;
    }
    report.add({{"type", "header"},
                {"role", "wall-slave"},
                {"name", options.name},
                {"zero", kor::jTimer::getZeroOnSystemClock()}});

    WallWindow wall(options, slave, *window, report);
    const double start = kor::jTimer::getTimeSecond();
    double statusDue = start + 1;
    bool quit = false;
    bool reported = true;
    while (!quit && !window->closed() && !stopRequested() && reported) {
        wall.frame();
        window->handleEvents([&](int key) {
            quit = quit || key == 'q';
            slave.sendKey(key);
        });
        const double now = kor::jTimer::getTimeSecond();
        if (now >= statusDue) {
            statusDue = now + 1;
            tellStatus(slave, report, now, options);
        }
        reported = report.flushIfDue(now);
        quit = quit || (options.seconds > 0 && now - start >= options.seconds);
    }
    slave.getClient()->release();
    report.add({{"type", "end"}, {"closed", window->closed() || quit}});
    return report.flush() && reported && !wall.failed() ? kExitDone : kExitFailed;
}
