#include "Evidence.h"

#include "AudioRenderer.h"
#include "Codec.h"
#include "FaceFinder.h"
#include "WriteProgress.h"

#include <cmath>
#include <optional>

namespace media {

namespace {

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

} // namespace

std::vector<float> monoTimeline(dm::Track const& sound, ProgressReporter& progress, double from, double to, int rate, int* usedRate)
{
    auto media = fileMediaOf(sound, "sound track");
    AudioDecoder decoder(media);
    int inRate = decoder.sampleRate();
    if (rate <= 0) rate = inRate;
    if (usedRate) *usedRate = rate;
    double seconds = static_cast<double>(sound.editList()->duration()) / sound.timeScale();
    auto total = static_cast<std::size_t>(std::max(0.0, seconds * inRate));
    // A different rate goes through the resampler piece by piece, so only
    // the result is held whole.
    Swr swr;
    if (rate != inRate) {
        AVChannelLayout mono = AV_CHANNEL_LAYOUT_MONO;
        SwrContext* raw = nullptr;
        check(swr_alloc_set_opts2(&raw, &mono, AV_SAMPLE_FMT_FLT, rate, &mono, AV_SAMPLE_FMT_FLT, inRate, 0, nullptr), "Setting up the resampler");
        swr.reset(raw);
        check(swr_init(swr.get()), "Setting up the resampler");
    }
    std::vector<float> out;
    out.reserve(static_cast<std::size_t>(seconds * rate) + 64);
    constexpr int kPiece = 4800;
    int channels = decoder.channels();
    PcmBuffer buf(channels, kPiece);
    std::vector<float*> ptrs;
    for (auto& c : buf.channels) ptrs.push_back(c.data());
    std::vector<float> piece(kPiece), converted;
    double mediaPerSample = static_cast<double>(media->timeScale) / inRate;
    auto emit = [&](float const* data, int count) {
        if (!swr) {
            out.insert(out.end(), data, data + count);
            return;
        }
        int room = swr_get_out_samples(swr.get(), count);
        converted.resize(static_cast<std::size_t>(std::max(room, 0)));
        auto* dst = reinterpret_cast<std::uint8_t*>(converted.data());
        auto const* src = reinterpret_cast<std::uint8_t const*>(data);
        int n = swr_convert(swr.get(), &dst, room, data ? &src : nullptr, count);
        if (n > 0) out.insert(out.end(), converted.begin(), converted.begin() + n);
    };
    for (std::size_t first = 0; first < total; first += kPiece) {
        progress.update(from + (to - from) * static_cast<double>(first) / static_cast<double>(total));
        int count = static_cast<int>(std::min<std::size_t>(kPiece, total - first));
        std::fill(piece.begin(), piece.end(), 0.f);
        auto at = sound.lookup(myQTTime(static_cast<long long>(first), inRate));
        if (at && !at->segment.isEmpty()) {
            auto start = static_cast<std::int64_t>(std::llround(at->mediaTime / mediaPerSample));
            decoder.read(start, count, ptrs.data());
            for (int i = 0; i < count; ++i) {
                float sum = 0;
                for (int c = 0; c < channels; ++c) sum += buf.channels[static_cast<std::size_t>(c)][static_cast<std::size_t>(i)];
                piece[static_cast<std::size_t>(i)] = sum / static_cast<float>(std::max(1, channels));
            }
        }
        emit(piece.data(), count);
    }
    if (swr) emit(nullptr, 0);
    // As long as the timeline at the new rate.
    out.resize(static_cast<std::size_t>(std::llround(static_cast<double>(total) * rate / inRate)), 0.f);
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
        int rate = 0;
        std::vector<float> mono = monoTimeline(unedited, report, 0, kSoundShare, 0, &rate);
        auto envs = suggest::soundEnvelopes(mono.data(), mono.size(), rate);
        out.evidence.onset = std::move(envs.onset);
        out.evidence.speech = std::move(envs.speech);
        out.evidence.soundChange = std::move(envs.change);
    }

    auto vmedia = fileMediaOf(video, "video track");
    if (vmedia->width <= 0 || vmedia->height <= 0) throw MediaError("The video track has no picture size.");
    VideoDecoder decoder(vmedia);
    // Pictures are looked at small: the deblocking filter is not worth its time.
    decoder.context()->skip_loop_filter = AVDISCARD_ALL;
    if (vmedia->frameRate.num > 0 && vmedia->frameRate.den > 0) out.frameSeconds = av_q2d(av_inv_q(vmedia->frameRate));

    auto evenSize = [&](int width) {
        int w = std::max(16, std::min(width, vmedia->width)) & ~1;
        int h = std::max(2, static_cast<int>(std::lround(static_cast<double>(w) * vmedia->height / vmedia->width)) & ~1);
        return std::pair{w, h};
    };
    auto [pw, ph] = evenSize(options.pictureWidth);
    auto [fw, fh] = evenSize(options.faceWidth);

    std::unique_ptr<FaceFinder> faces;
    if (options.findFaces) faces = makeFaceFinder(&out.faceNote);
    suggest::FrameChangeBuilder changes, mouth;
    std::vector<std::uint8_t> small(static_cast<std::size_t>(pw * ph)), face(static_cast<std::size_t>(fw * fh)),
        previousFace(face.size());
    bool havePreviousFace = false;
    std::optional<FaceBox> box;
    double nextSearch = -1, boxSeen = 0;
    Scaler toSmall, toFace;
    Frame f = makeFrame();
    while (decoder.next(f.get())) {
        std::int64_t pts = f->best_effort_timestamp != AV_NOPTS_VALUE ? f->best_effort_timestamp : f->pts;
        auto when = pts == AV_NOPTS_VALUE ? std::nullopt : timelineSeconds(video, vmedia->ticksFromPts(pts));
        if (!when) {
            av_frame_unref(f.get());
            continue;
        }
        double t = *when;
        ++out.frames;
        report.update(kSoundShare + (1 - kSoundShare) * std::clamp(t / std::max(duration, 1e-9), 0.0, 1.0));
        toSmall.convertInto(f.get(), pw, ph, AV_PIX_FMT_GRAY8, small.data(), pw, small.size(), SWS_AREA);
        changes.add(t, small.data(), pw, ph, pw);
        if (faces) {
            toFace.convertInto(f.get(), fw, fh, AV_PIX_FMT_GRAY8, face.data(), fw, face.size(), SWS_AREA);
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
