#include "SyncSession.h"

#include "bridge.h"

#include <algorithm>
#include <cmath>
#include <iostream>

namespace {

myQTTime scaled(myQTTime const& t, double factor)
{
    myQTTime r = t;
    r.timeValue = std::llrint(static_cast<double>(t.timeValue) * factor);
    return r;
}

} // namespace

std::unique_ptr<SyncSession> SyncSession::make(dmsync::MovieSession& movie, media::Player* player, std::function<Settings()> settings,
                                               Hooks hooks)
{
    OffsetList& list = movie.list();
    std::unique_ptr<SyncSession> s(new SyncSession(&movie.movie(), player, std::move(settings), std::move(hooks)));
    s->offsets_ = &list;
    list.setDocument(s.get());
    s->audioTrack_ = s->offsets_->soundTrack();
    s->setSyncNotInProgress();
    s->saveNewEditState();
    return s;
}

SyncSession::SyncSession(dm::Movie* movie, media::Player* player, std::function<Settings()> settings, Hooks hooks)
    : movie_(movie), player_(player), settings_(std::move(settings)), hooks_(std::move(hooks))
{
    if (!settings_) settings_ = [] { return Settings{}; };
}

SyncSession::~SyncSession()
{
    offsets_->setDocument(nullptr);
    dm::DisposeMovieEditState(state_);
}

std::string SyncSession::movieMode() const
{
    if (syncInProgress_) return "pointInProgress";
    if (!offsets_) return "noPoints";
    switch (offsets_->getState()) {
    case 0: return "noPoints";
    case 1: return "endNeedsSync";
    case 2: return "checkRedDiamonds";
    case 3: return "morePointsIfNeeded";
    default: return "unknown";
    }
}

std::string SyncSession::instructionForMode(std::string const& mode)
{
    if (mode == "noPoints")
        return "Play the movie and stop near someone speaking. Press Return to loop the last few seconds and start a sync point.";
    if (mode == "pointInProgress")
        return "Nudge the sound with the arrow keys (or the wheel) until the lips match, then press Return. Escape gives up.";
    if (mode == "endNeedsSync")
        return "Good. Now make a sync point near the end of the movie, so the whole sound can be re-timed.";
    if (mode == "checkRedDiamonds")
        return "A point marked with a red diamond does not fit the others: check it, edit it or delete it.";
    if (mode == "morePointsIfNeeded")
        return "The sound follows your points. Add more where it still drifts, or save the movie.";
    return "";
}

void SyncSession::didUpdateMode()
{
    if (hooks_.modeChanged) hooks_.modeChanged();
}

void SyncSession::changed(int delta)
{
    if (hooks_.changed) hooks_.changed(delta);
}

void SyncSession::pointsChanged()
{
    if (hooks_.pointsChanged) hooks_.pointsChanged();
}

myQTTime SyncSession::loopMiddle() const
{
    myQTTime sum = startTime_;
    sum += endTime_;
    sum.timeValue /= 2;
    return sum;
}

void SyncSession::loopAround(myQTTime const& p)
{
    // Half the loop length, in single precision, each side of the point.
    float half = settings_().loopLength * 0.5f;
    startTime_ = p;
    startTime_.timeValue = std::llrint(static_cast<double>(p.timeValue) - half * static_cast<double>(p.timeScale));
    endTime_ = p;
    endTime_.timeValue = std::llrint(static_cast<double>(p.timeValue) + half * static_cast<double>(p.timeScale));
}

void SyncSession::setAudioTimeFromMovieTime(myQTTime t)
{
    audioTime_ = t;
    audioTime_.setTimeScaleAtLeast(10000);
}

void SyncSession::saveNewEditState()
{
    dm::DisposeMovieEditState(state_);
    state_ = dm::NewMovieEditState(*movie_);
}

void SyncSession::resetAudioTrack()
{
    dm::UseMovieEditState(*movie_, state_);
    trimAndSetSelection();
}

void SyncSession::offsetAudioTrack()
{
    myQTTime m = loopMiddle();
    if (!(audioTime_ < m)) {
        myQTTime d = audioTime_;
        d -= m;
        audioTrack_->deleteSegment(QTTimeRange{QTTime{0, m.timeScale, 0}, QTTime{d.timeWithScaleOf(m.timeScale), m.timeScale, 0}});
    } else {
        myQTTime d = m;
        d -= audioTime_;
        audioTrack_->insertEmptySegmentAt(QTTimeRange{QTTime{0, m.timeScale, 0}, QTTime{d.timeWithScaleOf(m.timeScale), m.timeScale, 0}});
    }
}

void SyncSession::trimAndSetSelection()
{
    std::int32_t T = movie_->timeScale();
    myQTTime start = startTime_;
    if (start.timeValue < 0) start.timeValue = 0;
    myQTTime end = endTime_;
    setToMin(end, movie_->duration());
    myQTTime length = end;
    length -= start;
    myQTTime now = player_->currentTime();
    if (now < start) player_->setCurrentTime(start);
    else if (end < now) player_->setCurrentTime(end);
    setSelection(QTTimeRange{start, length});
    player_->setActiveSegment(QTTimeRange{QTTime{start.timeWithScaleOf(T), T, 0}, QTTime{length.timeWithScaleOf(T), T, 0}});
}

void SyncSession::setMovieSelection()
{
    trimAndSetSelection();
    player_->setPlaysSelectionOnly(true);
    player_->setLoops(true);
}

void SyncSession::clearMovieSelection()
{
    player_->setPlaysSelectionOnly(false);
    player_->setLoops(false);
    setSelection(QTTimeRange{QTZeroTime, QTZeroTime});
    player_->setActiveSegment(std::nullopt);
}

void SyncSession::setSelection(QTTimeRange r)
{
    changingSelection_ = true;
    player_->setSelection(r);
    changingSelection_ = false;
    if (hooks_.selectionShown) hooks_.selectionShown(r);
}

void SyncSession::setSyncNotInProgress()
{
    if (state_) dm::UseMovieEditState(*movie_, state_);
    clearMovieSelection();
    syncInProgress_ = false;
    beganWithEdit_ = false;
}

void SyncSession::startSync()
{
    if (syncInProgress_) {
        std::cerr << "Error! startSync: called when sync in progress" << std::endl;
        return;
    }
    willUpdateMode();
    CallObjCOnDestruct<SyncDocument> guard(this, &SyncDocument::didUpdateMode);
    saveNewEditState();
    myQTTime now = player_->currentTime();
    endTime_ = now;
    startTime_ = now;
    startTime_.timeValue = std::llrint(static_cast<double>(now.timeValue) - settings_().loopLength * static_cast<double>(now.timeScale));
    setAudioTimeFromMovieTime(loopMiddle());
    setMovieSelection();
    syncInProgress_ = true;
    beganWithEdit_ = false;
    myQTTime middle = loopMiddle();
    auto const& pts = offsets_->points();
    syncRow_ = static_cast<int>(std::find_if(pts.begin(), pts.end(), [&](Offset const& p) { return middle < p.movieTime; }) - pts.begin());
    changed(+1);
    pointsChanged();
    player_->play(); // the loop plays over and over while the user listens
}

void SyncSession::acceptSync()
{
    if (!syncInProgress_) {
        std::cerr << "Error! acceptSync: called when sync not in progress" << std::endl;
        return;
    }
    myQTTime middle = loopMiddle();
    setSyncNotInProgress();
    offsets_->push(Offset(middle, audioTime_, false));
    pointsChanged();
}

void SyncSession::editSync(int r)
{
    if (syncInProgress_ || r < 0 || r >= static_cast<int>(offsets_->points().size())) {
        std::cerr << "Error! editSync: no point to edit" << std::endl;
        return;
    }
    willUpdateMode();
    CallObjCOnDestruct<SyncDocument> guard(this, &SyncDocument::didUpdateMode);
    Offset p = offsets_->points().at(static_cast<std::size_t>(r));
    offsets_->remove(offsets_->getIterator(r));
    loopAround(p.movieTime);
    setAudioTimeFromMovieTime(offsets_->AudioTimeToMovieTime(p.audioTime));
    saveNewEditState();
    setMovieSelection();
    syncInProgress_ = true;
    beganWithEdit_ = true;
    syncRow_ = r;
    // The point has left the list: even an abandon leaves the movie changed.
    changed(+1);
    pointsChanged();
    player_->play();
}

void SyncSession::replacePoints(std::vector<Offset> points, bool counted)
{
    if (syncInProgress_) abandonSync();
    offsets_->replacePoints(std::move(points));
    if (counted) changed(+1);
    pointsChanged();
}

void SyncSession::deleteSync(std::set<int> const& rows)
{
    if (syncInProgress_) return;
    int n = static_cast<int>(offsets_->points().size());
    for (auto it = rows.rbegin(); it != rows.rend(); ++it) {
        // A candidate row dismisses the candidate; it was never a point.
        if (int c = candidateOfRow(*it); c >= 0) candidates_.erase(candidates_.begin() + c);
        if (*it < 0 || *it >= n) continue;
        offsets_->remove(offsets_->getIterator(*it));
        changed(-1);
    }
    pointsChanged();
}

void SyncSession::abandonSync()
{
    if (!syncInProgress_) return;
    willUpdateMode();
    CallObjCOnDestruct<SyncDocument> guard(this, &SyncDocument::didUpdateMode);
    bool edited = beganWithEdit_;
    setSyncNotInProgress();
    if (!edited) changed(-1);
    pointsChanged();
}

void SyncSession::advanceSelection()
{
    myQTTime d = endTime_;
    d -= startTime_;
    d.timeValue /= 5;
    startTime_ -= d;
    endTime_ -= d;
    audioTime_ -= d;
    trimAndSetSelection();
    pointsChanged();
}

void SyncSession::retardSelection()
{
    myQTTime d = endTime_;
    d -= startTime_;
    d.timeValue /= 5;
    startTime_ += d;
    endTime_ += d;
    audioTime_ += d;
    trimAndSetSelection();
    pointsChanged();
}

void SyncSession::contractSelection()
{
    myQTTime s = startTime_, e = endTime_;
    startTime_ = scaled(s, 0.8535533905932737) + scaled(e, 0.14644660940672627);
    endTime_ = scaled(s, 0.14644660940672627) + scaled(e, 0.8535533905932737);
    trimAndSetSelection();
}

void SyncSession::expandSelection()
{
    myQTTime s = startTime_, e = endTime_;
    startTime_ = scaled(s, 1.2071067811865475) + scaled(e, -0.20710678118654757);
    endTime_ = scaled(s, -0.20710678118654757) + scaled(e, 1.2071067811865475);
    trimAndSetSelection();
}

void SyncSession::nudge(double seconds)
{
    audioTime_.timeValue = std::llrint(static_cast<double>(audioTime_.timeValue) + seconds * audioTime_.timeScale);
    resetAudioTrack();
    offsetAudioTrack();
    pointsChanged();
}

void SyncSession::advanceAudio() { nudge(-(settings_().audioStep / 1000.0)); }

void SyncSession::retardAudio() { nudge(settings_().audioStep / 1000.0); }

void SyncSession::scrollWheel(double notches)
{
    if (!syncInProgress_) return;
    float motion = static_cast<float>(settings_().reverseWheel) * static_cast<float>(notches);
    nudge(motion / 1000.0);
}

int SyncSession::numberOfRows() const
{
    return static_cast<int>(offsets_->points().size()) + (syncInProgress_ ? 1 : 0) + static_cast<int>(candidates_.size());
}

int SyncSession::candidateOfRow(int row) const
{
    int first = static_cast<int>(offsets_->points().size()) + (syncInProgress_ ? 1 : 0);
    return row >= first && row < numberOfRows() ? row - first : -1;
}

void SyncSession::setCandidates(std::vector<Candidate> candidates)
{
    candidates_ = std::move(candidates);
    std::sort(candidates_.begin(), candidates_.end(), [](Candidate const& a, Candidate const& b) { return a.movieTime < b.movieTime; });
    pointsChanged();
}

void SyncSession::startCandidate(int index)
{
    if (syncInProgress_ || index < 0 || index >= static_cast<int>(candidates_.size())) {
        std::cerr << "Error! startCandidate: no candidate to start" << std::endl;
        return;
    }
    willUpdateMode();
    CallObjCOnDestruct<SyncDocument> guard(this, &SyncDocument::didUpdateMode);
    Candidate c = candidates_[static_cast<std::size_t>(index)];
    // The candidate leaves the table's tail: accepted it is a point, abandoned it is dismissed.
    candidates_.erase(candidates_.begin() + index);
    saveNewEditState();
    loopAround(c.movieTime);
    setAudioTimeFromMovieTime(offsets_->AudioTimeToMovieTime(c.audioTime));
    setMovieSelection();
    syncInProgress_ = true;
    beganWithEdit_ = false;
    auto const& pts = offsets_->points();
    myQTTime middle = loopMiddle();
    syncRow_ = static_cast<int>(std::find_if(pts.begin(), pts.end(), [&](Offset const& p) { return middle < p.movieTime; }) - pts.begin());
    // The suggested offset plays at once: Return accepts it as it is.
    resetAudioTrack();
    offsetAudioTrack();
    changed(+1);
    pointsChanged();
    player_->play();
}

int SyncSession::acceptConfident(double threshold)
{
    if (syncInProgress_) return 0;
    std::vector<Offset> points = offsets_->points();
    std::vector<Candidate> rest;
    int accepted = 0;
    for (auto const& c : candidates_) {
        if (c.confidence >= threshold) {
            points.emplace_back(c.movieTime, c.audioTime);
            ++accepted;
        } else {
            rest.push_back(c);
        }
    }
    if (accepted == 0) return 0;
    candidates_ = std::move(rest);
    replacePoints(std::move(points));
    return accepted;
}

int SyncSession::entryOfRow(int row) const { return syncInProgress_ && row > syncRow_ ? row - 1 : row; }

Offset SyncSession::GetOffset(int row) const
{
    if (syncInProgress_ && row == syncRow_) return Offset(loopMiddle(), offsets_->MovieTimeToAudioTime(audioTime_), false);
    if (int c = candidateOfRow(row); c >= 0) {
        auto const& cand = candidates_[static_cast<std::size_t>(c)];
        return Offset(cand.movieTime, cand.audioTime, false);
    }
    return offsets_->points().at(static_cast<std::size_t>(entryOfRow(row)));
}

double SyncSession::displayedOffset(int row) const
{
    myQTTime o = GetOffset(row).offset();
    return static_cast<double>(o.timeValue) / o.timeScale * 1000 * settings_().reverseArrows;
}

bool SyncSession::setRowTime(int row, std::string const& text)
{
    if (row < 0 || row >= numberOfRows() || candidateOfRow(row) >= 0) return false;
    myQTTime t;
    try {
        t = myQTTime(text, 600);
    } catch (myQTTime::BadDuration const&) {
        return false;
    }
    if (syncInProgress_ && row == syncRow_) {
        // Moves the loop of the point in progress, not the list.
        myQTTime d = t;
        d -= loopMiddle();
        startTime_ += d;
        endTime_ += d;
        audioTime_ += d;
        trimAndSetSelection();
    } else {
        offsets_->changeTimePreservingOffset(offsets_->getIterator(entryOfRow(row)), t);
        changed(+1);
    }
    pointsChanged();
    return true;
}

void SyncSession::setRowOffset(int row, double displayedMilliseconds)
{
    if (row < 0 || row >= numberOfRows() || candidateOfRow(row) >= 0) return;
    double o = displayedMilliseconds * settings_().reverseArrows / 1000.0;
    if (syncInProgress_ && row == syncRow_) {
        myQTTime sum = startTime_;
        sum += endTime_;
        audioTime_ = sum;
        audioTime_.timeValue = std::llrint(static_cast<double>(sum.timeValue / 2) - o * sum.timeScale);
        audioTime_.setTimeScaleAtLeast(10000);
        resetAudioTrack();
        offsetAudioTrack();
    } else {
        offsets_->changeAudioOffset(offsets_->getIterator(entryOfRow(row)), o);
        changed(+1);
    }
    pointsChanged();
}

void SyncSession::selectionChanged(std::set<int> const& rows)
{
    if (syncInProgress_) return;
    if (rows.empty()) {
        clearMovieSelection();
    } else if (rows.size() == 1 && candidateOfRow(*rows.begin()) >= 0) {
        startCandidate(candidateOfRow(*rows.begin()));
    } else if (rows.size() == 1 && *rows.begin() < numberOfRows()) {
        Offset p = GetOffset(*rows.begin());
        loopAround(p.movieTime);
        audioTime_ = p.audioTime;
        audioTime_.setTimeScaleAtLeast(10000);
        setMovieSelection();
    }
}
