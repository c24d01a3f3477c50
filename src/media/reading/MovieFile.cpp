#include "MovieFile.h"

#include "Boxes.h"

#include "SavedSync.h"

extern "C" {
#include <libavutil/display.h>
#include <libavutil/parseutils.h>
}

#include <algorithm>
#include <map>
#include <optional>
#include <array>
#include <atomic>
#include <chrono>
#include <thread>
#include <cmath>
#include <cstdio>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#if defined(__GLIBC__)
#include <malloc.h>
#endif

namespace media {


char const* FileMedia::codecName() const { return avcodec_get_name(codecpar->codec_id); }

double FileMedia::frameSeconds() const
{
    return frameRate.num > 0 && frameRate.den > 0 ? av_q2d(av_inv_q(frameRate)) : 0.0;
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

std::pair<int, int> FileMedia::displaySize() const
{
    int w = width, h = height;
    if (pixelAspect.num > 0 && pixelAspect.den > 0 && pixelAspect.num != pixelAspect.den) {
        // Stretched, never squeezed: no detail is lost on screen.
        if (pixelAspect.num > pixelAspect.den) w = static_cast<int>(std::lround(static_cast<double>(w) * av_q2d(pixelAspect)));
        else h = static_cast<int>(std::lround(static_cast<double>(h) / av_q2d(pixelAspect)));
    }
    if (turnedSideways()) std::swap(w, h);
    return {w, h};
}

static int clockwiseTurn(AVStream const* st)
{
    std::size_t size = 0;
    auto const* matrix = reinterpret_cast<std::int32_t const*>(av_stream_get_side_data(st, AV_PKT_DATA_DISPLAYMATRIX, &size));
    if (!matrix || size < 9 * sizeof(std::int32_t)) return 0;
    double ccw = av_display_rotation_get(matrix); // NaN for a matrix that does not turn
    if (!std::isfinite(ccw)) return 0;
    // The nearest quarter turn: a picture is shown turned by quarters only.
    long quarters = std::lround(-ccw / 90.0);
    return static_cast<int>(((quarters % 4) + 4) % 4) * 90;
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

// How far the file can really be read against the length its header
// declares, in seconds from the movie's start.
struct Readable {
    bool truncated = false;
    double readable = 0;
    double declared = 0;
};

Readable measureReadable(AVFormatContext* fmt, SourceFile const& file)
{
    constexpr double kSlack = 0.5; // seconds a stream may end early without being cut
    Readable r;
    // Only a length the file states can be fallen short of; one guessed from
    // the bit rate or the last time stamps is no promise.
    if (fmt->duration_estimation_method != AVFMT_DURATION_FROM_STREAM) return r;
    double origin = fmt->start_time == AV_NOPTS_VALUE ? 0 : static_cast<double>(fmt->start_time) / AV_TIME_BASE;
    std::vector<int> streams;
    std::vector<double> declaredEnd, readEnd;
    std::vector<bool> fileWide; // the end is the file's, not the stream's own (Matroska)
    for (unsigned i = 0; i < fmt->nb_streams; ++i) {
        AVStream* st = fmt->streams[i];
        auto type = st->codecpar->codec_type;
        if ((type != AVMEDIA_TYPE_AUDIO && type != AVMEDIA_TYPE_VIDEO) || (st->disposition & AV_DISPOSITION_ATTACHED_PIC)) continue;
        double tb = av_q2d(st->time_base);
        double start = st->start_time == AV_NOPTS_VALUE ? origin : static_cast<double>(st->start_time) * tb;
        double end;
        bool whole = false;
        if (st->duration != AV_NOPTS_VALUE && st->duration > 0) end = start + static_cast<double>(st->duration) * tb;
        else if (fmt->duration != AV_NOPTS_VALUE && fmt->duration > 0) {
            end = origin + static_cast<double>(fmt->duration) / AV_TIME_BASE; // Matroska
            whole = true;
        } else continue;
        streams.push_back(static_cast<int>(i));
        fileWide.push_back(whole);
        declaredEnd.push_back(end);
        readEnd.push_back(start);
    }
    if (streams.empty()) return r;
    bool indexed = std::string(fmt->iformat->name).find("mov") != std::string::npos;
    bool readError = false;
    if (indexed) {
        // The sample tables give every packet's place: the stream is readable
        // up to its first packet that lies past the end of the file.
        for (std::size_t k = 0; k < streams.size(); ++k) {
            AVStream* st = fmt->streams[streams[k]];
            int n = avformat_index_get_entries_count(st);
            readEnd[k] = declaredEnd[k];
            for (int e = 0; e < n; ++e) {
                AVIndexEntry const* entry = avformat_index_get_entry(st, e);
                if (entry->pos + entry->size > file.size()) {
                    readEnd[k] = static_cast<double>(entry->timestamp) * av_q2d(st->time_base);
                    break;
                }
            }
        }
    } else {
        // Read the last seconds: a stream that stops short, or a read error
        // before the end of the file, tells of a cut.
        double lastEnd = *std::max_element(declaredEnd.begin(), declaredEnd.end());
        auto target = static_cast<std::int64_t>(std::max(0.0, lastEnd - 10.0) * AV_TIME_BASE);
        // A short movie that cannot seek (no index) is read whole, afresh.
        SourceFile::Input fresh;
        AVFormatContext* reading = fmt;
        if (av_seek_frame(fmt, -1, target, AVSEEK_FLAG_BACKWARD) < 0) {
            if (target > 0) return r;
            fresh = file.openInput(false);
            reading = fresh.format.get();
        }
        Packet pkt = makePacket();
        int rc;
        while ((rc = av_read_frame(reading, pkt.get())) >= 0) {
            for (std::size_t k = 0; k < streams.size(); ++k) {
                if (streams[k] != pkt->stream_index) continue;
                std::int64_t ts = pkt->pts != AV_NOPTS_VALUE ? pkt->pts : pkt->dts;
                double tb = av_q2d(fmt->streams[streams[k]]->time_base);
                if (ts != AV_NOPTS_VALUE)
                    readEnd[k] = std::max(readEnd[k], static_cast<double>(ts + std::max<std::int64_t>(0, pkt->duration)) * tb);
            }
            av_packet_unref(pkt.get());
        }
        readError = rc != AVERROR_EOF;
    }
    double readable = readEnd.front(), declared = declaredEnd.front();
    // Streams that know only the file's length: the longest of them must
    // reach it (the others may well end earlier, as a picture before its
    // sound).
    double longestWide = -1, wideEnd = 0;
    for (std::size_t k = 0; k < streams.size(); ++k) {
        if (fileWide[k]) {
            longestWide = std::max(longestWide, readEnd[k]);
            wideEnd = declaredEnd[k];
        } else {
            r.truncated = r.truncated || readEnd[k] < declaredEnd[k] - kSlack;
            readable = std::min(readable, readEnd[k]);
        }
        declared = std::max(declared, declaredEnd[k]);
    }
    if (longestWide >= 0) {
        r.truncated = r.truncated || longestWide < wideEnd - kSlack;
        readable = std::min(readable, longestWide);
        if (std::all_of(fileWide.begin(), fileWide.end(), [](bool b) { return b; })) readable = longestWide;
    }
    r.truncated = r.truncated || readError;
    r.readable = std::max(0.0, readable - origin);
    r.declared = std::max(0.0, declared - origin);
    return r;
}

} // namespace

Container containerOfInput(AVFormatContext const* fmt, std::string const& path)
{
    std::string name = fmt->iformat->name;
    auto dot = path.find_last_of("./");
    std::string ext = dot != std::string::npos && path[dot] == '.' ? path.substr(dot + 1) : "";
    for (auto& c : ext) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    if (name.find("mp4") != std::string::npos && name.find("mov") != std::string::npos) {
        // One demuxer reads both: the file type box tells them apart, and a
        // file without one is an old QuickTime movie.
        std::string brand = metadata(fmt->metadata, "major_brand");
        if (brand.rfind("qt", 0) == 0) return Container::Kind::QuickTime;
        // A phone's file stays a 3GPP file: its muxer takes H.263 and AMR.
        if (brand.rfind("3gp", 0) == 0 || brand.rfind("3gg", 0) == 0) return Container::Kind::Gpp;
        if (brand.rfind("3g2", 0) == 0) return Container::Kind::Gpp2;
        if (brand.empty() && (ext == "3gp" || ext == "3g2")) return Container::named(ext);
        if (brand.empty()) return ext == "mp4" || ext == "m4v" || ext == "m4a" ? Container::Kind::Mpeg4 : Container::Kind::QuickTime;
        return ext == "mov" || ext == "qt" ? Container::Kind::QuickTime : Container::Kind::Mpeg4;
    }
    if (name.find("matroska") != std::string::npos) {
        if (ext != "webm") return Container::Kind::Matroska;
        // WebM stays WebM while every stream is one WebM takes.
        AVOutputFormat const* webm = av_guess_format("webm", nullptr, nullptr);
        for (unsigned i = 0; i < fmt->nb_streams; ++i) {
            AVCodecParameters const* par = fmt->streams[i]->codecpar;
            if (!webm || avformat_query_codec(webm, par->codec_id, FF_COMPLIANCE_NORMAL) != 1) return Container::Kind::Matroska;
        }
        return Container::Kind::WebM;
    }
    return {};
}

namespace {

// A stream longer than every other by this much, and at least twice as
// long, has its time stamps looked at for a jump.
constexpr double kLongTailSeconds = 60;
// A step in a stream's time stamps longer than this is a jump, not a pause.
constexpr double kJumpSeconds = 10;
// A movie with a picture that declares a length its file could fill only
// at fewer bits a second than this has a wrong length somewhere.
constexpr double kSparseBitsPerSecond = 16000;

// Where a stream's time stamps end, read from its packets: at the end of
// the file, or where they first step ahead by more than the gap asked for.
struct StreamSpan {
    double end = 0;          // seconds on the movie's timeline: the last packet's end before any jump
    double jumpTo = -1;      // where the jump lands; negative: none
    bool seen = false;
};

// Reads the packets of `streams` (numbers as openMovie probes them) once,
// from the start, until every one has jumped or the file ends.
std::map<int, StreamSpan> streamSpans(SourceFile const& file, std::vector<int> const& streams, double gap, double origin)
{
    SourceFile::Input in = file.openInput(true); // probed as the movie was: the same stream numbers
    AVFormatContext* fmt = in.format.get();
    std::map<int, StreamSpan> spans;
    for (unsigned i = 0; i < fmt->nb_streams; ++i) fmt->streams[i]->discard = AVDISCARD_ALL;
    for (int i : streams)
        if (i >= 0 && i < static_cast<int>(fmt->nb_streams)) {
            fmt->streams[i]->discard = AVDISCARD_DEFAULT;
            spans[i];
        }
    std::size_t open = spans.size();
    Packet pkt = makePacket();
    while (open > 0 && av_read_frame(fmt, pkt.get()) >= 0) {
        auto it = spans.find(pkt->stream_index);
        std::int64_t ts = pkt->pts != AV_NOPTS_VALUE ? pkt->pts : pkt->dts;
        if (it != spans.end() && it->second.jumpTo < 0 && ts != AV_NOPTS_VALUE) {
            AVRational tb = fmt->streams[pkt->stream_index]->time_base;
            double at = static_cast<double>(ts) * av_q2d(tb) - origin;
            StreamSpan& span = it->second;
            if (span.seen && at > span.end + gap) {
                span.jumpTo = at;
                --open;
            } else {
                span.end = std::max(span.seen ? span.end : at, at + static_cast<double>(std::max<std::int64_t>(pkt->duration, 0)) * av_q2d(tb));
                span.seen = true;
            }
        }
        av_packet_unref(pkt.get());
    }
    return spans;
}

} // namespace

OpenedMovie openMovie(std::string const& path)
{
    OpenedMovie out;
    out.file = SourceFile::open(path);
    auto in = out.file->openInput(true);
    AVFormatContext* fmt = in.format.get();
    out.formatName = fmt->iformat->name;
    out.container = containerOfInput(fmt, path);
    if (AVDictionaryEntry* tag = av_dict_get(fmt->metadata, kSyncPointsTag, nullptr, 0)) out.syncPointsTag = tag->value;
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
            AVRational sar = av_guess_sample_aspect_ratio(fmt, st, nullptr);
            if (sar.num > 0 && sar.den > 0) av_reduce(&media->pixelAspect.num, &media->pixelAspect.den, sar.num, sar.den, 1 << 16);
            media->rotation = clockwiseTurn(st);
            media->timeScale = st->time_base.num == 1 && st->time_base.den > 0 ? st->time_base.den : 90000;
        } else {
            media->timeScale = st->time_base.num == 1 && st->time_base.den > 0 ? st->time_base.den : 1000;
        }
        media->type = type;
        media->containerId = st->id;
        media->origin = formatStart;
        media->startPts = st->start_time == AV_NOPTS_VALUE ? 0 : st->start_time;
        if (media->startPts < 0 && type == dm::MediaType::Sound) media->startPts = 0; // priming, skipped by the decoder

        std::int64_t duration = st->duration;
        std::int64_t taggedUs = 0;
        if ((duration == AV_NOPTS_VALUE || duration <= 0) && !metadata(st->metadata, "DURATION").empty()
            && av_parse_time(&taggedUs, metadata(st->metadata, "DURATION").c_str(), 1) == 0 && taggedUs > 0) {
            // Matroska states each track's own length only in a tag.
            duration = av_rescale_q(taggedUs, AV_TIME_BASE_Q, st->time_base);
        }
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
        media->language = metadata(st->metadata, "language");
        if (media->language == "und") media->language.clear();

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
    // A stream whose time stamps run far past every other one (a broken
    // time stamp, a recorder's clock jump) would make the movie that long,
    // mostly silence, and every save would write it: its track ends with
    // the others instead. A stream that is merely longer (music that goes
    // on after the picture) has no jump in its time stamps and is kept.
    // Containers
    // that state no length per stream (FLV, MPEG program streams) give
    // every stream the file's: when that length is far more than the
    // file's size can hold, each stream's own end is read from its packets.
    std::vector<std::pair<dm::TrackPtr, double>> ends;
    for (auto const& t : out.movie->tracks())
        if (t->mediaType() == dm::MediaType::Sound || t->mediaType() == dm::MediaType::Video)
            ends.push_back({t, static_cast<double>(t->editList()->duration()) / t->timeScale()});
    double longest = 0;
    bool hasVideo = false;
    for (auto const& [t, e] : ends) {
        longest = std::max(longest, e);
        hasVideo = hasVideo || t->mediaType() == dm::MediaType::Video;
    }
    std::vector<int> suspects;
    bool sparse = hasVideo && longest > kLongTailSeconds && static_cast<double>(out.file->size()) * 8 / longest < kSparseBitsPerSecond;
    for (auto const& [track, end] : ends) {
        double others = 0;
        for (auto const& [t, e] : ends)
            if (t != track) others = std::max(others, e);
        if (sparse || (others > 0 && end >= others + kLongTailSeconds && end >= 2 * others))
            suspects.push_back(static_cast<FileMedia const&>(*track->media()).streamIndex);
    }
    std::map<int, StreamSpan> spans;
    if (!suspects.empty()) spans = streamSpans(*out.file, suspects, kJumpSeconds, static_cast<double>(formatStart) / AV_TIME_BASE);
    // Each stream's end as its packets give it, where they were read.
    auto spanOf = [&](dm::TrackPtr const& t) -> StreamSpan const* {
        auto it = spans.find(static_cast<FileMedia const&>(*t->media()).streamIndex);
        return it != spans.end() && it->second.seen ? &it->second : nullptr;
    };
    std::vector<std::pair<dm::TrackPtr, double>> actual;
    for (auto const& [track, end] : ends) actual.push_back({track, spanOf(track) ? std::min(end, spanOf(track)->end) : end});
    for (auto const& [track, end] : ends) {
        StreamSpan const* span = spanOf(track);
        if (!span) continue;
        double others = 0;
        for (auto const& [t, e] : actual)
            if (t != track) others = std::max(others, e);
        bool jumps = span->jumpTo >= 0;
        // A jump: the track ends with the others (or where its packets
        // stop, if later); a declared length too long: where they stop.
        double keep = jumps ? std::max(others, span->end) : sparse ? span->end : end;
        if (keep <= 0 || keep >= end - 0.001) continue;
        auto cut = static_cast<std::int64_t>(std::ceil(keep * track->timeScale()));
        track->setEditList(std::make_shared<const dm::EditList>(track->editList()->erased(cut, track->editList()->duration())));
        if (!jumps) continue; // a length the file declared for every stream, corrected quietly
        char text[320];
        std::snprintf(text, sizeof text, "%s ends at %.3f s with the other tracks: its time stamps jump from %.3f s to %.0f s, which no other stream reaches",
                      track->displayName().c_str(), keep, span->end, span->jumpTo);
        out.notes.push_back(text);
    }
    Readable readable = measureReadable(fmt, *out.file);
    out.truncated = readable.truncated;
    out.readableSeconds = readable.readable;
    out.declaredSeconds = readable.declared;
    return out;
}

} // namespace media
