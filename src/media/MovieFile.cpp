#include "MovieFile.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace media {

std::string avError(int code)
{
    char buf[AV_ERROR_MAX_STRING_SIZE] = {0};
    av_strerror(code, buf, sizeof buf);
    return buf;
}

int check(int code, std::string const& what)
{
    if (code < 0) throw MediaError(what + ": " + avError(code));
    return code;
}

void setupMediaLogging()
{
    int level = AV_LOG_QUIET;
    if (char const* env = std::getenv("DUBMATCH_FFMPEG_LOG")) {
        std::string v = env;
        if (v == "error") level = AV_LOG_ERROR;
        else if (v == "warning") level = AV_LOG_WARNING;
        else if (v == "info") level = AV_LOG_INFO;
        else if (v == "verbose") level = AV_LOG_VERBOSE;
        else if (v == "debug") level = AV_LOG_DEBUG;
    }
    av_log_set_level(level);
}

Frame makeFrame()
{
    Frame f(av_frame_alloc());
    if (!f) throw MediaError("Out of memory.");
    return f;
}

Packet makePacket()
{
    Packet p(av_packet_alloc());
    if (!p) throw MediaError("Out of memory.");
    return p;
}

std::shared_ptr<SourceFile> SourceFile::open(std::string const& path)
{
    int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) throw MediaError("Cannot open \"" + path + "\": " + std::strerror(errno) + ".");
    struct stat st {};
    if (fstat(fd, &st) != 0 || !S_ISREG(st.st_mode)) {
        ::close(fd);
        throw MediaError("\"" + path + "\" is not a regular file.");
    }
    return std::shared_ptr<SourceFile>(new SourceFile(path, fd, st.st_size));
}

SourceFile::~SourceFile() { ::close(fd_); }

namespace {

struct Reader {
    int fd;
    std::int64_t size;
    std::int64_t pos = 0;
};

int readPacket(void* opaque, std::uint8_t* buf, int size)
{
    auto* r = static_cast<Reader*>(opaque);
    if (r->pos >= r->size) return AVERROR_EOF;
    ssize_t n;
    do {
        n = ::pread(r->fd, buf, static_cast<size_t>(size), r->pos);
    } while (n < 0 && errno == EINTR);
    if (n < 0) return AVERROR(errno);
    if (n == 0) return AVERROR_EOF;
    r->pos += n;
    return static_cast<int>(n);
}

std::int64_t seekPacket(void* opaque, std::int64_t offset, int whence)
{
    auto* r = static_cast<Reader*>(opaque);
    switch (whence & ~AVSEEK_FORCE) {
    case AVSEEK_SIZE: return r->size;
    case SEEK_SET: r->pos = offset; break;
    case SEEK_CUR: r->pos += offset; break;
    case SEEK_END: r->pos = r->size + offset; break;
    default: return AVERROR(EINVAL);
    }
    return r->pos;
}

} // namespace

SourceFile::Input SourceFile::openInput(bool findStreamInfo) const
{
    Input in;
    auto reader = std::make_shared<Reader>(Reader{fd_, size_});
    in.reader = reader;
    constexpr int kBuffer = 64 * 1024;
    auto* buffer = static_cast<std::uint8_t*>(av_malloc(kBuffer));
    if (!buffer) throw MediaError("Out of memory.");
    in.io.reset(avio_alloc_context(buffer, kBuffer, 0, reader.get(), readPacket, nullptr, seekPacket));
    if (!in.io) {
        av_free(buffer);
        throw MediaError("Out of memory.");
    }
    AVFormatContext* fmt = avformat_alloc_context();
    if (!fmt) throw MediaError("Out of memory.");
    fmt->pb = in.io.get();
    fmt->flags |= AVFMT_FLAG_CUSTOM_IO;
    // On failure avformat_open_input frees the context itself.
    int rc = avformat_open_input(&fmt, path_.c_str(), nullptr, nullptr);
    if (rc < 0) throw MediaError("\"" + path_ + "\" is not a movie file FFmpeg can read (" + avError(rc) + ").");
    in.format.reset(fmt);
    if (findStreamInfo) {
        rc = avformat_find_stream_info(fmt, nullptr);
        if (rc < 0) throw MediaError("Cannot read the streams of \"" + path_ + "\" (" + avError(rc) + ").");
    }
    return in;
}

std::int64_t FileMedia::ticksFromPts(std::int64_t pts) const
{
    return av_rescale_q_rnd(pts - startPts, timeBase, AVRational{1, timeScale},
                            static_cast<AVRounding>(AV_ROUND_NEAR_INF | AV_ROUND_PASS_MINMAX));
}

std::int64_t FileMedia::ptsFromTicks(std::int64_t ticks) const
{
    return startPts + av_rescale_q_rnd(ticks, AVRational{1, timeScale}, timeBase,
                                       static_cast<AVRounding>(AV_ROUND_NEAR_INF | AV_ROUND_PASS_MINMAX));
}

FileMedia const& OpenedMovie::mediaOf(dm::Track const& track)
{
    auto const* m = dynamic_cast<FileMedia const*>(track.media().get());
    if (!m) throw MediaError("Track " + std::to_string(track.id()) + " has no file media.");
    return *m;
}

bool canOpenMovie(std::string const& path)
{
    try {
        auto file = SourceFile::open(path);
        auto in = file->openInput(false);
        // Containers with a header list their streams at once; for the rest
        // (raw streams, MPEG transport) the recognised format is enough.
        if (in.format->nb_streams == 0) return (in.format->ctx_flags & AVFMTCTX_NOHEADER) != 0;
        for (unsigned i = 0; i < in.format->nb_streams; ++i) {
            auto type = in.format->streams[i]->codecpar->codec_type;
            if (type == AVMEDIA_TYPE_AUDIO || type == AVMEDIA_TYPE_VIDEO) return true;
        }
        return false;
    } catch (MediaError const&) {
        return false;
    }
}

namespace {

bool containerHasEnabledFlag(std::string const& name)
{
    return name.find("mov") != std::string::npos || name.find("mp4") != std::string::npos
        || name.find("matroska") != std::string::npos || name.find("webm") != std::string::npos;
}

std::string metadata(AVDictionary* dict, char const* key)
{
    AVDictionaryEntry* e = av_dict_get(dict, key, nullptr, 0);
    return e && e->value ? e->value : "";
}

bool isDefaultHandlerName(std::string const& s)
{
    return s.empty() || s == "SoundHandler" || s == "VideoHandler" || s == "DataHandler" || s == "SubtitleHandler"
        || s == "Core Media Audio" || s == "Core Media Video";
}

} // namespace

OpenedMovie openMovie(std::string const& path)
{
    OpenedMovie out;
    out.file = SourceFile::open(path);
    auto in = out.file->openInput(true);
    AVFormatContext* fmt = in.format.get();
    out.formatName = fmt->iformat->name;
    bool useFlag = containerHasEnabledFlag(out.formatName);
    out.movie = std::make_shared<dm::Movie>(600);

    std::int64_t formatStart = fmt->start_time == AV_NOPTS_VALUE ? 0 : fmt->start_time; // AV_TIME_BASE units
    for (unsigned i = 0; i < fmt->nb_streams; ++i) {
        AVStream* st = fmt->streams[i];
        AVCodecParameters* par = st->codecpar;
        auto media = std::make_shared<FileMedia>();
        media->file = out.file;
        media->streamIndex = static_cast<int>(i);
        media->timeBase = st->time_base;
        media->codecpar = avcodec_parameters_alloc();
        if (!media->codecpar) throw MediaError("Out of memory.");
        check(avcodec_parameters_copy(media->codecpar, par), "Copying stream parameters");

        dm::MediaType type = dm::MediaType::Other;
        if (par->codec_type == AVMEDIA_TYPE_AUDIO && par->sample_rate > 0) {
            type = dm::MediaType::Sound;
            media->sampleRate = par->sample_rate;
            media->channels = par->ch_layout.nb_channels;
            media->timeScale = par->sample_rate;
        } else if (par->codec_type == AVMEDIA_TYPE_VIDEO && !(st->disposition & AV_DISPOSITION_ATTACHED_PIC)) {
            type = dm::MediaType::Video;
            media->width = par->width;
            media->height = par->height;
            media->frameRate = st->avg_frame_rate.num > 0 ? st->avg_frame_rate : st->r_frame_rate;
            media->timeScale = st->time_base.num == 1 && st->time_base.den > 0 ? st->time_base.den : 90000;
        } else {
            media->timeScale = st->time_base.num == 1 && st->time_base.den > 0 ? st->time_base.den : 1000;
        }
        media->type = type;
        media->startPts = st->start_time == AV_NOPTS_VALUE ? 0 : st->start_time;
        if (media->startPts < 0 && type == dm::MediaType::Sound) media->startPts = 0; // priming, skipped by the decoder

        std::int64_t duration = st->duration;
        if (duration == AV_NOPTS_VALUE || duration <= 0) {
            if (fmt->duration != AV_NOPTS_VALUE && fmt->duration > 0)
                duration = av_rescale_q(fmt->duration, AV_TIME_BASE_Q, st->time_base);
            else
                duration = 0;
        }
        media->length = std::max<std::int64_t>(0, av_rescale_q(duration, st->time_base, AVRational{1, media->timeScale}));

        // Where the stream starts on the movie timeline: empty time before it.
        std::int64_t startUs = av_rescale_q(media->startPts, st->time_base, AV_TIME_BASE_Q) - formatStart;
        std::int64_t lead = std::max<std::int64_t>(0, av_rescale_q(startUs, AV_TIME_BASE_Q, AVRational{1, media->timeScale}));

        std::string title = metadata(st->metadata, "title");
        if (title.empty()) {
            std::string handler = metadata(st->metadata, "handler_name");
            if (!isDefaultHandlerName(handler)) title = handler;
        }
        media->title = title;

        std::vector<dm::Segment> segs;
        if (lead > 0) segs.push_back(dm::Segment::empty(lead));
        if (media->length > 0) segs.push_back(dm::Segment::media(media->length, 0, media->length));
        std::int32_t scale = media->timeScale;
        dm::TrackPtr track = out.movie->addTrack(type, media, scale, dm::EditList(segs));
        track->setEnabled(useFlag ? (st->disposition & AV_DISPOSITION_DEFAULT) != 0 : true);
        track->setDisplayName(!title.empty() ? title : std::string(dm::mediaTypeName(type)) + " track " + std::to_string(i + 1));
    }
    // A container that flags tracks but flagged none of a type plays the
    // first of that type, as players do.
    if (useFlag) {
        for (dm::MediaType t : {dm::MediaType::Sound, dm::MediaType::Video}) {
            auto tracks = out.movie->tracksOfMediaType(t);
            bool any = false;
            for (auto const& tr : tracks) any = any || tr->isEnabled();
            if (!any && !tracks.empty()) tracks.front()->setEnabled(true);
        }
    }
    return out;
}

} // namespace media
