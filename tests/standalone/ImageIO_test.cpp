// Tests of the image files: PNG and OpenEXR read back with their own libraries, and writes that
// never leave a broken file behind.
#include "standalone/ImageIO.h"

#include <Imath/ImathBox.h>
#include <ImfChannelList.h>
#include <ImfFrameBuffer.h>
#include <ImfHeader.h>
#include <ImfInputFile.h>
#include <gtest/gtest.h>
#include <png.h>
#include <sys/stat.h>

#include <cerrno>
#include <cmath>
#include <cstring>
#include <filesystem>
#include <limits>

#include "FaultPlan.h"
#include "TestSupport.h"

namespace vaporix {
namespace {

/// A 3x2 image whose beauty holds the values under test, and recognisable element layers.
Image sampleImage() {
    Image image;
    EXPECT_TRUE(image.resize(3, 2));
    const float values[6][4] = {{0.0f, 0.5f, 1.0f, 0.5f},
                                {2.0f, -1.0f, std::numeric_limits<float>::quiet_NaN(), 1.0f},
                                {0.18f, 0.01f, 0.9f, 0.0f},
                                {1.0f, 1.0f, 1.0f, 0.25f},
                                {0.25f, 0.125f, 0.0625f, 0.75f},
                                {100.0f, 0.0f, 0.001f, 2.0f}};
    for (int i = 0; i < 6; ++i)
        for (int c = 0; c < 4; ++c) image.rgba[4 * i + c] = values[i][c];
    for (size_t i = 0; i < image.volume.size(); ++i) {
        image.volume[i] = 0.01f * float(i);
        image.transmittance[i] = 1.0f - 0.05f * float(i);
    }
    return image;
}

std::vector<uint8_t> readPng(const std::string& path, int& width, int& height) {
    png_image png;
    std::memset(&png, 0, sizeof png);
    png.version = PNG_IMAGE_VERSION;
    std::vector<uint8_t> pixels;
    if (!png_image_begin_read_from_file(&png, path.c_str())) return pixels;
    png.format = PNG_FORMAT_RGBA;
    pixels.resize(PNG_IMAGE_SIZE(png));
    if (!png_image_finish_read(&png, nullptr, pixels.data(), 0, nullptr)) pixels.clear();
    width = int(png.width);
    height = int(png.height);
    return pixels;
}

uint8_t gammaByte(float linear) {
    return uint8_t(std::lround(std::pow(linear, 1.0f / 2.2f) * 255.0f));
}

/// No file in `dir` but `keep`.
bool onlyFile(const std::string& dir, const std::string& keep) {
    int count = 0;
    for (const auto& entry : std::filesystem::directory_iterator(dir)) {
        if (entry.path().filename() != keep) return false;
        ++count;
    }
    return count == 1;
}

TEST(ImageIO, PngHoldsGammaEncodedClampedColourAndLinearAlpha) {
    test::TempDir dir;
    const std::string path = dir.file("out.png");
    std::string error;
    ASSERT_TRUE(writePng(path, sampleImage(), error)) << error;
    int w = 0, h = 0;
    const std::vector<uint8_t> px = readPng(path, w, h);
    ASSERT_EQ(w, 3);
    ASSERT_EQ(h, 2);
    ASSERT_EQ(px.size(), 24u);
    // Pixel 0: 0, 0.5, 1 and alpha 0.5.
    EXPECT_EQ(px[0], 0);
    EXPECT_EQ(px[1], gammaByte(0.5f));
    EXPECT_EQ(px[1], 186);
    EXPECT_EQ(px[2], 255);
    EXPECT_EQ(px[3], 128);
    // Pixel 1: above 1 and below 0 clamp, NaN reads as black.
    EXPECT_EQ(px[4], 255);
    EXPECT_EQ(px[5], 0);
    EXPECT_EQ(px[6], 0);
    EXPECT_EQ(px[7], 255);
    // Pixel 2: mid grey of linear 0.18, alpha 0.
    EXPECT_EQ(px[8], gammaByte(0.18f));
    EXPECT_EQ(px[11], 0);
    // Pixel 5: alpha above 1 clamps.
    EXPECT_EQ(px[23], 255);
    EXPECT_TRUE(onlyFile(dir.path(), "out.png"));

    // Opaque: the same colour, alpha 255 everywhere.
    ASSERT_TRUE(writeImage(path, sampleImage(), error, true)) << error;
    const std::vector<uint8_t> opaque = readPng(path, w, h);
    ASSERT_EQ(opaque.size(), 24u);
    for (size_t i = 0; i < opaque.size(); ++i)
        EXPECT_EQ(opaque[i], i % 4 == 3 ? 255 : px[i]) << i;
}

TEST(ImageIO, ExrKeepsTheBeautyAlphaAndElementLayersInHalfFloats) {
    test::TempDir dir;
    const std::string path = dir.file("out.exr");
    const Image image = sampleImage();
    std::string error;
    ASSERT_TRUE(writeExr(path, image, error)) << error;

    Imf::InputFile file(path.c_str());
    const Imath::Box2i window = file.header().dataWindow();
    ASSERT_EQ(window.max.x - window.min.x + 1, 3);
    ASSERT_EQ(window.max.y - window.min.y + 1, 2);
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
    int channels = 0;
    for (auto it = file.header().channels().begin(); it != file.header().channels().end(); ++it) {
        EXPECT_EQ(it.channel().type, Imf::HALF) << it.name();
        ++channels;
    }
    EXPECT_EQ(channels, 10);

    std::vector<float> back(6 * 10, -7.0f);
    Imf::FrameBuffer buffer;
    for (int c = 0; c < 10; ++c) {
        ASSERT_NE(file.header().channels().findChannel(names[c]), nullptr) << names[c];
        buffer.insert(names[c], Imf::Slice(Imf::FLOAT, reinterpret_cast<char*>(back.data() + c),
                                           sizeof(float) * 10, sizeof(float) * 10 * 3));
    }
    file.setFrameBuffer(buffer);
    file.readPixels(window.min.y, window.max.y);
    for (int i = 0; i < 6; ++i) {
        for (int c = 0; c < 4; ++c) {
            const float want = image.rgba[4 * i + c];
            const float got = back[10 * i + c];
            if (std::isnan(want))
                EXPECT_TRUE(std::isnan(got));
            else  // half floats: 11 significant bits; linear, not clamped
                EXPECT_NEAR(got, want, std::fabs(want) * 1e-3f + 1e-6f) << i << " " << c;
        }
        for (int c = 0; c < 3; ++c) {
            EXPECT_NEAR(back[10 * i + 4 + c], image.volume[3 * i + c], 1e-3f);
            EXPECT_NEAR(back[10 * i + 7 + c], image.transmittance[3 * i + c], 1e-3f);
        }
    }
    EXPECT_TRUE(onlyFile(dir.path(), "out.exr"));
}

TEST(ImageIO, ChoosesTheFormatByExtensionAndRefusesOthers) {
    test::TempDir dir;
    const Image image = sampleImage();
    std::string error;
    EXPECT_TRUE(writeImage(dir.file("a.PNG"), image, error)) << error;
    EXPECT_TRUE(writeImage(dir.file("b.exr"), image, error)) << error;
    const std::vector<uint8_t> png = test::readBytes(dir.file("a.PNG"));
    ASSERT_GE(png.size(), 8u);
    EXPECT_EQ(png[1], 'P');
    const std::vector<uint8_t> exr = test::readBytes(dir.file("b.exr"));
    ASSERT_GE(exr.size(), 4u);
    EXPECT_EQ(exr[0], 0x76);  // the OpenEXR magic number 20000630, little-endian
    EXPECT_EQ(exr[1], 0x2f);

    EXPECT_TRUE(isImageFileName("x/y.Exr"));
    EXPECT_FALSE(isImageFileName("x.png/y"));
    EXPECT_FALSE(isImageFileName("picture.tif"));
    EXPECT_FALSE(writeImage(dir.file("c.tif"), image, error));
    EXPECT_NE(error.find(".png or .exr"), std::string::npos);
    EXPECT_FALSE(test::readBytes(dir.file("c.tif")).size());
}

TEST(ImageIO, FailedWritesLeaveNoFileAndAnOldFileWhole) {
    test::TempDir dir;
    const Image image = sampleImage();
    std::string error;
    // A folder that does not exist.
    EXPECT_FALSE(writePng(dir.file("no/such/out.png"), image, error));
    EXPECT_NE(error.find("cannot be written"), std::string::npos);
    EXPECT_FALSE(writeExr(dir.file("no/such/out.exr"), image, error));

    // The name is taken by a folder: the finished temporary file cannot replace it and goes.
    ASSERT_EQ(mkdir(dir.file("taken.png").c_str(), 0755), 0);
    ASSERT_EQ(mkdir(dir.file("taken.exr").c_str(), 0755), 0);
    EXPECT_FALSE(writePng(dir.file("taken.png"), image, error));
    EXPECT_FALSE(writeExr(dir.file("taken.exr"), image, error));
    int entries = 0;
    for (const auto& e : std::filesystem::directory_iterator(dir.path())) {
        EXPECT_TRUE(e.is_directory()) << e.path();
        ++entries;
    }
    EXPECT_EQ(entries, 2);

    // An empty image is refused before anything is written; an existing file stays as it was.
    const std::string old = dir.file("old.png");
    test::writeBytes(old, {1, 2, 3});
    EXPECT_FALSE(writePng(old, Image(), error));
    EXPECT_FALSE(writeExr(old, Image(), error));
    EXPECT_EQ(test::readBytes(old), (std::vector<uint8_t>{1, 2, 3}));
    // A good write replaces it whole.
    ASSERT_TRUE(writePng(old, image, error));
    EXPECT_GT(test::readBytes(old).size(), 8u);
}

TEST(ImageIO, InjectedStorageFaultsLeaveTheOldImageWhole) {
    test::TempDir dir;
    const Image image = sampleImage();
    const std::string png = dir.file("frame.png");
    const std::string exr = dir.file("frame.exr");
    std::string error;
    ASSERT_TRUE(writePng(png, image, error));
    ASSERT_TRUE(writeExr(exr, image, error));
    const auto goodPng = test::readBytes(png);
    const auto goodExr = test::readBytes(exr);
    test::writeBytes(png, {7});
    test::writeBytes(exr, {8});
    using sys::FileOp;
    // The PNG writer goes through every call of the seam; the EXR library writes by itself,
    // so for it only the rename into place can fail.
    for (FileOp op : {FileOp::Open, FileOp::Write, FileOp::Sync, FileOp::Close, FileOp::Rename})
        for (int err : {EIO, ENOSPC, EACCES, EROFS}) {
            SCOPED_TRACE(testing::Message() << "op " << int(op) << " errno " << err);
            test::FaultPlan plan;
            plan.failAll(op, err);
            error.clear();
            EXPECT_FALSE(writePng(png, image, error));
            EXPECT_EQ(error, png + ": cannot be written: " + std::strerror(err));
            EXPECT_EQ(test::readBytes(png), std::vector<uint8_t>{7});
            if (op == FileOp::Rename) {
                EXPECT_FALSE(writeExr(exr, image, error));
                EXPECT_EQ(test::readBytes(exr), std::vector<uint8_t>{8});
            }
            int entries = 0;
            for (const auto& e : std::filesystem::directory_iterator(dir.path())) {
                (void)e;
                ++entries;
            }
            EXPECT_EQ(entries, 2) << "a temporary file was left behind";
        }
    // Short writes and interruptions give the same file.
    test::FaultPlan plan;
    plan.shorten(sys::FileOp::Write, 7).fail(sys::FileOp::Write, 2, EINTR);
    ASSERT_TRUE(writePng(png, image, error));
    EXPECT_EQ(test::readBytes(png), goodPng);
    (void)goodExr;
}

TEST(Image, ResizeRefusesSizesOutOfRangeAndClearsToTransparent) {
    Image image;
    EXPECT_FALSE(image.resize(0, 5));
    EXPECT_FALSE(image.resize(5, Image::MAX_SIZE + 1));
    EXPECT_EQ(image.pixelCount(), 0u);
    EXPECT_TRUE(image.rgba.empty());
    ASSERT_TRUE(image.resize(4, 3));
    EXPECT_EQ(image.rgba.size(), 48u);
    EXPECT_EQ(image.transmittance[5], 1.0f);
    image.pixel(3, 2)[3] = 0.5f;
    EXPECT_EQ(image.rgba[47], 0.5f);
}

}  // namespace
}  // namespace vaporix
