#include "Codec.h"

namespace media {

Encoder::Encoder(AVFormatContext* out, char const* codecName, std::function<void(AVCodecContext*)> const& configure)
    : out_(out), packet_(makePacket())
{
    AVCodec const* codec = avcodec_find_encoder_by_name(codecName);
    if (!codec) throw MediaError(std::string("No encoder named ") + codecName + ".");
    open(codec, configure);
}

Encoder::Encoder(AVFormatContext* out, AVCodecID id, std::function<void(AVCodecContext*)> const& configure)
    : out_(out), packet_(makePacket())
{
    AVCodec const* codec = avcodec_find_encoder(id);
    if (!codec) throw MediaError(std::string("No encoder for ") + avcodec_get_name(id) + ".");
    open(codec, configure);
}

void Encoder::open(AVCodec const* codec, std::function<void(AVCodecContext*)> const& configure)
{
    ctx_.reset(avcodec_alloc_context3(codec));
    if (!ctx_) throw MediaError("Out of memory.");
    configure(ctx_.get());
    if (out_->oformat->flags & AVFMT_GLOBALHEADER) ctx_->flags |= AV_CODEC_FLAG_GLOBAL_HEADER;
    check(avcodec_open2(ctx_.get(), codec, nullptr), std::string("Opening the ") + codec->name + " encoder");
    stream_ = avformat_new_stream(out_, nullptr);
    if (!stream_) throw MediaError("Out of memory.");
    check(avcodec_parameters_from_context(stream_->codecpar, ctx_.get()), "Setting up a stream");
    stream_->time_base = ctx_->time_base;
}

void Encoder::send(AVFrame const* frame)
{
    int rc = avcodec_send_frame(ctx_.get(), frame);
    if (rc == AVERROR_EOF) return;
    check(rc, std::string("Encoding with ") + ctx_->codec->name);
    for (;;) {
        rc = avcodec_receive_packet(ctx_.get(), packet_.get());
        if (rc == AVERROR(EAGAIN) || rc == AVERROR_EOF) return;
        check(rc, std::string("Encoding with ") + ctx_->codec->name);
        // Without a duration the last picture would fall outside the
        // container's edit list, and players would drop it.
        if (packet_->duration == 0 && ctx_->codec_type == AVMEDIA_TYPE_VIDEO && ctx_->framerate.num > 0)
            packet_->duration = av_rescale_q(1, av_inv_q(ctx_->framerate), ctx_->time_base);
        av_packet_rescale_ts(packet_.get(), ctx_->time_base, stream_->time_base);
        packet_->stream_index = stream_->index;
        bytes_ += packet_->size;
        check(av_interleaved_write_frame(out_, packet_.get()), "Writing the movie");
    }
}

VideoDecoder::VideoDecoder(std::shared_ptr<const FileMedia> media) : media_(std::move(media)), packet_(makePacket())
{
    if (!media_ || media_->type != dm::MediaType::Video) throw MediaError("Not a video track.");
    input_ = media_->file->openInput(false);
    AVFormatContext* fmt = input_.format.get();
    if (static_cast<int>(fmt->nb_streams) <= media_->streamIndex) check(avformat_find_stream_info(fmt, nullptr), "Reading streams");
    if (static_cast<int>(fmt->nb_streams) <= media_->streamIndex) throw MediaError("The video stream is missing.");
    for (unsigned i = 0; i < fmt->nb_streams; ++i)
        fmt->streams[i]->discard = static_cast<int>(i) == media_->streamIndex ? AVDISCARD_DEFAULT : AVDISCARD_ALL;
    AVCodec const* dec = avcodec_find_decoder(media_->codecpar->codec_id);
    if (!dec) throw MediaError(std::string("No decoder for the video codec ") + avcodec_get_name(media_->codecpar->codec_id) + ".");
    codec_.reset(avcodec_alloc_context3(dec));
    if (!codec_) throw MediaError("Out of memory.");
    check(avcodec_parameters_to_context(codec_.get(), media_->codecpar), "Setting up the video decoder");
    codec_->pkt_timebase = media_->timeBase;
    codec_->thread_count = 0;
    check(avcodec_open2(codec_.get(), dec, nullptr), "Opening the video decoder");
}

bool VideoDecoder::next(AVFrame* frame)
{
    for (;;) {
        int rc = avcodec_receive_frame(codec_.get(), frame);
        if (rc == 0) return true;
        if (rc == AVERROR_EOF) return false;
        if (rc != AVERROR(EAGAIN)) continue;
        if (draining_) return false;
        rc = av_read_frame(input_.format.get(), packet_.get());
        if (rc < 0) {
            draining_ = true;
            avcodec_send_packet(codec_.get(), nullptr);
            continue;
        }
        if (packet_->stream_index == media_->streamIndex) avcodec_send_packet(codec_.get(), packet_.get());
        av_packet_unref(packet_.get());
    }
}

void VideoDecoder::seek(std::int64_t pts)
{
    av_seek_frame(input_.format.get(), media_->streamIndex, pts, AVSEEK_FLAG_BACKWARD);
    avcodec_flush_buffers(codec_.get());
    draining_ = false;
}

AVFrame* Scaler::convert(AVFrame const* src, int w, int h, AVPixelFormat fmt)
{
    sws_.reset(sws_getCachedContext(sws_.release(), src->width, src->height, static_cast<AVPixelFormat>(src->format), w, h, fmt,
                                    SWS_BICUBIC, nullptr, nullptr, nullptr));
    if (!sws_) throw MediaError("Cannot convert the picture.");
    if (out_->width != w || out_->height != h || out_->format != fmt) {
        av_frame_unref(out_.get());
        out_->width = w;
        out_->height = h;
        out_->format = fmt;
        check(av_frame_get_buffer(out_.get(), 0), "Allocating a picture");
    }
    check(av_frame_make_writable(out_.get()), "Allocating a picture");
    sws_scale(sws_.get(), src->data, src->linesize, 0, src->height, out_->data, out_->linesize);
    out_->pts = src->pts;
    return out_.get();
}

} // namespace media
