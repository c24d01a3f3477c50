#include "MovieWriter.h"
#include "WritePlan.h"

#include "SavedSync.h"

#include "AtomicFile.h"
#include "AudioRenderer.h"
#include "Codec.h"
#include "SoundEncoder.h"
#include "WriteProgress.h"
#include "FlcWriter.h"
#include "MovieFile.h"
#include "Remuxer.h"
#include "SaveCheck.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cmath>
#include <cstring>
#include <fcntl.h>
#include <limits>
#include <map>
#include <numeric>
#include <optional>
#include <sys/stat.h>
#include <unistd.h>

namespace media {

namespace {

using namespace writeplan;

// A time base in which ticks of both `a` and `b` are whole numbers, when
// one exists with a denominator that fits (1/1000 and 1/48000 give
// 1/48000; 1/90000 and 1/44100 give 1/4410000; AVI's one tick per MP3
// frame, 1152/48000, and 1/48000 give 1/48000); `a` otherwise.
AVRational commonTimeBase(AVRational a, AVRational b)
{
    if (a.num <= 0 || b.num <= 0 || a.den <= 0 || b.den <= 0) return a;
    av_reduce(&a.num, &a.den, a.num, a.den, std::numeric_limits<int>::max());
    av_reduce(&b.num, &b.den, b.num, b.den, std::numeric_limits<int>::max());
    std::int64_t lcm = static_cast<std::int64_t>(a.den) / std::gcd(a.den, b.den) * b.den;
    return lcm <= std::numeric_limits<int>::max() ? AVRational{1, static_cast<int>(lcm)} : a;
}



// A video track re-encoded frame by frame (for containers that cannot take
// its codec): constant frame rate, each output frame showing the source
// frame on screen at its time.
class ReencodedVideo {
public:
    using Target = writeplan::VideoTarget;
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

WriteResult writeFlat(dm::Movie const& movie, MovieOutput& output, Plan const& plan, Prepared& prepared, Progress const& progress)
{
    ProgressReporter report(progress, plan.operation, plan.options.stop);
    refuseLosses(prepared, plan);
    WriteResult result;
    result.notes = prepared.notes;
    for (auto const& l : prepared.losses) result.notes.push_back("left out " + l);
    SourceInputs& inputs = prepared.inputs;
    std::vector<Decision> const& decisions = prepared.decisions;

    AVFormatContext* raw = nullptr;
    check(avformat_alloc_output_context2(&raw, nullptr, plan.container.muxer(), output.url().c_str()), "Choosing the container");
    OutputContext out(raw);
    out->interrupt_callback = report.interrupt();

    struct Copy {
        SourceFile const* file;
        int sourceIndex;
        AVStream* out;
        AVRational sourceTb;
        std::int64_t shift; // the movie's start in workTb (minus a sound's move)
        // The time base packets are moved in: the source's, or for a moved
        // sound one that holds both the source's ticks and the samples, so a
        // move of a fraction of a millisecond out of Matroska stays exact.
        AVRational workTb;
        // A moved sound: what lies before `cutPts` (workTb) is not played.
        bool moved = false;
        std::int64_t cutPts = 0;
        bool keepStraddling = false;
        bool delayOnly = false;
        FileMedia const* media = nullptr;
    };
    std::vector<Copy> copies;
    std::vector<std::unique_ptr<SoundEncoder>> sounds;
    std::vector<std::unique_ptr<ReencodedVideo>> videos;
    double seconds = movie.duration().seconds();
    int soundRate = 0;
    SourceFile const* mainFile = nullptr;

    // Matroska keeps times in whole milliseconds: the timeline is moved a
    // fraction of a millisecond so that the pictures land on that grid, and
    // the rendered sound moves with them.
    std::int64_t gridShiftUs = 0;
    if (plan.container.isMatroskaFamily())
        for (auto const& d : decisions)
            if (d.how == TrackPlan::How::Copied && d.track->mediaType() == dm::MediaType::Video && d.track->isEnabled()) {
                std::int64_t startUs = av_rescale_q(d.media->startPts, d.media->timeBase, AV_TIME_BASE_Q) - d.media->origin;
                gridShiftUs = ((1000 - startUs % 1000) % 1000 + 1000) % 1000;
                break;
            }
    for (auto const& d : decisions) {
        dm::Track const& track = *d.track;
        FileMedia const& m = *d.media;
        bool enabled = track.isEnabled();
        if (!mainFile) mainFile = m.file.get();
        std::string name = newName(track, m);
        if (d.how == TrackPlan::How::Copied) {
            AVStream* st = addCopiedStream(out.get(), d.in, enabled);
            if (!name.empty()) setName(st, name);
            AVRational ticks{1, m.timeScale};
            AVRational work = d.shifted ? commonTimeBase(d.in->time_base, ticks) : d.in->time_base;
            Copy c{m.file.get(), m.streamIndex, st, d.in->time_base, av_rescale_q(m.origin - gridShiftUs, AV_TIME_BASE_Q, work), work};
            c.media = &m;
            if (d.shifted) {
                // Media tick k (pts startPts + k) plays at timeline tick k + shift.
                c.moved = true;
                c.shift -= av_rescale_q(d.shift, ticks, work);
                c.cutPts = av_rescale_q(m.startPts, d.in->time_base, work) + av_rescale_q(d.cut, ticks, work);
                // The muxer keeps the sound's samples in its own ticks.
                if (work.den == ticks.den) st->time_base = ticks;
                // QuickTime and MPEG-4 start a stream before 0 with an edit list.
                c.keepStraddling = plan.container.isQuickTimeFamily();
                c.delayOnly = d.cut == 0;
                // The empty edit that delays it is counted in the movie's
                // time scale: the sound's own places it to the sample.
                soundRate = soundRate ? soundRate : m.timeScale;
            }
            copies.push_back(c);
        } else if (d.how == TrackPlan::How::Encoded && track.mediaType() == dm::MediaType::Sound) {
            auto s = std::make_unique<SoundEncoder>(out.get(), track, d.sound, plan.dv ? seconds + 1 : 0,
                                                    av_rescale(gridShiftUs, d.sound.sampleRate, AV_TIME_BASE),
                                                    plan.options.soundThreads);
            if (d.in && !plan.dv && plan.container != Container::Kind::Aiff) copyStreamTags(s->stream(), d.in, enabled);
            else s->stream()->disposition = enabled ? AV_DISPOSITION_DEFAULT : 0;
            if (!name.empty()) setName(s->stream(), name);
            soundRate = soundRate ? soundRate : d.sound.sampleRate;
            sounds.push_back(std::move(s));
        } else if (d.how == TrackPlan::How::Encoded && d.video) {
            auto v = std::make_unique<ReencodedVideo>(out.get(), track, d.target, seconds);
            if (d.in && !plan.dv) copyStreamTags(v->stream(), d.in, enabled);
            else v->stream()->disposition = enabled ? AV_DISPOSITION_DEFAULT : 0;
            videos.push_back(std::move(v));
        }
    }
    if (copies.empty() && sounds.empty() && videos.empty()) throw MediaError("The movie has nothing to write in this format.");
    bool rich = plan.container.takesSaves();
    if (mainFile && rich) copyFileDetails(out.get(), inputs.of(*mainFile), fileMedia(*decisions.front().track).origin);
    // Points only go with a backup: a file of the enabled tracks alone carries none.
    if (plan.enabledOnly) av_dict_set(&out->metadata, kSyncPointsTag, nullptr, 0);
    else if (rich && plan.options.syncPoints.has_value())
        av_dict_set(&out->metadata, kSyncPointsTag, plan.options.syncPoints->empty() ? nullptr : plan.options.syncPoints->c_str(), 0);

    output.attach(out.get());
    // The muxer's index is kept small: sound goes to it in bundles of frames.
    bool bundled = plan.container.isQuickTimeFamily() && !plan.fastStart && plan.options.bundleSound;
    if (bundled) output.bundleSound(out.get());
    AVDictionary* opts = nullptr;
    if (plan.container.isQuickTimeFamily()) {
        if (plan.fastStart) av_dict_set(&opts, "movflags", "+faststart", 0);
        // A key of our own is written only as a QuickTime metadata item (mdta).
        if (av_dict_get(out->metadata, kSyncPointsTag, nullptr, 0)) av_dict_set(&opts, "movflags", "+use_metadata_tags", AV_DICT_APPEND);
        if (soundRate > 0) av_dict_set_int(&opts, "movie_timescale", soundRate, 0);
        // An MPEG-4 or 3GPP file keeps its major brand (a phone's 3gp5 stays
        // 3gp5, an mp42 file stays mp42) rather than becoming the writer's own.
        if (plan.container != Container::Kind::QuickTime && mainFile)
            if (AVDictionaryEntry const* brand = av_dict_get(inputs.of(*mainFile)->metadata, "major_brand", nullptr, 0))
                if (std::strlen(brand->value) == 4 && std::strncmp(brand->value, "qt", 2) != 0) av_dict_set(&opts, "brand", brand->value, 0);
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
    double copiedFraction = 0;
    // Keeps the rendered streams up with the copied ones (timeline seconds).
    auto pumpTo = [&](double until) {
        for (auto& s : sounds)
            while (!s->done() && s->secondsDone() < until) {
                s->step();
                report.update(fraction(copiedFraction));
            }
        for (auto& v : videos)
            while (!v->done() && v->secondsDone() < until) {
                v->step();
                report.update(fraction(copiedFraction));
            }
    };

    // Copied streams, file by file, with the rendered ones kept a little ahead.
    std::map<SourceFile const*, std::vector<Copy const*>> byFile;
    for (auto const& c : copies) byFile[c.file].push_back(&c);
    std::size_t filesDone = 0;
    for (auto const& [file, list] : byFile) {
        SourceFile::Input in = inputs.take(*file);
        AVFormatContext* fmt = in.format.get();
        fmt->interrupt_callback = report.interrupt();
        std::multimap<int, Copy const*> wanted;
        for (auto const* c : list) wanted.emplace(c->sourceIndex, c);
        for (unsigned i = 0; i < fmt->nb_streams; ++i) fmt->streams[i]->discard = wanted.count(static_cast<int>(i)) ? AVDISCARD_DEFAULT : AVDISCARD_ALL;
        Packet pkt = makePacket(), copy = makePacket(); // reused for every packet
        std::int64_t size = std::max<std::int64_t>(1, file->size());
        std::map<int, DecodingTimes> decodingTimes; // by source stream
        std::map<int, PresentationTimes> shownAt; // by source stream
        for (auto const* c : list)
            if (c->media && !shownAt.count(c->sourceIndex) && needsPresentationTimes(fmt, fmt->streams[c->sourceIndex]))
                shownAt[c->sourceIndex] = presentationTimes(*c->media, plan.options.stop);
        std::vector<Packet> ready;
        auto copyOut = [&](AVPacket* packet) {
            auto [first, last] = wanted.equal_range(packet->stream_index);
            // A stream may go out twice (the moved sound and its backup).
            for (auto it = first; it != last; ++it) {
                Copy const& c = *it->second;
                check(av_packet_ref(copy.get(), packet), "Copying a packet");
                av_packet_rescale_ts(copy.get(), c.sourceTb, c.workTb);
                if (c.moved && copy->pts != AV_NOPTS_VALUE) {
                    // A delay keeps what is played (not the encoder's priming
                    // before media tick 0, which the muxer cannot place after an
                    // empty edit). A cut in QuickTime and MPEG-4 keeps the frame it
                    // falls in and the one before it (the decoder's overlap), which
                    // the edit list then skips; in Matroska the sound starts at the
                    // first whole frame after the cut.
                    std::int64_t duration = std::max<std::int64_t>(copy->duration, 0);
                    bool keep = c.delayOnly        ? copy->pts + duration > c.cutPts
                              : c.keepStraddling ? copy->pts + 2 * duration > c.cutPts
                                                 : copy->pts >= c.cutPts;
                    if (!keep) {
                        av_packet_unref(copy.get());
                        continue;
                    }
                }
                if (copy->pts != AV_NOPTS_VALUE) copy->pts -= c.shift;
                if (copy->dts != AV_NOPTS_VALUE) copy->dts -= c.shift;
                std::int64_t ts = copy->dts != AV_NOPTS_VALUE ? copy->dts : copy->pts;
                if (ts != AV_NOPTS_VALUE) pumpTo(static_cast<double>(ts) * av_q2d(c.workTb) + 1.0);
                av_packet_rescale_ts(copy.get(), c.workTb, c.out->time_base);
                copy->stream_index = c.out->index;
                copy->pos = -1;
                int written = writePacket(out.get(), copy.get()); // takes the packet's reference
                av_packet_unref(copy.get());
                check(written, "Writing the movie");
            }
        };
        while ((rc = av_read_frame(fmt, pkt.get())) >= 0) {
            if (wanted.count(pkt->stream_index) == 0) {
                av_packet_unref(pkt.get());
                continue;
            }
            if (auto shown = shownAt.find(pkt->stream_index); shown != shownAt.end() && pkt->dts != AV_NOPTS_VALUE) {
                auto at = shown->second.shownAt.find(pkt->dts);
                if (at != shown->second.shownAt.end()) pkt->pts = at->second;
                pkt->dts -= shown->second.decodingDelay;
            }
            DecodingTimes& times = decodingTimes[pkt->stream_index];
            if (times.passesThrough(pkt.get())) {
                copyOut(pkt.get());
            } else {
                times.push(pkt.get(), ready);
                for (auto& r : ready) copyOut(r.get());
                ready.clear();
            }
            av_packet_unref(pkt.get());
            copiedFraction = (static_cast<double>(filesDone) + static_cast<double>(avio_tell(fmt->pb)) / static_cast<double>(size))
                           / static_cast<double>(byFile.size());
            report.update(fraction(copiedFraction));
        }
        if (rc == AVERROR_EXIT) throw Cancelled();
        if (rc != AVERROR_EOF) throw MediaError("Reading \"" + file->path() + "\" failed: " + avError(rc) + ".");
        for (auto& [index, times] : decodingTimes) {
            times.flush(ready);
            for (auto& r : ready) copyOut(r.get());
            ready.clear();
        }
        ++filesDone;
    }
    copiedFraction = 1.0;
    // Whatever is left of the rendered streams.
    for (;;) {
        bool all = true;
        for (auto& s : sounds) {
            if (!s->done()) {
                s->step();
                all = false;
            }
        }
        for (auto& v : videos) {
            if (!v->done()) v->step();
            all = all && v->done();
        }
        report.update(fraction(1.0));
        if (all) break;
    }
    output.finish(out.get(), output.writeTrailer(out.get()));
    result.bytes = output.bytes();
    report.end();
    return result;
}

Container containerNamed(Container container, std::string const& path, char const* what)
{
    Container c = container ? container : Container::forPath(path);
    if (!c)
        throw MediaError(std::string(what) + " \"" + baseName(path)
                         + "\": Dubmatch writes QuickTime (.mov), MPEG-4 (.mp4, .m4v), Matroska (.mkv) and WebM (.webm) movies.");
    if (!c.takesSaves()) throw MediaError(std::string("Dubmatch does not save movies as ") + c.title() + " files.");
    return c;
}

} // namespace

std::int64_t writeplan::fileSize(std::string const& path)
{
    struct stat st {};
    return ::stat(path.c_str(), &st) == 0 ? st.st_size : 0;
}

WriteResult writeplan::writeChecked(dm::Movie const& movie, AtomicFile& file, Plan const& plan, Prepared& prepared, Progress const& progress)
{
    MovieOutput output(file);
    WriteResult r = writeFlat(movie, output, plan, prepared, progress);
    output.verify(plan.container);
    return r;
}

namespace {

// The file this movie was opened from, when it reads from `path`.
std::shared_ptr<SourceFile> sourceAt(dm::Movie const& movie, std::string const& path)
{
    struct stat st {};
    if (::stat(path.c_str(), &st) != 0) return nullptr;
    for (auto const& t : movie.tracks()) {
        auto const* m = dynamic_cast<FileMedia const*>(t->media().get());
        if (!m || !m->file) continue;
        struct stat at {};
        if (::stat(m->file->path().c_str(), &at) == 0 && at.st_dev == st.st_dev && at.st_ino == st.st_ino) return m->file;
        // Replaced meanwhile (by another program or our own last save): the
        // same name still means the same document.
        if (m->file->path() == path) return m->file;
    }
    return nullptr;
}

} // namespace

StreamsLeftOut::StreamsLeftOut(std::vector<std::string> streams)
    : MediaError([&] {
          std::string m = streams.size() == 1 ? "One stream cannot go into this file and would be lost: "
                                              : std::to_string(streams.size()) + " streams cannot go into this file and would be lost: ";
          for (std::size_t i = 0; i < streams.size(); ++i) m += (i ? "; " : "") + streams[i];
          return m + ".";
      }()),
      streams_(std::move(streams))
{
}

Container containerForSaveAs(Container ownContainer, std::string const& formatName)
{
    return ownContainer ? ownContainer : Container::forImport(formatName);
}

WriteResult writeMovie(dm::Movie const& movie, std::string const& path, Progress const& progress, SaveOptions const& options)
{
    Plan plan;
    plan.container = containerNamed(options.container, path, "Cannot write");
    plan.options = options;
    plan.operation = "Saving a self-contained movie";
    Prepared prepared = prepare(movie, plan);
    refuseLosses(prepared, plan);
    AtomicFile file(path, AtomicFile::Kind::NewOrReplace, options.target);
    WriteResult r = writeChecked(movie, file, plan, prepared, progress);
    file.commit();
    return r;
}

WriteResult writeMovie(dm::Movie const& movie, std::string const& path, Progress const& progress, Container container)
{
    SaveOptions options;
    options.container = container;
    return writeMovie(movie, path, progress, options);
}

WriteResult saveInPlace(dm::Movie const& movie, std::string const& path, Progress const& progress, SaveOptions const& options)
{
    Plan plan;
    plan.container = containerNamed(options.container, path, "Cannot save in place");
    plan.options = options;
    plan.operation = "Saving";
    Prepared prepared = prepare(movie, plan);
    refuseLosses(prepared, plan);
    auto source = sourceAt(movie, path);
    std::optional<FileIdentity> known;
    if (source) known = source->knownVersion();
    AtomicFile file(path, AtomicFile::Kind::Replace, options.target, known);
    WriteResult r;
    try {
        r = writeChecked(movie, file, plan, prepared, progress);
    } catch (Cancelled const&) {
        throw;
    } catch (MediaError const&) {
        // Another program rewriting the file under the movie spoils what the
        // movie reads; say so rather than what failed to read.
        struct stat st {};
        if (source && ::stat(path.c_str(), &st) == 0 && !(FileIdentity::of(st) == *known))
            throw FileChangedOnDisk("\"" + path + "\" was changed by another program while it was being saved, so it was not "
                                    "replaced. Save under another name to keep both versions.");
        throw;
    }
    FileIdentity saved = file.commit();
    if (source) source->savedOver(saved);
    return r;
}

WriteResult saveInPlace(dm::Movie const& movie, std::string const& path, Progress const& progress, Container container)
{
    SaveOptions options;
    options.container = container;
    return saveInPlace(movie, path, progress, options);
}

} // namespace media
