#include "Shader.h"

#include <epoxy/gl.h>

#include <cstdio>
#include <initializer_list>

namespace {

unsigned compile(unsigned kind, const char* source) {
    const unsigned shader = glCreateShader(kind);
    glShaderSource(shader, 1, &source, nullptr);
    glCompileShader(shader);
    int done = 0;
    glGetShaderiv(shader, GL_COMPILE_STATUS, &done);
    if (done == 0) {
        char reason[1024] = "";
        glGetShaderInfoLog(shader, sizeof reason, nullptr, reason);
        std::fprintf(stderr, "cannot compile a shader: %s\n", reason);
    }
    return shader;
}

} // namespace

unsigned linkProgram(const char* vertexShader, const char* fragmentShader) {
    const unsigned program = glCreateProgram();
    for (const unsigned shader :
         {compile(GL_VERTEX_SHADER, vertexShader), compile(GL_FRAGMENT_SHADER, fragmentShader)}) {
        glAttachShader(program, shader);
        glDeleteShader(shader); // goes with the program
    }
    glLinkProgram(program);
    int done = 0;
    glGetProgramiv(program, GL_LINK_STATUS, &done);
    if (done == 0) {
        glDeleteProgram(program);
        return 0;
    }
    return program;
}
