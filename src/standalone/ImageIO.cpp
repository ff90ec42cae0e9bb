// PNG and OpenEXR writers of rendered images, through a temporary file renamed into place.
#include "standalone/ImageIO.h"

#include <Imath/half.h>
#include <ImfChannelList.h>
#include <ImfFrameBuffer.h>
#include <ImfHeader.h>
#include <ImfOutputFile.h>
#include <png.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cctype>
#include <cmath>
#include <csetjmp>
#include <cstdio>
#include <cstring>
#include <exception>
#include <vector>

#include "foundation/sys/FileAccess.h"

namespace vaporix {

namespace {

/// A name beside `path` that no other writer of this process or another uses.
std::string temporaryName(const std::string& path) {
    static std::atomic<unsigned> counter{0};
    return path + ".tmp" + std::to_string(getpid()) + "_" + std::to_string(counter.fetch_add(1));
}

/// "<path>: cannot be written", with the system's reason when there is one.
std::string cannotWrite(const std::string& path, int err) {
    return path + ": cannot be written" + (err ? std::string(": ") + std::strerror(err) : "");
}

/// Moves the finished temporary file into place, or removes it after a failure.
bool finish(const std::string& temp, const std::string& path, bool ok, std::string& error) {
    if (ok && !sys::renamePath(temp, path)) {
        error = cannotWrite(path, errno);
        ok = false;
    }
    if (!ok) ::unlink(temp.c_str());
    return ok;
}

bool validImage(const Image& image, std::string& error) {
    const size_t n = image.pixelCount();
    if (image.width < 1 || image.height < 1 || image.rgba.size() != 4 * n ||
        image.volume.size() != 3 * n || image.transmittance.size() != 3 * n) {
        error = "the image is empty";
        return false;
    }
    return true;
}

uint8_t toByte(float linear, bool applyGamma) {
    if (!(linear > 0.0f)) return 0;  // NaN too
    if (linear >= 1.0f) return 255;
    const float v = applyGamma ? std::pow(linear, 1.0f / PNG_GAMMA) : linear;
    return static_cast<uint8_t>(std::lround(v * 255.0f));
}

/// Error callback of libpng: back to the setjmp point of the write.
void pngError(png_structp png, png_const_charp /*message*/) { png_longjmp(png, 1); }
void pngWarning(png_structp, png_const_charp) {}

/// The libpng calls of one write. Kept free of objects with destructors, since an error
/// leaves it through longjmp.
bool writePngRows(FILE* file, int width, int height, png_bytep* rows) {
    png_structp png = png_create_write_struct(PNG_LIBPNG_VER_STRING, nullptr, pngError, pngWarning);
    if (!png) return false;
    png_infop info = png_create_info_struct(png);
    if (!info) {
        png_destroy_write_struct(&png, nullptr);
        return false;
    }
    if (setjmp(png_jmpbuf(png))) {
        png_destroy_write_struct(&png, &info);
        return false;
    }
    png_init_io(png, file);
    png_set_IHDR(png, info, static_cast<png_uint_32>(width), static_cast<png_uint_32>(height), 8,
                 PNG_COLOR_TYPE_RGBA, PNG_INTERLACE_NONE, PNG_COMPRESSION_TYPE_DEFAULT,
                 PNG_FILTER_TYPE_DEFAULT);
    // The file says which gamma its values carry, so that viewers show them right.
    png_set_gAMA(png, info, 1.0 / PNG_GAMMA);
    png_write_info(png, info);
    png_write_image(png, rows);
    png_write_end(png, info);
    png_destroy_write_struct(&png, &info);
    return true;
}

std::string extensionOf(const std::string& path) {
    const size_t dot = path.find_last_of('.');
    const size_t slash = path.find_last_of('/');
    if (dot == std::string::npos || (slash != std::string::npos && dot < slash)) return "";
    std::string ext = path.substr(dot + 1);
    for (char& c : ext) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    return ext;
}

}  // namespace

bool writePng(const std::string& path, const Image& image, std::string& error, bool opaque) {
    if (!validImage(image, error)) return false;
    std::vector<uint8_t> bytes;
    std::vector<png_bytep> rows;
    try {
        bytes.resize(image.pixelCount() * 4);
        rows.resize(static_cast<size_t>(image.height));
    } catch (const std::bad_alloc&) {
        error = "out of memory";
        return false;
    }
    for (size_t i = 0; i < image.pixelCount(); ++i) {
        for (int c = 0; c < 3; ++c) bytes[4 * i + c] = toByte(image.rgba[4 * i + c], true);
        bytes[4 * i + 3] = opaque ? 255 : toByte(image.rgba[4 * i + 3], false);
    }
    for (int y = 0; y < image.height; ++y)
        rows[static_cast<size_t>(y)] = bytes.data() + static_cast<size_t>(y) * image.width * 4;

    const std::string temp = temporaryName(path);
    FILE* file = sys::openStream(temp, "wb");
    if (!file) {
        error = cannotWrite(path, errno);
        return false;
    }
    errno = 0;
    bool ok = writePngRows(file, image.width, image.height, rows.data());
    ok = ok && sys::syncStream(file);
    int err = ok ? 0 : errno;
    if (!sys::closeStream(file) && ok) {
        ok = false;
        err = errno;
    }
    if (!ok) error = cannotWrite(path, err);
    return finish(temp, path, ok, error);
}

bool writeExr(const std::string& path, const Image& image, std::string& error) {
    if (!validImage(image, error)) return false;
    const std::string temp = temporaryName(path);
    bool ok = false;
    try {
        Imf::Header header(image.width, image.height);
        header.compression() = Imf::ZIP_COMPRESSION;
        const char* names[] = {"R",
                               "G",
                               "B",
                               "A",
                               "volume.R",
                               "volume.G",
                               "volume.B",
                               "transmittance.R",
                               "transmittance.G",
                               "transmittance.B"};
        for (const char* name : names) header.channels().insert(name, Imf::Channel(Imf::HALF));

        // The output side of the library takes each channel in its own type: the floats
        // are turned into halves here, ten a pixel, in the order of `names`.
        constexpr int CHANNELS = 10;
        std::vector<half> halves(image.pixelCount() * CHANNELS);
        for (size_t i = 0; i < image.pixelCount(); ++i) {
            half* h = halves.data() + i * CHANNELS;
            for (int c = 0; c < 4; ++c) h[c] = half(image.rgba[4 * i + c]);
            for (int c = 0; c < 3; ++c) h[4 + c] = half(image.volume[3 * i + c]);
            for (int c = 0; c < 3; ++c) h[7 + c] = half(image.transmittance[3 * i + c]);
        }
        Imf::FrameBuffer buffer;
        const size_t xStride = sizeof(half) * CHANNELS;
        for (int c = 0; c < CHANNELS; ++c)
            buffer.insert(names[c],
                          Imf::Slice(Imf::HALF, reinterpret_cast<char*>(halves.data() + c), xStride,
                                     xStride * image.width));
        Imf::OutputFile file(temp.c_str(), header);
        file.setFrameBuffer(buffer);
        file.writePixels(image.height);
        ok = true;
    } catch (const std::exception& e) {
        error = path + ": cannot be written (" + e.what() + ")";
    } catch (...) {
        error = path + ": cannot be written";
    }
    return finish(temp, path, ok, error);
}

bool isImageFileName(const std::string& path) {
    const std::string ext = extensionOf(path);
    return ext == "png" || ext == "exr";
}

bool writeImage(const std::string& path, const Image& image, std::string& error, bool opaquePng) {
    const std::string ext = extensionOf(path);
    if (ext == "png") return writePng(path, image, error, opaquePng);
    if (ext == "exr") return writeExr(path, image, error);
    error = path + ": the name must end in .png or .exr";
    return false;
}

}  // namespace vaporix
