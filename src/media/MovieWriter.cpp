#include "MovieWriter.h"

#include "AudioRenderer.h"
#include "Codec.h"
#include "FlcWriter.h"
#include "MovieFile.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cmath>
#include <cstring>
#include <fcntl.h>
#include <map>
#include <sys/stat.h>
#include <unistd.h>

namespace media {

std::vector<ExportFormat> const& exportFormats()
{
    static const std::vector<ExportFormat> formats = {
        {ExportType::AIFF, "AIFF Audio", "aiff"},
        {ExportType::BMP, "BMP Image", "bmp"},
        {ExportType::DV, "DV Stream", "dv"},
        {ExportType::FLC, "FLC Animation", "flc"},
        {ExportType::MPEG4, "MPEG-4", "mp4"},
        {ExportType::QuickTime, "QuickTime Movie", "mov"},
        {ExportType::QuickTimeWeb, "QuickTime Movie for the Web", "mov"},
    };
    return formats;
}

ExportType exportTypeNamed(std::string const& name)
{
    for (auto const& f : exportFormats()) {
        auto code = static_cast<std::uint32_t>(f.type);
        std::string fourcc{static_cast<char>(code >> 24), static_cast<char>(code >> 16), static_cast<char>(code >> 8), static_cast<char>(code)};
        if (name == fourcc || (name.size() == 3 && fourcc == name + " ")) return f.type;
    }
    static const std::map<std::string, ExportType> byName = {
        {"aiff", ExportType::AIFF}, {"aif", ExportType::AIFF}, {"bmp", ExportType::BMP}, {"dv", ExportType::DV},
        {"flc", ExportType::FLC}, {"mp4", ExportType::MPEG4}, {"mpeg4", ExportType::MPEG4}, {"mov", ExportType::QuickTime},
        {"quicktime", ExportType::QuickTime}, {"web", ExportType::QuickTimeWeb}, {"mov-web", ExportType::QuickTimeWeb},
    };
    std::string lower;
    for (char c : name) lower += static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    auto it = byName.find(lower);
    if (it == byName.end()) throw MediaError("Unknown export type \"" + name + "\".");
    return it->second;
}

namespace {

std::string directoryOf(std::string const& path)
{
    auto slash = path.find_last_of('/');
    if (slash == std::string::npos) return ".";
    if (slash == 0) return "/";
    return path.substr(0, slash);
}

std::string baseName(std::string const& path)
{
    auto slash = path.find_last_of('/');
    return slash == std::string::npos ? path : path.substr(slash + 1);
}

// A file written under a temporary name beside its target and renamed over
// the target only by commit(); otherwise removed when this goes away.
class PendingFile {
public:
    explicit PendingFile(std::string target, mode_t mode) : target_(std::move(target)), mode_(mode)
    {
        std::string pattern = directoryOf(target_) + "/." + baseName(target_) + ".dubmatch-XXXXXX";
        std::vector<char> buf(pattern.begin(), pattern.end());
        buf.push_back('\0');
        int fd = mkstemp(buf.data());
        if (fd < 0)
            throw MediaError("Cannot write in the folder \"" + directoryOf(target_) + "\": " + std::strerror(errno) + ".");
        ::close(fd);
        temp_ = buf.data();
    }
    ~PendingFile()
    {
        if (!committed_) ::unlink(temp_.c_str());
    }
    PendingFile(PendingFile const&) = delete;
    PendingFile& operator=(PendingFile const&) = delete;

    std::string const& path() const { return temp_; }

    // Flushes the file to disk and puts it in place in one step.
    void commit()
    {
        int fd = ::open(temp_.c_str(), O_RDONLY | O_CLOEXEC);
        if (fd < 0) throw MediaError(std::string("Cannot reopen the new file: ") + std::strerror(errno) + ".");
        bool ok = ::fchmod(fd, mode_) == 0 && ::fsync(fd) == 0;
        int err = errno;
        ::close(fd);
        if (!ok) throw MediaError(std::string("Cannot write the new file to disk: ") + std::strerror(err) + ".");
        if (::rename(temp_.c_str(), target_.c_str()) != 0)
            throw MediaError("Cannot replace \"" + target_ + "\": " + std::strerror(errno) + ".");
        committed_ = true;
        int dir = ::open(directoryOf(target_).c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
        if (dir >= 0) {
            ::fsync(dir);
            ::close(dir);
        }
    }

private:
    std::string target_;
    std::string temp_;
    mode_t mode_;
    bool committed_ = false;
};

mode_t defaultMode()
{
    mode_t mask = ::umask(0);
    ::umask(mask);
    return 0666 & ~mask;
}

std::int64_t fileSize(std::string const& path)
{
    struct stat st {};
    return ::stat(path.c_str(), &st) == 0 ? st.st_size : 0;
}

// Reports progress at most every 100 ms (and at the phases); throws
// Cancelled when the callback says stop.
class ProgressReporter {
public:
    ProgressReporter(Progress const& p, std::string op) : progress_(p), op_(std::move(op))
    {
        call(Phase::Begin, 0.0);
    }
    ~ProgressReporter()
    {
        if (progress_ && !ended_) progress_(op_, Phase::End, 1.0);
    }
    void update(double fraction)
    {
        auto now = std::chrono::steady_clock::now();
        if (now - last_ < std::chrono::milliseconds(100)) return;
        last_ = now;
        call(Phase::Update, std::clamp(fraction, 0.0, 1.0));
    }
    void end()
    {
        call(Phase::Update, 1.0);
        call(Phase::End, 1.0);
        ended_ = true;
    }

private:
    void call(Phase phase, double f)
    {
        // At the end the work is done: a stop then changes nothing.
        if (progress_ && !progress_(op_, phase, f) && phase != Phase::End) {
            ended_ = true;
            progress_(op_, Phase::End, f);
            throw Cancelled();
        }
    }
    Progress const& progress_;
    std::string op_;
    bool ended_ = false;
    std::chrono::steady_clock::time_point last_{};
};

FileMedia const& fileMedia(dm::Track const& t) { return OpenedMovie::mediaOf(t); }

bool isNatural(dm::Track const& t)
{
    auto const& m = fileMedia(t);
    if (t.timeScale() != m.timeScale) return false;
    auto const& segs = t.editList()->segments();
    std::size_t i = 0;
    if (i < segs.size() && segs[i].isEmpty()) ++i;
    return segs.size() == i + 1 && segs[i] == dm::Segment::media(m.length, 0, m.length);
}

void setName(AVStream* st, std::string const& name)
{
    av_dict_set(&st->metadata, "title", name.c_str(), 0);
    av_dict_set(&st->metadata, "handler_name", name.c_str(), 0);
}

// A sound track rendered through its edit list and encoded.
class RenderedSound {
public:
    // `forceRate` resamples to another rate; `padToSeconds` extends the
    // sound with silence to at least that length.
    RenderedSound(AVFormatContext* out, dm::Track const& track, bool forceAac, int forceRate = 0, double padToSeconds = 0)
        : track_(track), list_(track.editList()), renderer_(std::static_pointer_cast<const FileMedia>(track.media()))
    {
        auto const& m = fileMedia(track);
        if (track.timeScale() != renderer_.sampleRate())
            throw MediaError("The sound track's time scale is not its sample rate.");
        rate_ = forceRate > 0 ? forceRate : renderer_.sampleRate();
        AVCodecID id = forceAac ? AV_CODEC_ID_AAC : m.codecpar->codec_id;
        std::string container = out->oformat->name;
        if (container == "aiff") id = AV_CODEC_ID_PCM_S16BE;
        if (container == "dv") id = AV_CODEC_ID_PCM_S16LE;
        AVCodec const* codec = avcodec_find_encoder(id);
        if (!codec || avformat_query_codec(out->oformat, id, FF_COMPLIANCE_NORMAL) != 1 || (codec->capabilities & AV_CODEC_CAP_EXPERIMENTAL))
            id = AV_CODEC_ID_AAC;
        if (id != m.codecpar->codec_id) note_ = std::string("sound encoded as ") + avcodec_get_name(id);
        int channels = renderer_.channels();
        encoder_ = std::make_unique<Encoder>(out, id, [&](AVCodecContext* c) {
            c->sample_rate = rate_;
            if (m.codecpar->ch_layout.nb_channels == channels && m.codecpar->ch_layout.order == AV_CHANNEL_ORDER_NATIVE)
                av_channel_layout_copy(&c->ch_layout, &m.codecpar->ch_layout);
            else
                av_channel_layout_default(&c->ch_layout, channels);
            c->sample_fmt = c->codec->sample_fmts ? c->codec->sample_fmts[0] : AV_SAMPLE_FMT_FLTP;
            if (c->codec->sample_fmts)
                for (auto const* f = c->codec->sample_fmts; *f != AV_SAMPLE_FMT_NONE; ++f)
                    if (*f == AV_SAMPLE_FMT_FLTP) c->sample_fmt = AV_SAMPLE_FMT_FLTP;
            std::int64_t br = m.codecpar->bit_rate;
            c->bit_rate = br > 0 ? br : 64000LL * channels;
            c->time_base = AVRational{1, rate_};
        });
        AVCodecContext* c = encoder_->context();
        frameSize_ = c->frame_size > 0 ? c->frame_size : 1024;
        SwrContext* s = nullptr;
        AVChannelLayout inLayout;
        av_channel_layout_default(&inLayout, channels);
        check(swr_alloc_set_opts2(&s, &c->ch_layout, c->sample_fmt, rate_, &inLayout, AV_SAMPLE_FMT_FLTP,
                                  renderer_.sampleRate(), 0, nullptr),
              "Setting up sample conversion");
        convert_.reset(s);
        if (rate_ != renderer_.sampleRate()) {
            av_opt_set(s, "resampler", "soxr", 0);
            av_opt_set_double(s, "precision", 28, 0);
        }
        check(swr_init(s), "Setting up sample conversion");
        fifo_.reset(av_audio_fifo_alloc(c->sample_fmt, c->ch_layout.nb_channels, frameSize_ * 4));
        if (!fifo_) throw MediaError("Out of memory.");
        pcm_ = PcmBuffer(channels, static_cast<std::size_t>(kChunk));
        total_ = std::max(list_->duration(), static_cast<std::int64_t>(std::ceil(padToSeconds * renderer_.sampleRate())));
    }

    AVStream* stream() const { return encoder_->stream(); }
    std::string const& note() const { return note_; }
    double secondsDone() const { return static_cast<double>(pos_) / renderer_.sampleRate(); }
    double fractionDone() const { return total_ > 0 ? static_cast<double>(pos_) / static_cast<double>(total_) : 1.0; }
    bool done() const { return finished_; }

    // Renders and encodes until `seconds` of the timeline are written.
    void encodeUntil(double seconds)
    {
        while (!finished_ && secondsDone() < seconds) step();
    }

private:
    static constexpr int kChunk = 8192;

    void step()
    {
        AVCodecContext* c = encoder_->context();
        if (pos_ < total_) {
            int n = static_cast<int>(std::min<std::int64_t>(kChunk, total_ - pos_));
            pcm_.resize(static_cast<std::size_t>(n));
            renderer_.render(*list_, pos_, pcm_);
            pos_ += n;
            std::vector<std::uint8_t const*> in;
            for (auto& ch : pcm_.channels) in.push_back(reinterpret_cast<std::uint8_t const*>(ch.data()));
            convertAndQueue(in.data(), n);
        } else {
            convertAndQueue(nullptr, 0); // drain the converter
        }
        bool last = pos_ >= total_;
        while (av_audio_fifo_size(fifo_.get()) >= frameSize_ || (last && av_audio_fifo_size(fifo_.get()) > 0)) {
            int n = std::min(frameSize_, av_audio_fifo_size(fifo_.get()));
            Frame f = makeFrame();
            f->nb_samples = n;
            f->format = c->sample_fmt;
            f->sample_rate = c->sample_rate;
            check(av_channel_layout_copy(&f->ch_layout, &c->ch_layout), "Sound layout");
            check(av_frame_get_buffer(f.get(), 0), "Allocating sound");
            av_audio_fifo_read(fifo_.get(), reinterpret_cast<void**>(f->extended_data), n);
            f->pts = encodedSamples_;
            encodedSamples_ += n;
            encoder_->send(f.get());
        }
        if (last) {
            encoder_->send(nullptr);
            finished_ = true;
        }
    }

    void convertAndQueue(std::uint8_t const** in, int n)
    {
        AVCodecContext* c = encoder_->context();
        int room = swr_get_out_samples(convert_.get(), n) + 32;
        Frame tmp = makeFrame();
        tmp->nb_samples = room;
        tmp->format = c->sample_fmt;
        check(av_channel_layout_copy(&tmp->ch_layout, &c->ch_layout), "Sound layout");
        check(av_frame_get_buffer(tmp.get(), 0), "Allocating sound");
        int got = check(swr_convert(convert_.get(), tmp->extended_data, room, in, n), "Converting samples");
        if (got > 0) check(av_audio_fifo_write(fifo_.get(), reinterpret_cast<void**>(tmp->extended_data), got), "Queueing sound");
    }

    dm::Track const& track_;
    std::shared_ptr<const dm::EditList> list_;
    AudioRenderer renderer_;
    std::unique_ptr<Encoder> encoder_;
    Swr convert_;
    AudioFifo fifo_;
    PcmBuffer pcm_;
    int rate_ = 0;
    int frameSize_ = 1024;
    std::int64_t pos_ = 0;
    std::int64_t total_ = 0;
    std::int64_t encodedSamples_ = 0;
    bool finished_ = false;
    std::string note_;
};

// A video track re-encoded frame by frame (for containers that cannot take
// its codec): constant frame rate, each output frame showing the source
// frame on screen at its time.
class ReencodedVideo {
public:
    struct Target {
        char const* codec;
        int width, height;
        AVPixelFormat pixfmt;
        AVRational fps;
        std::int64_t bitRate;
    };
    ReencodedVideo(AVFormatContext* out, dm::Track const& track, Target t, double seconds)
        : source_(std::static_pointer_cast<const FileMedia>(track.media())), target_(t)
    {
        encoder_ = std::make_unique<Encoder>(out, t.codec, [&](AVCodecContext* c) {
            c->width = t.width;
            c->height = t.height;
            c->pix_fmt = t.pixfmt;
            c->time_base = AVRational{t.fps.den, t.fps.num};
            c->framerate = t.fps;
            c->gop_size = std::max(1, 2 * t.fps.num / std::max(1, t.fps.den));
            c->bit_rate = t.bitRate;
            if (std::string(c->codec->name) == "libx264") av_opt_set(c->priv_data, "preset", "veryfast", 0);
        });
        total_ = static_cast<std::int64_t>(std::floor(seconds * av_q2d(t.fps)));
        lead_ = static_cast<double>(track.editList()->materialStart()) / track.timeScale();
    }
    AVStream* stream() const { return encoder_->stream(); }
    double fractionDone() const { return total_ > 0 ? static_cast<double>(n_) / static_cast<double>(total_) : 1.0; }
    double secondsDone() const { return static_cast<double>(n_) / av_q2d(target_.fps); }
    bool done() const { return finished_; }

    void step()
    {
        if (n_ >= total_) {
            if (!finished_) encoder_->send(nullptr);
            finished_ = true;
            return;
        }
        double t = static_cast<double>(n_) / av_q2d(target_.fps);
        AVFrame* shown = source_.at(t - lead_);
        if (!shown) throw MediaError("The video track has no pictures.");
        AVFrame* scaled = scaler_.convert(shown, target_.width, target_.height, target_.pixfmt);
        scaled->pts = n_;
        encoder_->send(scaled);
        ++n_;
    }

private:
    FrameOnScreen source_;
    Target target_;
    std::unique_ptr<Encoder> encoder_;
    Scaler scaler_;
    bool finished_ = false;
    std::int64_t n_ = 0, total_ = 0;
    double lead_ = 0; // empty time before the track's first picture
};

struct Plan {
    std::string container = "mov";
    bool fastStart = false;
    bool enabledOnly = false;   // leave disabled tracks out
    bool forceAac = false;      // encode sound as AAC
    bool videoMustBeH264OrMpeg4 = false;
    bool dv = false;            // re-encode video and sound for DV
    bool soundOnly = false;
    std::string operation = "Saving";
};

WriteResult writeFlat(dm::Movie const& movie, std::string const& path, Plan const& plan, Progress const& progress)
{
    ProgressReporter report(progress, plan.operation);
    WriteResult result;
    AVFormatContext* raw = nullptr;
    check(avformat_alloc_output_context2(&raw, nullptr, plan.container.c_str(), path.c_str()), "Choosing the container");
    OutputContext out(raw);

    struct Copy {
        std::shared_ptr<SourceFile> file;
        int sourceIndex;
        AVStream* out;
        AVRational sourceTb;
    };
    std::vector<Copy> copies;
    std::vector<std::unique_ptr<RenderedSound>> sounds;
    std::vector<std::unique_ptr<ReencodedVideo>> videos;
    double seconds = movie.duration().seconds();
    int soundRate = 0;

    for (auto const& trackPtr : movie.tracks()) {
        dm::Track const& track = *trackPtr;
        auto const& m = fileMedia(track);
        bool enabled = track.isEnabled();
        if (plan.enabledOnly && !enabled) continue;
        if (plan.soundOnly && track.mediaType() != dm::MediaType::Sound) continue;
        if (track.mediaType() == dm::MediaType::Sound && (enabled || !isNatural(track) || plan.dv)) {
            if (plan.dv && !enabled) continue;
            auto s = std::make_unique<RenderedSound>(out.get(), track, plan.forceAac, plan.dv ? 48000 : 0, plan.dv ? seconds + 1 : 0);
            s->stream()->disposition = enabled ? AV_DISPOSITION_DEFAULT : 0;
            setName(s->stream(), track.displayName());
            if (!s->note().empty()) result.notes.push_back(s->note());
            soundRate = soundRate ? soundRate : track.timeScale();
            sounds.push_back(std::move(s));
            continue;
        }
        AVCodecID id = m.codecpar->codec_id;
        bool reencode = false;
        ReencodedVideo::Target target{};
        if (track.mediaType() == dm::MediaType::Video) {
            if (plan.dv) {
                double fps = m.frameRate.num > 0 ? av_q2d(m.frameRate) : 25;
                bool ntsc = std::fabs(fps - 29.97) < 0.6 || std::fabs(fps - 59.94) < 1.2 || std::fabs(fps - 23.976) < 0.5;
                target = ntsc ? ReencodedVideo::Target{"dvvideo", 720, 480, AV_PIX_FMT_YUV411P, {30000, 1001}, 25'000'000}
                              : ReencodedVideo::Target{"dvvideo", 720, 576, AV_PIX_FMT_YUV420P, {25, 1}, 25'000'000};
                reencode = true;
            } else if (plan.videoMustBeH264OrMpeg4 && id != AV_CODEC_ID_H264 && id != AV_CODEC_ID_MPEG4 && id != AV_CODEC_ID_HEVC) {
                AVRational fps = m.frameRate.num > 0 ? m.frameRate : AVRational{25, 1};
                target = {"libx264", m.width & ~1, m.height & ~1, AV_PIX_FMT_YUV420P, fps, 0};
                reencode = true;
                result.notes.push_back("video re-encoded as H.264");
            }
        }
        if (reencode) {
            if (plan.dv && !videos.empty()) continue; // DV holds one picture stream
            auto v = std::make_unique<ReencodedVideo>(out.get(), track, target, seconds);
            v->stream()->disposition = enabled ? AV_DISPOSITION_DEFAULT : 0;
            videos.push_back(std::move(v));
            continue;
        }
        if (plan.dv) continue;
        if (avformat_query_codec(out->oformat, id, FF_COMPLIANCE_NORMAL) != 1) {
            result.notes.push_back(std::string("left out ") + dm::mediaTypeName(track.mediaType()) + " track \"" + track.displayName()
                                   + "\" (" + avcodec_get_name(id) + " does not fit the container)");
            continue;
        }
        AVStream* st = avformat_new_stream(out.get(), nullptr);
        if (!st) throw MediaError("Out of memory.");
        check(avcodec_parameters_copy(st->codecpar, m.codecpar), "Copying stream parameters");
        st->codecpar->codec_tag = 0;
        st->time_base = m.timeBase;
        st->disposition = enabled ? AV_DISPOSITION_DEFAULT : 0;
        if (track.mediaType() == dm::MediaType::Sound) setName(st, track.displayName());
        else if (!m.title.empty()) setName(st, m.title);
        if (m.frameRate.num > 0) st->avg_frame_rate = m.frameRate;
        copies.push_back({m.file, m.streamIndex, st, m.timeBase});
    }
    if (copies.empty() && sounds.empty() && videos.empty()) throw MediaError("The movie has nothing to write in this format.");

    check(avio_open(&out->pb, path.c_str(), AVIO_FLAG_WRITE), "Creating the new file");
    AVDictionary* opts = nullptr;
    if (plan.container == "mov" || plan.container == "mp4") {
        if (plan.fastStart) av_dict_set(&opts, "movflags", "+faststart", 0);
        if (soundRate > 0) av_dict_set_int(&opts, "movie_timescale", soundRate, 0);
    }
    int rc = avformat_write_header(out.get(), &opts);
    av_dict_free(&opts);
    check(rc, "Writing the movie header");

    auto fraction = [&](double copied) {
        double f = copied;
        for (auto const& s : sounds) f = std::min(f, s->fractionDone());
        for (auto const& v : videos) f = std::min(f, v->fractionDone());
        return f;
    };
    auto pumpTo = [&](double seconds) {
        for (auto& s : sounds) s->encodeUntil(seconds);
        for (auto& v : videos)
            while (!v->done() && v->secondsDone() < seconds) v->step();
    };

    // Copied streams, file by file, with the rendered ones kept a little ahead.
    std::map<SourceFile*, std::vector<Copy const*>> byFile;
    for (auto const& c : copies) byFile[c.file.get()].push_back(&c);
    std::size_t filesDone = 0;
    for (auto const& [file, list] : byFile) {
        auto in = list.front()->file->openInput(false);
        AVFormatContext* fmt = in.format.get();
        if (fmt->nb_streams == 0) check(avformat_find_stream_info(fmt, nullptr), "Reading streams");
        std::map<int, Copy const*> wanted;
        for (auto const* c : list) wanted[c->sourceIndex] = c;
        for (unsigned i = 0; i < fmt->nb_streams; ++i) fmt->streams[i]->discard = wanted.count(static_cast<int>(i)) ? AVDISCARD_DEFAULT : AVDISCARD_ALL;
        Packet pkt = makePacket();
        std::int64_t size = std::max<std::int64_t>(1, file->size());
        while ((rc = av_read_frame(fmt, pkt.get())) >= 0) {
            auto it = wanted.find(pkt->stream_index);
            if (it == wanted.end()) {
                av_packet_unref(pkt.get());
                continue;
            }
            Copy const& c = *it->second;
            std::int64_t ts = pkt->dts != AV_NOPTS_VALUE ? pkt->dts : pkt->pts;
            if (ts != AV_NOPTS_VALUE) pumpTo(static_cast<double>(ts) * av_q2d(c.sourceTb) + 1.0);
            av_packet_rescale_ts(pkt.get(), c.sourceTb, c.out->time_base);
            pkt->stream_index = c.out->index;
            pkt->pos = -1;
            check(av_interleaved_write_frame(out.get(), pkt.get()), "Writing the movie");
            double copied = (static_cast<double>(filesDone) + static_cast<double>(avio_tell(fmt->pb)) / static_cast<double>(size))
                          / static_cast<double>(byFile.size());
            report.update(fraction(copied));
        }
        if (rc != AVERROR_EOF) throw MediaError("Reading \"" + file->path() + "\" failed: " + avError(rc) + ".");
        ++filesDone;
    }
    // Whatever is left of the rendered streams.
    for (;;) {
        bool all = true;
        for (auto& s : sounds) {
            if (!s->done()) {
                s->encodeUntil(s->secondsDone() + 2.0);
                all = false;
            }
        }
        for (auto& v : videos) {
            for (int i = 0; i < 25 && !v->done(); ++i) v->step();
            all = all && v->done();
        }
        report.update(fraction(1.0));
        if (all) break;
    }
    check(av_write_trailer(out.get()), "Finishing the movie");
    check(avio_closep(&out->pb), "Closing the new file");
    result.bytes = fileSize(path);
    report.end();
    return result;
}

WriteResult writeBmp(dm::Movie const& movie, std::string const& path, myQTTime const& when)
{
    dm::TrackPtr video;
    for (auto const& t : movie.tracksOfMediaType(dm::MediaType::Video))
        if (t->isEnabled()) {
            video = t;
            break;
        }
    if (!video) throw MediaError("The movie has no picture to export.");
    FrameOnScreen source(std::static_pointer_cast<const FileMedia>(video->media()));
    double target = when.seconds() - static_cast<double>(video->editList()->materialStart()) / video->timeScale();
    source.seek(target);
    AVFrame* best = source.at(target);
    if (!best) throw MediaError("No picture could be decoded at that time.");
    Scaler scaler;
    AVFrame* rgb = scaler.convert(best, best->width, best->height, AV_PIX_FMT_BGR24);
    AVCodec const* codec = avcodec_find_encoder(AV_CODEC_ID_BMP);
    if (!codec) throw MediaError("No BMP encoder.");
    CodecContext c(avcodec_alloc_context3(codec));
    if (!c) throw MediaError("Out of memory.");
    c->width = rgb->width;
    c->height = rgb->height;
    c->pix_fmt = AV_PIX_FMT_BGR24;
    c->time_base = AVRational{1, 25};
    check(avcodec_open2(c.get(), codec, nullptr), "Opening the BMP encoder");
    check(avcodec_send_frame(c.get(), rgb), "Encoding the picture");
    Packet pkt = makePacket();
    check(avcodec_receive_packet(c.get(), pkt.get()), "Encoding the picture");
    AVIOContext* io = nullptr;
    check(avio_open(&io, path.c_str(), AVIO_FLAG_WRITE), "Creating the image file");
    avio_write(io, pkt->data, pkt->size);
    int rc = io->error;
    check(avio_closep(&io), "Writing the image file");
    check(rc, "Writing the image file");
    WriteResult r;
    r.bytes = fileSize(path);
    return r;
}

WriteResult writeFlc(dm::Movie const& movie, std::string const& path, Progress const& progress)
{
    dm::TrackPtr video;
    for (auto const& t : movie.tracksOfMediaType(dm::MediaType::Video))
        if (t->isEnabled()) {
            video = t;
            break;
        }
    if (!video) throw MediaError("The movie has no pictures to export.");
    ProgressReporter report(progress, "Exporting");
    auto const& m = fileMedia(*video);
    double fps = m.frameRate.num > 0 ? av_q2d(m.frameRate) : 25.0;
    int w = m.width, h = m.height;
    if (w > 640) { // FLC is an animation format: keep frames small
        h = static_cast<int>(std::lround(static_cast<double>(h) * 640 / w));
        w = 640;
    }
    w &= ~1;
    h = std::max(h, 1);
    int msPerFrame = std::max(1, static_cast<int>(std::lround(1000.0 / fps)));
    double step = msPerFrame / 1000.0;
    double seconds = movie.duration().seconds();
    std::int64_t frames = std::min<std::int64_t>(65535, static_cast<std::int64_t>(std::floor(seconds / step)));
    FlcWriter flc(path, w, h, msPerFrame);
    FrameOnScreen source(std::static_pointer_cast<const FileMedia>(video->media()));
    double lead = static_cast<double>(video->editList()->materialStart()) / video->timeScale();
    Scaler scaler;
    for (std::int64_t n = 0; n < frames; ++n) {
        AVFrame* shown = source.at(static_cast<double>(n) * step - lead);
        if (!shown) throw MediaError("The video track has no pictures.");
        AVFrame* rgb = scaler.convert(shown, w, h, AV_PIX_FMT_RGB24);
        flc.addFrame(rgb->data[0], rgb->linesize[0]);
        report.update(static_cast<double>(n + 1) / static_cast<double>(frames));
    }
    flc.finish();
    WriteResult r;
    r.bytes = fileSize(path);
    report.end();
    return r;
}

} // namespace

WriteResult writeMovie(dm::Movie const& movie, std::string const& path, Progress const& progress, std::string const& container)
{
    PendingFile file(path, defaultMode());
    Plan plan;
    plan.container = container;
    plan.operation = "Saving a self-contained movie";
    WriteResult r = writeFlat(movie, file.path(), plan, progress);
    file.commit();
    return r;
}

WriteResult saveInPlace(dm::Movie const& movie, std::string const& path, Progress const& progress, std::string const& container)
{
    struct stat st {};
    if (::stat(path.c_str(), &st) != 0) throw MediaError("Cannot save over \"" + path + "\": " + std::strerror(errno) + ".");
    PendingFile file(path, st.st_mode & 07777);
    Plan plan;
    plan.container = container;
    plan.operation = "Saving";
    WriteResult r = writeFlat(movie, file.path(), plan, progress);
    file.commit();
    return r;
}

WriteResult exportMovie(dm::Movie const& movie, std::string const& path, ExportType type, myQTTime const& currentTime,
                        Progress const& progress)
{
    PendingFile file(path, defaultMode());
    WriteResult r;
    Plan plan;
    plan.operation = "Exporting";
    switch (type) {
    case ExportType::QuickTime: r = writeFlat(movie, file.path(), plan, progress); break;
    case ExportType::QuickTimeWeb:
        plan.fastStart = true;
        r = writeFlat(movie, file.path(), plan, progress);
        break;
    case ExportType::MPEG4:
        plan.container = "mp4";
        plan.enabledOnly = true;
        plan.forceAac = true;
        plan.videoMustBeH264OrMpeg4 = true;
        r = writeFlat(movie, file.path(), plan, progress);
        break;
    case ExportType::AIFF:
        plan.container = "aiff";
        plan.enabledOnly = true;
        plan.soundOnly = true;
        r = writeFlat(movie, file.path(), plan, progress);
        break;
    case ExportType::DV:
        plan.container = "dv";
        plan.enabledOnly = true;
        plan.dv = true;
        r = writeFlat(movie, file.path(), plan, progress);
        break;
    case ExportType::BMP: r = writeBmp(movie, file.path(), currentTime); break;
    case ExportType::FLC: r = writeFlc(movie, file.path(), progress); break;
    }
    file.commit();
    return r;
}

} // namespace media
