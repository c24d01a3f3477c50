#include "FlcWriter.h"

#include "FFmpeg.h"

#include <algorithm>
#include <cerrno>
#include <cstring>

namespace media {

namespace {

void put16(std::vector<std::uint8_t>& v, unsigned x)
{
    v.push_back(static_cast<std::uint8_t>(x));
    v.push_back(static_cast<std::uint8_t>(x >> 8));
}
void put32(std::vector<std::uint8_t>& v, std::uint32_t x)
{
    put16(v, x & 0xffff);
    put16(v, x >> 16);
}
void set16(std::vector<std::uint8_t>& v, std::size_t at, unsigned x)
{
    v[at] = static_cast<std::uint8_t>(x);
    v[at + 1] = static_cast<std::uint8_t>(x >> 8);
}
void set32(std::vector<std::uint8_t>& v, std::size_t at, std::uint32_t x)
{
    set16(v, at, x & 0xffff);
    set16(v, at + 2, x >> 16);
}

constexpr unsigned kColor256 = 4, kDeltaFlc = 7, kByteRun = 15;
constexpr int kGreys = 40;

// BYTE_RUN encoding of one line: runs of a repeated byte (positive count)
// and literal stretches (negative count), at most 127 per packet.
void encodeLine(std::vector<std::uint8_t>& out, std::uint8_t const* p, int w)
{
    std::size_t countAt = out.size();
    out.push_back(0); // packet count: ignored by readers of FLC
    unsigned packets = 0;
    int x = 0;
    while (x < w) {
        int run = 1;
        while (x + run < w && run < 127 && p[x + run] == p[x]) ++run;
        if (run >= 3 || x + run == w) {
            out.push_back(static_cast<std::uint8_t>(run));
            out.push_back(p[x]);
            x += run;
        } else {
            int start = x, len = 0;
            while (x < w && len < 127) {
                int r = 1;
                while (x + r < w && r < 3 && p[x + r] == p[x]) ++r;
                if (r >= 3) break;
                ++x;
                ++len;
            }
            out.push_back(static_cast<std::uint8_t>(-len));
            out.insert(out.end(), p + start, p + start + len);
        }
        ++packets;
    }
    out[countAt] = static_cast<std::uint8_t>(packets > 255 ? 0 : packets);
}

} // namespace

std::vector<std::uint8_t> FlcWriter::palette()
{
    std::vector<std::uint8_t> pal;
    for (int r = 0; r < 6; ++r)
        for (int g = 0; g < 6; ++g)
            for (int b = 0; b < 6; ++b) {
                pal.push_back(static_cast<std::uint8_t>(r * 51));
                pal.push_back(static_cast<std::uint8_t>(g * 51));
                pal.push_back(static_cast<std::uint8_t>(b * 51));
            }
    for (int i = 0; i < kGreys; ++i) {
        auto v = static_cast<std::uint8_t>((i * 255 + (kGreys - 1) / 2) / (kGreys - 1));
        pal.insert(pal.end(), {v, v, v});
    }
    return pal;
}

std::uint8_t FlcWriter::paletteIndex(std::uint8_t r, std::uint8_t g, std::uint8_t b)
{
    int mx = std::max({r, g, b}), mn = std::min({r, g, b});
    if (mx - mn < 12) { // near grey: the finer grey ramp
        int v = (r + g + b) / 3;
        return static_cast<std::uint8_t>(216 + (v * (kGreys - 1) + 127) / 255);
    }
    auto q = [](int c) { return (c + 25) / 51; };
    return static_cast<std::uint8_t>(q(r) * 36 + q(g) * 6 + q(b));
}

FlcWriter::FlcWriter(std::string const& path, int width, int height, int msPerFrame)
    : path_(path), width_(width), height_(height), msPerFrame_(msPerFrame)
{
    if (width <= 0 || height <= 0 || width > 65535 || height > 65535) throw MediaError("Bad FLC frame size.");
    file_ = std::fopen(path.c_str(), "wb");
    if (!file_) throw MediaError("Cannot create \"" + path + "\": " + std::strerror(errno) + ".");
    std::vector<std::uint8_t> header(128, 0);
    write(header); // filled in by finish()
}

FlcWriter::~FlcWriter()
{
    if (file_) std::fclose(file_);
}

void FlcWriter::write(std::vector<std::uint8_t> const& bytes)
{
    if (std::fwrite(bytes.data(), 1, bytes.size(), file_) != bytes.size())
        throw MediaError("Writing \"" + path_ + "\" failed: " + std::strerror(errno) + ".");
}

void FlcWriter::addFrame(std::uint8_t const* rgb, int stride)
{
    if (frames_ >= 65535) throw MediaError("An FLC animation holds at most 65535 frames.");
    std::vector<std::uint8_t> pixels(static_cast<std::size_t>(width_) * height_);
    for (int y = 0; y < height_; ++y)
        for (int x = 0; x < width_; ++x) {
            std::uint8_t const* p = rgb + static_cast<std::ptrdiff_t>(y) * stride + 3 * x;
            pixels[static_cast<std::size_t>(y) * width_ + x] = paletteIndex(p[0], p[1], p[2]);
        }

    std::vector<std::uint8_t> chunks;
    unsigned count = 0;
    if (frames_ == 0) {
        std::vector<std::uint8_t> c;
        put32(c, 0);
        put16(c, kColor256);
        put16(c, 1);  // one packet
        c.push_back(0); // skip
        c.push_back(0); // 256 colours
        auto pal = palette();
        c.insert(c.end(), pal.begin(), pal.end());
        if (c.size() % 2) c.push_back(0);
        set32(c, 0, static_cast<std::uint32_t>(c.size()));
        chunks.insert(chunks.end(), c.begin(), c.end());
        ++count;
    }
    // A full run-length frame; a line delta against the last frame when smaller.
    std::vector<std::uint8_t> brun;
    put32(brun, 0);
    put16(brun, kByteRun);
    for (int y = 0; y < height_; ++y) encodeLine(brun, &pixels[static_cast<std::size_t>(y) * width_], width_);
    if (brun.size() % 2) brun.push_back(0);
    set32(brun, 0, static_cast<std::uint32_t>(brun.size()));
    std::vector<std::uint8_t> best = std::move(brun);

    if (!previous_.empty() && width_ % 2 == 0) {
        // DELTA_FLC: line count, then per changed line: skip words (negative
        // counts), then packets of (column skip, word count: positive literal
        // words, negative repeated word). Unchanged lines are skipped.
        std::vector<std::uint8_t> d;
        put32(d, 0);
        put16(d, kDeltaFlc);
        std::size_t linesAt = d.size();
        put16(d, 0);
        unsigned lines = 0;
        int skipLines = 0;
        int words = width_ / 2;
        for (int y = 0; y < height_; ++y) {
            std::uint8_t const* cur = &pixels[static_cast<std::size_t>(y) * width_];
            std::uint8_t const* old = &previous_[static_cast<std::size_t>(y) * width_];
            if (std::memcmp(cur, old, static_cast<std::size_t>(width_)) == 0) {
                ++skipLines;
                continue;
            }
            if (skipLines > 0) put16(d, static_cast<unsigned>(-skipLines) & 0xffff);
            skipLines = 0;
            std::size_t packetsAt = d.size();
            put16(d, 0);
            unsigned packets = 0;
            int wx = 0, lastEnd = 0;
            while (wx < words) {
                while (wx < words && std::memcmp(cur + 2 * wx, old + 2 * wx, 2) == 0) ++wx;
                if (wx >= words) break;
                int start = wx;
                while (wx < words && wx - start < 127 && std::memcmp(cur + 2 * wx, old + 2 * wx, 2) != 0) ++wx;
                int skip = 2 * (start - lastEnd);
                while (skip > 255) { // a skip longer than a byte: an empty literal packet
                    d.push_back(255);
                    d.push_back(0);
                    ++packets;
                    skip -= 255;
                }
                d.push_back(static_cast<std::uint8_t>(skip));
                d.push_back(static_cast<std::uint8_t>(wx - start));
                d.insert(d.end(), cur + 2 * start, cur + 2 * wx);
                lastEnd = wx;
                ++packets;
            }
            set16(d, packetsAt, packets);
            ++lines;
        }
        set16(d, linesAt, lines);
        if (d.size() % 2) d.push_back(0);
        set32(d, 0, static_cast<std::uint32_t>(d.size()));
        if (d.size() < best.size()) best = std::move(d);
    }
    chunks.insert(chunks.end(), best.begin(), best.end());
    ++count;
    previous_ = std::move(pixels);

    std::vector<std::uint8_t> frame;
    put32(frame, static_cast<std::uint32_t>(16 + chunks.size()));
    put16(frame, 0xF1FA);
    put16(frame, count);
    frame.resize(16, 0);
    frame.insert(frame.end(), chunks.begin(), chunks.end());
    if (frames_ == 0) firstFrameOffset_ = size_;
    if (frames_ == 1) secondFrameOffset_ = size_;
    write(frame);
    size_ += static_cast<std::uint32_t>(frame.size());
    ++frames_;
}

void FlcWriter::finish()
{
    std::vector<std::uint8_t> h;
    put32(h, size_);
    put16(h, 0xAF12);
    put16(h, static_cast<unsigned>(frames_));
    put16(h, static_cast<unsigned>(width_));
    put16(h, static_cast<unsigned>(height_));
    put16(h, 8);  // depth
    put16(h, 3);  // flags: finished, written properly
    put32(h, static_cast<std::uint32_t>(msPerFrame_));
    h.resize(38, 0);
    put16(h, 1); // aspect x
    put16(h, 1); // aspect y
    h.resize(80, 0);
    put32(h, firstFrameOffset_);
    put32(h, secondFrameOffset_ ? secondFrameOffset_ : firstFrameOffset_);
    h.resize(128, 0);
    if (std::fseek(file_, 0, SEEK_SET) != 0) throw MediaError("Writing \"" + path_ + "\" failed.");
    write(h);
    bool ok = std::fflush(file_) == 0;
    ok = std::fclose(file_) == 0 && ok;
    file_ = nullptr;
    if (!ok) throw MediaError("Writing \"" + path_ + "\" failed: " + std::strerror(errno) + ".");
}

} // namespace media
