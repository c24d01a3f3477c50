#include "DMApplication.h"

#include <QDialog>

#include <QDir>
#include <QFileInfo>

#include "DMAppDelegate.h"
#include "DMDocumentController.h"
#include "PXFeedbackProvider.h"
#include "PXUpdateChecker.h"
#include "MovieDoc.h"
#include "PointsText.h"
#include "SyncPointWindow.h"
#include "kit/UserDefaults.h"

#include "kit/Alert.h"
#include "updates/Resources.h"

#include <QAbstractSpinBox>
#include <QClipboard>
#include <QDir>
#include <QFileInfo>
#include <QActionGroup>
#include <QKeyEvent>
#include <QPointer>
#include <QLineEdit>
#include <QPlainTextEdit>
#include <QSocketNotifier>
#include <QTextEdit>
#include <QTimer>
#include <QWheelEvent>

#include <cerrno>
#include <csignal>
#include <iostream>
#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

namespace {
constexpr int kSyncMenuTag = 100;
const QChar kUpArrow(0xF700), kDownArrow(0xF701), kLeftArrow(0xF702), kRightArrow(0xF703);

// The signal handler's end of the pipe; the event loop reads the other.
int signalPipe[2] = {-1, -1};

extern "C" void onTerminationSignal(int signal)
{
    int saved = errno;
    unsigned char byte = static_cast<unsigned char>(signal);
    if (signalPipe[1] >= 0) {
        ssize_t n = ::write(signalPipe[1], &byte, 1);
        (void)n; // a full pipe already holds a request
    }
    errno = saved;
}

QString glyphFor(int tag, int reverse)
{
    switch (tag) {
    case 1:
    case 3:
    case 11: return QString::fromUtf8("\u21A9"); // Return
    case 2: return QString::fromUtf8("\u238B");  // Escape
    case 4: return QString::fromUtf8("\u232B");  // Delete left
    case 5: return reverse != -1 ? QString::fromUtf8("\u2192") : QString::fromUtf8("\u2190");
    case 6: return reverse != -1 ? QString::fromUtf8("\u2190") : QString::fromUtf8("\u2192");
    default: return {};
    }
}
} // namespace

DMApplication::DMApplication(int& argc, char** argv) : QApplication(argc, argv), selectorMapPtr_(std::make_unique<KeyTable>())
{
    setApplicationName("Dubmatch");
    setOrganizationName("Dubmatch");

    auto* file = new QMenu("&File");
    auto add = [this](QMenu* m, QString const& title, QString const& name, QKeySequence key, std::function<void()> f) {
        QAction* a = m->addAction(title);
        a->setObjectName(name);
        // The menus live in the movie windows' menu bars, but their keys work
        // in every window of the application (the sync point window too).
        a->setShortcutContext(Qt::ApplicationShortcut);
        if (!key.isEmpty()) a->setShortcut(key);
        connect(a, &QAction::triggered, this, f);
        return a;
    };
    auto controller = [] { return static_cast<DMDocumentController*>(kit::DocumentController::shared()); };
    auto current = [] { return qobject_cast<MovieDoc*>(kit::DocumentController::shared() ? kit::DocumentController::shared()->currentDocument() : nullptr); };
    add(file, "&Open\u2026", "openDocument", QKeySequence::Open, [controller] {
        if (controller()) controller()->openDocument();
    });
    // Open Recent: rebuilt each time it opens, from the list the controller keeps.
    auto* recent = file->addMenu("Open &Recent");
    recent->setObjectName("openRecent");
    connect(recent, &QMenu::aboutToShow, this, [recent, controller] {
        recent->clear();
        QStringList files = DMDocumentController::recentFiles();
        int n = 0;
        for (QString const& path : files) {
            QFileInfo info(path);
            QString title = QString("&%1 %2 \u2014 %3").arg(++n % 10).arg(info.fileName(), QDir::toNativeSeparators(info.absolutePath()));
            QAction* a = recent->addAction(title);
            a->setData(path);
            connect(a, &QAction::triggered, recent, [path, controller] {
                if (controller()) controller()->openDocumentWithContentsOfFile(path, true);
            });
        }
        if (files.isEmpty()) recent->addAction("No Recent Movies")->setEnabled(false);
        recent->addSeparator();
        QAction* clear = recent->addAction("&Clear Menu");
        clear->setEnabled(!files.isEmpty());
        connect(clear, &QAction::triggered, recent, [] { DMDocumentController::clearRecentFiles(); });
    });
    add(file, "Open &Demo Movie", "openDemo", {}, [controller] {
        if (controller()) controller()->openDemo();
    });
    file->addSeparator();
    add(file, "&Close", "performClose", QKeySequence::Close, [current] {
        if (auto* d = current()) d->movieWindow()->close();
    });
    add(file, "&Save", "saveDocument", QKeySequence::Save, [current] {
        if (auto* d = current()) d->saveDocument();
    });
    add(file, "Save &As\u2026", "saveDocumentAs", QKeySequence(Qt::CTRL | Qt::SHIFT | Qt::Key_S), [current] {
        if (auto* d = current()) d->saveDocumentAs();
    });
    add(file, "Save a Cop&y\u2026", "saveDocumentTo", {}, [current] {
        if (auto* d = current()) d->saveDocumentTo();
    });
    add(file, "&Export\u2026", "doExport", QKeySequence(Qt::CTRL | Qt::Key_E), [current] {
        if (auto* d = current()) d->doExport();
    });
    file->addSeparator();
    add(file, "&Import Sync Points\u2026", "importSyncPoints", {}, [current] {
        if (auto* d = current()) d->importSyncPoints();
    });
    add(file, "Expor&t Sync Points\u2026", "exportSyncPoints", {}, [current] {
        if (auto* d = current()) d->exportSyncPoints();
    });
    file->addSeparator();
    add(file, "&Print\u2026", "print", QKeySequence::Print, [current] {
        if (auto* d = current()) d->printShowingPrintPanel(true);
    });
    file->addSeparator();
    add(file, "&Quit", "terminate", QKeySequence(Qt::CTRL | Qt::Key_Q), [this] { terminate(); });

    auto* edit = new QMenu("&Edit");
    add(edit, "&Undo", "undo", QKeySequence::Undo, [current] {
        if (auto* d = current()) d->undo();
    });
    add(edit, "&Redo", "redo", QKeySequence::Redo, [current] {
        if (auto* d = current()) d->redo();
    });
    edit->addSeparator();
    add(edit, "&Copy Sync Points", "copySyncPoints", QKeySequence::Copy, [current] {
        auto* d = current();
        if (!d || !d->offsets()) return;
        // The text Export Sync Points writes and dubmatch-cli reads, exact.
        QApplication::clipboard()->setText(QString::fromStdString(formatPointsText(d->offsets()->points())));
    });

    edit->addSeparator();
    add(edit, "&Preferences\u2026", "showPreferences", QKeySequence::Preferences, [this] {
        if (delegate_) delegate_->showPreferences();
    });

    syncMenu_ = new QMenu("&Sync");
    syncMenu_->menuAction()->setData(kSyncMenuTag);
    addSyncItem("Start Sync Point", "startSync", 1, "");
    addSyncItem("Accept Sync Point", "acceptSync", 3, "");
    addSyncItem("Edit Sync Point", "editSync", 11, "");
    addSyncItem("Abandon Sync Point", "abandonSync", 2, QString(QChar(0x1b)));
    addSyncItem("Delete Sync Points", "deleteSync", 4, QString(QChar(0x7f)));
    syncMenu_->addSeparator();
    addSoundTrackMenu();
    syncMenu_->addSeparator();
    addSyncItem("Suggest Points\u2026", "suggestPoints", 12, "");
    addReferenceMenu();
    addSyncItem("Accept All Confident", "acceptConfident", 13, "");
    syncMenu_->addSeparator();
    addSyncItem("Advance Audio", "advanceAudio", 5, "");
    addSyncItem("Retard Audio", "retardAudio", 6, "");
    syncMenu_->addSeparator();
    addSyncItem("Expand Loop", "expandSelection", 7, "+");
    addSyncItem("Contract Loop", "contractSelection", 8, "-");
    addSyncItem("Move Loop Earlier", "advanceSelection", 9, "[");
    addSyncItem("Move Loop Later", "retardSelection", 10, "]");
    auto* window = new QMenu("&Window");
    add(window, "&Sync Points", "showInfo", QKeySequence(Qt::CTRL | Qt::Key_I), [current] {
        if (auto* d = current()) d->showInfo();
    });
    auto* help = new QMenu("&Help");
    add(help, "Dubmatch &Read Me", "showReadMe", QKeySequence::HelpContents, [this] {
        if (delegate_) delegate_->showReadMe();
    });
    help->addSeparator();
    add(help, "Check for &Updates\u2026", "checkForUpdates", {}, [this] {
        if (delegate_) delegate_->updateChecker()->checkForUpdates();
    });
    add(help, "Send &Feedback\u2026", "sendFeedback", {}, [this] {
        if (delegate_) delegate_->feedbackProvider()->sendFeedback();
    });
    add(help, "Feedback &Web Page", "openFeedbackPage", {}, [this] {
        if (delegate_) delegate_->feedbackProvider()->openURL();
    });
    help->addSeparator();
    add(help, "&About Dubmatch", "showAbout", {}, [this] { showAbout(); });
    menus_ = {file, edit, syncMenu_, window, help};
    for (QMenu* m : menus_) connect(m, &QMenu::aboutToShow, this, &DMApplication::updateMenu);
    // Closing the last document's windows ends the application.
    connect(this, &QGuiApplication::lastWindowClosed, this, &DMApplication::lastDocumentMayHaveClosed, Qt::QueuedConnection);
}

DMApplication::~DMApplication()
{
    for (QMenu* m : menus_) delete m;
}

DMApplication* DMApplication::instance() { return qobject_cast<DMApplication*>(QCoreApplication::instance()); }

QAction* DMApplication::addSyncItem(QString const& title, QString const& name, int tag, QString const& key)
{
    QAction* a = syncMenu_->addAction(title);
    a->setObjectName(name);
    a->setData(tag);
    a->setProperty("title", title);
    // The key the item answers to; kept apart from what the menu shows, so
    // every rebuild of the key table finds it again.
    a->setProperty("keyEquivalent", key);
    connect(a, &QAction::triggered, this, [this, name] { sendAction(name); });
    return a;
}

void DMApplication::addSoundTrackMenu()
{
    QMenu* menu = syncMenu_->addMenu("Sound &Track to Sync");
    menu->setObjectName("soundTrackMenu");
    QAction* item = menu->menuAction();
    item->setObjectName("soundTrackMenu");
    item->setData(0); // no key of its own
    item->setProperty("title", item->text());
    // Filled each time it opens, from the current document: every sound
    // track, the synced one checked; greyed when no other can be chosen.
    connect(menu, &QMenu::aboutToShow, this, [menu] {
        menu->clear();
        for (auto* g : menu->findChildren<QActionGroup*>(Qt::FindDirectChildrenOnly)) delete g;
        auto* dc = kit::DocumentController::shared();
        auto* doc = qobject_cast<MovieDoc*>(dc ? dc->currentDocument() : nullptr);
        if (!doc) return;
        bool enabled = doc->validateAction("chooseSoundTrack");
        int current = doc->soundTrackId();
        // One of them is synced: shown as a choice of one.
        auto* group = new QActionGroup(menu);
        for (dm::TrackPtr const& t : doc->soundTracks()) {
            QAction* a = menu->addAction(MovieDoc::soundTrackTitle(*t));
            group->addAction(a);
            a->setCheckable(true);
            a->setChecked(t->id() == current);
            a->setEnabled(enabled);
            a->setData(t->id());
            connect(a, &QAction::triggered, menu, [doc = QPointer<MovieDoc>(doc), id = t->id()] {
                if (doc && doc->validateAction("chooseSoundTrack")) doc->chooseSoundTrack(id);
            });
        }
        if (menu->isEmpty()) menu->addAction("No Sound Tracks")->setEnabled(false);
    });
}

void DMApplication::addReferenceMenu()
{
    QMenu* menu = syncMenu_->addMenu("Suggest Points &from a Sound Track");
    menu->setObjectName("referenceMenu");
    QAction* item = menu->menuAction();
    item->setObjectName("referenceMenu");
    item->setData(0);
    item->setProperty("title", item->text());
    // The movie's other sound tracks (the original language beside a dub),
    // then any other file; filled each time it opens.
    connect(menu, &QMenu::aboutToShow, this, [menu] {
        menu->clear();
        auto* dc = kit::DocumentController::shared();
        auto* doc = qobject_cast<MovieDoc*>(dc ? dc->currentDocument() : nullptr);
        if (!doc) return;
        bool enabled = doc->validateAction("suggestFromSound");
        for (dm::TrackPtr const& t : doc->soundTracks()) {
            if (t->id() == doc->soundTrackId()) continue;
            QAction* a = menu->addAction(MovieDoc::soundTrackTitle(*t));
            a->setEnabled(enabled);
            a->setData(t->id());
            connect(a, &QAction::triggered, menu, [doc = QPointer<MovieDoc>(doc), id = t->id()] {
                if (doc && doc->validateAction("suggestFromSound")) doc->suggestPointsFromTrack(id);
            });
        }
        if (!menu->isEmpty()) menu->addSeparator();
        QAction* file = menu->addAction("Another Movie or Sound File\u2026");
        file->setEnabled(enabled);
        connect(file, &QAction::triggered, menu, [doc = QPointer<MovieDoc>(doc)] {
            if (doc && doc->validateAction("suggestFromSound")) doc->suggestPointsFromFile();
        });
    });
}

void DMApplication::populateMenuBar(QMenuBar* bar)
{
    for (QMenu* m : menus_) bar->addMenu(m);
}

QMenu* DMApplication::getSyncMenu() const
{
    for (QMenu* m : menus_)
        if (m->menuAction()->data().toInt() == kSyncMenuTag) return m;
    return nullptr;
}

QAction* DMApplication::actionNamed(QString const& name) const
{
    for (QMenu* m : menus_)
        for (QAction* a : m->actions())
            if (a->objectName() == name) return a;
    return nullptr;
}

void DMApplication::muckWithMenu()
{
    selectorMapPtr_->clear();
    QMenu* sync = getSyncMenu();
    if (!sync) {
        std::cerr << "Dubmatch: Major error! Sync menu not found" << std::endl;
        return;
    }
    int reverse = kit::UserDefaults<int>("reverseArrows");
    auto enter = [this](QString const& key, QAction* a) { selectorMapPtr_->emplace(NSStringWrapper(key), a); };
    for (QAction* a : sync->actions()) {
        if (a->isSeparator()) continue;
        int tag = a->data().toInt();
        QString key = a->property("keyEquivalent").toString();
        switch (tag) {
        case 0: break;
        case 1:
        case 3:
        case 11:
            enter(QString(QChar(0x03)), a);
            enter(QString(QChar(0x0a)), a);
            enter(QString(QChar(0x0d)), a);
            break;
        case 5:
            if (reverse == 1) enter(QString(kRightArrow), a);
            else if (reverse == -1) enter(QString(kLeftArrow), a);
            break;
        case 6:
            if (reverse == 1) enter(QString(kLeftArrow), a);
            else if (reverse == -1) enter(QString(kRightArrow), a);
            break;
        case 7:
            if (!key.isEmpty()) enter(key, a);
            if (key == "+") enter("=", a);
            break;
        default:
            if (!key.isEmpty()) enter(key, a);
            break;
        }
        // The bare key after a tab: no Ctrl, and no Qt shortcut answers it.
        QString glyph = glyphFor(tag, reverse);
        if (glyph.isEmpty()) glyph = key;
        a->setText(a->property("title").toString() + (glyph.isEmpty() ? "" : "\t" + glyph));
    }
    updateMenu();
}

void DMApplication::updateMenu()
{
    auto* dc = kit::DocumentController::shared();
    auto* doc = qobject_cast<MovieDoc*>(dc ? dc->currentDocument() : nullptr);
    if (QMenu* sync = getSyncMenu())
        for (QAction* a : sync->actions())
            if (!a->isSeparator()) a->setEnabled(doc && doc->validateAction(a->objectName()));
    for (char const* name :
         {"performClose", "saveDocument", "saveDocumentAs", "saveDocumentTo", "copySyncPoints", "importSyncPoints", "exportSyncPoints"})
        if (QAction* a = actionNamed(name)) a->setEnabled(doc != nullptr && !doc->isBusy());
    if (QAction* a = actionNamed("undo")) {
        a->setEnabled(doc && doc->canUndo());
        a->setText(doc && !doc->undoText().isEmpty() ? "&Undo " + doc->undoText() : QString("&Undo"));
    }
    if (QAction* a = actionNamed("redo")) {
        a->setEnabled(doc && doc->canRedo());
        a->setText(doc && !doc->redoText().isEmpty() ? "&Redo " + doc->redoText() : QString("&Redo"));
    }
    for (char const* name : {"doExport", "print", "showInfo"})
        if (QAction* a = actionNamed(name)) a->setEnabled(doc != nullptr && doc->validateAction(name));
}

void DMApplication::reverseArrows()
{
    muckWithMenu();
    emit reverseArrowsChanged();
}

bool DMApplication::sendAction(QString const& name)
{
    auto* dc = kit::DocumentController::shared();
    auto* doc = qobject_cast<MovieDoc*>(dc ? dc->currentDocument() : nullptr);
    return doc && doc->performAction(name);
}

QString DMApplication::characters(QKeyEvent const* e)
{
    switch (e->key()) {
    case Qt::Key_Return: return QString(QChar(0x0d));
    case Qt::Key_Enter: return QString(QChar(0x03));
    case Qt::Key_Escape: return QString(QChar(0x1b));
    case Qt::Key_Delete:
    case Qt::Key_Backspace: return QString(QChar(0x7f));
    case Qt::Key_Left: return QString(kLeftArrow);
    case Qt::Key_Right: return QString(kRightArrow);
    case Qt::Key_Up: return QString(kUpArrow);
    case Qt::Key_Down: return QString(kDownArrow);
    default: return e->text();
    }
}

MovieDoc* DMApplication::documentFor(QObject* receiver)
{
    auto* w = qobject_cast<QWidget*>(receiver);
    if (!w) return nullptr;
    for (QWidget* win = w->window(); win; win = win->parentWidget() ? win->parentWidget()->window() : nullptr) {
        QVariant v = win->property("dubmatchDocument");
        if (v.isValid()) return qobject_cast<MovieDoc*>(v.value<QObject*>());
        if (!win->parentWidget()) break;
    }
    return nullptr;
}

bool DMApplication::keyBelongsToWidget(QObject* receiver)
{
    // An open menu, a dialog in front, or a text field that is typed into
    // takes its keys before the document's key table.
    if (QApplication::activePopupWidget()) return true;
    if (QWidget* modal = QApplication::activeModalWidget(); modal && !documentFor(modal)) return true;
    if (qobject_cast<QLineEdit*>(receiver) || qobject_cast<QAbstractSpinBox*>(receiver) || qobject_cast<QTextEdit*>(receiver) ||
        qobject_cast<QPlainTextEdit*>(receiver))
        return true;
    if (MovieDoc* doc = documentFor(receiver))
        if (auto* table = doc->getTableView(); table && table->isEditing()) return true;
    return false;
}

bool DMApplication::terminate()
{
    if (terminating_) return false;
    terminating_ = true;
    auto* dc = kit::DocumentController::shared();
    QList<QPointer<kit::Document>> docs;
    if (dc)
        for (auto* d : dc->documents()) docs.push_back(d);
    // Every document is asked first; one Cancel keeps them all open.
    for (auto const& d : docs) {
        if (!d || d->isClosed()) continue;
        bool may = false;
        d->canClose([&may](bool ok) { may = ok; });
        if (!may) {
            terminating_ = false;
            return false;
        }
    }
    for (auto const& d : docs)
        if (d) d->close();
    // Every other window goes too (the preferences, the Read Me).
    for (QWidget* w : QApplication::topLevelWidgets())
        if (w->isVisible()) w->hide();
    terminating_ = false;
    quit();
    return true;
}

void DMApplication::lastDocumentMayHaveClosed()
{
    auto* dc = kit::DocumentController::shared();
    if (dc && !dc->documents().isEmpty()) return;
    for (QWidget* w : QApplication::topLevelWidgets())
        if (w->isVisible() && w->isWindow() && !w->inherits("QMenu")) return;
    quit();
}

void DMApplication::terminateOnceUnblocked()
{
    // A dialog open when the signal came (a question, an open panel) is
    // given up as Cancel would, then the documents are asked as Quit asks
    // them: a document with changes still puts its save question.
    if (QWidget* modal = QApplication::activeModalWidget()) {
        if (auto* dialog = qobject_cast<QDialog*>(modal)) dialog->reject();
        else modal->close();
        QTimer::singleShot(50, this, &DMApplication::terminateOnceUnblocked);
        return;
    }
    terminate();
}

void DMApplication::installSignalHandlers()
{
    if (signalPipe[0] >= 0) return;
    if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, signalPipe) != 0) {
        std::cerr << "Dubmatch: no termination signal pipe\n";
        return;
    }
    ::fcntl(signalPipe[1], F_SETFL, ::fcntl(signalPipe[1], F_GETFL) | O_NONBLOCK);
    auto* notifier = new QSocketNotifier(signalPipe[0], QSocketNotifier::Read, this);
    connect(notifier, &QSocketNotifier::activated, this, [this] {
        unsigned char byte = 0;
        if (::read(signalPipe[0], &byte, 1) != 1) return;
        emit terminationRequested(byte);
        QTimer::singleShot(0, this, &DMApplication::terminateOnceUnblocked);
    });
    struct sigaction action {};
    action.sa_handler = onTerminationSignal;
    sigemptyset(&action.sa_mask);
    action.sa_flags = SA_RESTART;
    sigaction(SIGINT, &action, nullptr);
    sigaction(SIGTERM, &action, nullptr);
}

void DMApplication::showAbout()
{
    kit::AlertSpec spec;
    spec.title = "About " + DMAppDelegate::bundleName();
    QString version = resources::infoString("CFBundleShortVersionString");
    if (version.isEmpty()) version = resources::infoString("CFBundleVersion");
    spec.message = DMAppDelegate::bundleName() + (version.isEmpty() ? QString() : " " + version);
    spec.informative = "Repairs the synchronisation between the picture and the sound of a movie: make sync points where the "
                       "lips match, and the sound track is re-timed to follow them.\n\nBuilt with Qt " +
                       QString(qVersion()) + ", FFmpeg and SDL.";
    spec.icon = QMessageBox::Information;
    kit::runAlert(spec);
}

bool DMApplication::notify(QObject* receiver, QEvent* event)
{
    if (receiver && receiver->isWidgetType()) {
        switch (event->type()) {
        case QEvent::Wheel: {
            MovieDoc* doc = documentFor(receiver);
            if (doc && doc->syncInProgress()) {
                doc->scrollWheel(static_cast<QWheelEvent*>(event)->angleDelta().y() / 120.0);
                return true;
            }
            break;
        }
        case QEvent::MouseButtonPress: {
            if (static_cast<QMouseEvent*>(event)->button() != Qt::MiddleButton) break;
            if (MovieDoc* doc = documentFor(receiver)) {
                doc->otherMouseDown();
                return true;
            }
            break;
        }
        case QEvent::KeyPress: {
            auto* key = static_cast<QKeyEvent*>(event);
            if (key->modifiers() & Qt::ControlModifier) break;
            if (keyBelongsToWidget(receiver)) break;
            MovieDoc* doc = documentFor(receiver);
            if (!doc) break;
            auto range = selectorMapPtr_->equal_range(NSStringWrapper(characters(key)));
            if (range.first != range.second) {
                updateMenu();
                for (auto it = range.first; it != range.second; ++it)
                    if (it->second->isEnabled() && sendAction(it->second->objectName())) return true;
            }
            // Keys the Sync menu did not take move the play head in the movie window.
            QWidget* w = static_cast<QWidget*>(receiver);
            if (doc->movieWindow() && w->window() == doc->movieWindow() && doc->transportKey(key->key(), key->modifiers())) return true;
            break;
        }
        default: break;
        }
    }
    return QApplication::notify(receiver, event);
}
