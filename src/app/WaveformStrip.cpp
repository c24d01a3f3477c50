#include "WaveformStrip.h"

#include "AudioRenderer.h"
#include "MovieFile.h"

#include <QPainter>

#include <algorithm>
#include <cmath>

WaveformStrip::WaveformStrip(QWidget* parent) : QWidget(parent)
{
    setObjectName("waveformStrip");
    setSizePolicy(QSizePolicy::Expanding, QSizePolicy::Fixed);
    setFixedHeight(56);
    worker_ = std::thread([this] { work(); });
}

WaveformStrip::~WaveformStrip()
{
    {
        std::lock_guard<std::mutex> g(lock_);
        quit_ = true;
    }
    wake_.notify_all();
    worker_.join();
}

void WaveformStrip::show(dm::TrackPtr const& track, std::int64_t start, std::int64_t end, double frameSeconds)
{
    track_ = track;
    start_ = start;
    end_ = std::max(end, start + 1);
    frameSeconds_ = frameSeconds;
    active_ = track != nullptr;
    request();
    update();
}

void WaveformStrip::clear()
{
    active_ = false;
    track_.reset();
    {
        std::lock_guard<std::mutex> g(lock_);
        pending_.reset();
        ++generation_;
    }
    shown_ = Envelope{};
    update();
}

bool WaveformStrip::busy() const
{
    std::lock_guard<std::mutex> g(lock_);
    return active_ && drawnGeneration_ != generation_;
}

void WaveformStrip::request()
{
    if (!active_ || !track_) return;
    std::lock_guard<std::mutex> g(lock_);
    pending_ = Job{++generation_, track_->media(), track_->editList(), start_, end_, std::max(1, width())};
    wake_.notify_all();
}

void WaveformStrip::resizeEvent(QResizeEvent* e)
{
    QWidget::resizeEvent(e);
    request();
}

void WaveformStrip::work()
{
    // One renderer per media, kept while the loop plays the same sound.
    std::shared_ptr<const dm::Media> rendererMedia;
    std::unique_ptr<media::AudioRenderer> renderer;
    for (;;) {
        Job job;
        {
            std::unique_lock<std::mutex> g(lock_);
            wake_.wait(g, [this] { return quit_ || pending_.has_value(); });
            if (quit_) return;
            job = *pending_;
            pending_.reset();
        }
        Envelope env;
        env.start = job.start;
        env.end = job.end;
        env.columns.assign(static_cast<std::size_t>(job.columns), {0.0f, 0.0f});
        try {
            auto fileMedia = std::dynamic_pointer_cast<const media::FileMedia>(job.media);
            if (!fileMedia) continue;
            if (rendererMedia != job.media) {
                renderer = std::make_unique<media::AudioRenderer>(fileMedia);
                rendererMedia = job.media;
            }
            env.scale = renderer->sampleRate();
            int channels = renderer->channels();
            constexpr int kChunk = 8192;
            std::vector<std::vector<float>> buf(static_cast<std::size_t>(channels), std::vector<float>(kChunk));
            std::vector<float*> ptrs;
            for (auto& c : buf) ptrs.push_back(c.data());
            double perColumn = static_cast<double>(job.end - job.start) / job.columns;
            std::vector<bool> seen(env.columns.size(), false);
            for (std::int64_t at = job.start; at < job.end; at += kChunk) {
                {
                    std::lock_guard<std::mutex> g(lock_);
                    if (quit_ || pending_) break; // a newer loop or nudge: this one is stale
                }
                int n = static_cast<int>(std::min<std::int64_t>(kChunk, job.end - at));
                renderer->render(*job.list, at, n, ptrs.data());
                for (int i = 0; i < n; ++i) {
                    auto col = static_cast<std::size_t>(std::min<double>(job.columns - 1, (at + i - job.start) / perColumn));
                    for (int c = 0; c < channels; ++c) {
                        float v = buf[static_cast<std::size_t>(c)][static_cast<std::size_t>(i)];
                        auto& [lo, hi] = env.columns[col];
                        if (!seen[col]) {
                            lo = hi = v;
                            seen[col] = true;
                        } else {
                            lo = std::min(lo, v);
                            hi = std::max(hi, v);
                        }
                    }
                }
            }
        } catch (std::exception const&) {
            continue; // an unreadable stretch draws nothing; playback reports sound faults itself
        }
        std::uint64_t generation = job.generation;
        QMetaObject::invokeMethod(
            this,
            [this, generation, env = std::move(env)]() mutable {
                {
                    std::lock_guard<std::mutex> g(lock_);
                    if (generation != generation_) return; // superseded meanwhile
                    drawnGeneration_ = generation;
                }
                shown_ = std::move(env);
                update();
                emit envelopeReady();
            },
            Qt::QueuedConnection);
    }
}

double WaveformStrip::columnOf(double seconds) const
{
    if (shown_.columns.empty()) return -1;
    double start = static_cast<double>(shown_.start) / shown_.scale, end = static_cast<double>(shown_.end) / shown_.scale;
    return (seconds - start) / (end - start) * width();
}

void WaveformStrip::paintEvent(QPaintEvent*)
{
    QPainter p(this);
    p.fillRect(rect(), QColor(24, 28, 36));
    if (!active_) {
        p.setPen(QColor(150, 155, 165));
        p.drawText(rect().adjusted(8, 0, -8, 0), Qt::AlignVCenter | Qt::AlignLeft | Qt::TextWordWrap,
                   "While you sync, the sound of the loop shows here, with the picture's frames marked.");
        return;
    }
    // Frame boundaries of the picture.
    if (frameSeconds_ > 0 && !shown_.columns.empty()) {
        double start = static_cast<double>(shown_.start) / shown_.scale, end = static_cast<double>(shown_.end) / shown_.scale;
        double pxPerFrame = frameSeconds_ / (end - start) * width();
        if (pxPerFrame >= 3) {
            p.setPen(QColor(60, 68, 84));
            for (double t = std::ceil(start / frameSeconds_) * frameSeconds_; t < end; t += frameSeconds_) {
                double x = columnOf(t);
                p.drawLine(QPointF(x, 0), QPointF(x, height()));
            }
        }
    }
    // The envelope: each column from its smallest to its largest sample.
    double mid = height() / 2.0, half = height() / 2.0 - 2;
    p.setPen(QColor(95, 211, 141));
    int n = static_cast<int>(shown_.columns.size());
    double sx = n > 0 ? static_cast<double>(width()) / n : 1;
    for (int x = 0; x < n; ++x) {
        auto [lo, hi] = shown_.columns[static_cast<std::size_t>(x)];
        double y0 = mid - std::clamp(hi, -1.0f, 1.0f) * half, y1 = mid - std::clamp(lo, -1.0f, 1.0f) * half;
        p.drawLine(QPointF(x * sx, y0), QPointF(x * sx, std::max(y1, y0 + 1)));
    }
    // The middle of the loop: where the point is made.
    p.setPen(QPen(QColor(255, 107, 74), 1.5));
    p.drawLine(QPointF(width() / 2.0, 0), QPointF(width() / 2.0, height()));
}
