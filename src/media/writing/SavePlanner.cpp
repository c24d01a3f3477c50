// The save planner: what a save or an export does with each track (copied,
// moved without re-encoding, re-encoded, left out) and why, decided once
// before any file is made.
#include "WritePlan.h"

#include "Containers.h"

#include <algorithm>
#include <cmath>
#include <optional>

namespace media::writeplan {

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

namespace {

// When the track plays its media at rate 1 from some point to its end, after
// an optional stretch of silence (within one tick over the whole length: a
// slope of 1 within one sample), the move: timeline tick = media tick + shift.
std::optional<std::pair<std::int64_t, std::int64_t>> pureShift(dm::Track const& t)
{
    auto const& m = fileMedia(t);
    if (t.timeScale() != m.timeScale) return std::nullopt;
    auto const& segs = t.editList()->segments();
    std::size_t i = 0;
    std::int64_t silence = 0;
    if (i < segs.size() && segs[i].isEmpty()) silence = segs[i++].duration;
    if (segs.size() != i + 1) return std::nullopt;
    dm::Segment const& s = segs[i];
    if (s.isEmpty() || s.mediaStart + s.mediaLength != m.length || std::llabs(s.duration - s.mediaLength) > 1) return std::nullopt;
    return std::make_pair(silence - s.mediaStart, s.mediaStart);
}


std::string describe(dm::Track const& track, FileMedia const& m, AVStream const* in)
{
    char const* kind = "data";
    switch (m.codecpar->codec_type) {
    case AVMEDIA_TYPE_VIDEO: kind = in && (in->disposition & AV_DISPOSITION_ATTACHED_PIC) ? "cover picture" : "video"; break;
    case AVMEDIA_TYPE_AUDIO: kind = "sound"; break;
    case AVMEDIA_TYPE_SUBTITLE: kind = "subtitle"; break;
    case AVMEDIA_TYPE_ATTACHMENT: kind = "attachment"; break;
    default: break;
    }
    std::string d = std::string(kind) + " track " + std::to_string(track.id());
    std::string generated = std::string(dm::mediaTypeName(track.mediaType())) + " track " + std::to_string(m.streamIndex + 1);
    if (track.displayName() != generated) d += " \"" + track.displayName() + "\"";
    AVDictionaryEntry* file = in ? av_dict_get(in->metadata, "filename", nullptr, 0) : nullptr;
    d += std::string(" (") + (file ? file->value : avcodec_get_name(m.codecpar->codec_id));
    if (in)
        if (AVDictionaryEntry* lang = av_dict_get(in->metadata, "language", nullptr, 0)) d += std::string(", ") + lang->value;
    return d + ")";
}

std::string soundDetail(SoundFormat const& f)
{
    AVCodec const* c = avcodec_find_encoder_by_name(f.encoder.c_str());
    std::string d = "encoded as " + std::string(c ? avcodec_get_name(c->id) : f.encoder.c_str());
    if (f.bitsPerRawSample > 0) d += " " + std::to_string(f.bitsPerRawSample) + "-bit";
    else if (f.encoder.rfind("pcm_", 0) == 0 && c) d += " " + std::to_string(av_get_bits_per_sample(c->id)) + "-bit";
    if (f.bitRate > 0) d += " at " + std::to_string(f.bitRate / 1000) + " kb/s";
    return d;
}

AVChannelLayout layoutOf(AVCodecParameters const* par)
{
    AVChannelLayout l{};
    if (par->ch_layout.nb_channels > 0 && par->ch_layout.order != AV_CHANNEL_ORDER_UNSPEC) av_channel_layout_copy(&l, &par->ch_layout);
    else av_channel_layout_default(&l, std::max(1, par->ch_layout.nb_channels));
    return l;
}

bool isTimecodeTrack(AVStream const* in)
{
    return in && in->codecpar->codec_type == AVMEDIA_TYPE_DATA && in->codecpar->codec_tag == MKTAG('t', 'm', 'c', 'd');
}

// A QuickTime chapter track: the demuxer reads its text as the file's
// chapters and shows the track as undecodable data.
bool isChapterTrack(AVStream const* in, AVFormatContext const* file)
{
    return in && file && file->nb_chapters > 0 && in->codecpar->codec_type == AVMEDIA_TYPE_DATA
        && in->codecpar->codec_id == AV_CODEC_ID_BIN_DATA && in->codecpar->codec_tag == MKTAG('t', 'e', 'x', 't');
}

bool videoHasTimecode(dm::Movie const& movie, SourceInputs& inputs)
{
    for (auto const& t : movie.tracksOfMediaType(dm::MediaType::Video))
        if (AVStream const* in = inputs.stream(fileMedia(*t)))
            if (av_dict_get(in->metadata, "timecode", nullptr, 0)) return true;
    return false;
}

// Decides what happens to each track; fills `losses` with the streams that
// the container cannot hold.
std::vector<Decision> decide(dm::Movie const& movie, Plan const& plan, SourceInputs& inputs, std::vector<std::string>& losses,
                             std::vector<std::string>& notes)
{
    std::vector<Decision> out;
    Container const container = plan.container;
    bool flexible = container.takesSaves();
    SoundCodec policy = plan.forceAac ? SoundCodec::Aac : plan.options.soundCodec;
    bool haveDvVideo = false;
    // The file whose details (tags, chapters) the new file takes.
    SourceFile const* mainFile = movie.tracks().empty() ? nullptr : fileMedia(*movie.tracks().front()).file.get();
    for (auto const& trackPtr : movie.tracks()) {
        dm::Track const& track = *trackPtr;
        FileMedia const& m = fileMedia(track);
        Decision d;
        d.track = &track;
        d.media = &m;
        d.in = inputs.stream(m);
        bool enabled = track.isEnabled();
        // Whether a file of what plays keeps the track.
        bool plays = track.mediaType() == dm::MediaType::Sound && plan.options.sound ? &track == plan.options.sound : enabled;
        if (plan.enabledOnly && !plays) continue;
        if (plan.soundOnly && track.mediaType() != dm::MediaType::Sound) continue;
        std::string what = describe(track, m, d.in);
        auto leaveOut = [&](std::string const& why) {
            d.how = TrackPlan::How::LeftOut;
            d.detail = "left out: " + why;
            losses.push_back(what + ": " + why);
            out.push_back(d);
        };
        if (track.mediaType() == dm::MediaType::Sound) {
            AVChannelLayout layout = layoutOf(m.codecpar);
            if (plan.dv || container == Container::Kind::Aiff) {
                if (!plays) continue;
                d.how = TrackPlan::How::Encoded;
                d.sound.encoder = plan.dv ? "pcm_s16le" : "pcm_s16be";
                d.sound.sampleFormat = AV_SAMPLE_FMT_S16;
                d.sound.sampleRate = plan.dv ? 48000 : m.sampleRate;
                av_channel_layout_uninit(&layout);
                d.detail = "re-timed, " + soundDetail(d.sound);
                out.push_back(d);
                continue;
            }
            bool copyable = d.in && !enabled && isNatural(track)
                         && containerTakes(container, m.codecpar, d.in->metadata, d.in->disposition & ~AV_DISPOSITION_DEFAULT);
            if (copyable) {
                d.how = TrackPlan::How::Copied;
                d.detail = "copied";
            } else if (!enabled && isNatural(track)) {
                // A sound kept as it is (the backup) whose codec the container
                // does not take: stored losslessly, samples identical.
                try {
                    d.sound = chooseSoundFormat(container, m.codecpar, layout, policy, true);
                    d.how = TrackPlan::How::Encoded;
                    d.detail = "stored losslessly, " + soundDetail(d.sound);
                    notes.push_back(what + " " + d.detail + " (" + std::string(container.title()) + " takes no "
                                    + avcodec_get_name(m.codecpar->codec_id) + ")");
                } catch (MediaError const&) {
                    av_channel_layout_uninit(&layout);
                    leaveOut(std::string(container.title()) + " takes no " + avcodec_get_name(m.codecpar->codec_id)
                             + " and no lossless codec for it");
                    continue;
                }
            } else {
                auto move = pureShift(track);
                // Auto re-encodes a move that copied packets would place off
                // the sample; Always keeps the packets, to within a millisecond.
                if (move && plan.options.losslessShift == SaveOptions::LosslessShift::Auto
                    && !placesExactly(container, m, move->first, move->second))
                    move.reset();
                auto lossless = plan.options.losslessShift;
                bool takes = d.in && containerTakes(container, m.codecpar, d.in->metadata, d.in->disposition & ~AV_DISPOSITION_DEFAULT);
                if (lossless == SaveOptions::LosslessShift::Always && (!move || !takes || !flexible || plan.forceAac)) {
                    av_channel_layout_uninit(&layout);
                    throw MediaError(!move ? "The sound is stretched, not only moved: it cannot be written without re-encoding."
                                           : std::string(container.title()) + " takes no " + avcodec_get_name(m.codecpar->codec_id)
                                                 + ": the sound cannot be written without re-encoding.");
                }
                if (move && takes && flexible && !plan.forceAac && lossless != SaveOptions::LosslessShift::Never) {
                    d.how = TrackPlan::How::Copied;
                    d.shifted = true;
                    d.shift = move->first;
                    d.cut = move->second;
                    char text[128];
                    std::snprintf(text, sizeof text, "moved %+.3f ms, packets copied (not re-encoded)",
                                  static_cast<double>(d.shift) * 1000.0 / m.timeScale);
                    d.detail = d.shift == 0 ? "unchanged, packets copied" : text;
                } else {
                    d.sound = chooseSoundFormat(container, m.codecpar, layout, policy, false);
                    d.how = TrackPlan::How::Encoded;
                    d.detail = std::string(plays ? "re-timed, " : "edited, ") + soundDetail(d.sound);
                    if (!d.sound.note.empty()) notes.push_back(d.sound.note);
                }
            }
            av_channel_layout_uninit(&layout);
            out.push_back(d);
            continue;
        }
        AVCodecID id = m.codecpar->codec_id;
        if (track.mediaType() == dm::MediaType::Video) {
            if (plan.dv) {
                if (haveDvVideo) continue; // DV holds one picture stream
                haveDvVideo = true;
                double fps = m.frameRate.num > 0 ? av_q2d(m.frameRate) : 25;
                bool ntsc = std::fabs(fps - 29.97) < 0.6 || std::fabs(fps - 59.94) < 1.2 || std::fabs(fps - 23.976) < 0.5;
                d.target = ntsc ? VideoTarget{"dvvideo", 720, 480, AV_PIX_FMT_YUV411P, {30000, 1001}, 25'000'000}
                                : VideoTarget{"dvvideo", 720, 576, AV_PIX_FMT_YUV420P, {25, 1}, 25'000'000};
                d.video = true;
                d.how = TrackPlan::How::Encoded;
                d.detail = "encoded as DV";
                out.push_back(d);
                continue;
            }
            bool copyable = d.in && containerTakes(container, m.codecpar, d.in->metadata, d.in->disposition);
            if (plan.videoMustBeH264OrMpeg4 && id != AV_CODEC_ID_H264 && id != AV_CODEC_ID_MPEG4 && id != AV_CODEC_ID_HEVC) copyable = false;
            if (copyable) {
                d.how = TrackPlan::How::Copied;
                d.detail = "copied";
            } else if (plan.videoMustBeH264OrMpeg4) {
                AVRational fps = m.frameRate.num > 0 ? m.frameRate : AVRational{25, 1};
                d.target = {"libx264", m.width & ~1, m.height & ~1, AV_PIX_FMT_YUV420P, fps, 0};
                d.video = true;
                d.how = TrackPlan::How::Encoded;
                d.detail = "encoded as H.264";
                notes.push_back("video re-encoded as H.264");
            } else {
                std::string takers = d.in ? containersTaking(m.codecpar, d.in->metadata, d.in->disposition) : "";
                leaveOut(std::string(container.title()) + " takes no " + avcodec_get_name(id) + (takers.empty() ? "" : " (" + takers + " can)"));
                continue;
            }
            out.push_back(d);
            continue;
        }
        if (plan.dv) continue;
        if (isTimecodeTrack(d.in) && flexible && videoHasTimecode(movie, inputs)) {
            // The demuxer hands the timecode to the video stream as a tag;
            // QuickTime and MPEG-4 writers make the timecode track from it,
            // Matroska keeps the tag.
            d.how = TrackPlan::How::Recreated;
            d.detail = container.isQuickTimeFamily() ? "recreated from the video's timecode"
                                                                  : "kept as the video's timecode tag";
            out.push_back(d);
            continue;
        }
        if (flexible && m.file.get() == mainFile && isChapterTrack(d.in, inputs.of(*m.file))) {
            // The file's chapters go with the file; QuickTime and MPEG-4
            // writers make the chapter track from them.
            d.how = TrackPlan::How::Recreated;
            d.detail = container.isQuickTimeFamily() ? "recreated from the file's chapters" : "kept as the file's chapters";
            out.push_back(d);
            continue;
        }
        if (d.in && containerTakes(container, m.codecpar, d.in->metadata, d.in->disposition)) {
            d.how = TrackPlan::How::Copied;
            d.detail = "copied";
            out.push_back(d);
            continue;
        }
        std::string takers = d.in ? containersTaking(m.codecpar, d.in->metadata, d.in->disposition) : "";
        std::string thing = m.codecpar->codec_type == AVMEDIA_TYPE_ATTACHMENT ? std::string("attachments")
                          : id == AV_CODEC_ID_NONE                           ? std::string("data of this kind")
                                                                              : std::string(avcodec_get_name(id));
        leaveOut(std::string(container.title()) + " takes no " + thing
                 + (takers.empty() ? "" : " (" + takers + (takers.find(',') == std::string::npos ? " does)" : " do)")));
    }
    return out;
}

} // namespace

// Whether copied packets moved by `shift` after a cut at `cut` (media ticks,
// see pureShift) start where the move says, to 0.02 ms. QuickTime and
// MPEG-4 place the start with an edit list at the sound's own time scale:
// always exact. Matroska and WebM keep times in whole milliseconds and the
// decoder plays on from the first packet kept, so the first whole frame
// after the cut must land on a millisecond; a codec without a fixed frame
// size (Vorbis) gives no way to tell where that frame is.
bool placesExactly(Container container, FileMedia const& m, std::int64_t shift, std::int64_t cut)
{
    if (container.isQuickTimeFamily()) return true;
    int frame = m.codecpar->frame_size;
    if (m.timeScale <= 0) return false;
    std::int64_t first = 0;
    if (cut > 0) {
        if (frame <= 0) return false;
        first = (cut + frame - 1) / frame * frame;
    }
    double seconds = static_cast<double>(first + shift) / m.timeScale;
    return std::abs(seconds * 1000 - std::round(seconds * 1000)) <= 0.02;
}

// The name a track was given by the user or the program (the backup),
// when it is not the one read from the file.
std::string newName(dm::Track const& track, FileMedia const& m)
{
    std::string const& name = track.displayName();
    if (name == m.title) return "";
    std::string generated = std::string(dm::mediaTypeName(track.mediaType())) + " track " + std::to_string(m.streamIndex + 1);
    return m.title.empty() && name == generated ? "" : name;
}



Prepared prepare(dm::Movie const& movie, Plan const& plan)
{
    Prepared p;
    p.decisions = decide(movie, plan, p.inputs, p.losses, p.notes);
    return p;
}

// Throws StreamsLeftOut, before any file is made, when the write would lose
// streams the user has not agreed to lose.
void refuseLosses(Prepared const& prepared, Plan const& plan)
{
    if (!prepared.losses.empty() && !plan.options.dropUnsupported) throw StreamsLeftOut(prepared.losses);
}

} // namespace media::writeplan

namespace media {

SavePlan planSave(dm::Movie const& movie, SaveOptions const& options)
{
    if (!options.container.takesSaves()) throw MediaError("No container that takes a save was chosen.");
    writeplan::Plan plan;
    plan.container = options.container;
    plan.options = options;
    SourceInputs inputs;
    SavePlan result;
    result.container = options.container;
    std::vector<writeplan::Decision> decisions = writeplan::decide(movie, plan, inputs, result.losses, result.notes);
    for (auto const& d : decisions)
        result.tracks.push_back({d.track->id(), writeplan::describe(*d.track, *d.media, d.in), d.how, d.detail});
    return result;
}

double soundBytesPerSecond(dm::Track const& sound, SoundCodec codec)
{
    auto const& m = OpenedMovie::mediaOf(sound);
    AVCodecParameters const* par = m.codecpar;
    int bits = par->bits_per_raw_sample > 0 ? par->bits_per_raw_sample : av_get_bits_per_sample(par->codec_id);
    if (bits <= 0) bits = 16;
    double channels = std::max(1, m.channels);
    double pcm = std::max(1, m.sampleRate) * channels * ((bits + 7) / 8);
    double source = par->bit_rate > 0 ? static_cast<double>(par->bit_rate) / 8 : pcm;
    switch (codec) {
    case SoundCodec::Same: return source;
    case SoundCodec::Pcm: return pcm;
    case SoundCodec::Flac:
    case SoundCodec::Alac: return pcm * 0.6; // what lossless coding typically keeps
    case SoundCodec::Aac: return source < pcm ? source : 16000 * channels; // a lossy source keeps its rate
    }
    return source;
}

} // namespace media
