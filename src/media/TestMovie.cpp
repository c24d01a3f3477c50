#include "TestMovie.h"

#include "AudioRenderer.h"
#include "Codec.h"

#include <algorithm>
#include <cmath>
#include <cstring>

namespace media {

namespace {

constexpr double kPi = 3.14159265358979323846;
constexpr double kClickSeconds = 0.005;

std::vector<std::int64_t> flashFrames(TestMovieSpec const& s)
{
    std::vector<std::int64_t> frames;
    double fps = static_cast<double>(s.fpsNum) / s.fpsDen;
    std::int64_t total = static_cast<std::int64_t>(std::floor(s.seconds * fps));
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

void writeTestMovie(std::string const& path, TestMovieSpec const& s)
{
    AVFormatContext* raw = nullptr;
    check(avformat_alloc_output_context2(&raw, nullptr, s.format.c_str(), path.c_str()), "Choosing the container");
    OutputContext out(raw);

    Encoder video(out.get(), s.videoCodec.c_str(), [&](AVCodecContext* c) {
        c->width = s.width;
        c->height = s.height;
        c->pix_fmt = AV_PIX_FMT_YUV420P;
        c->time_base = AVRational{s.fpsDen, s.fpsNum};
        c->framerate = AVRational{s.fpsNum, s.fpsDen};
        c->gop_size = std::max(1, 2 * s.fpsNum / s.fpsDen);
        c->max_b_frames = 0;
        c->bit_rate = 1'500'000;
        if (std::string(c->codec->name) == "libx264") {
            av_opt_set(c->priv_data, "preset", "veryfast", 0);
            av_opt_set(c->priv_data, "crf", "26", 0);
        }
    });
    video.stream()->disposition = AV_DISPOSITION_DEFAULT;

    std::vector<std::unique_ptr<Encoder>> audio;
    int soundTracks = s.withSound ? 1 + s.extraSoundTracks : 0;
    for (int i = 0; i < soundTracks; ++i) {
        auto enc = std::make_unique<Encoder>(out.get(), s.audioCodec.c_str(), [&](AVCodecContext* c) {
            c->sample_rate = s.sampleRate;
            av_channel_layout_default(&c->ch_layout, s.channels);
            c->sample_fmt = c->codec->sample_fmts ? c->codec->sample_fmts[0] : AV_SAMPLE_FMT_S16;
            c->bit_rate = s.audioBitRate;
            c->time_base = AVRational{1, s.sampleRate};
        });
        bool enabled = i == 0 || s.extraSoundEnabled;
        enc->stream()->disposition = enabled ? AV_DISPOSITION_DEFAULT : 0;
        std::string name = i == 0 ? "Sound" : "Sound " + std::to_string(i + 1);
        av_dict_set(&enc->stream()->metadata, "title", name.c_str(), 0);
        av_dict_set(&enc->stream()->metadata, "handler_name", name.c_str(), 0);
        audio.push_back(std::move(enc));
    }

    check(avio_open(&out->pb, path.c_str(), AVIO_FLAG_WRITE), "Creating \"" + path + "\"");
    check(avformat_write_header(out.get(), nullptr), "Writing the movie header");

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
        double t = static_cast<double>(n) / s.sampleRate;
        double v = 0.02 * std::sin(2 * kPi * 220 * t);
        auto it = std::upper_bound(clicks.begin(), clicks.end(), n);
        if (it != clicks.begin()) {
            std::int64_t c = *(it - 1);
            if (n - c < clickLen) v = 0.8 * std::cos(2 * kPi * 2000 * static_cast<double>(n - c) / s.sampleRate);
        }
        return static_cast<float>(v);
    };

    std::vector<Frame> audioFrames;
    std::int64_t totalSamples = std::llround(s.seconds * s.sampleRate);
    std::int64_t nextSample = 0;
    auto flashes = flashFrames(s);
    double fps = static_cast<double>(s.fpsNum) / s.fpsDen;
    std::int64_t totalFrames = static_cast<std::int64_t>(std::floor(s.seconds * fps));

    auto writeAudioUntil = [&](std::int64_t until) {
        while (nextSample < std::min(until, totalSamples) && !audio.empty()) {
            AVCodecContext* c = audio.front()->context();
            int n = c->frame_size > 0 ? c->frame_size : 1024;
            n = static_cast<int>(std::min<std::int64_t>(n, totalSamples - nextSample));
            for (auto& enc : audio) {
                AVCodecContext* ac = enc->context();
                Frame f = makeFrame();
                f->nb_samples = n;
                f->format = ac->sample_fmt;
                check(av_channel_layout_copy(&f->ch_layout, &ac->ch_layout), "Audio layout");
                f->sample_rate = ac->sample_rate;
                check(av_frame_get_buffer(f.get(), 0), "Allocating sound");
                for (int i = 0; i < n; ++i) {
                    float v = sampleAt(nextSample + i);
                    for (int ch = 0; ch < s.channels; ++ch) {
                        if (ac->sample_fmt == AV_SAMPLE_FMT_FLTP) reinterpret_cast<float*>(f->extended_data[ch])[i] = v;
                        else if (ac->sample_fmt == AV_SAMPLE_FMT_S16) reinterpret_cast<std::int16_t*>(f->data[0])[i * s.channels + ch] = static_cast<std::int16_t>(v * 32767);
                        else if (ac->sample_fmt == AV_SAMPLE_FMT_S16P) reinterpret_cast<std::int16_t*>(f->extended_data[ch])[i] = static_cast<std::int16_t>(v * 32767);
                        else if (ac->sample_fmt == AV_SAMPLE_FMT_FLT) reinterpret_cast<float*>(f->data[0])[i * s.channels + ch] = v;
                        else throw MediaError("Unsupported sample format for the test movie.");
                    }
                }
                f->pts = nextSample;
                enc->send(f.get());
            }
            nextSample += n;
        }
    };

    for (std::int64_t k = 0; k < totalFrames; ++k) {
        writeAudioUntil(std::llround((static_cast<double>(k) / fps) * s.sampleRate));
        check(av_frame_make_writable(picture.get()), "Allocating a picture");
        fillPicture(picture.get(), k, std::binary_search(flashes.begin(), flashes.end(), k));
        picture->pts = k;
        video.send(picture.get());
    }
    writeAudioUntil(totalSamples);
    video.send(nullptr);
    for (auto& enc : audio) enc->send(nullptr);
    check(av_write_trailer(out.get()), "Finishing the movie");
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
