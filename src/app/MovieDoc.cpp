// The document's actions: the Sync menu, the keyboard transport, the wheel
// and the middle button, and the sync point table's data.
#include "MovieDoc.h"

#include "ReferenceMatch.h"

#include <QUndoCommand>

#include "DMApplication.h"
#include "MovieView.h"
#include "Evidence.h"
#include "ProgressSheet.h"
#include "SyncLimits.h"
#include "SyncPointWindow.h"
#include "kit/Alert.h"
#include "kit/UserDefaults.h"

#include <QApplication>
#include <QFileInfo>

#include <algorithm>
#include <cmath>

MovieDoc::MovieDoc()
{
    setFileType("UnsavedDocument");
    connect(this, &MovieDoc::pointsChanged, this, &MovieDoc::reloadTable);
    connect(this, &MovieDoc::playbackFault, this, &MovieDoc::showPlaybackFault, Qt::QueuedConnection);
    undo_ = new QUndoStack(this);
}

MovieDoc::~MovieDoc()
{
    if (mMovieView) mMovieView->setPlayer(nullptr, {}, 0);
    session_.reset();
    player_.reset(); // its threads end before the windows go
}

SyncSession::Hooks MovieDoc::sessionHooks()
{
    SyncSession::Hooks h;
    h.modeChanged = [this] { didUpdateMode(); };
    h.pointsChanged = [this] {
        recordPoints();
        updateWaveform();
        emit pointsChanged();
    };
    h.selectionShown = [this](QTTimeRange r) {
        if (mMovieView) mMovieView->showSelection(r);
        updateWaveform();
    };
    h.changed = [this](int delta) { updateChangeCount(delta > 0 ? kit::ChangeType::Done : kit::ChangeType::Undone); };
    return h;
}

QString MovieDoc::movieMode() const { return session_ ? QString::fromStdString(session_->movieMode()) : QString("noPoints"); }

QString MovieDoc::instructionForMode(QString const& mode) { return QString::fromStdString(SyncSession::instructionForMode(mode.toStdString())); }

myQTTime MovieDoc::loopMiddle() const { return session_ ? session_->loopMiddle() : myQTTime(); }

void MovieDoc::didUpdateMode()
{
    QString mode = movieMode();
    if (instruction_) instruction_->setText(instructionForMode(mode));
    emit movieModeChanged(mode);
}

void MovieDoc::updateMenu()
{
    if (auto* app = DMApplication::instance()) app->updateMenu();
}

void MovieDoc::normalSpeed()
{
    // A loop plays forward at normal speed with its sound.
    if (shuttle_ == 0) return;
    shuttle_ = 0;
    player_->setRate(1.0);
    player_->pause();
}

void MovieDoc::startSync()
{
    normalSpeed();
    session_->startSync();
    updateMenu();
}

void MovieDoc::acceptSync()
{
    session_->acceptSync();
    updateMenu();
}

void MovieDoc::editSync()
{
    IndexSet selected = selectedRows();
    if (selected.empty()) return;
    int r = *selected.begin();
    setSelectedRows({});
    normalSpeed();
    session_->editSync(r);
    updateMenu();
}

void MovieDoc::deleteSync()
{
    IndexSet selected = selectedRows();
    setSelectedRows({});
    session_->deleteSync(selected);
    updateMenu();
}

// One change of the sync points: the points before and after it.
class PointsCommand : public QUndoCommand {
public:
    PointsCommand(MovieDoc* doc, std::vector<Offset> before, std::vector<Offset> after, QString const& text)
        : QUndoCommand(text), doc_(doc), before_(std::move(before)), after_(std::move(after))
    {
    }
    void undo() override
    {
        doc_->applyPoints(before_);
        doc_->updateChangeCount(kit::ChangeType::Undone);
    }
    void redo() override
    {
        if (first_) { // pushed after the change was made
            first_ = false;
            return;
        }
        doc_->applyPoints(after_);
        doc_->updateChangeCount(kit::ChangeType::Done);
    }

private:
    MovieDoc* doc_;
    std::vector<Offset> before_, after_;
    bool first_ = true;
};

namespace {
bool samePoints(std::vector<Offset> const& a, std::vector<Offset> const& b)
{
    if (a.size() != b.size()) return false;
    for (std::size_t i = 0; i < a.size(); ++i)
        if (a[i].movieTime != b[i].movieTime || a[i].audioTime != b[i].audioTime) return false;
    return true;
}
} // namespace

void MovieDoc::recordPoints()
{
    if (!session_ || applyingPoints_ || session_->syncInProgress()) return;
    std::vector<Offset> now = session_->offsets()->points();
    if (samePoints(now, committed_)) return;
    QString text = nextLabel_;
    if (text.isEmpty()) {
        if (now.size() == committed_.size() + 1) text = "Add Sync Point";
        else if (now.size() + 1 == committed_.size()) text = "Delete Sync Point";
        else if (now.size() < committed_.size()) text = "Delete Sync Points";
        else text = "Change Sync Point";
    }
    nextLabel_.clear();
    undo_->push(new PointsCommand(this, committed_, now, text));
    committed_ = std::move(now);
    updateMenu();
}

void MovieDoc::applyPoints(std::vector<Offset> const& points)
{
    applyingPoints_ = true;
    if (session_->syncInProgress()) session_->abandonSync();
    session_->replacePoints(points, false);
    committed_ = session_->offsets()->points();
    applyingPoints_ = false;
    updateMenu();
}

void MovieDoc::undo()
{
    if (!session_ || busy_) return;
    // A point in progress is given up first; taken out of the list for an
    // edit, that is a step of its own, undone here.
    if (session_->syncInProgress()) session_->abandonSync();
    undo_->undo();
    updateMenu();
}

void MovieDoc::redo()
{
    if (!session_ || busy_) return;
    if (session_->syncInProgress()) session_->abandonSync();
    undo_->redo();
    updateMenu();
}

bool MovieDoc::canUndo() const { return session_ && !busy_ && (undo_->canUndo() || session_->syncInProgress()); }
bool MovieDoc::canRedo() const { return session_ && !busy_ && undo_->canRedo(); }
QString MovieDoc::undoText() const { return undo_->undoText(); }
QString MovieDoc::redoText() const { return undo_->redoText(); }

void MovieDoc::abandonSync()
{
    session_->abandonSync();
    updateMenu();
}

void MovieDoc::advanceSelection() { session_->advanceSelection(); }
void MovieDoc::retardSelection() { session_->retardSelection(); }
void MovieDoc::expandSelection() { session_->expandSelection(); }
void MovieDoc::contractSelection() { session_->contractSelection(); }
void MovieDoc::advanceAudio() { session_->advanceAudio(); }
void MovieDoc::retardAudio() { session_->retardAudio(); }

void MovieDoc::scrollWheel(double deltaY)
{
    if (!session_ || busy_) return;
    session_->scrollWheel(deltaY);
}

void MovieDoc::otherMouseDown()
{
    if (!session_ || busy_) return;
    performAction(syncInProgress() ? "acceptSync" : "startSync");
}

void MovieDoc::togglePlay()
{
    if (!player_) return;
    shuttle_ = 0;
    if (player_->isPlaying()) player_->pause();
    else player_->setRate(1.0);
    if (mMovieView) mMovieView->update();
}

bool MovieDoc::transportKey(int key, Qt::KeyboardModifiers modifiers)
{
    if (!player_ || busy_ || syncInProgress()) return false;
    if (modifiers & (Qt::ControlModifier | Qt::AltModifier | Qt::MetaModifier)) return false;
    bool shift = modifiers & Qt::ShiftModifier;
    int scale = player_->sampleRate();
    myQTTime now = player_->currentTime();
    auto seekTo = [&](myQTTime t) {
        shuttle_ = 0;
        player_->pause();
        if (t.timeValue < 0) t.timeValue = 0;
        player_->setCurrentTime(t);
    };
    switch (key) {
    case Qt::Key_Left:
    case Qt::Key_Right: {
        int direction = key == Qt::Key_Right ? 1 : -1;
        if (shift) {
            myQTTime t = now;
            t.timeValue += static_cast<long long>(direction) * scale;
            seekTo(t);
        } else {
            shuttle_ = 0;
            player_->stepFrame(direction);
        }
        break;
    }
    case Qt::Key_Home: seekTo(myQTTime(0LL, scale)); break;
    case Qt::Key_End: seekTo(opened_ ? opened_->movie().duration() : now); break;
    case Qt::Key_K:
        shuttle_ = 0;
        player_->pause();
        break;
    case Qt::Key_L:
    case Qt::Key_J: {
        // Each press in the same direction doubles the speed, up to 8x;
        // a press the other way first slows down.
        double sign = key == Qt::Key_L ? 1 : -1;
        if (shuttle_ * sign <= 0) shuttle_ = shuttle_ == 0 ? sign : 0;
        else shuttle_ = std::min(std::abs(shuttle_) * 2, 8.0) * sign;
        if (shuttle_ == 0) player_->pause();
        else player_->setRate(shuttle_);
        break;
    }
    default: return false;
    }
    if (mMovieView) mMovieView->update();
    return true;
}

bool MovieDoc::movieWindowIsKey() const { return mMovieWindow && QApplication::activeWindow() == mMovieWindow; }

bool MovieDoc::validateAction(QString const& action) const
{
    if (busy_) return false; // a save or export is running
    if (action == "doExport" || action == "showInfo" || action == "print") return opened_ != nullptr;
    if (!session_) return false;
    // The submenu opens whenever there is a session, to show the tracks;
    // its items are enabled only when a choice can be made.
    if (action == "soundTrackMenu") return true;
    if (action == "chooseSoundTrack") return canChooseSoundTrack();
    bool editing = tableViewIsEditing();
    int rows = static_cast<int>(selectedRows().size());
    bool inProgress = syncInProgress();
    if (action == "startSync") return !inProgress && (movieWindowIsKey() || (!editing && rows != 1));
    if (action == "editSync") return !inProgress && !editing && infoWindowIsKeyWindow() && rows == 1;
    if (action == "deleteSync") return !inProgress && !editing && infoWindowIsKeyWindow() && rows >= 1;
    if (action == "suggestPoints") return !inProgress && enabledVideo();
    if (action == "suggestFromSound" || action == "referenceMenu") return !inProgress;
    if (action == "acceptConfident") {
        double threshold = kit::UserDefaults<double>("suggestConfidence");
        auto const& cs = session_->candidates();
        return !inProgress && std::any_of(cs.begin(), cs.end(), [&](auto const& c) { return c.confidence >= threshold; });
    }
    static const QStringList during = {"acceptSync", "abandonSync", "advanceSelection", "retardSelection",
                                       "expandSelection", "contractSelection", "advanceAudio", "retardAudio"};
    if (during.contains(action)) return inProgress && (movieWindowIsKey() || !editing);
    return true;
}

bool MovieDoc::performAction(QString const& action)
{
    if (!validateAction(action)) return false;
    try {
        if (action == "startSync") startSync();
        else if (action == "acceptSync") acceptSync();
        else if (action == "editSync") editSync();
        else if (action == "deleteSync") deleteSync();
        else if (action == "abandonSync") abandonSync();
        else if (action == "advanceSelection") advanceSelection();
        else if (action == "retardSelection") retardSelection();
        else if (action == "expandSelection") expandSelection();
        else if (action == "contractSelection") contractSelection();
        else if (action == "advanceAudio") advanceAudio();
        else if (action == "retardAudio") retardAudio();
        else if (action == "suggestPoints") suggestPoints();
        else if (action == "acceptConfident") acceptConfidentPoints();
        else return false;
    } catch (OffsetList::BadBackup const&) {
        kit::AlertSpec spec;
        spec.message = "The sound could not be re-timed.";
        spec.informative = "Dubmatch could not make the backup of the sound track. The sound plays unedited.";
        spec.sheetParent = mMovieWindow;
        kit::runAlert(spec);
    } catch (std::exception const& e) {
        kit::AlertSpec spec;
        spec.message = "The sound could not be re-timed.";
        spec.informative = e.what();
        spec.sheetParent = mMovieWindow;
        kit::runAlert(spec);
    }
    return true;
}

std::vector<dm::TrackPtr> MovieDoc::soundTracks() const { return opened_ ? opened_->soundTracks() : std::vector<dm::TrackPtr>{}; }

int MovieDoc::soundTrackId() const { return session_ ? session_->offsets()->soundTrack()->id() : 0; }

QString MovieDoc::soundTrackTitle(dm::Track const& track)
{
    auto const& m = media::OpenedMovie::mediaOf(track);
    QStringList parts{QString::fromUtf8(m.codecName())};
    if (m.channels > 0) parts << (m.channels == 1 ? QString("1 channel") : QString("%1 channels").arg(m.channels));
    if (!m.language.empty()) parts << QString::fromStdString(m.language);
    parts << "\"" + QString::fromStdString(track.displayName()) + "\"";
    return QString("Track %1: %2").arg(track.id()).arg(parts.join(", "));
}

bool MovieDoc::canChooseSoundTrack() const
{
    // With a point (or one in progress) the track is settled: the points
    // were made by listening to it.
    return !busy_ && session_ && !syncInProgress() && session_->offsets()->points().empty() && soundTracks().size() > 1;
}

bool MovieDoc::enabledVideo() const { return movie() && media::enabledVideoTrack(*movie()) != nullptr; }

void MovieDoc::suggestPoints()
{
    if (!session_ || busy_ || syncInProgress() || !enabledVideo()) return;
    // The sound as it was before any sync: the backup once there is one.
    OffsetList* list = session_->offsets();
    dm::TrackPtr unedited = list->backupTrack() ? list->backupTrack() : list->soundTrack();
    dm::Movie const& movie = *this->movie();
    player_->pause();
    std::optional<media::SuggestedPoints> found;
    auto outcome = runWithProgress("Suggest Sync Points",
                                   [&](media::Progress const& progress) { found = media::suggestSyncPoints(movie, *unedited, progress); });
    if (!outcome) return; // cancelled: the table stays as it was
    kit::AlertSpec spec;
    spec.sheetParent = mMovieWindow;
    if (!outcome->empty() || !found) {
        spec.message = "Dubmatch could not look for sync points.";
        spec.informative = QString::fromStdString(outcome->empty() ? std::string("The search ended early.") : *outcome);
        kit::runAlert(spec);
        return;
    }
    offerCandidates(found->suggestion, "The picture and the sound do not agree clearly enough anywhere; make the points by ear.");
}

bool MovieDoc::offerCandidates(suggest::Suggestion const& sg, QString const& whenRefused)
{
    if (sg.refused()) {
        kit::AlertSpec spec;
        spec.sheetParent = mMovieWindow;
        spec.message = "Dubmatch has no sync points to suggest.";
        // The reason reads after a colon elsewhere ("...: the movie is too
        // short"); here it stands as a sentence of its own.
        QString why = QString::fromStdString(sg.refusal);
        if (!why.isEmpty()) why[0] = why[0].toUpper();
        spec.informative = why + ".\n\n" + whenRefused;
        kit::runAlert(spec);
        return false;
    }
    long scale = session_->offsets()->soundTrack()->timeScale();
    std::vector<SyncSession::Candidate> candidates;
    for (auto const& c : sg.candidates) candidates.push_back({myQTTime(c.movieTime, scale), myQTTime(c.audioTime, scale), c.confidence});
    session_->setCandidates(std::move(candidates));
    createInfoWindow(true);
    updateMenu();
    return true;
}

void MovieDoc::suggestPointsFromTrack(int id)
{
    if (!session_ || busy_ || syncInProgress()) return;
    try {
        suggestPointsFrom(opened_->referenceTrack(id));
    } catch (Refused const& r) {
        kit::AlertSpec spec;
        spec.sheetParent = mMovieWindow;
        spec.message = QString::fromStdString(r.what());
        spec.informative = QString::fromStdString(r.suggestion());
        kit::runAlert(spec);
    }
}

void MovieDoc::suggestPointsFromFile()
{
    if (!session_ || busy_ || syncInProgress()) return;
    kit::OpenPanelSpec panel;
    panel.title = "Suggest Points from a Sound Track";
    panel.directory = QFileInfo(fileName()).absolutePath();
    QString path = panel.directory.isEmpty() ? QString() : kit::runOpenPanel(panel);
    if (path.isEmpty()) return;
    kit::AlertSpec spec;
    spec.sheetParent = mMovieWindow;
    try {
        suggestPointsFrom(dmsync::MovieSession::referenceFile(path.toStdString()));
    } catch (Refused const& r) {
        spec.message = QString::fromStdString(r.what());
        spec.informative = QString::fromStdString(r.suggestion());
        kit::runAlert(spec);
    } catch (std::exception const& e) {
        spec.message = QString("\"%1\" cannot be read as a sound.").arg(QFileInfo(path).fileName());
        spec.informative = QString::fromStdString(e.what());
        kit::runAlert(spec);
    }
}

void MovieDoc::suggestPointsFrom(dmsync::ReferenceSound const& reference)
{
    if (!session_ || busy_ || syncInProgress()) return;
    // The sound as it was before any sync: the backup once there is one.
    OffsetList* list = session_->offsets();
    dm::TrackPtr unedited = list->backupTrack() ? list->backupTrack() : list->soundTrack();
    player_->pause();
    std::optional<suggest::SoundMatch> found;
    auto outcome = runWithProgress("Suggest Sync Points", [&](media::Progress const& progress) {
        found = media::matchReferenceSound(*unedited, *reference.track, progress);
    });
    if (!outcome) return; // cancelled: the table stays as it was
    if (!outcome->empty() || !found) {
        kit::AlertSpec spec;
        spec.sheetParent = mMovieWindow;
        spec.message = "Dubmatch could not compare the sounds.";
        spec.informative = QString::fromStdString(outcome->empty() ? std::string("The search ended early.") : *outcome);
        kit::runAlert(spec);
        return;
    }
    if (!offerCandidates(found->suggestion, "Check that " + QString::fromStdString(reference.description)
                                                 + " is the same film; else make the points by ear."))
        return;
    if (!found->differ.empty()) {
        QStringList lines;
        for (auto const& d : found->differ) {
            std::string text = suggest::differText(d);
            text[0] = static_cast<char>(std::toupper(static_cast<unsigned char>(text[0])));
            lines << QString::fromStdString(text) + ".";
        }
        kit::AlertSpec spec;
        spec.sheetParent = mMovieWindow;
        spec.icon = QMessageBox::Information;
        spec.message = "The sound to sync and " + QString::fromStdString(reference.description) + " differ in places.";
        spec.informative = lines.join("\n") + "\n\nNo point is suggested there: a scene may be cut in one of them.";
        kit::runAlert(spec);
    }
}

void MovieDoc::acceptConfidentPoints()
{
    if (!session_ || busy_ || syncInProgress()) return;
    nextLabel_ = "Accept Suggested Points";
    session_->acceptConfident(kit::UserDefaults<double>("suggestConfidence"));
    nextLabel_.clear();
    updateMenu();
}

void MovieDoc::showPlaybackFault(QString const& message)
{
    if (faultShown_) return;
    faultShown_ = true;
    kit::AlertSpec spec;
    spec.message = "The movie cannot be played as it should.";
    spec.informative = message + "\n\nYou can still make sync points and save the movie; what is shown or heard may stop.";
    spec.sheetParent = mMovieWindow;
    kit::runAlert(spec);
}

int MovieDoc::durationFields() const { return opened_ ? opened_->movie().duration().width() : 1; }

void MovieDoc::onIdle(myQTTime now)
{
    if (now == previousPlayTime_) return;
    previousPlayTime_ = now;
    if (mMovieView) {
        mMovieView->showTime(now, durationFields());
        mMovieView->update();
    }
    setTimeDisplay();
}

// ---- The sync point table's data ----

int MovieDoc::numberOfRows() const { return session_ ? session_->numberOfRows() : 0; }

Offset MovieDoc::GetOffset(int row) const { return session_->GetOffset(row); }

namespace {

synclimits::Extent extentOf(OffsetList const& list)
{
    // Audio times lie on the unedited sound's timeline, which the backup keeps once the sound is re-timed.
    dm::Track const& unedited = list.backupTrack() ? *list.backupTrack() : *list.soundTrack();
    QTTimeRange r = unedited.range();
    return {list.duration().seconds(), myQTTime(QTTime{r.time.timeValue + r.duration.timeValue, r.time.timeScale, 0}).seconds()};
}

} // namespace

std::string MovieDoc::pointOutside(Offset const& point) const
{
    if (!session_ || !session_->offsets()) return {};
    return synclimits::pointOutside(point, extentOf(*session_->offsets()));
}

std::string MovieDoc::syncProblem() const
{
    if (!session_ || !session_->offsets() || session_->offsets()->points().empty()) return {};
    OffsetList const& list = *session_->offsets();
    SyncLine line{list.slope(), list.intercept(), !list.keptPreviousLine()};
    return synclimits::problemWith(list.points(), line, extentOf(list));
}

bool MovieDoc::canEditTable() const { return session_ && !busy_; }

void MovieDoc::tableViewSelectionDidChange()
{
    rememberSelection();
    if (!session_ || busy_ || syncInProgress()) return;
    session_->selectionChanged(selectedRows());
    updateMenu();
}
