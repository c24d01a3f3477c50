// Owners for FFmpeg resources and the error type of the media layer.
#pragma once

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
#include <libavutil/audio_fifo.h>
#include <libavutil/channel_layout.h>
#include <libavutil/opt.h>
#include <libswresample/swresample.h>
#include <libswscale/swscale.h>
}

#include "MediaError.h"

#include <memory>
#include <stdexcept>
#include <string>

namespace media {

std::string avError(int code);
// Throws MediaError("<what>: <FFmpeg's message>") when code < 0.
int check(int code, std::string const& what);

struct InputContextDeleter {
    void operator()(AVFormatContext* c) const { avformat_close_input(&c); }
};
using InputContext = std::unique_ptr<AVFormatContext, InputContextDeleter>;

// An output context; closes its file (when the format has one that it
// opened itself, not a custom one) and frees it.
struct OutputContextDeleter {
    void operator()(AVFormatContext* c) const
    {
        if (c && c->pb && !(c->oformat->flags & AVFMT_NOFILE) && !(c->flags & AVFMT_FLAG_CUSTOM_IO)) avio_closep(&c->pb);
        avformat_free_context(c);
    }
};
using OutputContext = std::unique_ptr<AVFormatContext, OutputContextDeleter>;

struct CodecContextDeleter {
    void operator()(AVCodecContext* c) const { avcodec_free_context(&c); }
};
using CodecContext = std::unique_ptr<AVCodecContext, CodecContextDeleter>;

struct CodecParametersDeleter {
    void operator()(AVCodecParameters* p) const { avcodec_parameters_free(&p); }
};
using CodecParameters = std::unique_ptr<AVCodecParameters, CodecParametersDeleter>;

struct FrameDeleter {
    void operator()(AVFrame* f) const { av_frame_free(&f); }
};
using Frame = std::unique_ptr<AVFrame, FrameDeleter>;

struct PacketDeleter {
    void operator()(AVPacket* p) const { av_packet_free(&p); }
};
using Packet = std::unique_ptr<AVPacket, PacketDeleter>;

struct SwrDeleter {
    void operator()(SwrContext* s) const { swr_free(&s); }
};
using Swr = std::unique_ptr<SwrContext, SwrDeleter>;

struct SwsDeleter {
    void operator()(SwsContext* s) const { sws_freeContext(s); }
};
using Sws = std::unique_ptr<SwsContext, SwsDeleter>;

struct AudioFifoDeleter {
    void operator()(AVAudioFifo* f) const { av_audio_fifo_free(f); }
};
using AudioFifo = std::unique_ptr<AVAudioFifo, AudioFifoDeleter>;

// A custom I/O context: frees its buffer and itself.
struct IOContextDeleter {
    void operator()(AVIOContext* io) const
    {
        if (!io) return;
        av_freep(&io->buffer);
        avio_context_free(&io);
    }
};
using IOContext = std::unique_ptr<AVIOContext, IOContextDeleter>;

Frame makeFrame();
Packet makePacket();

} // namespace media
