#include "Picture.h"

#include <epoxy/gl.h>
#include <png.h>

#include <algorithm>
#include <cerrno>
#include <csetjmp>
#include <cstdio>
#include <cstring>
#include <fstream>

namespace {

void append(png_structp png, png_bytep bytes, std::size_t count) {
    auto* file = static_cast<std::string*>(png_get_io_ptr(png));
    file->append(reinterpret_cast<const char*>(bytes), count);
}

// libpng leaves by longjmp when it fails, so nothing here may need a destructor.
bool encode(const glm::ivec2& size, png_bytepp rows, png_textp texts, int textCount, std::string& file) {
    png_structp png = png_create_write_struct(PNG_LIBPNG_VER_STRING, nullptr, nullptr, nullptr);
    png_infop info = png ? png_create_info_struct(png) : nullptr;
    if (!info || setjmp(png_jmpbuf(png)) != 0) {
        png_destroy_write_struct(&png, &info);
        return false;
    }
    png_set_write_fn(png, &file, append, nullptr);
    png_set_compression_level(png, 1); // the next refresh is near
    png_set_IHDR(png, info, static_cast<png_uint_32>(size.x), static_cast<png_uint_32>(size.y), 8,
                 PNG_COLOR_TYPE_RGB, PNG_INTERLACE_NONE, PNG_COMPRESSION_TYPE_DEFAULT,
                 PNG_FILTER_TYPE_DEFAULT);
    png_set_text(png, info, texts, textCount);
    png_write_info(png, info);
    png_write_image(png, rows);
    png_write_end(png, info);
    png_destroy_write_struct(&png, &info);
    return true;
}

std::string write(const std::string& path, const std::string& bytes) {
    errno = 0;
    std::ofstream file(path, std::ios::binary | std::ios::trunc);
    const bool opened = file.is_open();
    file.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
    file.close();
    if (file)
        return {};
    const std::string reason = errno != 0 ? std::strerror(errno) : "unknown error";
    if (opened)
        std::remove(path.c_str());
    return "cannot write " + path + ": " + reason;
}

} // namespace

Picture readPicture(const glm::ivec4& viewport) {
    Picture picture;
    picture.size = {viewport.z, viewport.w};
    const std::size_t row = static_cast<std::size_t>(viewport.z) * 3;
    std::vector<unsigned char> fromBelow(row * static_cast<std::size_t>(viewport.w));
    glPixelStorei(GL_PACK_ALIGNMENT, 1);
    glReadPixels(viewport.x, viewport.y, viewport.z, viewport.w, GL_RGB, GL_UNSIGNED_BYTE, fromBelow.data());
    for (std::size_t end = fromBelow.size(); end > 0; end -= row) {
        picture.pixels.insert(picture.pixels.end(),
                              fromBelow.begin() + static_cast<std::ptrdiff_t>(end - row),
                              fromBelow.begin() + static_cast<std::ptrdiff_t>(end));
    }
    return picture;
}

Picture drawPicture(const glm::ivec2& size, const std::function<void()>& draw) {
    unsigned target = 0;
    unsigned buffers[2] = {};
    glGenFramebuffers(1, &target);
    glGenRenderbuffers(2, buffers);
    glBindFramebuffer(GL_FRAMEBUFFER, target);
    glBindRenderbuffer(GL_RENDERBUFFER, buffers[0]);
    glRenderbufferStorage(GL_RENDERBUFFER, GL_RGBA8, size.x, size.y);
    glFramebufferRenderbuffer(GL_FRAMEBUFFER, GL_COLOR_ATTACHMENT0, GL_RENDERBUFFER, buffers[0]);
    glBindRenderbuffer(GL_RENDERBUFFER, buffers[1]);
    glRenderbufferStorage(GL_RENDERBUFFER, GL_DEPTH_COMPONENT24, size.x, size.y);
    glFramebufferRenderbuffer(GL_FRAMEBUFFER, GL_DEPTH_ATTACHMENT, GL_RENDERBUFFER, buffers[1]);
    draw();
    Picture picture = readPicture({0, 0, size.x, size.y});
    glBindFramebuffer(GL_FRAMEBUFFER, 0);
    glDeleteRenderbuffers(2, buffers);
    glDeleteFramebuffers(1, &target);
    return picture;
}

std::string savePng(const std::string& path, const Picture& picture, const PictureText& text) {
    std::vector<unsigned char> pixels = picture.pixels; // libpng wants them writable
    std::vector<png_bytep> rows;
    rows.reserve(static_cast<std::size_t>(picture.size.y));
    for (int y = 0; y < picture.size.y; ++y) {
        rows.push_back(pixels.data() +
                       static_cast<std::size_t>(y) * static_cast<std::size_t>(picture.size.x) * 3);
    }
    PictureText words = text;
    std::vector<png_text> texts;
    texts.reserve(words.size());
    for (auto& [keyword, value] : words) {
        png_text entry{};
        entry.compression = PNG_TEXT_COMPRESSION_NONE;
        entry.key = keyword.data();
        entry.text = value.data();
        entry.text_length = value.size();
        texts.push_back(entry);
    }
    std::string bytes;
    if (!encode(picture.size, rows.data(), texts.data(), static_cast<int>(texts.size()), bytes))
        return "cannot encode " + path;
    return write(path, bytes);
}
