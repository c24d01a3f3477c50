// The send/receive loops of FFmpeg's codecs, wrapped once.
#pragma once

#include "FFmpeg.h"
#include "MovieFile.h"

#include <cstddef>
#include <functional>
#include <string>

namespace media {

// An encoder writing into one stream of an output file. Time stamps of the
// frames sent are in the codec's time base; packets are rescaled to the
// stream's and interleaved into the file.
class Encoder {
public:
    // `configure` sets the codec context up before it is opened.
    Encoder(AVFormatContext* out, char const* codecName, std::function<void(AVCodecContext*)> const& configure);
    Encoder(AVFormatContext* out, AVCodecID id, std::function<void(AVCodecContext*)> const& configure);

    AVCodecContext* context() const { return ctx_.get(); }
    AVStream* stream() const { return stream_; }
    // Encodes a frame; null drains the encoder.
    void send(AVFrame const* frame);
    // Writes a packet of this codec (time stamps in the codec's time base,
    // as from send's context or another context opened alike) into the
    // stream; the packet is left rescaled and unreferenced by the muxer.
    void write(AVPacket* packet);
    std::int64_t bytesWritten() const { return bytes_; }
    std::int64_t packetsWritten() const { return packets_; }

private:
    void open(AVCodec const* codec, std::function<void(AVCodecContext*)> const& configure);
    AVFormatContext* out_;
    CodecContext ctx_;
    AVStream* stream_ = nullptr;
    Packet packet_;
    std::int64_t bytes_ = 0;
    std::int64_t packets_ = 0;
};

// A demuxer over a medium's file that reads only its stream, and an open
// decoder for that stream. `kind` names the stream in messages ("sound").
struct StreamDecoder {
    SourceFile::Input input;
    CodecContext codec;
    int stream = -1; // the stream's index in `input`
};
StreamDecoder openStreamDecoder(FileMedia const& media, char const* kind);

// Sequential decoding of one video stream, with seeking.
class VideoDecoder {
public:
    explicit VideoDecoder(std::shared_ptr<const FileMedia> media);
    // The next frame in presentation order; false at the end.
    bool next(AVFrame* frame);
    // Goes to the key frame at or before `pts` (stream time base).
    void seek(std::int64_t pts);
    AVCodecContext* context() const { return codec_.get(); }
    AVRational timeBase() const { return media_->timeBase; }
    // Damaged packets and frames met and skipped so far.
    std::uint64_t errors() const { return errors_; }

private:
    std::shared_ptr<const FileMedia> media_;
    SourceFile::Input input_;
    CodecContext codec_;
    int stream_ = -1; // the stream's index in input_
    Packet packet_;
    bool draining_ = false;
    std::uint64_t errors_ = 0;
};

// Walks a video stream forward and keeps the picture on screen at a given
// time: the last frame whose time is not after it.
class FrameOnScreen {
public:
    explicit FrameOnScreen(std::shared_ptr<const FileMedia> media);
    // Goes to the key frame before `seconds` (media time from the start).
    void seek(double seconds);
    // The picture on screen at `seconds` (not earlier than the last asked
    // for); null when the stream has none.
    AVFrame* at(double seconds);

private:
    std::shared_ptr<const FileMedia> media_;
    VideoDecoder decoder_;
    Frame pending_, shown_;
    bool havePending_ = false, haveShown_ = false, done_ = false;
};

constexpr int kScalerAlign = 64;
constexpr int kScalerSlack = 64;
// The row length and buffer size that let Scaler::convertInto write
// `h` rows of `rowBytes` in place.
struct ScalerBuffer {
    int stride;
    std::size_t bytes;
};
inline ScalerBuffer scalerBuffer(int rowBytes, int h)
{
    int stride = (rowBytes + kScalerAlign - 1) / kScalerAlign * kScalerAlign;
    return {stride, static_cast<std::size_t>(stride) * static_cast<std::size_t>(h) + kScalerSlack};
}

// Copies a picture of `w` x `h` pixels of `pixelBytes` each, turned
// clockwise by `degrees` (0, 90, 180 or 270), to `dst` with rows of
// `dstStride` bytes: h x w pixels for a quarter turn, w x h otherwise.
void turnPicture(std::uint8_t const* src, int srcStride, int w, int h, int pixelBytes, int degrees, std::uint8_t* dst, int dstStride);

// Converts frames to another size and pixel format.
class Scaler {
public:
    // Returns a frame of `w` x `h` in `fmt`, converted from `src`.
    AVFrame* convert(AVFrame const* src, int w, int h, AVPixelFormat fmt, int flags = SWS_BICUBIC);
    // Converts `src` straight into caller-owned pixels (one plane, `stride`
    // bytes a row, `bytes` in all). swscale's vector code writes whole
    // blocks, past the end of a row: with rows of kScalerAlign bytes and
    // kScalerSlack bytes to spare after the last (see scalerBuffer), it
    // writes in place; otherwise it converts into a frame of its own and
    // copies the rows over.
    void convertInto(AVFrame const* src, int w, int h, AVPixelFormat fmt, std::uint8_t* pixels, int stride, std::size_t bytes, int flags);
    // As convertInto, to a picture of `w` x `h` as shown after turning `src`
    // clockwise by `degrees` (a one-plane format: grey, RGB): scaled as
    // stored, then turned into `pixels`.
    void convertTurned(AVFrame const* src, int w, int h, AVPixelFormat fmt, int degrees, std::uint8_t* pixels, int stride, std::size_t bytes,
                       int flags);

private:
    Sws sws_;
    Frame out_ = makeFrame();
};

} // namespace media
