#include "MovieDoc.h"

#include "DMApplication.h"
#include "MovieView.h"
#include "MovieWriter.h"
#include "bridge.h"
#include "kit/Alert.h"
#include "kit/UserDefaults.h"

#include <QApplication>
#include <QDragEnterEvent>
#include <QFileInfo>
#include <QMimeData>
#include <QProgressDialog>
#include <QVBoxLayout>

#include <cmath>
#include <iostream>

namespace {

// The two settings read on every step; made once, live until exit.
kit::UserDefaults<float> const loopLength("loopLength");
kit::UserDefaults<float> const audioStep("audioStep");

// A movie window: accepts movie files dropped onto it.
class MovieWindow : public QMainWindow {
public:
    MovieWindow() { setAcceptDrops(true); }

protected:
    void dragEnterEvent(QDragEnterEvent* e) override
    {
        if (e->mimeData()->hasUrls()) e->acceptProposedAction();
    }
    void dropEvent(QDropEvent* e) override
    {
        for (QUrl const& url : e->mimeData()->urls())
            if (url.isLocalFile()) kit::DocumentController::shared()->openDocumentWithContentsOfFile(url.toLocalFile(), true);
    }
};

myQTTime scaled(myQTTime const& t, double factor)
{
    myQTTime r = t;
    r.timeValue = std::llrint(static_cast<double>(t.timeValue) * factor);
    return r;
}

} // namespace

MovieDoc::MovieDoc() { setFileType("UnsavedDocument"); }

MovieDoc::~MovieDoc()
{
    if (mMovieView) mMovieView->setPlayer(nullptr, {}, 0);
    player_.reset(); // its threads end before the windows go
    offsets_.reset();
}

QString MovieDoc::typeForFile(QString const& path)
{
    QString ext = QFileInfo(path).suffix().toLower();
    if (ext == "mov" || ext == "qt") return "QuickTime Movie";
    if (ext == "mp4" || ext == "m4v") return "MPEG-4 Movie";
    return "UnsavedDocument";
}

QStringList MovieDoc::fileExtensionsFromType(QString const& type) const
{
    if (type == "QuickTime Movie") return {"mov", "qt"};
    if (type == "MPEG-4 Movie") return {"mp4", "m4v"};
    return {};
}

bool MovieDoc::readFromFile(QString const& path, QString const& type) { return readFromFile(path, type, nullptr); }

bool MovieDoc::readFromFile(QString const& path, QString const& type, Refusal* error)
{
    auto report = [&](Refusal const& r) {
        if (error) {
            *error = r;
            return;
        }
        kit::AlertSpec spec;
        spec.message = QString::fromStdString(r.message);
        spec.informative = QString::fromStdString(r.suggestion);
        kit::runAlert(spec);
    };
    try {
        media::OpenedMovie om = media::openMovie(path.toStdString());
        setFileName(path);
        setFileType(type.isEmpty() || type == "UnsavedDocument" ? typeForFile(path) : type);
        opened_ = std::move(om);
    } catch (media::MediaError const& e) {
        report({"The file could not be opened as a movie.", e.what()});
        return false;
    }
    offsets_.reset();
    auto made = makeOffsetList(opened_->movie.get(), this);
    if (auto* refusal = std::get_if<Refusal>(&made)) {
        report(*refusal);
        return false;
    }
    offsets_ = std::move(std::get<std::unique_ptr<OffsetList>>(made));
    audioTrack_ = offsets_->soundTrack();
    player_ = std::make_unique<media::Player>(opened_->movie);
    player_->setSelectionFilter([this](QTTimeRange const&) { return allowSelectionChange(); });
    player_->setIdleCallback([this](myQTTime now) { onIdle(now); },
                             [this](std::function<void()> task) { QMetaObject::invokeMethod(this, std::move(task), Qt::QueuedConnection); });
    setSyncNotInProgress();
    saveNewEditState();
    updateMenu();
    return true;
}

bool MovieDoc::writeToFile(QString const& path, QString const& type, kit::SaveOperation op)
{
    if (!opened_) return false;
    myQTTime remembered = player_->currentTime();
    bool wasPlaying = player_->isPlaying();
    player_->pause();
    player_->setCurrentTime(myQTTime(0LL, player_->sampleRate()));

    QProgressDialog progress(mMovieWindow);
    progress.setWindowModality(Qt::WindowModal);
    progress.setRange(0, 100);
    progress.setMinimumDuration(300);
    progress.setAutoClose(false);
    progress.setAutoReset(false);
    auto callback = [&](std::string const& op, media::Phase phase, double f) {
        if (phase == media::Phase::Begin) progress.setLabelText(QString::fromStdString(op) + "\u2026");
        progress.setValue(static_cast<int>(f * 100));
        QCoreApplication::processEvents(); // Cancel can act while the movie writes
        bool go = !progress.wasCanceled();
        if (phase == media::Phase::End) progress.hide();
        return go;
    };
    bool ok = false;
    try {
        std::string container = type == "MPEG-4 Movie" ? "mp4" : "mov";
        if (op == kit::SaveOperation::Save) media::saveInPlace(*opened_->movie, path.toStdString(), callback, container);
        else media::writeMovie(*opened_->movie, path.toStdString(), callback, container);
        ok = true;
    } catch (media::Cancelled const&) {
    } catch (std::exception const& e) {
        kit::AlertSpec spec;
        spec.message = "The movie could not be saved.";
        spec.informative = e.what();
        spec.sheetParent = mMovieWindow;
        kit::runAlert(spec);
    }
    if (op == kit::SaveOperation::SaveAs) alreadySavedAs_ = ok;
    player_->setCurrentTime(remembered);
    if (wasPlaying) player_->play();
    return ok;
}

void MovieDoc::makeWindowControllers()
{
    auto* window = new MovieWindow;
    window->setProperty("dubmatchDocument", QVariant::fromValue(static_cast<QObject*>(this)));
    auto* central = new QWidget(window);
    auto* layout = new QVBoxLayout(central);
    layout->setContentsMargins(0, 0, 0, 0);
    layout->setSpacing(0);
    mMovieView = new MovieView(central);
    instruction_ = new QLabel(central);
    instruction_->setObjectName("instruction");
    instruction_->setWordWrap(true);
    instruction_->setContentsMargins(8, 4, 8, 6);
    layout->addWidget(mMovieView, 1);
    layout->addWidget(instruction_);
    window->setCentralWidget(central);
    if (auto* app = DMApplication::instance()) app->populateMenuBar(window->menuBar());
    mMovieWindow = window;

    auto* wc = new kit::WindowController("MovieDoc", window);
    wc->setShouldCloseDocument(true);
    addWindowController(wc);

    QSize natural;
    double seconds = 0;
    if (opened_) {
        for (auto const& t : opened_->movie->tracksOfMediaType(dm::MediaType::Video))
            if (t->isEnabled()) {
                auto const& m = media::OpenedMovie::mediaOf(*t);
                natural = QSize(m.width, m.height);
                break;
            }
        seconds = opened_->movie->duration().seconds();
    }
    mMovieView->setPlayer(player_.get(), natural, seconds);
    connect(mMovieView, &MovieView::playToggled, this, &MovieDoc::togglePlay);
    instruction_->setText(instructionForMode(movieMode()));
    // The window fits the movie's natural size; very large pictures are shown smaller.
    QSize content = windowContentSizeForMovieSize(natural.boundedTo(QSize(1280, 720)).isEmpty() ? natural : natural.scaled(natural.boundedTo(QSize(1280, 720)), Qt::KeepAspectRatio));
    window->resize(content.width(), content.height() + window->menuBar()->sizeHint().height());
    if (player_) onIdle(player_->currentTime());
}

QSize MovieDoc::windowContentSizeForMovieSize(QSize movieSize) const
{
    QSize s = movieSize;
    if (mMovieView && mMovieView->isControllerVisible()) s.setHeight(s.height() + mMovieView->controllerBarHeight());
    if (instruction_) s.setHeight(s.height() + instruction_->sizeHint().height());
    if (s.width() == 0 && mMovieWindow) s.setWidth(mMovieWindow->width());
    return s;
}

void MovieDoc::sizeWindowToMovie()
{
    if (nowSizing_ || !mMovieWindow || !mMovieView) return;
    nowSizing_ = true;
    QSize content = windowContentSizeForMovieSize(mMovieView->naturalSize());
    QPoint topLeft = mMovieWindow->geometry().topLeft();
    mMovieWindow->resize(content.width(), content.height() + mMovieWindow->menuBar()->sizeHint().height());
    mMovieWindow->move(mMovieWindow->pos() + (topLeft - mMovieWindow->geometry().topLeft()));
    nowSizing_ = false;
}

myQTTime MovieDoc::loopMiddle() const
{
    myQTTime sum = startTime_;
    sum += endTime_;
    sum.timeValue /= 2;
    return sum;
}

void MovieDoc::setAudioTimeFromMovieTime(myQTTime t)
{
    audioTime_ = t;
    audioTime_.setTimeScaleAtLeast(10000);
}

QString MovieDoc::movieMode() const
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

QString MovieDoc::instructionForMode(QString const& mode)
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

void MovieDoc::willUpdateMode() {}

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

void MovieDoc::saveNewEditState()
{
    dm::DisposeMovieEditState(state_);
    if (movie()) state_ = dm::NewMovieEditState(*movie());
}

void MovieDoc::resetAudioTrack()
{
    dm::UseMovieEditState(*movie(), state_);
    trimAndSetSelection();
}

void MovieDoc::offsetAudioTrack()
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

void MovieDoc::trimAndSetSelection()
{
    std::int32_t T = movie()->timeScale();
    myQTTime start = startTime_;
    if (start.timeValue < 0) start.timeValue = 0;
    myQTTime end = endTime_;
    setToMin(end, movie()->duration());
    myQTTime length = end;
    length -= start;
    myQTTime now = player_->currentTime();
    if (now < start) player_->setCurrentTime(start);
    else if (end < now) player_->setCurrentTime(end);
    setSelection(QTTimeRange{start, length});
    player_->setActiveSegment(QTTimeRange{QTTime{start.timeWithScaleOf(T), T, 0}, QTTime{length.timeWithScaleOf(T), T, 0}});
}

void MovieDoc::setMovieSelection()
{
    trimAndSetSelection();
    player_->setPlaysSelectionOnly(true);
    player_->setLoops(true);
}

void MovieDoc::clearMovieSelection()
{
    if (!player_) return;
    player_->setPlaysSelectionOnly(false);
    player_->setLoops(false);
    setSelection(QTTimeRange{QTZeroTime, QTZeroTime});
    player_->setActiveSegment(std::nullopt);
}

void MovieDoc::setSelection(QTTimeRange r)
{
    documentIsChangingSelection_ = true;
    player_->setSelection(r);
    documentIsChangingSelection_ = false;
    if (mMovieView) mMovieView->showSelection(r);
}

void MovieDoc::setSyncNotInProgress()
{
    if (state_ && movie()) dm::UseMovieEditState(*movie(), state_);
    clearMovieSelection();
    syncInProgress_ = false;
}

void MovieDoc::startSync()
{
    willUpdateMode();
    CallObjCOnDestruct<SyncDocument> guard(this, &SyncDocument::didUpdateMode);
    saveNewEditState();
    myQTTime now = player_->currentTime();
    endTime_ = now;
    startTime_ = now;
    startTime_.timeValue = std::llrint(static_cast<double>(now.timeValue) - static_cast<float>(loopLength) * static_cast<double>(now.timeScale));
    setAudioTimeFromMovieTime(loopMiddle());
    setMovieSelection();
    syncInProgress_ = true;
    myQTTime middle = loopMiddle();
    auto const& pts = offsets_->points();
    syncRow_ = static_cast<int>(std::find_if(pts.begin(), pts.end(), [&](Offset const& p) { return middle < p.movieTime; }) - pts.begin());
    updateChangeCount(kit::ChangeType::Done);
    emit pointsChanged();
    updateMenu();
    player_->play(); // the loop plays over and over while the user listens
}

void MovieDoc::acceptSync()
{
    if (!syncInProgress_) {
        std::cerr << "Error! acceptSync: called when sync not in progress" << std::endl;
        return;
    }
    myQTTime middle = loopMiddle();
    setSyncNotInProgress();
    offsets_->push(Offset(middle, audioTime_, false));
    emit pointsChanged();
    updateMenu();
}

void MovieDoc::editSync()
{
    willUpdateMode();
    CallObjCOnDestruct<SyncDocument> guard(this, &SyncDocument::didUpdateMode);
    int r = *selectedRows_.begin();
    Offset p = offsets_->points().at(static_cast<std::size_t>(r));
    offsets_->remove(offsets_->getIterator(r));
    float half = static_cast<float>(loopLength) * 0.5f;
    startTime_ = p.movieTime;
    startTime_.timeValue = std::llrint(static_cast<double>(p.movieTime.timeValue) - half * static_cast<double>(p.movieTime.timeScale));
    endTime_ = p.movieTime;
    endTime_.timeValue = std::llrint(static_cast<double>(p.movieTime.timeValue) + half * static_cast<double>(p.movieTime.timeScale));
    setAudioTimeFromMovieTime(offsets_->AudioTimeToMovieTime(p.audioTime));
    saveNewEditState();
    setMovieSelection();
    syncInProgress_ = true;
    syncRow_ = r;
    emit pointsChanged();
    updateMenu();
    player_->play();
}

void MovieDoc::deleteSync()
{
    std::vector<int> rows(selectedRows_.begin(), selectedRows_.end());
    std::sort(rows.begin(), rows.end());
    for (auto it = rows.rbegin(); it != rows.rend(); ++it) {
        offsets_->remove(offsets_->getIterator(*it));
        updateChangeCount(kit::ChangeType::Undone);
    }
    selectedRows_.clear();
    emit pointsChanged();
}

void MovieDoc::abandonSync()
{
    willUpdateMode();
    CallObjCOnDestruct<SyncDocument> guard(this, &SyncDocument::didUpdateMode);
    setSyncNotInProgress();
    updateChangeCount(kit::ChangeType::Undone);
    emit pointsChanged();
    updateMenu();
}

void MovieDoc::advanceSelection()
{
    myQTTime d = endTime_;
    d -= startTime_;
    d.timeValue /= 5;
    startTime_ -= d;
    endTime_ -= d;
    audioTime_ -= d;
    trimAndSetSelection();
    emit pointsChanged();
}

void MovieDoc::retardSelection()
{
    myQTTime d = endTime_;
    d -= startTime_;
    d.timeValue /= 5;
    startTime_ += d;
    endTime_ += d;
    audioTime_ += d;
    trimAndSetSelection();
    emit pointsChanged();
}

void MovieDoc::contractSelection()
{
    myQTTime s = startTime_, e = endTime_;
    startTime_ = scaled(s, 0.8535533905932737) + scaled(e, 0.14644660940672627);
    endTime_ = scaled(s, 0.14644660940672627) + scaled(e, 0.8535533905932737);
    trimAndSetSelection();
}

void MovieDoc::expandSelection()
{
    myQTTime s = startTime_, e = endTime_;
    startTime_ = scaled(s, 1.2071067811865475) + scaled(e, -0.20710678118654757);
    endTime_ = scaled(s, -0.20710678118654757) + scaled(e, 1.2071067811865475);
    trimAndSetSelection();
}

void MovieDoc::advanceAudio()
{
    audioTime_.timeValue = std::llrint(static_cast<double>(audioTime_.timeValue) - (static_cast<float>(audioStep) / 1000.0) * audioTime_.timeScale);
    resetAudioTrack();
    offsetAudioTrack();
    emit pointsChanged();
}

void MovieDoc::retardAudio()
{
    audioTime_.timeValue = std::llrint(static_cast<double>(audioTime_.timeValue) + (static_cast<float>(audioStep) / 1000.0) * audioTime_.timeScale);
    resetAudioTrack();
    offsetAudioTrack();
    emit pointsChanged();
}

void MovieDoc::scrollWheel(double deltaY)
{
    if (!syncInProgress_) return;
    int w = kit::UserDefaults<int>("reverseWheel");
    float motion = static_cast<float>(w) * static_cast<float>(deltaY);
    audioTime_.timeValue = std::llrint(static_cast<double>(audioTime_.timeValue) + (motion / 1000.0) * audioTime_.timeScale);
    resetAudioTrack();
    offsetAudioTrack();
    emit pointsChanged();
}

void MovieDoc::otherMouseDown()
{
    if (syncInProgress_) acceptSync();
    else startSync();
}

void MovieDoc::togglePlay()
{
    if (!player_) return;
    if (player_->isPlaying()) player_->pause();
    else player_->play();
    if (mMovieView) mMovieView->update();
}

bool MovieDoc::movieWindowIsKey() const { return mMovieWindow && QApplication::activeWindow() == mMovieWindow; }

bool MovieDoc::validateAction(QString const& action) const
{
    if (action == "doExport") return opened_.has_value();
    if (!offsets_) return false;
    bool editing = tableViewIsEditing();
    int rows = static_cast<int>(selectedRows_.size());
    if (action == "startSync") return !syncInProgress_ && (movieWindowIsKey() || (!editing && rows != 1));
    if (action == "editSync") return !syncInProgress_ && !editing && infoWindowIsKeyWindow() && rows == 1;
    if (action == "deleteSync") return !syncInProgress_ && !editing && infoWindowIsKeyWindow() && rows >= 1;
    static const QStringList during = {"acceptSync", "abandonSync", "advanceSelection", "retardSelection",
                                       "expandSelection", "contractSelection", "advanceAudio", "retardAudio"};
    if (during.contains(action)) return syncInProgress_ && (movieWindowIsKey() || !editing);
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

int MovieDoc::durationFields() const { return opened_ ? opened_->movie->duration().width() : 1; }

void MovieDoc::onIdle(myQTTime now)
{
    if (now == previousPlayTime_) return;
    previousPlayTime_ = now;
    if (mMovieView) {
        mMovieView->showTime(now, durationFields());
        mMovieView->update();
    }
}
