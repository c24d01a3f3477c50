#include "MovieDoc.h"

#include "DMApplication.h"
#include "MovieView.h"
#include "SyncPointWindow.h"
#include "ValueTransformers.h"
#include "MovieWriter.h"
#include "bridge.h"
#include "kit/Alert.h"
#include "kit/UserDefaults.h"

#include <QApplication>
#include <QComboBox>
#include <QEventLoop>
#include <QHBoxLayout>
#include <QPainter>
#include <QPrintDialog>
#include <QPrinter>
#include <QTimer>
#include <QDragEnterEvent>
#include <QFileInfo>
#include <QMimeData>
#include <QProgressDialog>
#include <QPushButton>
#include <QVBoxLayout>

#include <atomic>
#include <cmath>
#include <mutex>
#include <thread>
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

MovieDoc::MovieDoc()
{
    setFileType("UnsavedDocument");
    connect(this, &MovieDoc::pointsChanged, this, &MovieDoc::reloadTable);
}

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

    std::string container = type == "MPEG-4 Movie" ? "mp4" : "mov";
    std::string target = path.toStdString();
    dm::Movie& movie = *opened_->movie;
    auto outcome = runWithProgress([&](media::Progress const& progress) {
        if (op == kit::SaveOperation::Save) media::saveInPlace(movie, target, progress, container);
        else media::writeMovie(movie, target, progress, container);
    });
    bool ok = outcome && outcome->empty();
    if (outcome && !outcome->empty()) {
        kit::AlertSpec spec;
        spec.message = "The movie could not be saved.";
        spec.informative = QString::fromStdString(*outcome);
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
    // The Sync controls follow the mode through the named transformers.
    auto* controls = new QWidget(central);
    controls_ = controls;
    auto* row = new QHBoxLayout(controls);
    row->setContentsMargins(8, 4, 8, 0);
    struct Binding {
        QString title, action, transformer;
        bool hidden; // bound to "hidden", else to "enabled"
    };
    for (Binding const& b : {Binding{"Start Sync Point", "startSync", "~movieModeIsPointInProgress", false},
                             Binding{"Accept", "acceptSync", "~movieModeIsPointInProgress", true},
                             Binding{"Abandon", "abandonSync", "~movieModeIsPointInProgress", true}}) {
        auto* button = new QPushButton(b.title, controls);
        button->setObjectName(b.action);
        button->setFocusPolicy(Qt::NoFocus);
        row->addWidget(button);
        connect(button, &QPushButton::clicked, this, [this, action = b.action] { performAction(action); });
        auto apply = [button, b](QString const& mode) {
            auto t = ValueTransformer::valueTransformerForName(b.transformer);
            bool value = t && t->transformedValue(mode).toBool();
            if (b.hidden) button->setHidden(value);
            else button->setEnabled(value);
        };
        apply(movieMode());
        connect(this, &MovieDoc::movieModeChanged, button, apply);
    }
    row->addStretch(1);
    layout->addWidget(controls);
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
    window->installEventFilter(this);
    if (auto* app = DMApplication::instance()) connect(app, &DMApplication::reverseArrowsChanged, this, &MovieDoc::reloadTable);
    instruction_->setText(instructionForMode(movieMode()));
    // The window fits the movie's natural size; very large pictures are shown smaller.
    QSize content = windowContentSizeForMovieSize(natural.boundedTo(QSize(1280, 720)).isEmpty() ? natural : natural.scaled(natural.boundedTo(QSize(1280, 720)), Qt::KeepAspectRatio));
    window->resize(content.width(), content.height() + window->menuBar()->sizeHint().height());
    if (player_) onIdle(player_->currentTime());
    if (kit::UserDefaults<bool>("openInspector")) createInfoWindow(false);
}

QSize MovieDoc::windowContentSizeForMovieSize(QSize movieSize) const
{
    QSize s = movieSize;
    if (mMovieView && mMovieView->isControllerVisible()) s.setHeight(s.height() + mMovieView->controllerBarHeight());
    if (instruction_) s.setHeight(s.height() + instruction_->sizeHint().height());
    if (controls_) s.setHeight(s.height() + controls_->sizeHint().height());
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

void MovieDoc::loopAround(myQTTime const& p)
{
    // Half the loop length, in single precision, each side of the point.
    float half = static_cast<float>(loopLength) * 0.5f;
    startTime_ = p;
    startTime_.timeValue = std::llrint(static_cast<double>(p.timeValue) - half * static_cast<double>(p.timeScale));
    endTime_ = p;
    endTime_.timeValue = std::llrint(static_cast<double>(p.timeValue) + half * static_cast<double>(p.timeScale));
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
    IndexSet selected = selectedRows();
    int r = *selected.begin();
    Offset p = offsets_->points().at(static_cast<std::size_t>(r));
    offsets_->remove(offsets_->getIterator(r));
    loopAround(p.movieTime);
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
    IndexSet selected = selectedRows();
    std::vector<int> rows(selected.begin(), selected.end());
    std::sort(rows.begin(), rows.end());
    for (auto it = rows.rbegin(); it != rows.rend(); ++it) {
        offsets_->remove(offsets_->getIterator(*it));
        updateChangeCount(kit::ChangeType::Undone);
    }
    setSelectedRows({});
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
    if (busy_) return false; // a save or export is running
    if (action == "doExport" || action == "showInfo" || action == "print") return opened_.has_value();
    if (!offsets_) return false;
    bool editing = tableViewIsEditing();
    int rows = static_cast<int>(selectedRows().size());
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
    setTimeDisplay();
}

// ---- The sync point window ----

OffsetListWindowController* MovieDoc::findInfoWindowController() const
{
    for (auto* wc : windowControllers())
        if (NSStringWrapper(wc->windowNibName()) == NSStringWrapper("OffsetList")) return static_cast<OffsetListWindowController*>(wc);
    return nullptr;
}

DMTableView* MovieDoc::getTableView() const
{
    auto* wc = findInfoWindowController();
    return wc ? wc->tableView() : nullptr;
}

QWidget* MovieDoc::getInfoWindow() const
{
    auto* wc = findInfoWindowController();
    return wc ? wc->window() : nullptr;
}

bool MovieDoc::tableViewIsEditing() const
{
    DMTableView* t = getTableView();
    return t && t->isEditing();
}

bool MovieDoc::infoWindowIsKeyWindow() const
{
    QWidget* w = getInfoWindow();
    return w && QApplication::activeWindow() == w;
}

IndexSet MovieDoc::selectedRows() const
{
    IndexSet rows;
    if (DMTableView* t = getTableView())
        for (QModelIndex const& i : t->selectionModel()->selectedRows()) rows.insert(i.row());
    return rows;
}

void MovieDoc::setSelectedRows(IndexSet rows)
{
    DMTableView* t = getTableView();
    if (!t) return;
    QItemSelection sel;
    for (int r : rows) sel.select(t->model()->index(r, 0), t->model()->index(r, t->model()->columnCount() - 1));
    t->selectionModel()->select(sel, QItemSelectionModel::ClearAndSelect | QItemSelectionModel::Rows);
}

void MovieDoc::createInfoWindow(bool show)
{
    dontOrder_ = true;
    auto* wc = findInfoWindowController();
    if (!wc) {
        wc = new OffsetListWindowController(this);
        wc->setShouldCloseDocument(false);
        addWindowController(wc);
        wc->window()->installEventFilter(this);
        setDurationDisplay();
        previousPlayTime_ = myQTTime(-1LL, 1); // the read-out fills at the next idle tick
        if (player_) onIdle(player_->currentTime());
    }
    if (show) wc->showWindow();
    dontOrder_ = false;
}

void MovieDoc::canClose(std::function<void(bool)> done)
{
    if (busy_) {
        kit::beep();
        done(false);
        return;
    }
    ImportDocument::canClose(std::move(done));
}

void MovieDoc::showWindows()
{
    dontOrder_ = true;
    QWidget* previous = nullptr;
    for (auto* wc : windowControllers()) {
        if (!wc->window()) continue;
        if (!previous) wc->showWindow();
        else {
            // The first time, beside the window before it rather than on top.
            if (!wc->window()->property("placed").toBool()) {
                wc->window()->move(previous->frameGeometry().topRight() + QPoint(8, 0));
                wc->window()->setProperty("placed", true);
            }
            wc->window()->show();
            wc->window()->stackUnder(previous);
        }
        previous = wc->window();
    }
    if (mMovieWindow) {
        mMovieWindow->raise();
        mMovieWindow->activateWindow();
    }
    dontOrder_ = false;
}

bool MovieDoc::eventFilter(QObject* watched, QEvent* event)
{
    if (event->type() == QEvent::WindowActivate) windowBecameKey(qobject_cast<QWidget*>(watched));
    return ImportDocument::eventFilter(watched, event);
}

void MovieDoc::windowBecameKey(QWidget* key)
{
    // The document's other windows follow the key window, directly behind it.
    if (dontOrder_ || !key) return;
    dontOrder_ = true;
    QWidget* above = key;
    for (auto* wc : windowControllers()) {
        QWidget* w = wc->window();
        if (!w || w == key || !w->isVisible()) continue;
        w->stackUnder(above);
        above = w;
    }
    dontOrder_ = false;
    updateMenu();
}

void MovieDoc::reloadTable()
{
    if (auto* wc = findInfoWindowController()) {
        IndexSet keep = selectedRows();
        QSignalBlocker block(wc->tableView()->selectionModel());
        wc->model()->reloadData();
        setSelectedRows(keep);
        wc->window()->setWindowTitle(OffsetListWindowController::windowTitleForDocumentDisplayName(displayName()));
    }
}

void MovieDoc::setDurationDisplay()
{
    auto* wc = findInfoWindowController();
    if (!wc || !opened_) return;
    wc->durationDisplay()->setText(QString::fromStdString(opened_->movie->duration().asString(0, 3)));
}

void MovieDoc::setTimeDisplay()
{
    auto* wc = findInfoWindowController();
    if (!wc || !player_) return;
    myQTTime now = player_->currentTime();
    QString text = QString::fromStdString(now.asString(durationFields(), 3));
    if (wc->timeDisplay()->text() != text) wc->timeDisplay()->setText(text);
}

int MovieDoc::numberOfRows() const
{
    if (!offsets_) return 0;
    return static_cast<int>(offsets_->points().size()) + (syncInProgress_ ? 1 : 0);
}

Offset MovieDoc::GetOffset(int row) const
{
    if (syncInProgress_ && row == syncRow_) return Offset(loopMiddle(), offsets_->MovieTimeToAudioTime(audioTime_), false);
    int entry = syncInProgress_ && row > syncRow_ ? row - 1 : row;
    return offsets_->points().at(static_cast<std::size_t>(entry));
}

QVariant MovieDoc::objectValue(QString const& column, int row) const
{
    if (row < 0 || row >= numberOfRows()) return {};
    Offset p = GetOffset(row);
    if (column == "time") return QString::fromStdString(p.movieTime.asString(durationFields(), 3));
    if (column == "offset") {
        myQTTime o = p.offset();
        return static_cast<double>(o.timeValue) / o.timeScale * 1000 * static_cast<int>(kit::UserDefaults<int>("reverseArrows"));
    }
    if (column == "flag") {
        if (p.flag) return markerImage("RedDiamond");
        if (syncInProgress_ && row == syncRow_) return markerImage("BlueStar");
        return {};
    }
    return QString("Internal error");
}

void MovieDoc::setObjectValue(QVariant const& value, QString const& column, int row)
{
    if (!offsets_ || row < 0 || row >= numberOfRows()) return;
    bool inProgress = syncInProgress_ && row == syncRow_;
    int entry = syncInProgress_ && row > syncRow_ ? row - 1 : row;
    try {
        if (column == "time") {
            myQTTime t;
            try {
                t = myQTTime(value.toString().toStdString(), 600);
            } catch (myQTTime::BadDuration const&) {
                kit::beep();
                reloadTable();
                return;
            }
            if (inProgress) {
                myQTTime d = t;
                d -= loopMiddle();
                startTime_ += d;
                endTime_ += d;
                audioTime_ += d;
                trimAndSetSelection();
            } else {
                offsets_->changeTimePreservingOffset(offsets_->getIterator(entry), t);
            }
        } else if (column == "offset") {
            double o = value.toDouble() * static_cast<int>(kit::UserDefaults<int>("reverseArrows")) / 1000.0;
            if (inProgress) {
                myQTTime sum = startTime_;
                sum += endTime_;
                audioTime_ = sum;
                audioTime_.timeValue = std::llrint(static_cast<double>(sum.timeValue / 2) - o * sum.timeScale);
                audioTime_.setTimeScaleAtLeast(10000);
                resetAudioTrack();
                offsetAudioTrack();
            } else {
                offsets_->changeAudioOffset(offsets_->getIterator(entry), o);
            }
        }
    } catch (OffsetList::BadBackup const&) {
        kit::beep();
    }
    reloadTable();
}

void MovieDoc::tableViewSelectionDidChange()
{
    if (syncInProgress_ || !offsets_) return;
    IndexSet rows = selectedRows();
    if (rows.empty()) {
        clearMovieSelection();
    } else if (rows.size() == 1) {
        Offset p = GetOffset(*rows.begin());
        loopAround(p.movieTime);
        audioTime_ = p.audioTime;
        audioTime_.setTimeScaleAtLeast(10000);
        setMovieSelection();
    }
    updateMenu();
}

// ---- Saving, exporting, printing ----

void MovieDoc::runModalSavePanel(kit::SaveOperation op, std::function<void(bool)> done)
{
    if (op != kit::SaveOperation::SaveAs || alreadySavedAs_) {
        ImportDocument::runModalSavePanel(op, std::move(done));
        return;
    }
    kit::SavePanelSpec spec;
    spec.title = "Save As";
    QStringList exts = fileExtensionsFromType(writableTypes().front());
    QString ext = exts.isEmpty() ? "mov" : exts.front();
    QFileInfo info(fileName());
    spec.directory = info.absolutePath();
    spec.proposedName = info.completeBaseName() + "-synced." + ext;
    if (!exts.isEmpty()) spec.requiredExtension = ext;
    spec.sheetParent = mMovieWindow;
    QString path = kit::runSavePanel(spec);
    if (path.isEmpty()) {
        done(false);
        return;
    }
    done(saveToFile(path, kit::SaveOperation::SaveAs));
}

std::optional<std::string> MovieDoc::runWithProgress(std::function<void(media::Progress const&)> work)
{
    struct Shared {
        std::mutex lock;
        std::string operation;
        double fraction = 0;
        std::atomic<bool> stop{false};
        std::atomic<bool> done{false};
        std::optional<std::string> outcome;
    };
    auto shared = std::make_shared<Shared>();
    busy_ = true;
    updateMenu();
    QProgressDialog panel(mMovieWindow);
    progressPanel_ = &panel;
    panel.setWindowModality(Qt::WindowModal);
    panel.setRange(0, 100);
    panel.setMinimumDuration(0);
    panel.setAutoClose(false);
    panel.setAutoReset(false);
    panel.setLabelText("Preparing\u2026");
    QObject::connect(&panel, &QProgressDialog::canceled, [shared] { shared->stop = true; });

    media::Progress progress = [shared](std::string const& op, media::Phase, double f) {
        std::lock_guard<std::mutex> g(shared->lock);
        shared->operation = op;
        shared->fraction = f;
        return !shared->stop.load();
    };
    QEventLoop loop;
    std::thread worker([&, shared] {
        std::optional<std::string> outcome;
        try {
            work(progress);
            outcome = std::string();
        } catch (media::Cancelled const&) {
        } catch (std::exception const& e) {
            outcome = std::string(e.what());
        }
        {
            std::lock_guard<std::mutex> g(shared->lock);
            shared->outcome = outcome;
        }
        shared->done = true;
        QMetaObject::invokeMethod(&loop, "quit", Qt::QueuedConnection);
    });
    QTimer ticker;
    QObject::connect(&ticker, &QTimer::timeout, [&] {
        if (panel.wasCanceled()) shared->stop = true;
        std::lock_guard<std::mutex> g(shared->lock);
        if (!shared->operation.empty()) panel.setLabelText(QString::fromStdString(shared->operation) + "\u2026");
        panel.setValue(static_cast<int>(shared->fraction * 100));
    });
    ticker.start(50);
    if (!shared->done) loop.exec(); // the window stays alive; Cancel acts at once
    worker.join();
    ticker.stop();
    progressPanel_ = nullptr;
    panel.hide();
    busy_ = false;
    updateMenu();
    std::lock_guard<std::mutex> g(shared->lock);
    return shared->outcome;
}

void MovieDoc::doExport()
{
    if (!opened_) return;
    static std::vector<media::ExportType> const exportTypes = [] {
        std::vector<media::ExportType> t;
        for (auto const& f : media::exportFormats()) t.push_back(f.type);
        return t;
    }();
    auto* accessory = new QWidget;
    auto* row = new QHBoxLayout(accessory);
    row->setContentsMargins(0, 0, 0, 0);
    row->addWidget(new QLabel("Format:", accessory));
    auto* chooser = new QComboBox(accessory);
    chooser->setObjectName("exportType");
    for (auto const& f : media::exportFormats()) chooser->addItem(f.title);
    chooser->setCurrentIndex(static_cast<int>(exportTypes.size()) - 2); // QuickTime Movie
    row->addWidget(chooser, 1);

    kit::SavePanelSpec spec;
    spec.title = "Export";
    QFileInfo info(fileName());
    spec.directory = info.absolutePath();
    spec.proposedName = info.fileName();
    spec.accessory = accessory;
    spec.sheetParent = mMovieWindow;
    QString path = kit::runSavePanel(spec);
    int index = chooser->currentIndex();
    delete accessory;
    if (path.isEmpty()) return;

    std::optional<media::ExportType> type;
    if (index >= 0 && index < static_cast<int>(exportTypes.size())) type = exportTypes[static_cast<std::size_t>(index)];
    media::ExportType chosen = type.value_or(media::ExportType::QuickTime);
    // Never export over the movie that is open.
    if (QFileInfo(path).absoluteFilePath() == QFileInfo(fileName()).absoluteFilePath()) {
        QString ext = media::exportFormats()[static_cast<std::size_t>(std::max(index, 0))].extension;
        path = info.absolutePath() + "/" + info.completeBaseName() + " export." + ext;
    }
    myQTTime now = player_->currentTime();
    dm::Movie& movie = *opened_->movie;
    std::string target = path.toStdString();
    auto outcome = runWithProgress([&](media::Progress const& progress) { media::exportMovie(movie, target, chosen, now, progress); });
    if (outcome && !outcome->empty()) {
        kit::AlertSpec a;
        a.title = "Error";
        a.message = "Error exporting movie.";
        a.informative = QString::fromStdString(*outcome);
        a.sheetParent = mMovieWindow;
        kit::runAlert(a);
    }
}

bool MovieDoc::printShowingPrintPanel(bool showPanel, QPrinter* given)
{
    if (!mMovieView) return false;
    QPrinter fallback(QPrinter::HighResolution);
    QPrinter* printer = given ? given : &fallback;
    if (showPanel) {
        QPrintDialog dialog(printer, mMovieWindow);
        if (dialog.exec() != QDialog::Accepted) return false;
    }
    QImage picture = mMovieView->currentPicture();
    if (picture.isNull()) picture = mMovieView->grab().toImage();
    QPainter painter;
    if (!painter.begin(printer)) return false;
    QRect page = painter.viewport();
    QSize size = picture.size().scaled(page.size(), Qt::KeepAspectRatio);
    painter.setViewport(page.x() + (page.width() - size.width()) / 2, page.y(), size.width(), size.height());
    painter.setWindow(picture.rect());
    painter.drawImage(0, 0, picture);
    return painter.end();
}
