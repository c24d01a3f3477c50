// The sound of the loop while a point is in progress, as it plays now (the
// nudge included), under the picture, with the picture's frame boundaries
// marked: a clap or a plosive can be lined up with the frame where the mouth
// closes. The envelope is computed from the decoded sound on a worker thread
// of its own (the newest request wins), so playback never waits for it.
#pragma once

#include "movie/EditList.h"
#include "movie/Movie.h"

#include <QWidget>

#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <thread>
#include <vector>

class WaveformStrip : public QWidget {
    Q_OBJECT
public:
    explicit WaveformStrip(QWidget* parent = nullptr);
    ~WaveformStrip() override;

    // Shows the sound of `track` (its edit list as it is now) over the loop
    // [start, end) in the track's ticks; frame boundaries every `frameSeconds`
    // from movie time 0 (none when 0).
    void show(dm::TrackPtr const& track, std::int64_t start, std::int64_t end, double frameSeconds);
    // No loop: the strip says what it is for.
    void clear();

    // The column envelope now shown, per pixel column: the smallest and
    // largest sample (all channels), and the loop it covers. For tests.
    struct Envelope {
        std::int64_t start = 0, end = 0;
        int scale = 1;
        std::vector<std::pair<float, float>> columns;
    };
    Envelope const& envelope() const { return shown_; }
    // Requests not yet drawn.
    bool busy() const;
    // The column of a movie time in the loop shown, in widget pixels.
    double columnOf(double seconds) const;

    QSize sizeHint() const override { return {320, 56}; }
    QSize minimumSizeHint() const override { return {100, 40}; }

signals:
    void envelopeReady();

protected:
    void paintEvent(QPaintEvent*) override;
    void resizeEvent(QResizeEvent*) override;

private:
    struct Job {
        std::uint64_t generation;
        std::shared_ptr<const dm::Media> media;
        std::shared_ptr<const dm::EditList> list;
        std::int64_t start, end;
        int columns;
    };
    void work();
    void request();

    mutable std::mutex lock_;
    std::condition_variable wake_;
    std::optional<Job> pending_; // guarded by lock_
    bool quit_ = false;          // guarded by lock_
    std::uint64_t generation_ = 0;
    std::uint64_t drawnGeneration_ = 0;
    std::thread worker_;

    dm::TrackPtr track_;
    std::int64_t start_ = 0, end_ = 0;
    double frameSeconds_ = 0;
    bool active_ = false;
    Envelope shown_;
};
