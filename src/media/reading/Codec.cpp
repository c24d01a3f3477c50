#include "Codec.h"

#include "SaveCheck.h"

extern "C" {
#include <libavutil/imgutils.h>
}

#include <cstring>

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
        write(packet_.get());
    }
}

void Encoder::write(AVPacket* packet)
{
    av_packet_rescale_ts(packet, ctx_->time_base, stream_->time_base);
    packet->stream_index = stream_->index;
    bytes_ += packet->size;
    ++packets_;
    check(writePacket(out_, packet), "Writing the movie");
}

StreamDecoder openStreamDecoder(FileMedia const& media, char const* kind)
{
    StreamDecoder d;
    // A view of the one track must show the track the movie read.
    d.input = media.file->openStream(media.streamIndex, d.stream, [&](AVStream const& st) {
        AVCodecParameters const* par = st.codecpar;
        return st.id == media.containerId && par->codec_id == media.codecpar->codec_id && av_cmp_q(st.time_base, media.timeBase) == 0
            && par->sample_rate == media.codecpar->sample_rate && par->width == media.codecpar->width
            && par->height == media.codecpar->height;
    });
    AVFormatContext* fmt = d.input.format.get();
    if (static_cast<int>(fmt->nb_streams) <= d.stream) check(avformat_find_stream_info(fmt, nullptr), "Reading streams");
    if (static_cast<int>(fmt->nb_streams) <= d.stream) throw MediaError(std::string("The ") + kind + " stream is missing.");
    for (unsigned i = 0; i < fmt->nb_streams; ++i)
        fmt->streams[i]->discard = static_cast<int>(i) == d.stream ? AVDISCARD_DEFAULT : AVDISCARD_ALL;
    AVCodec const* dec = avcodec_find_decoder(media.codecpar->codec_id);
    if (!dec) throw MediaError(std::string("No decoder for the ") + kind + " codec " + avcodec_get_name(media.codecpar->codec_id) + ".");
    d.codec.reset(avcodec_alloc_context3(dec));
    if (!d.codec) throw MediaError("Out of memory.");
    check(avcodec_parameters_to_context(d.codec.get(), media.codecpar), std::string("Setting up the ") + kind + " decoder");
    d.codec->pkt_timebase = fmt->streams[d.stream]->time_base;
    if (media.type == dm::MediaType::Video) d.codec->thread_count = 0; // frame threads for pictures
    check(avcodec_open2(d.codec.get(), dec, nullptr), std::string("Opening the ") + kind + " decoder");
    return d;
}

VideoDecoder::VideoDecoder(std::shared_ptr<const FileMedia> media) : media_(std::move(media)), packet_(makePacket())
{
    if (!media_ || media_->type != dm::MediaType::Video) throw MediaError("Not a video track.");
    StreamDecoder d = openStreamDecoder(*media_, "video");
    input_ = std::move(d.input);
    codec_ = std::move(d.codec);
    stream_ = d.stream;
}

bool VideoDecoder::next(AVFrame* frame)
{
    for (;;) {
        int rc = avcodec_receive_frame(codec_.get(), frame);
        if (rc == 0) return true;
        if (rc == AVERROR_EOF) return false;
        // A damaged frame is counted and skipped: on to the next packet.
        if (rc != AVERROR(EAGAIN)) ++errors_;
        if (draining_) return false;
        rc = av_read_frame(input_.format.get(), packet_.get());
        if (rc < 0) {
            draining_ = true;
            avcodec_send_packet(codec_.get(), nullptr);
            continue;
        }
        if (packet_->stream_index == stream_) {
            rc = avcodec_send_packet(codec_.get(), packet_.get());
            if (rc < 0 && rc != AVERROR(EAGAIN)) ++errors_;
        }
        av_packet_unref(packet_.get());
    }
}

void VideoDecoder::seek(std::int64_t pts)
{
    av_seek_frame(input_.format.get(), stream_, pts, AVSEEK_FLAG_BACKWARD);
    avcodec_flush_buffers(codec_.get());
    draining_ = false;
}

FrameOnScreen::FrameOnScreen(std::shared_ptr<const FileMedia> media)
    : media_(media), decoder_(std::move(media)), pending_(makeFrame()), shown_(makeFrame())
{
}

void FrameOnScreen::seek(double seconds)
{
    decoder_.seek(media_->startPts + static_cast<std::int64_t>(seconds / av_q2d(media_->timeBase)));
    havePending_ = haveShown_ = done_ = false;
}

AVFrame* FrameOnScreen::at(double seconds)
{
    double tb = av_q2d(media_->timeBase);
    while (!done_) {
        if (!havePending_) {
            if (!decoder_.next(pending_.get())) {
                done_ = true;
                break;
            }
            havePending_ = true;
        }
        double t = static_cast<double>(pending_->best_effort_timestamp - media_->startPts) * tb;
        if (haveShown_ && t > seconds + 1e-9) break;
        av_frame_unref(shown_.get());
        av_frame_move_ref(shown_.get(), pending_.get());
        haveShown_ = true;
        havePending_ = false;
    }
    return haveShown_ ? shown_.get() : nullptr;
}

void turnPicture(std::uint8_t const* src, int srcStride, int w, int h, int pixelBytes, int degrees, std::uint8_t* dst, int dstStride)
{
    auto const bytes = static_cast<std::size_t>(pixelBytes);
    auto row = [](auto* base, int stride, int y) { return base + static_cast<std::ptrdiff_t>(stride) * y; };
    if (degrees == 0) {
        for (int y = 0; y < h; ++y) std::memcpy(row(dst, dstStride, y), row(src, srcStride, y), bytes * static_cast<std::size_t>(w));
        return;
    }
    if (degrees != 90 && degrees != 180 && degrees != 270) throw MediaError("A picture turns by quarter turns only.");
    // Walk the destination row by row (its writes in order); each row
    // reads a column (quarter turns) or a row backwards (a half turn).
    int dw = degrees == 180 ? w : h, dh = degrees == 180 ? h : w;
    for (int y = 0; y < dh; ++y) {
        std::uint8_t* out = row(dst, dstStride, y);
        for (int x = 0; x < dw; ++x, out += bytes) {
            int sx, sy;
            if (degrees == 90) { sx = y; sy = h - 1 - x; }
            else if (degrees == 180) { sx = w - 1 - x; sy = h - 1 - y; }
            else { sx = w - 1 - y; sy = x; }
            std::memcpy(out, row(src, srcStride, sy) + static_cast<std::size_t>(sx) * bytes, bytes);
        }
    }
}

void Scaler::convertInto(AVFrame const* src, int w, int h, AVPixelFormat fmt, std::uint8_t* pixels, int stride, std::size_t bytes, int flags)
{
    int rowBytes = av_image_get_linesize(fmt, w, 0);
    if (rowBytes <= 0 || stride < rowBytes || bytes < static_cast<std::size_t>(stride) * static_cast<std::size_t>(h - 1) + static_cast<std::size_t>(rowBytes))
        throw MediaError("Cannot convert the picture: its buffer is too small.");
    if (stride % kScalerAlign != 0 || bytes < static_cast<std::size_t>(stride) * static_cast<std::size_t>(h) + kScalerSlack) {
        AVFrame const* out = convert(src, w, h, fmt, flags);
        av_image_copy_plane(pixels, stride, out->data[0], out->linesize[0], rowBytes, h);
        return;
    }
    sws_.reset(sws_getCachedContext(sws_.release(), src->width, src->height, static_cast<AVPixelFormat>(src->format), w, h, fmt, flags,
                                    nullptr, nullptr, nullptr));
    if (!sws_) throw MediaError("Cannot convert the picture.");
    std::uint8_t* dst[4] = {pixels, nullptr, nullptr, nullptr};
    int lines[4] = {stride, 0, 0, 0};
    sws_scale(sws_.get(), src->data, src->linesize, 0, src->height, dst, lines);
}

void Scaler::convertTurned(AVFrame const* src, int w, int h, AVPixelFormat fmt, int degrees, std::uint8_t* pixels, int stride, std::size_t bytes,
                           int flags)
{
    if (degrees == 0) {
        convertInto(src, w, h, fmt, pixels, stride, bytes, flags);
        return;
    }
    int pixelBytes = av_image_get_linesize(fmt, 1, 0);
    if (pixelBytes <= 0 || stride < w * pixelBytes || bytes < static_cast<std::size_t>(stride) * static_cast<std::size_t>(h - 1) + static_cast<std::size_t>(w * pixelBytes))
        throw MediaError("Cannot convert the picture: its buffer is too small.");
    bool quarter = degrees == 90 || degrees == 270;
    AVFrame const* stored = convert(src, quarter ? h : w, quarter ? w : h, fmt, flags);
    turnPicture(stored->data[0], stored->linesize[0], stored->width, stored->height, pixelBytes, degrees, pixels, stride);
}

AVFrame* Scaler::convert(AVFrame const* src, int w, int h, AVPixelFormat fmt, int flags)
{
    sws_.reset(sws_getCachedContext(sws_.release(), src->width, src->height, static_cast<AVPixelFormat>(src->format), w, h, fmt,
                                    flags, nullptr, nullptr, nullptr));
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
