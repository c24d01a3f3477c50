#include "OffsetList.h"

#include "bridge.h"

#include <algorithm>
#include <cmath>
#include <iostream>

namespace {

constexpr int kPointsForFlags = 3;
constexpr double kDeviationFactor = 1.5;
constexpr double kAbsoluteTolerance = 0.25; // seconds
// A point this close to its line is on it, however tightly the others fit:
// points found sample by sample (from a reference sound) differ by
// microseconds, and 1.5 times a microsecond of spread is no stray.
constexpr double kOnTheLine = 0.001; // seconds

double secondsOf(myQTTime const& t) { return static_cast<double>(t.timeValue) / t.timeScale; }

// Half the duration, truncated, at the duration's scale and flags.
myQTTime half(myQTTime const& d)
{
    myQTTime h = d;
    h.timeValue = d.timeValue / 2;
    return h;
}

// Nearest integer, ties to even; saturates instead of overflowing.
std::int64_t rint64(double d)
{
    if (std::isnan(d)) return 0;
    if (d >= 9223372036854775808.0) return INT64_MAX;
    if (d <= -9223372036854775808.0) return INT64_MIN;
    return std::llrint(d);
}

} // namespace

OffsetList::OffsetList(dm::Movie* movie, SyncDocument* document) : movie_(movie), document_(document)
{
    std::vector<dm::TrackPtr> enabled;
    for (auto const& t : movie_->tracksOfMediaType(dm::MediaType::Sound))
        if (t->isEnabled()) enabled.push_back(t);
    if (enabled.empty()) {
        if (!movie_->tracksOfMediaType(dm::MediaType::MPEG).empty()) throw MPEGMovie();
        throw NoSoundTracks();
    }
    if (enabled.size() > 1) throw TooManySoundTracks();
    soundTrack_ = enabled.front();
    duration_ = movie_->duration();
}

OffsetList::OffsetList(dm::Movie* movie, SyncDocument* document, dm::TrackPtr sound) : movie_(movie), document_(document)
{
    auto sounds = movie_->tracksOfMediaType(dm::MediaType::Sound);
    if (!sound || std::find(sounds.begin(), sounds.end(), sound) == sounds.end()) throw NoSoundTracks();
    soundTrack_ = std::move(sound);
    duration_ = movie_->duration();
}

myQTTime OffsetList::MovieTimeToAudioTime(myQTTime const& t) const
{
    std::int64_t u = rint64(static_cast<double>(t.timeValue) * slope_);
    myQTTime r = t;
    r.timeValue = rint64(static_cast<double>(u) + t.timeScale * intercept_);
    return r;
}

myQTTime OffsetList::AudioTimeToMovieTime(myQTTime const& a) const
{
    myQTTime r = a;
    r.timeValue = rint64(static_cast<double>(a.timeValue) - a.timeScale * intercept_);
    r /= slope_;
    return r;
}

int OffsetList::getState() const
{
    if (points_.empty()) return 0;
    for (Offset const& p : points_)
        if (p.flag) return 2;
    myQTTime h = half(duration_);
    for (Offset const& p : points_)
        if (h < p.movieTime) return 3;
    return 1;
}

OffsetList::iterator OffsetList::push(Offset point)
{
    restoreSoundTrack();
    point.audioTime = MovieTimeToAudioTime(point.audioTime);
    auto pos = std::find_if(points_.begin(), points_.end(),
                            [&](Offset const& p) { return point.movieTime < p.movieTime; });
    std::ptrdiff_t index = pos - points_.begin();
    points_.insert(pos, point);
    scaleSoundTrack();
    return points_.begin() + index;
}

void OffsetList::remove(iterator it)
{
    restoreSoundTrack();
    points_.erase(it);
    scaleSoundTrack();
}

void OffsetList::sortPoints()
{
    std::sort(points_.begin(), points_.end());
}

void OffsetList::changeTime(iterator it, myQTTime const& t)
{
    restoreSoundTrack();
    it->movieTime = t;
    sortPoints();
    scaleSoundTrack();
}

void OffsetList::changeTimePreservingOffset(iterator it, myQTTime const& t)
{
    restoreSoundTrack();
    myQTTime d = t;
    d -= it->movieTime;
    it->audioTime += d;
    it->movieTime = t;
    sortPoints();
    scaleSoundTrack();
}

void OffsetList::changeAudioTime(iterator it, myQTTime const& t)
{
    restoreSoundTrack();
    it->audioTime = MovieTimeToAudioTime(t);
    scaleSoundTrack();
}

void OffsetList::changeAudioRealTime(iterator it, myQTTime const& t)
{
    restoreSoundTrack();
    it->audioTime = t;
    scaleSoundTrack();
}

void OffsetList::changeAudioOffset(iterator it, double seconds)
{
    myQTTime a = it->movieTime;
    a.timeValue = rint64(static_cast<double>(it->movieTime.timeValue) - it->movieTime.timeScale * seconds);
    changeAudioRealTime(it, a);
}

void OffsetList::replacePoints(std::vector<Offset> points)
{
    restoreSoundTrack();
    std::stable_sort(points.begin(), points.end());
    points_ = std::move(points);
    scaleSoundTrack();
}

SyncLine fitSyncLine(std::vector<Offset> const& points, myQTTime const& duration)
{
    std::size_t n = points.size();
    double sx = 0, sy = 0, sxy = 0, sxx = 0;
    double count = static_cast<double>(n);
    if (n == 1) {
        count = 2;
        if (points.front().movieTime < half(duration)) {
            double d = secondsOf(duration);
            sx += d;
            sy += d;
            sxy += d * d;
            sxx += d * d;
        }
    }
    for (Offset const& p : points) {
        double x = secondsOf(p.movieTime), y = secondsOf(p.audioTime);
        sx += x;
        sy += y;
        sxy += x * y;
        sxx += x * x;
    }
    double den = count * sxx - sx * sx;
    SyncLine line;
    line.slope = (count * sxy - sx * sy) / den;
    line.intercept = (sxx * sy - sx * sxy) / den;
    line.fitted = n > 0 && den != 0 && std::isfinite(line.slope) && std::isfinite(line.intercept) && line.slope > 0;
    return line;
}

void OffsetList::fitLine()
{
    SyncLine line = fitSyncLine(points_, duration_);
    keptPreviousLine_ = !line.fitted;
    if (line.fitted) {
        slope_ = line.slope;
        intercept_ = line.intercept;
    }
    setFlags(points_.size() == 1 ? 2 : static_cast<int>(points_.size()));
}

double OffsetList::residual(Offset const& p) const
{
    return slope_ * secondsOf(p.movieTime) + intercept_ - secondsOf(p.audioTime);
}

void OffsetList::setFlags(int count)
{
    if (count < kPointsForFlags) {
        for (Offset& p : points_) p.flag = false;
        return;
    }
    std::vector<double> residuals;
    residuals.reserve(points_.size());
    double sum = 0;
    for (Offset const& p : points_) {
        double r = residual(p);
        residuals.push_back(r);
        sum += r * r;
    }
    double rms = std::sqrt(sum / count);
    for (std::size_t i = 0; i < points_.size(); ++i) {
        double r = std::fabs(residuals[i]);
        points_[i].flag = r > kOnTheLine && (r > kDeviationFactor * rms || r > kAbsoluteTolerance);
    }
}

void OffsetList::scaleSoundTrack()
{
    if (document_) document_->willUpdateMode();
    CallObjCOnDestruct<SyncDocument> guard(document_, &SyncDocument::didUpdateMode);

    if (points_.empty()) {
        slope_ = 1.0;
        intercept_ = 0.0;
        keptPreviousLine_ = false;
        return;
    }
    fitLine();

    backupTrack_ = dm::AddEmptyTrackToMovie(*soundTrack_, *movie_);
    if (!backupTrack_) {
        std::cerr << "Couldn't create backup track." << std::endl;
        throw BadBackup();
    }
    dm::Track& s = *soundTrack_;
    dm::Track& b = *backupTrack_;
    std::int32_t scale = s.timeScale();

    // The whole unedited timeline, from time 0 through the end of the sound.
    QTTimeRange r = s.range();
    QTTime timelineEnd{r.time.timeValue + r.duration.timeValue, r.time.timeScale, 0};
    b.insertSegmentOfTrack(s, QTTimeRange{QTTime{0, scale, 0}, timelineEnd}, QTZeroTime);
    b.setEnabled(false);
    b.setDisplayName(kBackupTrackName);

    // Where the material must start and end on the timeline, each rounded
    // once to the nearest sample from the exact line: the end is where the
    // last unedited sample E belongs, (E - intercept) / slope.
    double interceptTicks = intercept_ * scale;
    std::int64_t unEditedEnd = r.time.timeValue + r.duration.timeValue;
    std::int64_t end = rint64((static_cast<double>(unEditedEnd) - interceptTicks) / slope_);
    std::int64_t silence = intercept_ < 0 ? rint64(-interceptTicks / slope_) : 0;

    // Cut `intercept` seconds: track position p now holds sound p + intercept.
    if (intercept_ > 0)
        s.deleteSegment(QTTimeRange{QTTime{0, scale, 0}, QTTime{rint64(interceptTicks), scale, 0}});

    // Scale everything from time 0: movie time m holds slope x m + intercept.
    r = s.range();
    QTTime length{r.time.timeValue + r.duration.timeValue, scale, 0};
    QTTime newLength{std::max<std::int64_t>(0, end - silence), scale, 0};
    s.scaleSegment(QTTimeRange{QTTime{0, scale, 0}, length}, newLength);

    // Silence in movie seconds, after the scaling so it is not scaled.
    if (silence > 0) s.insertEmptySegmentAt(QTTimeRange{QTTime{0, scale, 0}, QTTime{silence, scale, 0}});
}

void OffsetList::restoreSoundTrack()
{
    if (!backupTrack_) return;
    dm::Track& s = *soundTrack_;
    dm::Track& b = *backupTrack_;
    QTTimeRange r = s.range();
    s.deleteSegment(QTTimeRange{QTTime{0, s.timeScale(), 0}, QTTime{r.time.timeValue + r.duration.timeValue, r.time.timeScale, 0}});
    QTTimeRange br = b.range();
    s.insertSegmentOfTrack(b, QTTimeRange{QTTime{0, b.timeScale(), 0}, QTTime{br.time.timeValue + br.duration.timeValue, br.time.timeScale, 0}},
                           QTZeroTime);
    dm::DisposeMovieTrack(*movie_, backupTrack_);
    backupTrack_.reset();
}
