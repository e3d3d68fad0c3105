#include "Window.h"

#include <epoxy/gl.h>
#include <SDL.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string_view>

namespace {

double steadySeconds() {
    return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count();
}

bool fail(const char* what) {
    std::fprintf(stderr, "kor-wall-slave: %s: %s\n", what, SDL_GetError());
    return false;
}

// SDL falls back to windows that nobody can see.
bool canBeSeen() {
    const std::string_view driver = SDL_GetCurrentVideoDriver();
    return (driver != "offscreen" && driver != "dummy") || std::getenv("SDL_VIDEODRIVER") != nullptr;
}

} // namespace

std::unique_ptr<Window> Window::open(const Options& options) {
    std::unique_ptr<Window> window(new Window);
    return window->create(options) ? std::move(window) : nullptr;
}

bool Window::create(const Options& options) {
    SDL_SetHint(SDL_HINT_NO_SIGNAL_HANDLERS, "1");
    if (SDL_Init(SDL_INIT_VIDEO) != 0)
        return fail("no display");
    if (!canBeSeen()) {
        SDL_SetError("neither DISPLAY nor WAYLAND_DISPLAY leads to one");
        return fail("no display");
    }
    SDL_GL_SetAttribute(SDL_GL_CONTEXT_PROFILE_MASK, SDL_GL_CONTEXT_PROFILE_CORE);
    SDL_GL_SetAttribute(SDL_GL_CONTEXT_MAJOR_VERSION, 3);
    SDL_GL_SetAttribute(SDL_GL_CONTEXT_MINOR_VERSION, 3);
    const glm::ivec2 corner = options.corner.value_or(glm::ivec2(static_cast<int>(SDL_WINDOWPOS_UNDEFINED)));
    unsigned flags = SDL_WINDOW_OPENGL | SDL_WINDOW_RESIZABLE;
    if (options.fullScreen)
        flags |= SDL_WINDOW_FULLSCREEN_DESKTOP;
    window_ =
        SDL_CreateWindow(options.title.c_str(), corner.x, corner.y, options.size.x, options.size.y, flags);
    if (!window_)
        return fail("no window with OpenGL");
    context_ = SDL_GL_CreateContext(window_);
    if (!context_ || epoxy_gl_version() < 33)
        return fail("no OpenGL 3.3");
    SDL_DisplayMode mode{};
    const int told = SDL_GetWindowDisplayMode(window_, &mode) == 0 ? mode.refresh_rate : 0;
    refreshRate_ = options.refreshRate > 0 ? options.refreshRate : told;
    if (refreshRate_ <= 0)
        refreshRate_ = 60;
    findOutHowSwapsWait(options.phase);
    return true;
}

// With vertical sync a swap waits for the refresh, unless there is no real display behind the window.
void Window::findOutHowSwapsWait(double phase) {
    SDL_GL_SetSwapInterval(1);
    const int swaps = 12;
    present();
    const double begin = steadySeconds();
    for (int i = 0; i < swaps; ++i) {
        glClear(GL_COLOR_BUFFER_BIT);
        present();
    }
    const double seconds = (steadySeconds() - begin) / swaps;
    const bool waits = seconds > 0.5 / refreshRate_;
    std::fprintf(stderr, "%s; a swap takes %.2f ms: %s %g Hz\n",
                 reinterpret_cast<const char*>(glGetString(GL_RENDERER)), seconds * 1000,
                 waits ? "it waits for the refresh of a display of"
                       : "it does not wait for a refresh, so this program keeps a rate of its own of",
                 refreshRate_);
    if (!waits)
        display_.emplace(refreshRate_, phase);
}

Window::~Window() {
    SDL_GL_DeleteContext(context_);
    SDL_DestroyWindow(window_);
    SDL_Quit();
}

double Window::present() {
    SDL_GL_SwapWindow(window_);
    glFinish(); // lets no frames queue up in the driver
    if (display_) {
        display_->waitForRefresh();
        return display_->lastRefresh();
    }
    return steadySeconds();
}

void Window::handleEvents(const std::function<void(int)>& onKey) {
    SDL_Event event;
    while (SDL_PollEvent(&event) != 0)
        if (event.type == SDL_QUIT)
            closed_ = true;
        else if (event.type == SDL_KEYDOWN && event.key.repeat == 0)
            onKey(event.key.keysym.sym);
}

glm::ivec2 Window::pixels() const {
    glm::ivec2 size{0};
    SDL_GL_GetDrawableSize(window_, &size.x, &size.y);
    return size;
}
