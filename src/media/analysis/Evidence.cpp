#include "Evidence.h"

#include "AudioRenderer.h"
#include "Codec.h"
#include "FaceFinder.h"
#include "MouthLandmarks.h"
#include "WriteProgress.h"

extern "C" {
#include <libavfilter/avfilter.h>
#include <libavfilter/buffersink.h>
#include <libavfilter/buffersrc.h>
}

#include <algorithm>
#include <cmath>
#include <condition_variable>
#include <cstdio>
#include <cstring>
#include <deque>
#include <exception>
#include <mutex>
#include <optional>
#include <thread>

namespace media {

namespace {

struct FilterGraphDeleter {
    void operator()(AVFilterGraph* g) const { avfilter_graph_free(&g); }
};
using FilterGraph = std::unique_ptr<AVFilterGraph, FilterGraphDeleter>;

// Whether interlaced pictures hold two moments: fields taken half a frame
// apart, as video cameras and broadcasts take them, rather than a picture of
// one moment coded in two fields (films on DVD and on television). FFmpeg's
// idet filter tells them apart by how each field matches the fields before
// and after it; a few runs of pictures through the movie are shown to it.
class FieldTiming {
public:
    // A decoded picture at `seconds` of its stream.
    void add(AVFrame* frame, double seconds, AVRational timeBase)
    {
        if (!frame->interlaced_frame || failed_) return;
        // The first 3 s, then the first second of every 20: idet needs
        // pictures in a row, and its history settles after a few.
        if (seconds >= 3 && std::fmod(seconds, 20.0) >= 1) return;
        if (!graph_ && !open(frame, timeBase)) return;
        if (av_buffersrc_add_frame_flags(source_, frame, AV_BUFFERSRC_FLAG_KEEP_REF) < 0) {
            failed_ = true;
            return;
        }
        while (av_buffersink_get_frame(sink_, out_.get()) >= 0) {
            AVDictionaryEntry* e = av_dict_get(out_->metadata, "lavfi.idet.multiple.current_frame", nullptr, 0);
            if (e && (std::strcmp(e->value, "tff") == 0 || std::strcmp(e->value, "bff") == 0)) ++apart_;
            else if (e && std::strcmp(e->value, "progressive") == 0) ++together_;
            av_frame_unref(out_.get());
        }
    }
    // Most pictures told apart (at least 10) show fields of two moments.
    bool fieldsApart() const { return apart_ >= 10 && apart_ > together_; }

private:
    bool open(AVFrame const* frame, AVRational timeBase)
    {
        graph_.reset(avfilter_graph_alloc());
        char args[256];
        std::snprintf(args, sizeof args, "video_size=%dx%d:pix_fmt=%d:time_base=%d/%d:pixel_aspect=1/1", frame->width, frame->height,
                      frame->format, timeBase.num, std::max(1, timeBase.den));
        AVFilterContext* idet = nullptr;
        bool ok = graph_ && avfilter_graph_create_filter(&source_, avfilter_get_by_name("buffer"), "in", args, nullptr, graph_.get()) >= 0 &&
                  avfilter_graph_create_filter(&idet, avfilter_get_by_name("idet"), "idet", nullptr, nullptr, graph_.get()) >= 0 &&
                  avfilter_graph_create_filter(&sink_, avfilter_get_by_name("buffersink"), "out", nullptr, nullptr, graph_.get()) >= 0 &&
                  avfilter_link(source_, 0, idet, 0) >= 0 && avfilter_link(idet, 0, sink_, 0) >= 0 &&
                  avfilter_graph_config(graph_.get(), nullptr) >= 0;
        // Without the filter the pictures keep their time stamps, as before.
        if (!ok) {
            failed_ = true;
            graph_.reset();
        }
        return ok;
    }
    FilterGraph graph_;
    AVFilterContext* source_ = nullptr; // owned by graph_
    AVFilterContext* sink_ = nullptr;
    Frame out_ = makeFrame();
    bool failed_ = false;
    long apart_ = 0, together_ = 0;
};

std::shared_ptr<const FileMedia> fileMediaOf(dm::Track const& t, char const* what)
{
    auto m = std::dynamic_pointer_cast<const FileMedia>(t.media());
    if (!m) throw MediaError(std::string("The ") + what + " cannot be read for suggestions.");
    return m;
}

// The timeline seconds at which a media tick of `track` plays, through its
// edits; nullopt where the tick is not played.
std::optional<double> timelineSeconds(dm::Track const& track, std::int64_t mediaTick)
{
    auto edits = track.editList();
    auto const& segs = edits->segments();
    auto const& starts = edits->starts();
    for (std::size_t i = 0; i < segs.size(); ++i) {
        auto const& s = segs[i];
        if (s.isEmpty() || mediaTick < s.mediaStart || mediaTick >= s.mediaStart + s.mediaLength) continue;
        double inSegment = static_cast<double>(mediaTick - s.mediaStart) * static_cast<double>(s.duration) / static_cast<double>(s.mediaLength);
        return (static_cast<double>(starts[i]) + inSegment) / track.timeScale();
    }
    return std::nullopt;
}

// A face followed by its landmarks from one picture to the next: the box it
// was last found in and the landmarks found there (the anchor that places
// the box on later landmarks), its latest landmarks, and its mouth's opening
// and what it showed of the mouth at every picture it was followed in.
struct FollowedFace {
    FaceBox anchorBox;
    FaceLandmarks anchor{};
    FaceLandmarks latest{};
    bool anchored = false;
    double confirmed = 0; // when the face finder last saw it
    std::vector<std::pair<double, MouthShape>> openings;
    FaceBox box() const { return anchored ? followedBox(anchorBox, anchor, latest) : anchorBox; }
};

double overlap(FaceBox const& a, FaceBox const& b)
{
    int x0 = std::max(a.x, b.x), x1 = std::min(a.x + a.width, b.x + b.width);
    int y0 = std::max(a.y, b.y), y1 = std::min(a.y + a.height, b.y + b.height);
    double both = std::max(0, x1 - x0) * static_cast<double>(std::max(0, y1 - y0));
    double either = a.area() + static_cast<double>(b.area()) - both;
    return either > 0 ? both / either : 0;
}

// One measure of the mouth at picture times as an envelope at `rate` from
// `from` to `until`: linear between pictures, the nearest value before the
// first and after the last.
suggest::Envelope openingEnvelope(std::vector<std::pair<double, MouthShape>> const& openings, double MouthShape::*measure,
                                  double until, double rate, double from = 0)
{
    suggest::Envelope e;
    e.rate = rate;
    e.start = from;
    auto n = static_cast<std::size_t>(std::max(0.0, std::ceil((until - from) * rate)));
    e.values.assign(n, 0.f);
    if (openings.empty()) return e;
    std::size_t k = 0;
    for (std::size_t i = 0; i < n; ++i) {
        double t = from + static_cast<double>(i) / rate;
        while (k + 1 < openings.size() && openings[k + 1].first <= t) ++k;
        double v = openings[k].second.*measure;
        if (t > openings[k].first && k + 1 < openings.size()) {
            double t0 = openings[k].first, v0 = openings[k].second.*measure;
            double t1 = openings[k + 1].first, v1 = openings[k + 1].second.*measure;
            v = v0 + (v1 - v0) * (t - t0) / (t1 - t0);
        } else if (t < openings.front().first) {
            v = openings.front().second.*measure;
        }
        e.values[i] = static_cast<float>(v);
    }
    return e;
}

// The six measures of the mouths from `from` to `until`, as envelopes
// at the evidence's rate.
void setMouthMeasures(suggest::Evidence& e, std::vector<std::pair<double, MouthShape>> const& mouths, double until, double from = 0)
{
    double rate = 1.0 / suggest::kHopSeconds;
    e.mouthOpening = openingEnvelope(mouths, &MouthShape::opening, until, rate, from);
    e.lipsApart = openingEnvelope(mouths, &MouthShape::lipsApart, until, rate, from);
    e.mouthDark = openingEnvelope(mouths, &MouthShape::dark, until, rate, from);
    e.mouthShade = openingEnvelope(mouths, &MouthShape::shade, until, rate, from);
    e.jaw = openingEnvelope(mouths, &MouthShape::jaw, until, rate, from);
    e.mouthLook = openingEnvelope(mouths, &MouthShape::look, until, rate, from);
}

// How much a followed mouth moves: the summed change of its opening from
// picture to picture, per second followed: which face speaks when no voice says.
double mouthMotion(FollowedFace const& f)
{
    if (f.openings.size() < 2) return 0;
    double sum = 0;
    for (std::size_t i = 1; i < f.openings.size(); ++i) sum += std::fabs(f.openings[i].second.opening - f.openings[i - 1].second.opening);
    return sum / std::max(1e-3, f.openings.back().first - f.openings.front().first);
}

// The look of each of a face's mouths (see mouthLooks).
void setLooks(FollowedFace& f)
{
    std::vector<MouthShape> shapes;
    shapes.reserve(f.openings.size());
    for (auto& o : f.openings) shapes.push_back(std::move(o.second));
    mouthLooks(shapes);
    for (std::size_t i = 0; i < shapes.size(); ++i) f.openings[i].second = std::move(shapes[i]);
}

// The mouths compared with the speech, over the whole movie: every face
// followed, and where several were followed at once the one whose mouth
// moves with the voice (the speaker's, shot by shot; a listener who chews,
// smiles or sings along may move his more, and follow the voice loosely at
// many lags, but not clearly at one). Which face that is does not depend
// on where the sound lies: each face is compared with the voice at every
// lag the movie is measured at. Without a voice, the face whose mouth
// moves most. Each face's measures are taken from its own mean, so that a
// cut from one face to another is no step of a mouth.
std::vector<std::pair<double, MouthShape>> speakingMouths(std::vector<FollowedFace> faces, suggest::Evidence const& sound)
{
    struct Ranked {
        double withVoice, motion;
    };
    std::vector<Ranked> rank;
    auto span = [](FollowedFace const& f) { return f.openings.size() < 2 ? 0.0 : f.openings.back().first - f.openings.front().first; };
    auto overlapsAnother = [&](FollowedFace const& f) {
        return std::any_of(faces.begin(), faces.end(), [&](FollowedFace const& g) {
            return &g != &f && g.openings.size() >= 2 && g.openings.front().first < f.openings.back().first &&
                   f.openings.front().first < g.openings.back().first;
        });
    };
    auto voice = faces.size() > 1 ? suggest::voiceOf(sound) : suggest::Voice{};
    double lags = suggest::lagsMeasured(suggest::Settings{}, sound.duration);
    for (auto& f : faces) {
        setLooks(f);
        double withVoice = 0;
        // Only faces seen at the same time compete for the voice.
        if (f.openings.size() >= 2 && !voice.levels.empty() && overlapsAnother(f)) {
            double first = f.openings.front().first, last = f.openings.back().first;
            suggest::Evidence mouth;
            setMouthMeasures(mouth, f.openings, last, first);
            // A face followed for a moment can seem to follow the voice
            // by chance: each counts by how long it was followed too.
            withVoice = suggest::mouthFollowsVoice(mouth, voice, first, last - first, lags) * span(f);
        }
        rank.push_back({withVoice, mouthMotion(f)});
    }
    std::vector<std::size_t> order(faces.size());
    for (std::size_t i = 0; i < order.size(); ++i) order[i] = i;
    std::stable_sort(order.begin(), order.end(), [&](std::size_t a, std::size_t b) {
        return rank[a].withVoice != rank[b].withVoice ? rank[a].withVoice > rank[b].withVoice : rank[a].motion > rank[b].motion;
    });
    std::vector<FollowedFace> sorted;
    for (auto i : order) sorted.push_back(std::move(faces[i]));
    faces = std::move(sorted);
    std::vector<std::pair<double, double>> claimed;
    std::vector<std::pair<double, MouthShape>> out;
    for (auto& f : faces) {
        if (f.openings.size() < 2) continue;
        std::vector<MouthShape> shapes;
        shapes.reserve(f.openings.size());
        for (auto& o : f.openings) shapes.push_back(std::move(o.second));
        MouthShape mean;
        for (auto const& m : shapes) {
            mean.opening += m.opening;
            mean.lipsApart += m.lipsApart;
            mean.jaw += m.jaw;
            mean.dark += m.dark;
            mean.shade += m.shade;
            mean.look += m.look;
        }
        auto n = static_cast<double>(shapes.size());
        for (std::size_t i = 0; i < shapes.size(); ++i) {
            double t = f.openings[i].first;
            bool taken = std::any_of(claimed.begin(), claimed.end(), [t](auto const& c) { return t >= c.first && t <= c.second; });
            if (taken) continue;
            auto const& m = shapes[i];
            out.emplace_back(t, MouthShape{.opening = m.opening - mean.opening / n,
                                           .lipsApart = m.lipsApart - mean.lipsApart / n,
                                           .jaw = m.jaw - mean.jaw / n,
                                           .dark = m.dark - mean.dark / n,
                                           .shade = m.shade - mean.shade / n,
                                           .look = m.look - mean.look / n});
        }
        claimed.emplace_back(f.openings.front().first, f.openings.back().first);
    }
    std::sort(out.begin(), out.end(), [](auto const& a, auto const& b) { return a.first < b.first; });
    return out;
}

// Faces followed by their landmarks through the pictures of a movie, on a
// thread of its own: placing the landmarks takes about as long as decoding
// and scaling a picture, and on two cores the two run side by side. The
// pictures are handed over in order, at most a few waiting; faces are
// searched for every `faceInterval` seconds and followed by their landmarks
// in between.
class FaceFollower {
public:
    FaceFollower(std::unique_ptr<FaceFinder> finder, std::unique_ptr<FaceFinder> cascade, std::unique_ptr<LandmarkPredictor> landmarks, int fw,
                 int fh, int lw, int lh, EvidenceOptions const& options)
        : finder_(std::move(finder)), cascade_(std::move(cascade)), landmarks_(std::move(landmarks)), fw_(fw), fh_(fh), lw_(lw), lh_(lh),
          options_(options), worker_([this] { run(); })
    {
    }
    FaceFollower(FaceFollower const&) = delete;
    FaceFollower& operator=(FaceFollower const&) = delete;
    ~FaceFollower()
    {
        if (!worker_.joinable()) return;
        {
            std::lock_guard lock(mutex_);
            abandoned_ = true;
        }
        work_.notify_all();
        worker_.join();
    }

    // The picture shown from `t` at the finder's size, and at the
    // landmarks' size (empty when that is the same). Rethrows what the
    // thread failed with.
    void add(double t, std::vector<std::uint8_t> const& face, std::vector<std::uint8_t> lips)
    {
        std::unique_lock lock(mutex_);
        room_.wait(lock, [&] { return queue_.size() < kWaiting || failure_; });
        if (failure_) std::rethrow_exception(failure_);
        queue_.push_back({t, face, std::move(lips)});
        work_.notify_one();
    }

    // Every face followed, once all pictures are done.
    std::vector<FollowedFace> finish()
    {
        {
            std::lock_guard lock(mutex_);
            done_ = true;
        }
        work_.notify_all();
        worker_.join();
        if (failure_) std::rethrow_exception(failure_);
        for (auto& ff : followed_) lost_.push_back(std::move(ff));
        followed_.clear();
        return std::move(lost_);
    }

private:
    static constexpr std::size_t kWaiting = 4;
    struct Picture {
        double t = 0;
        std::vector<std::uint8_t> face, lips;
    };

    void run()
    {
        try {
            for (;;) {
                Picture p;
                {
                    std::unique_lock lock(mutex_);
                    work_.wait(lock, [&] { return !queue_.empty() || done_ || abandoned_; });
                    if (abandoned_ || queue_.empty()) return;
                    p = std::move(queue_.front());
                    queue_.pop_front();
                }
                room_.notify_one();
                follow(p);
            }
        } catch (...) {
            std::lock_guard lock(mutex_);
            failure_ = std::current_exception();
            room_.notify_all();
        }
    }

    FaceBox onLips(FaceBox const& b) const
    {
        double k = static_cast<double>(lw_) / fw_;
        return FaceBox{static_cast<int>(std::lround(b.x * k)), static_cast<int>(std::lround(b.y * k)), static_cast<int>(std::lround(b.width * k)),
                       static_cast<int>(std::lround(b.height * k))};
    }

    void follow(Picture const& p)
    {
        double t = p.t;
        std::uint8_t const* lipPicture = p.lips.empty() ? p.face.data() : p.lips.data();
        if (t >= nextSearch_) {
            // Faces the finder sees again are confirmed; new ones are
            // followed from here. The finder misses a face now and then
            // (a turn of the head, an open mouth), while its landmarks
            // still hold: a face is let go only after ten searches
            // without it.
            //
            // The finder's smallest boxes are about 73 pixels wide: it puts
            // them around smaller faces too, loosely, and misses many of
            // those. When it sees no face at its size, or only faces in
            // such boxes, it looks again in the larger picture the
            // landmarks are placed on: a speaker in a wider shot, two
            // people side by side. Where faces are larger, this costs
            // nothing (a talking head at 1280x720 is boxed at 87 pixels
            // and more).
            std::vector<FaceBox> seen;
            bool small = true;
            for (auto const& found : finder_->find(p.face.data(), fw_, fh_, fw_)) {
                seen.push_back(onLips(found));
                small = small && found.width < 80;
            }
            if (small && lw_ > fw_) {
                auto closer = finder_->find(lipPicture, lw_, lh_, lw_);
                if (!closer.empty()) seen = std::move(closer);
            }
            if (seen.empty() && cascade_)
                for (auto const& found : cascade_->find(p.face.data(), fw_, fh_, fw_)) seen.push_back(onLips(found));
            for (auto const& b : seen) {
                auto same = std::find_if(followed_.begin(), followed_.end(), [&](FollowedFace const& ff) { return overlap(ff.box(), b) > 0.3; });
                if (same != followed_.end()) {
                    // Placed again in the finder's box: a box carried
                    // along by landmarks alone slowly drifts off the face.
                    same->confirmed = t;
                    same->anchorBox = b;
                    same->anchored = false;
                } else if (static_cast<int>(followed_.size()) < options_.maxFaces) {
                    FollowedFace ff;
                    ff.anchorBox = b;
                    ff.confirmed = t;
                    followed_.push_back(ff);
                }
            }
            for (auto it = followed_.begin(); it != followed_.end();) {
                if (t - it->confirmed > 10 * options_.faceInterval) {
                    // What it showed since the finder last saw it was more
                    // likely the background after a cut than a face.
                    double until = it->confirmed + 2 * options_.faceInterval;
                    auto& o = it->openings;
                    o.erase(std::find_if(o.begin(), o.end(), [&](auto const& e) { return e.first > until; }), o.end());
                    lost_.push_back(std::move(*it));
                    it = followed_.erase(it);
                } else {
                    ++it;
                }
            }
            nextSearch_ = t + options_.faceInterval;
        }
        for (auto it = followed_.begin(); it != followed_.end();) {
            FaceBox b = it->box();
            FaceLandmarks found = landmarks_->predict(lipPicture, lw_, lh_, lw_, b);
            auto shape = mouthShape(found, lipPicture, lw_, lh_, lw_);
            // A box that has wandered off the picture or shrunk to
            // nothing is no longer a face.
            bool inside = b.width >= 24 * lw_ / fw_ && b.x + b.width / 2 > 0 && b.x + b.width / 2 < lw_ && b.y + b.height / 2 > 0 &&
                          b.y + b.height / 2 < lh_;
            if (!shape || !inside) {
                lost_.push_back(std::move(*it));
                it = followed_.erase(it);
                continue;
            }
            if (!it->anchored) {
                it->anchor = found;
                it->anchored = true;
            }
            it->latest = found;
            it->openings.emplace_back(t, *shape);
            ++it;
        }
    }

    std::unique_ptr<FaceFinder> finder_, cascade_;
    std::unique_ptr<LandmarkPredictor> landmarks_;
    int fw_, fh_, lw_, lh_;
    EvidenceOptions options_;
    // The thread's own, until finish() has joined it.
    std::vector<FollowedFace> followed_, lost_;
    double nextSearch_ = -1;
    std::mutex mutex_;
    std::condition_variable work_, room_;
    std::deque<Picture> queue_;
    bool done_ = false, abandoned_ = false;
    std::exception_ptr failure_;
    std::thread worker_; // last: started once everything above exists
};

} // namespace

void streamTimeline(dm::Track const& sound, ProgressReporter& progress, double from, double to, int rate, TimelineSink const& sink,
                    bool withDialogue, int* usedRate)
{
    auto media = fileMediaOf(sound, "sound track");
    AudioDecoder decoder(media);
    int inRate = decoder.sampleRate();
    if (rate <= 0) rate = inRate;
    if (usedRate) *usedRate = rate;
    double seconds = static_cast<double>(sound.editList()->duration()) / sound.timeScale();
    auto total = static_cast<std::size_t>(std::max(0.0, seconds * inRate));
    int channels = decoder.channels();
    int centre = withDialogue && channels >= 3 ? av_channel_layout_index_from_channel(&decoder.layout(), AV_CHAN_FRONT_CENTER) : -1;
    // Each output (the mix, the centre) goes through a resampler of its own
    // when the rate differs, piece by piece.
    struct Output {
        bool dialogue;
        Swr swr;
        std::size_t given = 0;
    };
    std::vector<Output> outputs;
    outputs.push_back({false, {}});
    if (centre >= 0) outputs.push_back({true, {}});
    for (auto& o : outputs) {
        if (rate == inRate) continue;
        AVChannelLayout mono = AV_CHANNEL_LAYOUT_MONO;
        SwrContext* raw = nullptr;
        check(swr_alloc_set_opts2(&raw, &mono, AV_SAMPLE_FMT_FLT, rate, &mono, AV_SAMPLE_FMT_FLT, inRate, 0, nullptr), "Setting up the resampler");
        o.swr.reset(raw);
        check(swr_init(o.swr.get()), "Setting up the resampler");
    }
    // As long as the timeline at the new rate: the resampler's tail is cut
    // or padded with silence to that.
    auto length = static_cast<std::size_t>(std::llround(static_cast<double>(total) * rate / inRate));
    constexpr int kPiece = 4800;
    PcmBuffer buf(channels, kPiece);
    std::vector<float*> ptrs;
    for (auto& c : buf.channels) ptrs.push_back(c.data());
    std::vector<float> piece(kPiece), converted;
    double mediaPerSample = static_cast<double>(media->timeScale) / inRate;
    auto give = [&](Output& o, float const* data, std::size_t count) {
        count = std::min(count, length - std::min(length, o.given));
        if (count == 0) return;
        sink(o.dialogue, data, count);
        o.given += count;
    };
    auto emit = [&](Output& o, float const* data, int count) {
        if (!o.swr) {
            give(o, data, static_cast<std::size_t>(count));
            return;
        }
        int room = swr_get_out_samples(o.swr.get(), count);
        converted.resize(static_cast<std::size_t>(std::max(room, 0)));
        auto* dst = reinterpret_cast<std::uint8_t*>(converted.data());
        auto const* src = reinterpret_cast<std::uint8_t const*>(data);
        int n = swr_convert(o.swr.get(), &dst, room, data ? &src : nullptr, count);
        if (n > 0) give(o, converted.data(), static_cast<std::size_t>(n));
    };
    for (std::size_t first = 0; first < total; first += kPiece) {
        progress.update(from + (to - from) * static_cast<double>(first) / static_cast<double>(total));
        int count = static_cast<int>(std::min<std::size_t>(kPiece, total - first));
        std::fill(piece.begin(), piece.end(), 0.f);
        auto at = sound.lookup(myQTTime(static_cast<long long>(first), inRate));
        bool playing = at && !at->segment.isEmpty();
        if (playing) {
            auto start = static_cast<std::int64_t>(std::llround(at->mediaTime / mediaPerSample));
            decoder.read(start, count, ptrs.data());
            for (int i = 0; i < count; ++i) {
                float sum = 0;
                for (int c = 0; c < channels; ++c) sum += buf.channels[static_cast<std::size_t>(c)][static_cast<std::size_t>(i)];
                piece[static_cast<std::size_t>(i)] = sum / static_cast<float>(std::max(1, channels));
            }
        }
        emit(outputs[0], piece.data(), count);
        if (outputs.size() > 1) {
            auto& c = buf.channels[static_cast<std::size_t>(centre)];
            if (!playing) std::fill(c.begin(), c.begin() + count, 0.f);
            emit(outputs[1], c.data(), count);
        }
    }
    std::vector<float> silence;
    for (auto& o : outputs) {
        if (o.swr) emit(o, nullptr, 0);
        if (o.given < length) {
            silence.assign(length - o.given, 0.f);
            give(o, silence.data(), silence.size());
        }
    }
}

std::vector<float> monoTimeline(dm::Track const& sound, ProgressReporter& progress, double from, double to, int rate, int* usedRate)
{
    std::vector<float> out;
    streamTimeline(sound, progress, from, to, rate, [&](bool, float const* samples, std::size_t count) { out.insert(out.end(), samples, samples + count); },
                   false, usedRate);
    return out;
}

dm::TrackPtr enabledVideoTrack(dm::Movie const& movie)
{
    for (auto const& t : movie.tracks())
        if (t->isEnabled() && t->mediaType() == dm::MediaType::Video) return t;
    return nullptr;
}

MovieEvidence gatherEvidence(dm::Track const& video, dm::Track const& unedited, double duration, Progress const& progress,
                             std::atomic<bool> const* stop, EvidenceOptions const& options)
{
    ProgressReporter report(progress, "Looking for sync points", stop);
    MovieEvidence out;
    out.evidence.duration = duration;
    constexpr double kSoundShare = 0.1;

    // Sound first: it is the cheaper half.
    auto smedia = fileMediaOf(unedited, "sound track");
    {
        // Envelopes are made as the sound is read: only they are held whole.
        // A film's voices are in its centre channel, the music and the
        // effects around them: the voice is heard there alone. Not from a
        // centre left all but silent (stereo spread to 5.1 by some tools).
        int rate = smedia->sampleRate;
        suggest::SoundEnvelopeBuilder mix(rate), centre(rate);
        double mixPower = 0, centrePower = 0;
        auto power = [](float const* v, std::size_t n) {
            double sum = 0;
            for (std::size_t i = 0; i < n; ++i) sum += static_cast<double>(v[i]) * v[i];
            return sum;
        };
        streamTimeline(unedited, report, 0, kSoundShare, rate,
                       [&](bool dialogue, float const* samples, std::size_t count) {
                           (dialogue ? centrePower : mixPower) += power(samples, count);
                           (dialogue ? centre : mix).add(samples, count);
                       },
                       true);
        auto envs = mix.finish();
        out.evidence.onset = std::move(envs.onset);
        out.evidence.soundChange = std::move(envs.change);
        if (centrePower > 0.01 * mixPower && centrePower > 0) {
            envs = centre.finish();
            out.dialogueChannel = true;
        }
        out.evidence.speech = std::move(envs.speech);
        out.evidence.voiceLow = std::move(envs.voiceLow);
        out.evidence.voiceHigh = std::move(envs.voiceHigh);
    }

    auto vmedia = fileMediaOf(video, "video track");
    if (vmedia->width <= 0 || vmedia->height <= 0) throw MediaError("The video track has no picture size.");
    VideoDecoder decoder(vmedia);
    // Pictures are looked at small: the deblocking filter is not worth its time.
    decoder.context()->skip_loop_filter = AVDISCARD_ALL;
    if (vmedia->frameRate.num > 0 && vmedia->frameRate.den > 0) out.frameSeconds = av_q2d(av_inv_q(vmedia->frameRate));

    // Pictures are looked at as they are shown: a DVD's narrow pixels
    // widened, a phone's sideways picture turned upright. Faces are found
    // only upright and in their own proportions.
    auto const shown = vmedia->displaySize();
    int const shownW = shown.first, shownH = shown.second;
    int turn = vmedia->rotation;
    auto evenSize = [&](int width) {
        int w = std::max(16, std::min(width, shownW)) & ~1;
        int h = std::max(2, static_cast<int>(std::lround(static_cast<double>(w) * shownH / shownW)) & ~1);
        return std::pair{w, h};
    };
    auto [pw, ph] = evenSize(options.pictureWidth);
    auto [fw, fh] = evenSize(options.faceWidth);
    // Landmarks are placed on a larger picture than faces are found in: the
    // lips of a face found at 320 pixels are a few pixels apart.
    auto [lw, lh] = evenSize(std::max(options.faceWidth, options.landmarkWidth));
    std::unique_ptr<FaceFinder> faces;
    std::optional<FaceFollower> follower;
    if (options.findFaces) faces = makeFaceFinder(&out.faceNote);
    if (faces) {
        std::string why;
        auto landmarks = makeLandmarkPredictor(&why);
        out.mouthMethod = landmarks ? "landmarks" : "region motion";
        if (!landmarks) out.faceNote = why + "; the mouth is watched by the motion of its region";
        // With landmarks, faces are found by the detector the landmark model
        // was trained on, and by the cascade where it finds none (its
        // smallest face is 80 pixels wide; the cascade's is 40).
        if (landmarks) follower.emplace(makeLandmarkFaceFinder(), std::move(faces), std::move(landmarks), fw, fh, lw, lh, options);
    }
    suggest::FrameChangeBuilder changes, mouth;
    std::vector<std::uint8_t> small(static_cast<std::size_t>(pw * ph)), face(static_cast<std::size_t>(fw * fh)),
        previousFace(face.size());
    bool havePreviousFace = false;
    std::optional<FaceBox> box;
    double nextSearch = -1, boxSeen = 0;
    Scaler toSmall, toFace, toLips, greyToSmall;
    Frame f = makeFrame();
    // A turned picture is made grey at the landmarks' size as stored, then
    // turned upright into `upright`; all else is scaled from that.
    Frame upright = makeFrame();
    if (turn != 0) {
        upright->format = AV_PIX_FMT_GRAY8;
        upright->width = lw;
        upright->height = lh;
        check(av_frame_get_buffer(upright.get(), 0), "Allocating a picture");
    }
    auto uprightGrey = [&, lw = lw, lh = lh]() -> AVFrame* {
        if (turn == 0) return toLips.convert(f.get(), lw, lh, AV_PIX_FMT_GRAY8, SWS_AREA);
        toLips.convertTurned(f.get(), lw, lh, AV_PIX_FMT_GRAY8, turn, upright->data[0], upright->linesize[0],
                             static_cast<std::size_t>(upright->linesize[0]) * static_cast<std::size_t>(lh), SWS_AREA);
        return upright.get();
    };
    // Interlaced pictures are looked at whole: where their fields were taken
    // half a frame apart, each shows on the mean the moment a quarter frame
    // after its time stamp.
    FieldTiming fields;
    while (decoder.next(f.get())) {
        std::int64_t pts = f->best_effort_timestamp != AV_NOPTS_VALUE ? f->best_effort_timestamp : f->pts;
        if (f->interlaced_frame && pts != AV_NOPTS_VALUE)
            fields.add(f.get(), static_cast<double>(pts - vmedia->startPts) * av_q2d(vmedia->timeBase), vmedia->timeBase);
        auto when = pts == AV_NOPTS_VALUE ? std::nullopt : timelineSeconds(video, vmedia->ticksFromPts(pts));
        if (!when) {
            av_frame_unref(f.get());
            continue;
        }
        double t = *when;
        ++out.frames;
        report.update(kSoundShare + (1 - kSoundShare) * std::clamp(t / std::max(duration, 1e-9), 0.0, 1.0));
        if (follower) {
            // Landmarks are placed on every picture, in long movies too:
            // at 12 or 15 pictures a second a mouth's syllables still
            // show, but the generated talking heads were then placed
            // within 10 ms in 9 of 12 movies of two minutes, against 12 of
            // 12 with every picture.
            //
            // The picture is made grey once, at the landmarks' size; the
            // smaller ones are scaled from that grey picture, which costs a
            // fraction of scaling the decoded one (three planes, often HD).
            AVFrame* grey = uprightGrey();
            greyToSmall.convertInto(grey, pw, ph, AV_PIX_FMT_GRAY8, small.data(), pw, small.size(), SWS_AREA);
            changes.add(t, small.data(), pw, ph, pw);
            std::vector<std::uint8_t> lips;
            if (lw != fw) {
                toFace.convertInto(grey, fw, fh, AV_PIX_FMT_GRAY8, face.data(), fw, face.size(), SWS_AREA);
                lips.resize(static_cast<std::size_t>(lw) * static_cast<std::size_t>(lh));
                for (int y = 0; y < lh; ++y)
                    std::copy_n(grey->data[0] + static_cast<std::ptrdiff_t>(y) * grey->linesize[0], lw, lips.begin() + static_cast<std::ptrdiff_t>(y) * lw);
            } else {
                for (int y = 0; y < fh; ++y)
                    std::copy_n(grey->data[0] + static_cast<std::ptrdiff_t>(y) * grey->linesize[0], fw, face.begin() + static_cast<std::ptrdiff_t>(y) * fw);
            }
            follower->add(t, face, std::move(lips));
            av_frame_unref(f.get());
            continue;
        }
        AVFrame const* source = turn != 0 ? uprightGrey() : f.get();
        toSmall.convertInto(source, pw, ph, AV_PIX_FMT_GRAY8, small.data(), pw, small.size(), SWS_AREA);
        changes.add(t, small.data(), pw, ph, pw);
        if (faces) {
            toFace.convertInto(source, fw, fh, AV_PIX_FMT_GRAY8, face.data(), fw, face.size(), SWS_AREA);
            if (t >= nextSearch) {
                // A face missed once (a blink, an open mouth) is kept for a
                // few searches: faces do not vanish between two pictures.
                auto found = faces->find(face.data(), fw, fh, fw);
                if (!found.empty()) {
                    box = found.front();
                    boxSeen = t;
                } else if (t - boxSeen > 3 * options.faceInterval) {
                    box.reset();
                }
                nextSearch = t + options.faceInterval;
            }
            FaceBox m = box ? mouthRegion(*box, fw, fh) : FaceBox{};
            if (box && havePreviousFace && m.area() > 0) {
                std::size_t offset = static_cast<std::size_t>(m.y) * static_cast<std::size_t>(fw) + static_cast<std::size_t>(m.x);
                // The motion between two pictures happened between them.
                mouth.addValue(t - out.frameSeconds / 2, suggest::differenceEnergy(face.data() + offset, fw, previousFace.data() + offset, fw, m.width, m.height));
                ++out.framesWithFace;
            }
            std::swap(face, previousFace);
            havePreviousFace = true;
        }
        av_frame_unref(f.get());
    }
    changes.finish(duration);
    out.evidence.frameChange = changes.envelope();
    if (out.framesWithFace > 0) {
        mouth.finish(duration);
        out.evidence.mouth = mouth.envelope();
    }
    // With landmarks, the speakers' mouths, shot by shot.
    std::vector<std::pair<double, MouthShape>> mouths;
    if (follower) mouths = speakingMouths(follower->finish(), out.evidence);
    if (mouths.size() >= 2) {
        out.framesWithFace = static_cast<long>(mouths.size());
        setMouthMeasures(out.evidence, mouths, duration);
    }
    if (fields.fieldsApart()) {
        out.fieldsApart = true;
        for (suggest::Envelope* e : {&out.evidence.frameChange, &out.evidence.mouth, &out.evidence.mouthOpening, &out.evidence.lipsApart,
                                     &out.evidence.mouthDark, &out.evidence.mouthShade, &out.evidence.jaw, &out.evidence.mouthLook})
            e->start += out.frameSeconds / 4;
    }
    report.end();
    return out;
}

SuggestedPoints suggestSyncPoints(dm::Movie const& movie, dm::Track const& unedited, Progress const& progress,
                                  std::atomic<bool> const* stop, suggest::Settings settings, EvidenceOptions const& options)
{
    auto video = enabledVideoTrack(movie);
    if (!video) throw MediaError("The movie has no enabled video track: there is no picture to match the sound to.");
    SuggestedPoints out;
    out.evidence = gatherEvidence(*video, unedited, movie.duration().seconds(), progress, stop, options);
    settings.frameSeconds = out.evidence.frameSeconds;
    out.suggestion = suggest::suggestPoints(out.evidence.evidence, settings);
    return out;
}

} // namespace media
