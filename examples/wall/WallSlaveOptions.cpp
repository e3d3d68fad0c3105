#include "WallSlaveOptions.h"

#include "Arguments.h"
#include "WallFrame.h"

#include <cstdio>
#include <sstream>

namespace {

// name=x,y,width,height
std::optional<Camera> cameraFrom(const std::string& text) {
    Camera camera;
    const std::size_t equals = text.find('=');
    if (equals == 0 || equals == std::string::npos || text.find('/') < equals) // it names files, too
        return std::nullopt;
    camera.name = text.substr(0, equals);
    std::istringstream numbers(text.substr(equals + 1));
    char commas[3] = {};
    numbers >> camera.corner.x >> commas[0] >> camera.corner.y >> commas[1] >> camera.size.x >> commas[2] >>
        camera.size.y;
    const bool sound = numbers && numbers.peek() == EOF && std::string(commas, 3) == ",,,";
    const int most = 1 << 16;
    const bool fits = camera.corner.x >= -most && camera.corner.x <= most && camera.corner.y >= -most &&
                      camera.corner.y <= most && camera.size.x > 0 && camera.size.x <= 8192 &&
                      camera.size.y > 0 && camera.size.y <= 8192;
    return sound && fits ? std::optional(camera) : std::nullopt;
}

struct Texts {
    std::vector<std::string> cameras;
    std::vector<int> window;
    std::vector<int> size;
};

void addWindowOptions(CLI::App& app, WallSlaveOptions& options, Texts& texts) {
    app.add_option(
        "--camera", texts.cameras,
        "part of the wall to draw, NAME=X,Y,WIDTH,HEIGHT in pixels of the wall from its upper left "
        "corner; repeat it for several");
    app.add_option("--window", texts.window, "position of the window on the screen, X,Y")
        ->delimiter(',')
        ->expected(2);
    app.add_option("--size", texts.size,
                   "size of the window, W,H; as large as its cameras' part unless given")
        ->delimiter(',')
        ->expected(2)
        ->check(numberIn(16, 8192));
    app.add_flag("--full-screen", options.fullScreen, "cover the screen that --window lies on");
    app.add_option("--refresh", options.refresh, "refresh rate of the display, Hz; 0: what the display says")
        ->check(numberIn(0.0, 1000.0))
        ->capture_default_str();
    app.add_option("--phase", options.phase,
                   "where in the interval refreshes lie, 0 to 1, when swaps do not wait for any")
        ->check(numberIn(0.0, 1.0))
        ->capture_default_str();
    app.add_option("--pictures", options.pictures, "folder for the pictures that the master orders")
        ->check(CLI::ExistingDirectory)
        ->capture_default_str();
}

void describe(CLI::App& app, WallSlaveOptions& options, Texts& texts) {
    app.description("Slave of a wall of windows: draws its part of kor-wall-master's scene, locked to it.");
    app.footer("The left third of the master's default wall:\n"
               "  kor-wall-slave --name left --camera left=0,0,320,240\n\n"
               "Keys in the window, for the whole wall: " +
               std::string(kWallKeys) +
               "\n\nExit status: 0 done, 1 fault while running, 2 bad arguments, 3 a port cannot be opened.");
    addSlaveOptions(app, options);
    addWindowOptions(app, options, texts);
    addRunOptions(app, options, " that the master counts in", "stopped or closed", "what happens");
}

int complain(const char* format, const std::string& what) {
    std::fprintf(stderr, format, what.c_str());
    return kExitUsage;
}

int takeTexts(const Texts& texts, WallSlaveOptions& options) {
    for (const std::string& text : texts.cameras) {
        const std::optional<Camera> camera = cameraFrom(text);
        if (!camera)
            return complain("--camera: '%s' is not NAME=X,Y,WIDTH,HEIGHT\n", text);
        options.cameras.push_back(*camera);
    }
    if (options.cameras.empty())
        return complain("a slave needs at least one camera: %s\n", "--camera NAME=X,Y,WIDTH,HEIGHT");
    if (!texts.window.empty())
        options.window = {texts.window[0], texts.window[1]};
    if (!texts.size.empty())
        options.size = {texts.size[0], texts.size[1]};
    return -1;
}

} // namespace

int parseWallSlaveOptions(int argc, char** argv, WallSlaveOptions& options) {
    CLI::App app;
    Texts texts;
    describe(app, options, texts);
    const int status = parse(app, argc, argv);
    return status < 0 ? takeTexts(texts, options) : status;
}
