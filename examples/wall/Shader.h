#pragma once

/// Compiles and links a program of OpenGL. 0, and the reason on standard error, when that fails.
unsigned linkProgram(const char* vertexShader, const char* fragmentShader);
