#pragma once

#include "WallSlave.h"
#include "Window.h"

/// The figures of a slave on top of its picture. One per process.
class Overlay {
public:
    explicit Overlay(const Window& window);
    ~Overlay();
    Overlay(const Overlay&) = delete;
    Overlay& operator=(const Overlay&) = delete;

    void draw(WallSlave& slave);
};
