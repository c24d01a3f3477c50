// The pictures of the player: one thread decodes and scales them ahead and
// hands each to the view when the clock reaches it.
#include "Player.h"
#include "PlayerParts.h"

#include "Codec.h"

#include <algorithm>
#include <cmath>
#include <cstring>

namespace media {

using namespace playerparts;

void Player::videoLoop() noexcept
{
    // The picture on screen stays as it is after a fault.
    try {
        videoLoopBody();
    } catch (std::bad_alloc const&) {
        reportFault("The pictures stopped: there was not enough memory to decode them.");
    } catch (std::exception const& e) {
        reportFault(std::string("The pictures stopped: ") + e.what());
    } catch (...) {
        reportFault("The pictures stopped after an unknown error.");
    }
}

namespace {

// Pictures whose pixels are used again once nobody holds them any more (the
// view lets the last one go when the next arrives): no allocation per frame
// while the picture's size stays the same. Safe from any thread.
class FramePool : public std::enable_shared_from_this<FramePool> {
public:
    std::shared_ptr<VideoFrame> take()
    {
        std::unique_ptr<VideoFrame> f;
        {
            std::lock_guard<std::mutex> g(lock_);
            if (!free_.empty()) {
                f = std::move(free_.back());
                free_.pop_back();
            }
        }
        if (!f) f = std::make_unique<VideoFrame>();
        f->seconds = 0;
        f->lap = 0;
        std::weak_ptr<FramePool> self = weak_from_this();
        return std::shared_ptr<VideoFrame>(f.release(), [self](VideoFrame* v) {
            std::unique_ptr<VideoFrame> owned(v);
            if (auto pool = self.lock()) pool->give(std::move(owned));
        });
    }

private:
    static constexpr std::size_t kKeep = 24; // more than the queue ahead and what the view holds
    void give(std::unique_ptr<VideoFrame> f)
    {
        std::lock_guard<std::mutex> g(lock_);
        if (free_.size() < kKeep) free_.push_back(std::move(f));
    }
    std::mutex lock_;
    std::vector<std::unique_ptr<VideoFrame>> free_;
};

} // namespace

// The size a decoded picture of w x h is shown at: its media's shown
// size, scaled as the picture is to the media's own (a stream may change
// its picture size on the way).
static std::pair<int, int> shownSize(FileMedia const& media, int w, int h)
{
    if (media.width == w && media.height == h) return media.displaySize();
    auto [sw, sh] = media.displaySize();
    bool quarter = media.turnedSideways();
    double kx = media.width > 0 ? static_cast<double>(quarter ? h : w) / (quarter ? media.height : media.width) : 1;
    double ky = media.height > 0 ? static_cast<double>(quarter ? w : h) / (quarter ? media.width : media.height) : 1;
    return {std::max(2, static_cast<int>(std::lround(sw * kx))), std::max(2, static_cast<int>(std::lround(sh * ky)))};
}

void Player::videoLoopBody()
{
    std::unique_ptr<VideoDecoder> decoder;
    std::shared_ptr<const FileMedia> media;
    try {
        media = std::static_pointer_cast<const FileMedia>(video_->media());
        decoder = std::make_unique<VideoDecoder>(media);
    } catch (std::exception const& e) {
        reportFault(std::string("The pictures cannot be shown: ") + e.what());
        return;
    }
    double tb = av_q2d(media->timeBase);
    double lead = static_cast<double>(video_->editList()->materialStart()) / video_->timeScale();
    // To the picture on screen at `seconds` of the pictures' own time; a
    // time before the first picture (a picture track that starts after
    // the movie does) goes to the first: a seek before it finds nothing.
    auto seekPictures = [&](double seconds) {
        decoder->seek(media->startPts + static_cast<std::int64_t>(std::floor(std::max(0.0, seconds) / tb)));
    };
    Frame frame = makeFrame();
    Scaler scaler;
    auto pool = std::make_shared<FramePool>();

    struct Queued {
        std::shared_ptr<VideoFrame> frame;
        std::int64_t ticks;
        std::uint64_t lap;
    };
    std::deque<Queued> queue;
    std::uint64_t seenGeneration = ~0ULL;
    std::uint64_t decoderLap = 0;
    std::int64_t skipBefore = 0;      // after a seek or wrap: frames before this are not shown...
    std::shared_ptr<VideoFrame> held; // ...except the last of them, which is on screen at skipBefore
    bool eof = false;
    bool lapGavePictures = false; // the decoder gave a picture since the last seek or wrap
    std::shared_ptr<const VideoFrame> shown;
    std::shared_ptr<VideoFrame> loopHead; // first picture of the loop, kept for the wrap

    std::uint64_t seenRangeGen = ~0ULL;
    std::unique_lock<std::mutex> g(lock_);
    while (!quit_) {
        bool again = videoGeneration_ != seenGeneration;
        if (!again && rangeGen_ != seenRangeGen) {
            // A new play range (a loop given up or begun while playing):
            // pictures decoded for another lap than the one now heard would
            // never come due, so decoding starts again where the sound is.
            seenRangeGen = rangeGen_;
            std::uint64_t lap = positionLocked().lap;
            again = decoderLap != lap || std::any_of(queue.begin(), queue.end(), [&](Queued const& q) { return q.lap != lap; });
        }
        if (again) {
            seenGeneration = videoGeneration_;
            seenRangeGen = rangeGen_;
            Position at = positionLocked();
            std::int64_t target = at.ticks;
            decoderLap = at.lap;
            g.unlock();
            queue.clear();
            held.reset();
            shown.reset();
            double seconds = static_cast<double>(target) / scale_ - lead;
            seekPictures(seconds);
            skipBefore = target;
            eof = false;
            lapGavePictures = false;
            g.lock();
            continue;
        }
        Range r = range_;
        int vw = viewWidth_, vh = viewHeight_;
        bool playing = playing_;
        g.unlock();

        // Decode ahead.
        bool decoded = false;
        if (queue.size() < kQueue && !eof) {
            if (!decoder->next(frame.get())) {
                eof = true;
                if (held) { // the last picture of the movie
                    queue.push_back({held, static_cast<std::int64_t>(std::llround(held->seconds * scale_)), decoderLap});
                    held.reset();
                }
                // A loop that reaches the end of the pictures (the selection
                // runs to the movie's end) wraps here: there is no picture at
                // or after its end to notice it by. Only after a lap that
                // gave pictures, so a loop with none never spins.
                if (r.wraps() && lapGavePictures) {
                    double s = static_cast<double>(r.start) / scale_ - lead;
                    seekPictures(s);
                    skipBefore = r.start;
                    ++decoderLap;
                    lapGavePictures = false;
                    eof = false;
                }
            } else {
                lapGavePictures = true;
                decoded = true;
                double seconds = static_cast<double>(frame->best_effort_timestamp - media->startPts) * tb + lead;
                std::int64_t ticks = static_cast<std::int64_t>(std::llround(seconds * scale_));
                if (r.wraps() && r.atEnd(ticks)) {
                    // Loop: go back to the start and decode the next lap.
                    av_frame_unref(frame.get());
                    double s = static_cast<double>(r.start) / scale_ - lead;
                    seekPictures(s);
                    skipBefore = r.start;
                    held.reset();
                    ++decoderLap;
                    lapGavePictures = false;
                } else {
                    // The picture as shown: in its pixels' shape, turned
                    // as its display matrix says (a phone's sideways
                    // picture upright).
                    auto [w, h] = shownSize(*media, frame->width, frame->height);
                    if (vw > 0 && vh > 0) {
                        double k = std::min(static_cast<double>(vw) / w, static_cast<double>(vh) / h);
                        w = std::max(2, static_cast<int>(w * k) & ~1);
                        h = std::max(2, static_cast<int>(h * k) & ~1);
                    }
                    // Scaled straight into the pixels the view paints: bilinear while
                    // the movie plays (it moves on at once), bicubic for a still.
                    auto vf = pool->take();
                    vf->width = w;
                    vf->height = h;
                    ScalerBuffer room = scalerBuffer(w * 4, h);
                    vf->stride = room.stride;
                    vf->rgb.resize(room.bytes);
                    scaler.convertTurned(frame.get(), w, h, AV_PIX_FMT_RGB32, media->rotation, vf->rgb.data(), vf->stride, vf->rgb.size(),
                                         playing ? SWS_BILINEAR : SWS_BICUBIC);
                    vf->seconds = seconds;
                    vf->lap = decoderLap;
                    av_frame_unref(frame.get());
                    if (ticks < skipBefore) {
                        held = vf; // may be the picture on screen at skipBefore
                    } else {
                        if (held && ticks > skipBefore) {
                            held->lap = decoderLap; // shown from skipBefore on, keeps its own time
                            queue.push_back({held, skipBefore, decoderLap});
                            if (r.wraps() && skipBefore == r.start) loopHead = held;
                        } else if (r.wraps() && ticks == r.start) {
                            loopHead = vf;
                        }
                        held.reset();
                        skipBefore = std::numeric_limits<std::int64_t>::min();
                        queue.push_back({vf, ticks, decoderLap});
                    }
                }
            }
        }

        // Present the latest picture that is due.
        g.lock();
        if (videoGeneration_ != seenGeneration || quit_) continue;
        Position now = positionLocked();
        g.unlock();
        std::shared_ptr<VideoFrame> due;
        while (!queue.empty()) {
            auto const& q = queue.front();
            bool isDue = q.lap < now.lap || (q.lap == now.lap && q.ticks <= now.ticks);
            if (!isDue) break;
            due = q.frame;
            queue.pop_front();
        }
        // Nothing on screen since the seek and no picture at or before its
        // time (a picture track that starts after 0, as most files with
        // reordered frames do): the first picture after it is shown
        // already, as players show a movie's first picture when it opens.
        if (!due && !shown && !queue.empty() && queue.front().lap == now.lap) due = queue.front().frame;
        // At a wrap whose first picture is not decoded yet, show the kept one.
        if (!due && loopHead && shown && shown->lap < now.lap && r.wraps() && (queue.empty() || queue.front().lap > now.lap)) {
            auto copy = std::make_shared<VideoFrame>(*loopHead);
            copy->lap = now.lap;
            due = copy;
        }
        if (due && due != shown) {
            shown = due;
            std::lock_guard<std::mutex> s(sinkLock_);
            if (sink_) sink_(due);
        }

        g.lock();
        if (videoGeneration_ != seenGeneration || quit_) continue;
        if (decoded && queue.size() < kQueue) continue; // keep decoding ahead
        if (playing && !queue.empty()) {
            auto const& q = queue.front();
            double wait = q.lap > now.lap ? 0.005 : static_cast<double>(q.ticks - now.ticks) / scale_;
            wait = std::clamp(wait, 0.001, 0.010);
            changed_.wait_for(g, std::chrono::duration<double>(wait));
        } else if (playing) {
            changed_.wait_for(g, std::chrono::milliseconds(5));
        } else {
            changed_.wait_for(g, std::chrono::milliseconds(50));
        }
    }
}

} // namespace media
