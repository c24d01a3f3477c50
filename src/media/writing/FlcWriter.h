// An FLC animation writer (Autodesk Animator Pro format, 8-bit palette).
// FFmpeg decodes FLC but has no encoder for it.
#pragma once

#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

namespace media {

// Frames are mapped onto a fixed 6x6x6 colour cube plus 40 greys (one
// palette for the whole animation, so no frame needs its own), and stored
// as full run-length (BYTE_RUN) frames, or as line deltas (DELTA_FLC) when
// that is smaller. Throws MediaError on write errors.
class FlcWriter {
public:
    FlcWriter(std::string const& path, int width, int height, int msPerFrame);
    ~FlcWriter();
    FlcWriter(FlcWriter const&) = delete;
    FlcWriter& operator=(FlcWriter const&) = delete;

    // One RGB24 frame of the animation's size.
    void addFrame(std::uint8_t const* rgb, int stride);
    // Writes the header with the final frame count and size.
    void finish();

    // The palette index for a colour (exposed for tests).
    static std::uint8_t paletteIndex(std::uint8_t r, std::uint8_t g, std::uint8_t b);
    static std::vector<std::uint8_t> palette(); // 256 RGB triplets

private:
    void write(std::vector<std::uint8_t> const& bytes);
    std::FILE* file_;
    std::string path_;
    int width_, height_, msPerFrame_;
    int frames_ = 0;
    std::uint32_t size_ = 128;
    std::uint32_t firstFrameOffset_ = 0, secondFrameOffset_ = 0;
    std::vector<std::uint8_t> previous_;
};

} // namespace media
