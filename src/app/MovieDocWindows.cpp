// The document's windows: the movie window with its Sync controls and hint
// line, the sync point window, their placement and stacking, and the
// read-outs.
#include "MovieDoc.h"

#include "DMApplication.h"
#include "MovieView.h"
#include "ResidualPlot.h"
#include "WaveformStrip.h"
#include "SyncPointWindow.h"
#include "ValueTransformers.h"
#include "bridge.h"
#include "kit/UserDefaults.h"

#include <QApplication>
#include <QCryptographicHash>
#include <QFileInfo>
#include <QGuiApplication>
#include <QDragEnterEvent>
#include <QHBoxLayout>
#include <QMimeData>
#include <QPushButton>
#include <QScreen>
#include <QVBoxLayout>

namespace {

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

// The width of a movie window without a picture (a sound-only movie).
constexpr int kSoundOnlyWidth = 480;

QRect availableGeometryFor(QWidget const* w)
{
    QScreen* screen = w && w->screen() ? w->screen() : QGuiApplication::primaryScreen();
    return screen ? screen->availableGeometry() : QRect(0, 0, 1280, 800);
}

} // namespace

void MovieDoc::makeWindowControllers()
{
    auto* window = new MovieWindow;
    window->setProperty("dubmatchDocument", QVariant::fromValue(static_cast<QObject*>(this)));
    auto* central = new QWidget(window);
    auto* layout = new QVBoxLayout(central);
    layout->setContentsMargins(0, 0, 0, 0);
    layout->setSpacing(0);
    mMovieView = new MovieView(central);
    mMovieView->setFocusPolicy(Qt::StrongFocus);
    instruction_ = new QLabel(central);
    instruction_->setObjectName("instruction");
    instruction_->setWordWrap(true);
    instruction_->setAlignment(Qt::AlignLeft | Qt::AlignTop);
    instruction_->setContentsMargins(8, 4, 8, 6);
    layout->addWidget(mMovieView, 1);
    // The loop's sound while a point is in progress (only for movies with sound and picture).
    if (session_ && !opened_->movie().tracksOfMediaType(dm::MediaType::Video).empty()) {
        waveform_ = new WaveformStrip(central);
        layout->addWidget(waveform_);
    }
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

    attachPlayerToView();
    QSize natural = mMovieView->naturalSize();
    connect(mMovieView, &MovieView::playToggled, this, &MovieDoc::togglePlay);
    window->installEventFilter(this);
    if (auto* app = DMApplication::instance()) {
        connect(app, &DMApplication::reverseArrowsChanged, this, &MovieDoc::reloadTable, Qt::UniqueConnection);
        connect(app, &DMApplication::outputDelayChanged, this, [this] {
            if (player_) player_->setOutputDelay(kit::UserDefaults<float>("soundOutputDelay"));
        });
    }
    instruction_->setText(instructionForMode(movieMode()));
    // The window fits the movie's natural size; large pictures are shown
    // smaller, so that the window fits the screen.
    QRect avail = availableGeometryFor(window);
    QSize bound = QSize(1280, 720).boundedTo(avail.size() - QSize(40, 200)).expandedTo(QSize(320, 180));
    QSize picture = natural.isEmpty() ? natural : natural.scaled(natural.boundedTo(bound), Qt::KeepAspectRatio);
    QSize content = windowContentSizeForMovieSize(picture);
    fitHintHeight(content.width());
    content = windowContentSizeForMovieSize(picture);
    window->resize(content.width(), content.height() + window->menuBar()->sizeHint().height());
    window->setMinimumSize(window->minimumSizeHint().expandedTo(QSize(kSoundOnlyWidth * 2 / 3, 0)));
    if (player_) onIdle(player_->currentTime());
    if (kit::UserDefaults<bool>("openInspector")) createInfoWindow(false);
}

void MovieDoc::attachPlayerToView()
{
    QSize natural;
    double seconds = 0;
    if (opened_) {
        for (auto const& t : opened_->movie().tracksOfMediaType(dm::MediaType::Video))
            if (t->isEnabled()) {
                auto const& m = media::OpenedMovie::mediaOf(*t);
                auto [w, h] = m.displaySize(); // turned and in its pixels' shape, as the picture is shown
                natural = QSize(w, h);
                break;
            }
        seconds = opened_->movie().duration().seconds();
    }
    mMovieView->setPlayer(player_.get(), natural, seconds);
}

void MovieDoc::fitHintHeight(int width)
{
    // As tall as the longest hint needs at this width: the picture keeps
    // its size whatever the mode.
    if (!instruction_) return;
    QMargins m = instruction_->contentsMargins();
    int textWidth = std::max(40, width - m.left() - m.right());
    int tallest = 0;
    for (char const* mode : {"noPoints", "pointInProgress", "endNeedsSync", "checkRedDiamonds", "morePointsIfNeeded"}) {
        QRect r = instruction_->fontMetrics().boundingRect(QRect(0, 0, textWidth, 10000), Qt::TextWordWrap, instructionForMode(mode));
        tallest = std::max(tallest, r.height());
    }
    int height = tallest + m.top() + m.bottom() + 2;
    if (instruction_->height() != height || instruction_->minimumHeight() != height) instruction_->setFixedHeight(height);
}

QSize MovieDoc::windowContentSizeForMovieSize(QSize movieSize) const
{
    QSize s = movieSize;
    if (mMovieView && mMovieView->isControllerVisible()) s.setHeight(s.height() + mMovieView->controllerBarHeight());
    if (instruction_) s.setHeight(s.height() + instruction_->height());
    if (waveform_) s.setHeight(s.height() + waveform_->height());
    if (controls_) s.setHeight(s.height() + controls_->sizeHint().height());
    // A movie without a picture still gets a usable bar and a readable hint.
    if (s.width() < kSoundOnlyWidth && movieSize.isEmpty()) s.setWidth(kSoundOnlyWidth);
    if (controls_) s.setWidth(std::max(s.width(), controls_->sizeHint().width()));
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

void MovieDoc::rememberSelection()
{
    if (auto* wc = findInfoWindowController()) {
        IndexSet selected = selectedRows();
        wc->residualPlot()->setSelectedRows(std::set<int>(selected.begin(), selected.end()));
    }
    selectedTimes_.clear();
    for (int r : selectedRows())
        if (r < numberOfRows() && !(syncInProgress() && r == syncRow())) selectedTimes_.push_back(GetOffset(r).movieTime);
}

void MovieDoc::setSelectedRows(IndexSet rows)
{
    DMTableView* t = getTableView();
    if (!t) return;
    QItemSelection sel;
    for (int r : rows)
        if (r >= 0 && r < t->model()->rowCount()) sel.select(t->model()->index(r, 0), t->model()->index(r, t->model()->columnCount() - 1));
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
        connect(this, &kit::Document::fileNameChanged, wc->window(), [this, w = wc->window()] {
            w->setWindowTitle(infoWindowTitle());
        });
        setDurationDisplay();
        previousPlayTime_ = myQTTime(-1LL, 1); // the read-out fills at the next idle tick
        if (player_) onIdle(player_->currentTime());
    }
    if (show) {
        if (mMovieWindow && mMovieWindow->isVisible()) placeBeside(wc->window(), mMovieWindow);
        wc->showWindow();
    }
    dontOrder_ = false;
}

void MovieDoc::placeBeside(QWidget* window, QWidget* anchor)
{
    // The first time only: beside the anchor, never over it, on the screen.
    if (window->property("placed").toBool()) return;
    window->setProperty("placed", true);
    QRect avail = availableGeometryFor(anchor);
    QRect a = anchor->frameGeometry();
    QSize size = window->frameGeometry().size().boundedTo(avail.size());
    constexpr int gap = 8;
    int x;
    if (a.right() + gap + size.width() <= avail.right()) x = a.right() + gap;
    else if (a.left() - gap - size.width() >= avail.left()) x = a.left() - gap - size.width();
    else {
        // No room either side: move the anchor left to make some.
        int wanted = a.width() + gap + size.width();
        int ax = std::max(avail.left(), avail.right() - wanted);
        anchor->move(ax, anchor->pos().y());
        a = anchor->frameGeometry();
        x = std::min(a.right() + gap, avail.right() - size.width());
    }
    int y = std::clamp(a.top(), avail.top(), std::max(avail.top(), avail.bottom() - size.height()));
    window->move(x, y);
}

void MovieDoc::placeWindows()
{
    // The first time: the movie window and the sync point window side by
    // side, the pair centred on the screen. The window manager is told the
    // positions before the windows map, so it does not cascade them.
    if (!mMovieWindow || mMovieWindow->property("placed").toBool()) return;
    mMovieWindow->setProperty("placed", true);
    if (restoreWindowPositions()) return;
    QRect avail = availableGeometryFor(mMovieWindow);
    constexpr int frame = 12, gap = 12; // room for the window manager's borders
    QWidget* info = getInfoWindow();
    int infoWidth = info && !info->property("placed").toBool() ? info->width() + frame + gap : 0;
    int total = mMovieWindow->width() + frame + infoWidth;
    int x = avail.left() + std::max(0, (avail.width() - total) / 2);
    int y = avail.top() + std::max(0, (avail.height() - mMovieWindow->height() - 40) / 3);
    mMovieWindow->move(x, y);
    if (infoWidth) {
        info->move(x + mMovieWindow->width() + frame + gap, y);
        info->setProperty("placed", true);
    }
}

namespace {
QString positionsKey(QString const& file)
{
    QByteArray hash = QCryptographicHash::hash(QFileInfo(file).absoluteFilePath().toUtf8(), QCryptographicHash::Sha1);
    return "windowPositions/" + QString::fromLatin1(hash.toHex().left(16));
}

// Whether a window at `topLeft` would show its title bar on some screen.
bool onSomeScreen(QPoint topLeft)
{
    for (QScreen* screen : QGuiApplication::screens())
        if (screen->availableGeometry().adjusted(-40, 0, -40, -40).contains(topLeft + QPoint(40, 10))) return true;
    return false;
}
} // namespace

bool MovieDoc::restoreWindowPositions()
{
    if (fileName().isEmpty()) return false;
    QVariantMap saved = kit::Defaults::standard().value(positionsKey(fileName())).toMap();
    QPoint movie = saved.value("movie").toPoint();
    if (!saved.contains("movie") || !onSomeScreen(movie)) return false;
    mMovieWindow->move(movie);
    QWidget* info = getInfoWindow();
    if (info && saved.contains("points") && onSomeScreen(saved.value("points").toPoint())) {
        info->move(saved.value("points").toPoint());
        info->setProperty("placed", true);
    }
    return true;
}

void MovieDoc::rememberWindowPositions()
{
    if (fileName().isEmpty() || !mMovieWindow || !mMovieWindow->property("placed").toBool()) return;
    QVariantMap saved;
    saved["movie"] = mMovieWindow->pos();
    QWidget* info = getInfoWindow();
    if (info && info->property("placed").toBool()) saved["points"] = info->pos();
    kit::Defaults::standard().setValue(positionsKey(fileName()), saved);
}

void MovieDoc::showWindows()
{
    placeWindows();
    dontOrder_ = true;
    QWidget* previous = nullptr;
    for (auto* wc : windowControllers()) {
        if (!wc->window()) continue;
        if (!previous) wc->showWindow();
        else {
            placeBeside(wc->window(), previous);
            wc->window()->show();
            wc->window()->stackUnder(previous);
        }
        previous = wc->window();
    }
    if (mMovieWindow) {
        mMovieWindow->raise();
        mMovieWindow->activateWindow();
        if (mMovieView) mMovieView->setFocus();
    }
    dontOrder_ = false;
}

bool MovieDoc::eventFilter(QObject* watched, QEvent* event)
{
    if (event->type() == QEvent::WindowActivate) windowBecameKey(qobject_cast<QWidget*>(watched));
    if (event->type() == QEvent::Hide && watched == mMovieWindow) rememberWindowPositions();
    if (event->type() == QEvent::Resize && watched == mMovieWindow) fitHintHeight(mMovieWindow->width());
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
    auto* wc = findInfoWindowController();
    if (!wc) return;
    DMTableView* table = wc->tableView();
    // The selection follows the points it marked, not their row numbers
    // (which a new point or the point in progress shifts).
    std::vector<myQTTime> const marked = selectedTimes_;
    {
        QSignalBlocker block(table->selectionModel());
        wc->model()->reloadData();
        IndexSet keep;
        for (int r = 0; r < numberOfRows(); ++r) {
            myQTTime t = GetOffset(r).movieTime;
            bool inProgress = syncInProgress() && r == syncRow();
            if (!inProgress && std::any_of(marked.begin(), marked.end(), [&](myQTTime const& m) { return m == t; })) keep.insert(r);
        }
        setSelectedRows(keep);
        rememberSelection();
    }
    wc->window()->setWindowTitle(infoWindowTitle());
    updateResidualPlot();
}

QString MovieDoc::infoWindowTitle() const
{
    QString title = OffsetListWindowController::windowTitleForDocumentDisplayName(displayName());
    // With a choice of sound tracks, the one synced is named.
    if (!session_ || soundTracks().size() < 2) return title;
    dm::TrackPtr const& sound = session_->offsets()->soundTrack();
    return title + QString(" \u2014 Track %1 \"%2\"").arg(sound->id()).arg(QString::fromStdString(sound->displayName()));
}

void MovieDoc::updateResidualPlot()
{
    auto* wc = findInfoWindowController();
    if (!wc || !session_) return;
    wc->residualPlot()->setPoints(ResidualPlot::pointsOf(*session_->offsets(), syncInProgress() ? syncRow() : -1),
                                  opened_ ? opened_->movie().duration().seconds() : 1);
    IndexSet selected = selectedRows();
    wc->residualPlot()->setSelectedRows(std::set<int>(selected.begin(), selected.end()));
}

void MovieDoc::setDurationDisplay()
{
    auto* wc = findInfoWindowController();
    if (!wc || !opened_) return;
    wc->durationDisplay()->setText(QString::fromStdString(opened_->movie().duration().asString(0, 3)));
}

void MovieDoc::setTimeDisplay()
{
    auto* wc = findInfoWindowController();
    if (!wc || !player_) return;
    myQTTime now = player_->currentTime();
    QString text = QString::fromStdString(now.asString(durationFields(), 3));
    if (wc->timeDisplay()->text() != text) wc->timeDisplay()->setText(text);
}

void MovieDoc::updateWaveform()
{
    if (!waveform_ || !session_) return;
    if (!session_->syncInProgress()) {
        waveform_->clear();
        return;
    }
    dm::TrackPtr const& sound = session_->offsets()->soundTrack();
    double frameSeconds = 0;
    for (auto const& t : opened_->movie().tracksOfMediaType(dm::MediaType::Video))
        if (t->isEnabled()) {
            frameSeconds = media::OpenedMovie::mediaOf(*t).frameSeconds();
            break;
        }
    waveform_->show(sound, sound->ticks(session_->startTime()), sound->ticks(session_->endTime()), frameSeconds);
}
