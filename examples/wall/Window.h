#pragma once

#include "Display.h"

#include <glm/glm.hpp>

#include <functional>
#include <memory>
#include <optional>
#include <string>

struct SDL_Window;

/// A window with OpenGL 3.3 in it, and the display's refresh that its picture waits for.
class Window {
public:
    struct Options {
        std::string title;
        std::optional<glm::ivec2> corner; ///< where the window manager puts it, unless given
        glm::ivec2 size{320, 240};
        bool fullScreen = false;
        double refreshRate = 0; ///< Hz; 0: what the display says, else 60
        double phase = 0;       ///< where its refreshes lie, 0 to 1, when it has none of its own
    };

    /// Null, and the reason on standard error, where there is no display or no OpenGL 3.3.
    static std::unique_ptr<Window> open(const Options& options);

    ~Window();
    Window(const Window&) = delete;
    Window& operator=(const Window&) = delete;

    /// Swaps the buffers, which lasts until the refresh. Returns the time of that refresh on the system's
    /// steady clock, in seconds.
    double present();

    /// Calls back for each key pressed, with its character.
    void handleEvents(const std::function<void(int)>& onKey);

    bool closed() const { return closed_; }
    double refreshRate() const { return refreshRate_; }
    glm::ivec2 pixels() const;
    SDL_Window* handle() const { return window_; }
    void* context() const { return context_; }

private:
    Window() = default;
    bool create(const Options& options);
    void findOutHowSwapsWait(double phase);

    SDL_Window* window_ = nullptr;
    void* context_ = nullptr;
    double refreshRate_ = 60;
    std::optional<Display> display_; // paces the swaps, where they do not wait by themselves
    bool closed_ = false;
};
