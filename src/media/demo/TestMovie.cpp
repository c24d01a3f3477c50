#include "TestMovie.h"

#include "AudioRenderer.h"
#include "Codec.h"
#include "Remuxer.h"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <iterator>

extern "C" {
#include <libavutil/display.h>
}

namespace media {

namespace {

constexpr double kPi = 3.14159265358979323846;
constexpr double kClickSeconds = 0.005;

std::vector<std::int64_t> flashFrames(TestMovieSpec const& s)
{
    std::vector<std::int64_t> frames;
    double fps = static_cast<double>(s.fpsNum) / s.fpsDen;
    std::int64_t total = static_cast<std::int64_t>(std::floor(s.seconds * fps));
    if (!s.flashTimes.empty()) {
        for (double t : s.flashTimes) {
            std::int64_t k = std::llround(t * fps);
            if (k > 0 && k < total) frames.push_back(k);
        }
        std::sort(frames.begin(), frames.end());
        frames.erase(std::unique(frames.begin(), frames.end()), frames.end());
        return frames;
    }
    for (int j = 1;; ++j) {
        std::int64_t k = std::llround(j * s.flashInterval * fps);
        if (k >= total) break;
        frames.push_back(k);
    }
    return frames;
}

// Colour bars over the top two thirds, a grey ramp with a moving bar below;
// a flash frame is white all over.
void fillPicture(AVFrame* f, std::int64_t k, bool flash)
{
    // 75 % colour bars (BT.601): white, yellow, cyan, green, magenta, red, blue.
    static const std::uint8_t bars[7][3] = {{180, 128, 128}, {162, 44, 142}, {131, 156, 44}, {112, 72, 58},
                                            {84, 184, 198},  {65, 100, 212}, {35, 212, 114}};
    int w = f->width, h = f->height;
    int barsEnd = h * 2 / 3;
    int moving = static_cast<int>((k * 8) % std::max(1, w));
    auto barAt = [&](int x) { return std::min(6, x * 7 / std::max(1, w)); };
    for (int y = 0; y < h; ++y) {
        std::uint8_t* row = f->data[0] + static_cast<std::ptrdiff_t>(y) * f->linesize[0];
        for (int x = 0; x < w; ++x) {
            if (flash) row[x] = 235;
            else if (y < barsEnd) row[x] = bars[barAt(x)][0];
            else if (std::abs(x - moving) < 8) row[x] = 210;
            else row[x] = static_cast<std::uint8_t>(16 + (x * 200) / std::max(1, w));
        }
    }
    for (int p = 1; p <= 2; ++p)
        for (int y = 0; y < h / 2; ++y) {
            std::uint8_t* row = f->data[p] + static_cast<std::ptrdiff_t>(y) * f->linesize[p];
            for (int x = 0; x < w / 2; ++x) row[x] = flash || 2 * y >= barsEnd ? 128 : bars[barAt(2 * x)][p];
        }
}

} // namespace

std::vector<SyncMark> testMovieMarks(TestMovieSpec const& s)
{
    std::vector<SyncMark> marks;
    double fps = static_cast<double>(s.fpsNum) / s.fpsDen;
    for (std::int64_t k : flashFrames(s)) {
        double m = static_cast<double>(k) / fps;
        double a = s.audioOffset + s.audioRate * m;
        if (a > 0.05 && a < s.seconds - 0.05) marks.push_back({m, a});
    }
    return marks;
}

namespace {

void addChapters(AVFormatContext* out, TestMovieSpec const& s)
{
    double len = s.seconds / std::max(1, s.chapters);
    for (int i = 0; i < s.chapters; ++i) {
        AVChapter* c = addChapter(out, i + 1, AVRational{1, 1000}, std::llround((s.startTime + i * len) * 1000),
                                  std::llround((s.startTime + (i + 1) * len) * 1000));
        av_dict_set(&c->metadata, "title", ("Chapter " + std::to_string(i + 1)).c_str(), 0);
    }
}

void setExtradata(AVCodecParameters* par, std::string const& bytes)
{
    par->extradata = static_cast<std::uint8_t*>(av_mallocz(bytes.size() + AV_INPUT_BUFFER_PADDING_SIZE));
    if (!par->extradata) throw MediaError("Out of memory.");
    std::memcpy(par->extradata, bytes.data(), bytes.size());
    par->extradata_size = static_cast<int>(bytes.size());
}

AVSampleFormat pickFormat(AVCodec const* codec, int bits)
{
    if (!codec->sample_fmts) return AV_SAMPLE_FMT_S16;
    if (bits > 16)
        for (auto const* f = codec->sample_fmts; *f != AV_SAMPLE_FMT_NONE; ++f)
            if (*f == AV_SAMPLE_FMT_S32 || *f == AV_SAMPLE_FMT_S32P) return *f;
    return codec->sample_fmts[0];
}

// Writes `v` as sample `i` of channel `ch` of a frame in any of the usual formats.
void putSample(AVFrame* f, int i, int ch, float v, int bits)
{
    int channels = f->ch_layout.nb_channels;
    switch (f->format) {
    case AV_SAMPLE_FMT_FLTP: reinterpret_cast<float*>(f->extended_data[ch])[i] = v; break;
    case AV_SAMPLE_FMT_FLT: reinterpret_cast<float*>(f->data[0])[i * channels + ch] = v; break;
    case AV_SAMPLE_FMT_S16: reinterpret_cast<std::int16_t*>(f->data[0])[i * channels + ch] = static_cast<std::int16_t>(v * 32767); break;
    case AV_SAMPLE_FMT_S16P: reinterpret_cast<std::int16_t*>(f->extended_data[ch])[i] = static_cast<std::int16_t>(v * 32767); break;
    case AV_SAMPLE_FMT_S32:
    case AV_SAMPLE_FMT_S32P: {
        std::int32_t x = bits <= 24 ? static_cast<std::int32_t>(std::lround(v * 8388607.0)) * 256
                                    : static_cast<std::int32_t>(std::llround(v * 2147483647.0));
        if (f->format == AV_SAMPLE_FMT_S32) reinterpret_cast<std::int32_t*>(f->data[0])[i * channels + ch] = x;
        else reinterpret_cast<std::int32_t*>(f->extended_data[ch])[i] = x;
        break;
    }
    default: throw MediaError("Unsupported sample format for the test movie.");
    }
}

} // namespace

void writeTestMovie(std::string const& path, TestMovieSpec const& s)
{
    AVFormatContext* raw = nullptr;
    check(avformat_alloc_output_context2(&raw, nullptr, s.format.c_str(), path.c_str()), "Choosing the container");
    OutputContext out(raw);
    if (!s.title.empty()) av_dict_set(&out->metadata, "title", s.title.c_str(), 0);
    addChapters(out.get(), s);

    Encoder video(out.get(), s.videoCodec.c_str(), [&](AVCodecContext* c) {
        c->width = s.width;
        c->height = s.height;
        c->pix_fmt = AV_PIX_FMT_YUV420P;
        c->time_base = AVRational{s.fpsDen, s.fpsNum};
        c->framerate = AVRational{s.fpsNum, s.fpsDen};
        c->gop_size = std::max(1, 2 * s.fpsNum / s.fpsDen);
        c->max_b_frames = 0;
        c->bit_rate = s.videoBitRate;
        c->sample_aspect_ratio = AVRational{s.pixelAspectNum, s.pixelAspectDen};
        if (s.interlaced) {
            c->flags |= AV_CODEC_FLAG_INTERLACED_DCT | AV_CODEC_FLAG_INTERLACED_ME;
            c->field_order = AV_FIELD_TT;
        }
        std::string name = c->codec->name;
        if (name == "libx264") {
            av_opt_set(c->priv_data, "preset", "veryfast", 0);
            av_opt_set(c->priv_data, "crf", "26", 0);
        } else if (name == "libx265") {
            av_opt_set(c->priv_data, "preset", "ultrafast", 0);
            av_opt_set(c->priv_data, "x265-params", "log-level=none", 0);
        } else if (name == "libvpx-vp9" || name == "libvpx") {
            av_opt_set(c->priv_data, "deadline", "realtime", 0);
            av_opt_set_int(c->priv_data, "cpu-used", 8, 0);
        }
    });
    video.stream()->disposition = AV_DISPOSITION_DEFAULT;
    video.stream()->sample_aspect_ratio = AVRational{s.pixelAspectNum, s.pixelAspectDen};
    if (!s.videoTag.empty() && s.videoTag.size() == 4)
        video.stream()->codecpar->codec_tag = MKTAG(s.videoTag[0], s.videoTag[1], s.videoTag[2], s.videoTag[3]);
    if (s.rotation != 0) {
        auto* matrix = reinterpret_cast<std::int32_t*>(av_stream_new_side_data(video.stream(), AV_PKT_DATA_DISPLAYMATRIX, 9 * sizeof(std::int32_t)));
        if (!matrix) throw MediaError("Out of memory.");
        av_display_rotation_set(matrix, s.rotation); // clockwise, as players turn it
    }
    if (!s.timecode.empty()) av_dict_set(&video.stream()->metadata, "timecode", s.timecode.c_str(), 0);

    AVChannelLayout layout{};
    if (!s.channelLayout.empty()) check(av_channel_layout_from_string(&layout, s.channelLayout.c_str()), "Channel layout " + s.channelLayout);
    else av_channel_layout_default(&layout, s.channels);

    std::vector<std::unique_ptr<Encoder>> audio;
    int soundTracks = s.withSound ? 1 + s.extraSoundTracks : 0;
    auto configureSound = [&](AVCodecContext* c, AVChannelLayout const& l) {
        c->sample_rate = s.sampleRate;
        av_channel_layout_copy(&c->ch_layout, &l);
        c->sample_fmt = pickFormat(c->codec, s.bitsPerSample);
        if (s.bitsPerSample > 16) c->bits_per_raw_sample = s.bitsPerSample;
        c->bit_rate = s.audioBitRate;
        c->time_base = AVRational{1, s.sampleRate};
    };
    for (int i = 0; i < soundTracks; ++i) {
        auto enc = std::make_unique<Encoder>(out.get(), s.audioCodec.c_str(), [&](AVCodecContext* c) { configureSound(c, layout); });
        bool enabled = i == 0 || s.extraSoundEnabled;
        enc->stream()->disposition = enabled ? AV_DISPOSITION_DEFAULT : 0;
        std::string name = i == 0 ? "Sound" : "Sound " + std::to_string(i + 1);
        av_dict_set(&enc->stream()->metadata, "title", name.c_str(), 0);
        av_dict_set(&enc->stream()->metadata, "handler_name", name.c_str(), 0);
        if (i < static_cast<int>(s.languages.size())) av_dict_set(&enc->stream()->metadata, "language", s.languages[i].c_str(), 0);
        audio.push_back(std::move(enc));
    }
    // After a layout change the first sound track's packets come from a
    // stereo encoder of the same codec.
    CodecContext stereo;
    if (s.layoutChangeAt > 0 && !audio.empty()) {
        AVCodec const* codec = avcodec_find_encoder_by_name(s.audioCodec.c_str());
        stereo.reset(avcodec_alloc_context3(codec));
        if (!stereo) throw MediaError("Out of memory.");
        AVChannelLayout two = AV_CHANNEL_LAYOUT_STEREO;
        configureSound(stereo.get(), two);
        if (out->oformat->flags & AVFMT_GLOBALHEADER) stereo->flags |= AV_CODEC_FLAG_GLOBAL_HEADER;
        check(avcodec_open2(stereo.get(), codec, nullptr), "Opening the stereo encoder");
    }

    std::vector<AVStream*> subtitles;
    for (std::size_t i = 0; i < s.subtitleCodecs.size(); ++i) {
        AVStream* st = avformat_new_stream(out.get(), nullptr);
        if (!st) throw MediaError("Out of memory.");
        st->codecpar->codec_type = AVMEDIA_TYPE_SUBTITLE;
        bool ass = s.subtitleCodecs[i] == "ass";
        st->codecpar->codec_id = ass ? AV_CODEC_ID_ASS : AV_CODEC_ID_SUBRIP;
        if (ass)
            setExtradata(st->codecpar, "[Script Info]\nScriptType: v4.00+\nPlayResX: 384\nPlayResY: 288\n\n[V4+ Styles]\n"
                                       "Format: Name, Fontname, Fontsize, PrimaryColour, SecondaryColour, OutlineColour, BackColour, Bold, Italic, "
                                       "Underline, StrikeOut, ScaleX, ScaleY, Spacing, Angle, BorderStyle, Outline, Shadow, Alignment, MarginL, "
                                       "MarginR, MarginV, Encoding\nStyle: Default,Arial,16,&Hffffff,&Hffffff,&H0,&H0,0,0,0,0,100,100,0,0,1,1,0,2,10,10,10,0\n\n"
                                       "[Events]\nFormat: Layer, Start, End, Style, Name, MarginL, MarginR, MarginV, Effect, Text\n");
        st->time_base = AVRational{1, 1000};
        if (i < s.subtitleLanguages.size()) av_dict_set(&st->metadata, "language", s.subtitleLanguages[i].c_str(), 0);
        if (i == 1) st->disposition = AV_DISPOSITION_FORCED;
        subtitles.push_back(st);
    }
    if (s.attachment) {
        AVStream* st = avformat_new_stream(out.get(), nullptr);
        if (!st) throw MediaError("Out of memory.");
        st->codecpar->codec_type = AVMEDIA_TYPE_ATTACHMENT;
        st->codecpar->codec_id = AV_CODEC_ID_TEXT;
        setExtradata(st->codecpar, "Notes that travel with the movie.\n");
        av_dict_set(&st->metadata, "filename", "notes.txt", 0);
        av_dict_set(&st->metadata, "mimetype", "text/plain", 0);
    }

    check(avio_open(&out->pb, path.c_str(), AVIO_FLAG_WRITE), "Creating \"" + path + "\"");
    check(avformat_write_header(out.get(), nullptr), "Writing the movie header");

    // Subtitle lines every two seconds; the muxer interleaves them.
    for (std::size_t i = 0; i < subtitles.size(); ++i) {
        AVStream* st = subtitles[i];
        for (int k = 0; 2.0 * k + 1 < s.seconds; ++k) {
            std::string text = "Line " + std::to_string(k + 1);
            if (st->codecpar->codec_id == AV_CODEC_ID_ASS) text = std::to_string(k) + ",0,Default,,0,0,0,," + text;
            Packet p = makePacket();
            check(av_new_packet(p.get(), static_cast<int>(text.size())), "Allocating a subtitle");
            std::memcpy(p->data, text.data(), text.size());
            std::int64_t startMs = std::llround((s.startTime + 2.0 * k + 0.5) * 1000);
            p->pts = p->dts = av_rescale_q(startMs, AVRational{1, 1000}, st->time_base);
            p->duration = av_rescale_q(1000, AVRational{1, 1000}, st->time_base);
            p->stream_index = st->index;
            p->flags |= AV_PKT_FLAG_KEY;
            check(av_interleaved_write_frame(out.get(), p.get()), "Writing a subtitle");
        }
    }

    Frame picture = makeFrame();
    picture->width = s.width;
    picture->height = s.height;
    picture->format = AV_PIX_FMT_YUV420P;
    check(av_frame_get_buffer(picture.get(), 0), "Allocating a picture");

    // Click start samples.
    std::vector<std::int64_t> clicks;
    for (auto const& m : testMovieMarks(s)) clicks.push_back(std::llround(m.audioTime * s.sampleRate));
    std::int64_t clickLen = std::llround(kClickSeconds * s.sampleRate);
    auto sampleAt = [&](std::int64_t n) {
        if (s.soundSample) return s.soundSample(n);
        double t = static_cast<double>(n) / s.sampleRate;
        double v = 0.02 * std::sin(2 * kPi * 220 * t);
        if (s.music) {
            static constexpr double kNotes[] = {261.63, 329.63, 392.0, 523.25, 1318.5, 3135.96};
            double chord = 0;
            for (std::size_t k = 0; k < std::size(kNotes); ++k) {
                double f = kNotes[k] * (1 + 0.004 * std::sin(2 * kPi * (5 + 0.7 * static_cast<double>(k)) * t));
                chord += std::sin(2 * kPi * f * t + static_cast<double>(k)) / static_cast<double>(k + 1);
            }
            double tremolo = 0.6 + 0.4 * std::sin(2 * kPi * 1.3 * t);
            // Deterministic white noise from the sample's index.
            std::uint64_t h = static_cast<std::uint64_t>(n) * 0x9E3779B97F4A7C15ULL;
            h ^= h >> 31;
            h *= 0xBF58476D1CE4E5B9ULL;
            h ^= h >> 29;
            double noise = static_cast<double>(h >> 11) / 9007199254740992.0 * 2 - 1;
            v += 0.12 * tremolo * chord + 0.01 * noise;
        }
        auto it = std::upper_bound(clicks.begin(), clicks.end(), n);
        if (it != clicks.begin()) {
            std::int64_t c = *(it - 1);
            if (n - c < clickLen) v = 0.8 * std::cos(2 * kPi * 2000 * static_cast<double>(n - c) / s.sampleRate);
        }
        return static_cast<float>(v);
    };

    std::int64_t totalSamples = std::llround(s.seconds * s.sampleRate);
    std::int64_t nextSample = 0;
    std::int64_t startSample = std::llround(s.startTime * s.sampleRate);
    std::int64_t jumpSample = s.timestampJumpAt > 0 ? std::llround(s.timestampJumpAt * s.sampleRate) : -1;
    std::int64_t jumpBy = std::llround(s.timestampJump * s.sampleRate);
    std::int64_t changeSample = s.layoutChangeAt > 0 ? std::llround(s.layoutChangeAt * s.sampleRate) : -1;
    auto flashes = flashFrames(s);
    double fps = static_cast<double>(s.fpsNum) / s.fpsDen;
    std::int64_t totalFrames = static_cast<std::int64_t>(std::floor(s.seconds * fps));
    std::int64_t startFrame = std::llround(s.startTime * fps);
    Packet stereoPacket = makePacket();

    auto sendStereo = [&](AVFrame const* f) {
        int rc = avcodec_send_frame(stereo.get(), f);
        if (rc != AVERROR_EOF) check(rc, "Encoding stereo sound");
        while ((rc = avcodec_receive_packet(stereo.get(), stereoPacket.get())) == 0) {
            av_packet_rescale_ts(stereoPacket.get(), stereo->time_base, audio.front()->stream()->time_base);
            stereoPacket->stream_index = audio.front()->stream()->index;
            check(av_interleaved_write_frame(out.get(), stereoPacket.get()), "Writing the movie");
        }
    };

    auto writeAudioUntil = [&](std::int64_t until) {
        while (nextSample < std::min(until, totalSamples) && !audio.empty()) {
            AVCodecContext* c0 = audio.front()->context();
            int n = c0->frame_size > 0 ? c0->frame_size : 1024;
            n = static_cast<int>(std::min<std::int64_t>(n, totalSamples - nextSample));
            if (jumpSample > nextSample) n = static_cast<int>(std::min<std::int64_t>(n, jumpSample - nextSample));
            for (std::size_t e = 0; e < audio.size(); ++e) {
                bool switched = e == 0 && changeSample >= 0 && nextSample >= changeSample;
                AVCodecContext* ac = switched ? stereo.get() : audio[e]->context();
                Frame f = makeFrame();
                f->nb_samples = n;
                f->format = ac->sample_fmt;
                check(av_channel_layout_copy(&f->ch_layout, &ac->ch_layout), "Audio layout");
                f->sample_rate = ac->sample_rate;
                check(av_frame_get_buffer(f.get(), 0), "Allocating sound");
                for (int i = 0; i < n; ++i) {
                    if (s.channelSample) {
                        for (int ch = 0; ch < ac->ch_layout.nb_channels; ++ch)
                            putSample(f.get(), i, ch, s.channelSample(nextSample + i, ch), s.bitsPerSample);
                        continue;
                    }
                    float v = sampleAt(nextSample + i);
                    for (int ch = 0; ch < ac->ch_layout.nb_channels; ++ch) putSample(f.get(), i, ch, v, s.bitsPerSample);
                }
                f->pts = startSample + nextSample + (jumpSample >= 0 && nextSample >= jumpSample ? jumpBy : 0);
                if (switched) sendStereo(f.get());
                else audio[e]->send(f.get());
            }
            nextSample += n;
        }
    };

    for (std::int64_t k = 0; k < totalFrames; ++k) {
        writeAudioUntil(std::llround((static_cast<double>(k) / fps) * s.sampleRate));
        check(av_frame_make_writable(picture.get()), "Allocating a picture");
        if (s.drawPicture) {
            s.drawPicture(k, picture->data[0], picture->linesize[0], s.width, s.height);
            for (int p = 1; p <= 2; ++p)
                for (int y = 0; y < s.height / 2; ++y)
                    std::memset(picture->data[p] + static_cast<std::ptrdiff_t>(y) * picture->linesize[p], 128, static_cast<std::size_t>(s.width / 2));
        } else {
            fillPicture(picture.get(), k, std::binary_search(flashes.begin(), flashes.end(), k));
        }
        picture->pts = startFrame + k;
        picture->interlaced_frame = s.interlaced;
        picture->top_field_first = s.interlaced;
        video.send(picture.get());
    }
    writeAudioUntil(totalSamples);
    video.send(nullptr);
    for (auto& enc : audio) enc->send(nullptr);
    if (stereo) sendStereo(nullptr);
    av_channel_layout_uninit(&layout);
    check(av_write_trailer(out.get()), "Finishing the movie");
    // Buffered writes fail late: their error shows only when flushed.
    avio_flush(out->pb);
    int error = out->pb->error;
    check(avio_closep(&out->pb), "Closing \"" + path + "\"");
    check(error, "Writing \"" + path + "\"");
}

void drawFace(std::uint8_t* luma, int stride, int width, int height, double cx, double cy, double size, double mouthOpen)
{
    double rx = size * 0.38, ry = size * 0.5;
    auto inEllipse = [](double x, double y, double ex, double ey, double ax, double ay) {
        double dx = (x - ex) / ax, dy = (y - ey) / ay;
        return dx * dx + dy * dy <= 1;
    };
    mouthOpen = std::clamp(mouthOpen, 0.0, 1.0);
    int y0 = std::max(0, static_cast<int>(cy - ry) - 2), y1 = std::min(height, static_cast<int>(cy + ry) + 2);
    int x0 = std::max(0, static_cast<int>(cx - rx) - 2), x1 = std::min(width, static_cast<int>(cx + rx) + 2);
    for (int y = y0; y < y1; ++y) {
        std::uint8_t* row = luma + static_cast<std::ptrdiff_t>(y) * stride;
        for (int x = x0; x < x1; ++x) {
            double fx = x + 0.5, fy = y + 0.5;
            if (!inEllipse(fx, fy, cx, cy, rx, ry)) continue;
            // Skin, lit from the front: brightest at the middle.
            double v = 175 - 40 * std::hypot((fx - cx) / rx, (fy - cy) / ry);
            double u = (fx - cx) / size, w = (fy - cy) / size; // face coordinates
            for (double side : {-1.0, 1.0}) {
                if (inEllipse(u, w, side * 0.15, -0.08, 0.075, 0.035)) v = 30;                          // eye
                else if (inEllipse(u, w, side * 0.15, -0.08, 0.11, 0.06)) v = std::min(v, 110.0);       // eye socket
                if (std::fabs(u - side * 0.15) < 0.1 && std::fabs(w + 0.17) < 0.015) v = 50;          // brow
            }
            if (std::fabs(u) < 0.03 && w > -0.05 && w < 0.1) v += 15;                                 // nose ridge
            if (inEllipse(u, w, 0, 0.11, 0.06, 0.025)) v = std::min(v, 100.0);                        // nostrils
            double lip = 0.015 + 0.09 * mouthOpen;
            if (inEllipse(u, w, 0, 0.24, 0.14, lip)) v = 20 + 30 * (1 - mouthOpen);                  // mouth
            else if (inEllipse(u, w, 0, 0.24, 0.16, lip + 0.02)) v = 95;                              // lips
            row[x] = static_cast<std::uint8_t>(std::clamp(v, 16.0, 235.0));
        }
    }
}

double SyncMeasurement::worst() const
{
    double w = 0;
    for (double e : errors) w = std::max(w, std::fabs(e));
    return w;
}

SyncMeasurement measureSync(std::string const& path)
{
    OpenedMovie m = openMovie(path);
    SyncMeasurement out;
    dm::TrackPtr videoTrack, soundTrack;
    for (auto const& t : m.movie->tracks()) {
        if (!t->isEnabled()) continue;
        if (t->mediaType() == dm::MediaType::Video && !videoTrack) videoTrack = t;
        if (t->mediaType() == dm::MediaType::Sound && !soundTrack) soundTrack = t;
    }
    if (!videoTrack || !soundTrack) throw MediaError("The movie needs an enabled video and sound track to be measured.");

    auto vmedia = std::static_pointer_cast<const FileMedia>(videoTrack->media());
    VideoDecoder vd(vmedia);
    Frame f = makeFrame();
    Scaler gray;
    while (vd.next(f.get())) {
        AVFrame* g = gray.convert(f.get(), 64, 36, AV_PIX_FMT_GRAY8);
        double sum = 0;
        for (int y = 0; y < 36; ++y)
            for (int x = 0; x < 64; ++x) sum += g->data[0][y * g->linesize[0] + x];
        if (sum / (64 * 36) > 200) {
            std::int64_t ts = f->best_effort_timestamp;
            out.flashes.push_back(static_cast<double>(ts) * av_q2d(vmedia->timeBase));
        }
        av_frame_unref(f.get());
    }

    // Clicks, at the stream's own time stamps (what players go by).
    auto smedia = std::static_pointer_cast<const FileMedia>(soundTrack->media());
    AudioDecoder decoder(smedia);
    int rate = decoder.sampleRate();
    double streamStart = static_cast<double>(smedia->startPts) * av_q2d(smedia->timeBase);
    constexpr int kChunk = 1 << 15;
    PcmBuffer buf(decoder.channels(), kChunk);
    std::vector<float*> ptrs;
    for (auto& c : buf.channels) ptrs.push_back(c.data());
    std::int64_t lastClick = -10LL * rate;
    for (std::int64_t t = 0; t < smedia->length; t += kChunk) {
        decoder.read(t, kChunk, ptrs.data());
        auto const& c0 = buf.channels[0];
        for (int i = 0; i < kChunk; ++i) {
            if (std::fabs(c0[i]) > 0.4f && t + i - lastClick > rate / 2) {
                lastClick = t + i;
                out.clicks.push_back(streamStart + static_cast<double>(t + i) / rate);
            }
        }
    }
    for (double fl : out.flashes) {
        double best = 1e9;
        for (double c : out.clicks)
            if (std::fabs(c - fl) < std::fabs(best)) best = c - fl;
        out.errors.push_back(best);
    }
    return out;
}

} // namespace media
