// The application as people use it: the real file panels, Quit and the
// termination signals, which keys reach which widget, the keyboard
// transport, the cell editor, the window layout, and that no edit is lost.
#include "AppTestSupport.h"
#include "DMApplication.h"
#include "DMDocumentController.h"
#include "MediaTestSupport.h"
#include "MovieDoc.h"
#include "MovieView.h"
#include "DMAppDelegate.h"
#include "PreferencesWindow.h"
#include "SyncPointWindow.h"
#include "SyncSession.h"
#include "kit/Alert.h"
#include "kit/UserDefaults.h"

#include <QComboBox>
#include <QFileDialog>
#include <QLineEdit>
#include <QMenu>
#include <QMenuBar>
#include <QSpinBox>
#include <QTest>
#include <QThread>
#include <QTimer>

#include <QDialog>
#include <gtest/gtest.h>

#include <csignal>
#include <random>
#include <sys/stat.h>
#include <unistd.h>

using namespace testsupport;

namespace {

constexpr int kRate = 48000;

DMDocumentController& controller() { return *static_cast<DMDocumentController*>(kit::DocumentController::shared()); }

myQTTime at(double s) { return myQTTime(static_cast<long long>(std::llround(s * kRate)), kRate); }

// Qt's warnings while it lives.
struct WarningRecorder {
    static inline std::vector<std::string>* sink = nullptr;
    std::vector<std::string> warnings;
    QtMessageHandler previous;
    WarningRecorder()
    {
        sink = &warnings;
        previous = qInstallMessageHandler([](QtMsgType type, QMessageLogContext const&, QString const& m) {
            if (type != QtDebugMsg && type != QtInfoMsg && sink) sink->push_back(m.toStdString());
        });
    }
    ~WarningRecorder()
    {
        qInstallMessageHandler(previous);
        sink = nullptr;
    }
};

class RealUse : public DocumentTest {
protected:
    // A copy of `movie` in `dir`, opened: for tests that save.
    MovieDoc* openCopy(ScratchDir const& dir, std::string const& name, std::string const& movie)
    {
        std::string path = dir.file(name);
        writeFile(path, readFile(movie));
        return open(path);
    }
    static bool key(QWidget* w, Qt::Key k, Qt::KeyboardModifiers m = Qt::NoModifier, QString text = {})
    {
        QKeyEvent press(QEvent::KeyPress, k, m, text);
        QApplication::sendEvent(w, &press);
        return press.isAccepted();
    }
    // Runs `answer` on the next modal file dialog that opens.
    static void onFileDialog(std::function<void(QFileDialog&)> answer)
    {
        auto* poll = new QTimer;
        auto seen = std::make_shared<int>(0);
        QObject::connect(poll, &QTimer::timeout, poll, [poll, answer, seen] {
            for (QWidget* w : QApplication::topLevelWidgets()) {
                auto* d = qobject_cast<QFileDialog*>(w);
                if (!d || !d->isVisible()) continue;
                // As a person would: once the panel has listed its folder
                // (which selects the proposed file again).
                if (++*seen < 40) return;
                poll->stop();
                poll->deleteLater();
                answer(*d);
                return;
            }
        });
        poll->start(10);
    }
};

std::string movie12() { return cachedMovie("realuse-12s.mov", smallSpec(12, 0.0, 1.0)); }

TEST_F(RealUse, ExportThroughTheRealPanelTakesTheFormatsExtension)
{
    ScratchDir dir;
    MovieDoc* doc = openCopy(dir, "talk.mov", movie12());
    ASSERT_TRUE(doc);
    AlertRecorder alerts;

    // Cancelled: nothing written, nothing freed twice.
    onFileDialog([](QFileDialog& d) { d.reject(); });
    doc->doExport();
    EXPECT_EQ(listDir(dir.path()), std::vector<std::string>{"talk.mov"});

    // MPEG-4 chosen in the real panel: the proposed name follows it.
    QString shownName;
    onFileDialog([&](QFileDialog& d) {
        auto* chooser = d.findChild<QComboBox*>("exportType");
        ASSERT_TRUE(chooser);
        chooser->setCurrentIndex(chooser->findText("MPEG-4"));
        for (auto* edit : d.findChildren<QLineEdit*>())
            if (edit->isVisible() && edit->text().startsWith("talk")) shownName = edit->text();
        QMetaObject::invokeMethod(&d, "accept");
    });
    doc->doExport();
    EXPECT_EQ(shownName, "talk.mp4");
    EXPECT_TRUE(exists(dir.file("talk.mp4")));
    EXPECT_TRUE(alerts.shown.empty());

    // Through a panel that answers with the old extension: the file still
    // gets the format's.
    kit::setSavePanelResponder([&](kit::SavePanelSpec const& s) {
        auto* chooser = s.accessory->findChild<QComboBox*>("exportType");
        chooser->setCurrentIndex(chooser->findText("MPEG-4"));
        return QString::fromStdString(dir.file("copy.mov"));
    });
    doc->doExport();
    EXPECT_TRUE(exists(dir.file("copy.mp4")));
    EXPECT_FALSE(exists(dir.file("copy.mov")));
    EXPECT_EQ(MovieDoc::exportPathWithExtension("/a/b.x.mov", "mp4"), "/a/b.x.mp4");
    EXPECT_EQ(MovieDoc::exportPathWithExtension("/a/notes.txt", "aiff"), "/a/notes.txt.aiff");
}

TEST_F(RealUse, QuitAsksEveryDocumentAndSignalsAskAsQuitDoes)
{
    auto* app = DMApplication::instance();
    MovieDoc* a = open(movie12());
    MovieDoc* b = open(cachedMovie("realuse-other.mov", smallSpec(6, 0.0, 1.0)));
    ASSERT_TRUE(a && b);
    focus(b);
    b->player()->setCurrentTime(at(5));
    b->startSync();
    b->acceptSync();
    ASSERT_TRUE(b->isDocumentEdited());
    {
        AlertRecorder alerts;
        alerts.answer = 1; // Cancel: nothing closes
        EXPECT_FALSE(app->terminate());
        ASSERT_EQ(alerts.shown.size(), 1u);
        EXPECT_EQ(controller().documents().size(), 2);
    }
    {
        AlertRecorder alerts;
        alerts.answer = 2; // Don't Save
        EXPECT_TRUE(app->terminate());
        EXPECT_EQ(alerts.shown.size(), 1u);
        EXPECT_TRUE(controller().documents().isEmpty());
    }
    QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);

    // SIGTERM and SIGINT reach the event loop and ask the same way.
    app->installSignalHandlers();
    MovieDoc* c = open(movie12());
    ASSERT_TRUE(c);
    std::vector<int> received;
    auto connection = QObject::connect(app, &DMApplication::terminationRequested, [&](int s) { received.push_back(s); });
    std::raise(SIGTERM);
    EXPECT_TRUE(QTest::qWaitFor([&] { return controller().documents().isEmpty(); }, 3000));
    std::raise(SIGINT);
    EXPECT_TRUE(QTest::qWaitFor([&] { return received.size() == 2; }, 3000));
    QTest::qWait(100); // its Quit runs too, with nothing left to ask
    EXPECT_EQ(received, (std::vector<int>{SIGTERM, SIGINT}));

    // A dialog open when the signal comes is given up, and Quit goes on.
    MovieDoc* d = open(movie12());
    ASSERT_TRUE(d);
    bool dialogEnded = false, dialogWasUp = false;
    QTimer::singleShot(0, [&] {
        QDialog question;
        question.setWindowTitle("A question nobody answers");
        QTimer::singleShot(200, [&] {
            dialogWasUp = QApplication::activeModalWidget() == &question;
            std::raise(SIGTERM);
        });
        QTimer::singleShot(8000, &question, &QDialog::reject); // a broken signal path fails the test, not hangs it
        question.exec();
        dialogEnded = true;
    });
    EXPECT_TRUE(QTest::qWaitFor([&] { return dialogEnded && controller().documents().isEmpty(); }, 4000));
    EXPECT_TRUE(dialogWasUp);
    QObject::disconnect(connection);
    EXPECT_EQ(received, (std::vector<int>{SIGTERM, SIGINT, SIGTERM}));
}

TEST_F(RealUse, MenusAndEditorsTakeTheirKeysFirst)
{
    MovieDoc* doc = open(movie12());
    ASSERT_TRUE(doc);
    doc->player()->setCurrentTime(at(6));
    QMenu* sync = DMApplication::instance()->getSyncMenu();
    sync->popup(QPoint(10, 10));
    ASSERT_TRUE(QTest::qWaitFor([&] { return QApplication::activePopupWidget() == sync; }, 2000));
    key(doc->movieView(), Qt::Key_Return);
    EXPECT_FALSE(doc->syncInProgress()); // the open menu had Return
    sync->close();
    ASSERT_TRUE(QTest::qWaitFor([&] { return !QApplication::activePopupWidget(); }, 2000));
    focus(doc);
    key(doc->movieView(), Qt::Key_Return);
    ASSERT_TRUE(doc->syncInProgress());

    // An open cell editor has Escape and Return; the point stays in progress.
    doc->createInfoWindow(true);
    DMTableView* table = doc->getTableView();
    QApplication::setActiveWindow(doc->getInfoWindow());
    table->edit(table->model()->index(doc->syncRow(), OffsetTableModel::kOffset));
    ASSERT_TRUE(table->isEditing());
    QWidget* editor = table->cellDelegate()->openEditor();
    ASSERT_TRUE(editor);
    key(editor, Qt::Key_Escape);
    EXPECT_TRUE(doc->syncInProgress());
    table->edit(table->model()->index(doc->syncRow(), OffsetTableModel::kOffset));
    editor = table->cellDelegate()->openEditor();
    ASSERT_TRUE(editor);
    static_cast<QLineEdit*>(editor)->setText("30");
    key(editor, Qt::Key_Return);
    QCoreApplication::processEvents();
    EXPECT_TRUE(doc->syncInProgress()); // Return ended the edit, it did not accept the point
    EXPECT_NEAR(doc->session()->displayedOffset(doc->syncRow()), 30, 1e-3);
}

TEST_F(RealUse, KeyboardTransportOutsideASync)
{
    MovieDoc* doc = open(movie12());
    ASSERT_TRUE(doc);
    media::Player* p = doc->player();
    p->setCurrentTime(at(5));
    QWidget* view = doc->movieView();
    key(view, Qt::Key_Right, Qt::ShiftModifier);
    EXPECT_NEAR(p->currentTime().seconds(), 6.0, 1e-6);
    key(view, Qt::Key_Left, Qt::ShiftModifier);
    key(view, Qt::Key_Left, Qt::ShiftModifier);
    EXPECT_NEAR(p->currentTime().seconds(), 4.0, 1e-6);
    key(view, Qt::Key_Right); // one frame of 25 fps
    EXPECT_NEAR(p->currentTime().seconds(), 4.04, 0.021);
    EXPECT_FALSE(p->isPlaying());
    key(view, Qt::Key_End);
    EXPECT_NEAR(p->currentTime().seconds(), 12.0, 1e-6);
    key(view, Qt::Key_Home);
    EXPECT_NEAR(p->currentTime().seconds(), 0.0, 1e-6);
    key(view, Qt::Key_L, Qt::NoModifier, "l");
    EXPECT_EQ(doc->shuttleRate(), 1.0);
    key(view, Qt::Key_L, Qt::NoModifier, "l");
    EXPECT_EQ(doc->shuttleRate(), 2.0);
    EXPECT_TRUE(p->isPlaying());
    key(view, Qt::Key_J, Qt::NoModifier, "j"); // the other way first slows to a stop
    EXPECT_EQ(doc->shuttleRate(), 0.0);
    key(view, Qt::Key_J, Qt::NoModifier, "j");
    EXPECT_EQ(doc->shuttleRate(), -1.0);
    key(view, Qt::Key_K, Qt::NoModifier, "k");
    EXPECT_EQ(doc->shuttleRate(), 0.0);
    EXPECT_FALSE(p->isPlaying());

    // In a sync the Sync menu keeps its keys: the arrows nudge the sound.
    p->setCurrentTime(at(6));
    key(view, Qt::Key_Return);
    ASSERT_TRUE(doc->syncInProgress());
    myQTTime audio = doc->audioTime();
    key(view, Qt::Key_Right, Qt::ShiftModifier);
    EXPECT_FALSE(doc->audioTime() == audio);
    EXPECT_LE(p->currentTime().seconds(), 6.0 + 1e-6); // still inside the loop
    EXPECT_FALSE(doc->transportKey(Qt::Key_Home, Qt::NoModifier));
}

TEST_F(RealUse, EditsAreNeverLost)
{
    ScratchDir dir;
    std::string path = dir.file("talk.mov");
    writeFile(path, readFile(cachedMovie("realuse-long.mov", smallSpec(60, 0.0, 1.0))));
    MovieDoc* doc = open(path);
    ASSERT_TRUE(doc);
    doc->offsets()->replacePoints({Offset(at(2), at(2.04)), Offset(at(50), at(50.04))});
    doc->createInfoWindow(true);
    doc->reloadTable();
    auto* model = doc->findInfoWindowController()->model();

    // A table edit marks the document edited, so closing asks.
    model->setData(model->index(0, OffsetTableModel::kOffset), "25", Qt::EditRole);
    EXPECT_TRUE(doc->isDocumentEdited());

    // While the save runs the table cannot change the movie.
    bool triedDuringSave = false;
    QTimer poll;
    QObject::connect(&poll, &QTimer::timeout, [&] {
        if (!doc->isBusy() || triedDuringSave) return;
        triedDuringSave = true;
        EXPECT_FALSE(model->flags(model->index(1, OffsetTableModel::kOffset)) & Qt::ItemIsEditable);
        model->setData(model->index(1, OffsetTableModel::kOffset), "90", Qt::EditRole);
    });
    poll.start(5);
    AlertRecorder alerts;
    doc->saveDocument();
    poll.stop();
    EXPECT_TRUE(triedDuringSave);
    EXPECT_NEAR(doc->offsets()->points()[1].offset().seconds(), -0.04, 1e-4);
    EXPECT_FALSE(doc->isDocumentEdited());
    for (auto const& a : alerts.shown) ADD_FAILURE() << a.message.toStdString();

    // After a save the next table edit counts again.
    model->setData(model->index(1, OffsetTableModel::kOffset), "-35", Qt::EditRole);
    EXPECT_TRUE(doc->isDocumentEdited());
}

// A document whose write makes one more change while it runs.
class ChangingDocument : public kit::Document {
public:
    bool readFromFile(QString const&, QString const&) override { return true; }
    bool writeToFile(QString const&, QString const&, kit::SaveOperation) override
    {
        updateChangeCount(kit::ChangeType::Done);
        return true;
    }
    QStringList writableTypes() const override { return {"Text"}; }
};

TEST(Kit, ChangesMadeDuringASaveStayCounted)
{
    ScratchDir dir;
    ChangingDocument doc;
    doc.setFileType("Text");
    doc.updateChangeCount(kit::ChangeType::Done);
    doc.updateChangeCount(kit::ChangeType::Done);
    ASSERT_TRUE(doc.saveToFile(QString::fromStdString(dir.file("a.txt")), kit::SaveOperation::Save));
    EXPECT_EQ(doc.changeCount(), 1);
    EXPECT_TRUE(doc.isDocumentEdited());
}

TEST_F(RealUse, TheCellEditorAndTheSelection)
{
    MovieDoc* doc = open(movie12());
    ASSERT_TRUE(doc);
    doc->offsets()->replacePoints({Offset(at(5), at(5.04)), Offset(at(9), at(9.04))});
    doc->createInfoWindow(true);
    doc->reloadTable();
    DMTableView* table = doc->getTableView();
    QApplication::setActiveWindow(doc->getInfoWindow());
    WarningRecorder warnings;

    // The editor hides the cell's text and commits with Return, quietly.
    table->setCurrentIndex(table->model()->index(0, OffsetTableModel::kOffset));
    table->edit(table->currentIndex());
    auto* editor = qobject_cast<QLineEdit*>(table->cellDelegate()->openEditor());
    ASSERT_TRUE(editor);
    EXPECT_TRUE(editor->autoFillBackground());
    EXPECT_EQ(editor->text(), "-40.0");
    editor->setText("-12.5");
    key(editor, Qt::Key_Return);
    QCoreApplication::processEvents();
    EXPECT_FALSE(table->isEditing());
    EXPECT_NEAR(doc->offsets()->points()[0].offset().seconds(), -0.0125, 1e-6);
    for (auto const& w : warnings.warnings) ADD_FAILURE() << w;

    // The selection stays on the point it marked when a point comes before it.
    doc->setSelectedRows({1}); // the point at 9 s
    focus(doc);
    doc->player()->setCurrentTime(at(4));
    doc->startSync();
    EXPECT_TRUE(doc->selectedRows().empty() || doc->GetOffset(*doc->selectedRows().begin()).movieTime == at(9));
    doc->acceptSync();
    ASSERT_EQ(doc->selectedRows().size(), 1u);
    EXPECT_TRUE(doc->GetOffset(*doc->selectedRows().begin()).movieTime == at(9));
}

TEST_F(RealUse, MenusShortcutsAndAbout)
{
    auto* app = DMApplication::instance();
    ScratchDir dir; // a copy: the test saves in place
    MovieDoc* doc = openCopy(dir, "menus.mov", movie12());
    ASSERT_TRUE(doc);
    // Every mnemonic is used once in its menu, and once in the menu bar.
    QSet<QChar> bar;
    for (QAction* top : doc->movieWindow()->menuBar()->actions()) {
        QString t = top->text();
        int amp = static_cast<int>(t.indexOf('&'));
        ASSERT_GE(amp, 0) << t.toStdString();
        EXPECT_FALSE(bar.contains(t[amp + 1].toLower())) << t.toStdString();
        bar.insert(t[amp + 1].toLower());
        QSet<QChar> items;
        for (QAction* a : top->menu()->actions()) {
            QString text = a->text().section('\t', 0, 0);
            int i = static_cast<int>(text.indexOf('&'));
            if (i < 0) continue;
            EXPECT_FALSE(items.contains(text[i + 1].toLower())) << text.toStdString();
            items.insert(text[i + 1].toLower());
        }
    }
    EXPECT_EQ(app->getSyncMenu()->title(), "&Sync");
    EXPECT_EQ(app->actionNamed("saveDocumentAs")->shortcut(), QKeySequence(Qt::CTRL | Qt::SHIFT | Qt::Key_S));

    // Ctrl+S works from the sync point window too.
    doc->player()->setCurrentTime(at(6));
    doc->startSync();
    doc->acceptSync();
    ASSERT_TRUE(doc->isDocumentEdited());
    doc->createInfoWindow(true);
    QWidget* info = doc->getInfoWindow();
    QApplication::setActiveWindow(info);
    ASSERT_TRUE(QTest::qWaitFor([&] { return QApplication::activeWindow() == info; }, 2000));
    int saveAsked = 0;
    kit::setSavePanelResponder([&](kit::SavePanelSpec const&) {
        ++saveAsked;
        return QString();
    });
    AlertRecorder alerts;
    QTest::keyClick(info, Qt::Key_S, Qt::ControlModifier);
    EXPECT_EQ(saveAsked, 0);
    EXPECT_FALSE(doc->isDocumentEdited()); // saved in place
    for (auto const& a : alerts.shown) ADD_FAILURE() << a.message.toStdString();

    app->actionNamed("showAbout")->trigger();
    ASSERT_EQ(alerts.shown.size(), 1u);
    EXPECT_TRUE(alerts.shown[0].title.contains("About"));
    EXPECT_TRUE(alerts.shown[0].message.startsWith("Dubmatch"));
}

TEST_F(RealUse, WindowLayout)
{
    ScratchDir dir;
    MovieDoc* doc = openCopy(dir, "interview.mov", movie12());
    ASSERT_TRUE(doc);
    doc->createInfoWindow(true);
    QWidget* info = doc->getInfoWindow();
    QWidget* movie = doc->movieWindow();
    EXPECT_FALSE(info->frameGeometry().intersects(movie->frameGeometry()));
    QRect screen = movie->screen()->availableGeometry();
    EXPECT_TRUE(screen.contains(info->frameGeometry().topLeft()));

    // The picture keeps its size whatever the hint says.
    int pictureHeight = doc->movieView()->height();
    doc->player()->setCurrentTime(at(6));
    doc->startSync();
    QCoreApplication::processEvents();
    EXPECT_EQ(doc->movieView()->height(), pictureHeight);
    doc->acceptSync();
    QCoreApplication::processEvents();
    EXPECT_EQ(doc->movieView()->height(), pictureHeight);

    // Save As renames the sync point window too.
    kit::setSavePanelResponder([&](kit::SavePanelSpec const& s) { return QString::fromStdString(dir.file(s.proposedName.toStdString())); });
    AlertRecorder alerts;
    doc->saveDocumentAs();
    EXPECT_EQ(info->windowTitle(), "interview-synced.mov Sync Points");

    // A movie without pictures still gets a usable window.
    std::string sound = dir.file("sound.aiff");
    media::exportMovie(*media::openMovie(movie12()).movie, sound, media::ExportType::AIFF);
    MovieDoc* audio = open(sound);
    ASSERT_TRUE(audio);
    EXPECT_GE(audio->movieWindow()->width(), 320);
    EXPECT_GE(audio->movieView()->height(), audio->movieView()->controllerBarHeight());
}

TEST_F(RealUse, PlaybackFaultsAreToldOnce)
{
    MovieDoc* doc = open(movie12());
    ASSERT_TRUE(doc);
    AlertRecorder alerts;
    emit doc->playbackFault("The sound stopped: decoder broke");
    emit doc->playbackFault("The pictures stopped: again");
    QCoreApplication::processEvents();
    ASSERT_EQ(alerts.shown.size(), 1u);
    EXPECT_TRUE(alerts.shown[0].informative.contains("decoder broke"));
}

} // namespace

namespace {

// A file the user may not mean to replace, and one another program changed:
// the save asks first, and never overwrites the other program's work.
TEST_F(RealUse, ProtectedAndChangedFilesAreNotReplacedBehindTheUsersBack)
{
    ScratchDir dir;
    std::string path = dir.file("locked.mov");
    std::string original = cachedMovie("realuse-protected.mov", smallSpec(12, 0.0, 1.0));
    writeFile(path, readFile(original));
    MovieDoc* doc = open(path);
    ASSERT_TRUE(doc);
    doc->offsets()->replacePoints({Offset(at(2), at(2.04)), Offset(at(10), at(10.04))});
    ::chmod(path.c_str(), 0444);
    std::string before = readFile(path);
    {
        AlertRecorder alerts;
        alerts.answer = 1; // Cancel
        doc->saveDocument();
        ASSERT_EQ(alerts.shown.size(), 1u);
        EXPECT_NE(alerts.shown[0].message.toStdString().find("write-protected"), std::string::npos);
        EXPECT_EQ(readFile(path), before);
    }
    {
        AlertRecorder alerts;
        alerts.answer = 0; // Replace
        doc->saveDocument();
        ASSERT_GE(alerts.shown.size(), 1u);
        EXPECT_NE(readFile(path), before);
        EXPECT_EQ(disabledSoundTracks(path), 1);
        struct stat st {};
        ::stat(path.c_str(), &st);
        EXPECT_EQ(st.st_mode & 0777, 0444u);
    }

    // Another program writes its own version of the file: the next save
    // stops, says so and offers a new name.
    ::chmod(path.c_str(), 0644);
    std::string theirs = readFile(original);
    writeFile(path, theirs);
    doc->offsets()->replacePoints({Offset(at(2), at(2.05)), Offset(at(10), at(10.05))});
    AlertRecorder alerts;
    alerts.answer = 1; // Cancel, not Save As
    doc->saveDocument();
    ASSERT_EQ(alerts.shown.size(), 1u);
    EXPECT_NE(alerts.shown[0].message.toStdString().find("changed by another program"), std::string::npos);
    ASSERT_EQ(alerts.shown[0].buttons.size(), 2);
    EXPECT_EQ(alerts.shown[0].buttons[0].toStdString(), "Save As...");
    EXPECT_EQ(readFile(path), theirs);
}

} // namespace

namespace {

// Open Recent lists what was opened, newest first, only files that still
// exist; each movie's windows come back where the user left them.
TEST_F(RealUse, RecentMoviesAndWindowPositionsAreRemembered)
{
    ScratchDir dir;
    DMDocumentController::clearRecentFiles();
    std::string first = dir.file("first.mov"), second = dir.file("second.mov"), gone = dir.file("gone.mov");
    for (auto const& p : {first, second, gone}) writeFile(p, readFile(movie12()));
    for (auto const& p : {gone, first, second}) ASSERT_TRUE(open(p));
    ::unlink(gone.c_str());
    EXPECT_EQ(DMDocumentController::recentFiles(), (QStringList{QString::fromStdString(second), QString::fromStdString(first)}));

    auto* app = static_cast<DMApplication*>(QApplication::instance());
    QMenu* recent = nullptr;
    for (auto* m : app->findChildren<QMenu*>())
        if (m->objectName() == "openRecent") recent = m;
    if (!recent)
        for (QWidget* w : QApplication::allWidgets())
            if (auto* m = qobject_cast<QMenu*>(w); m && m->objectName() == "openRecent") recent = m;
    ASSERT_TRUE(recent);
    emit recent->aboutToShow();
    QStringList titles;
    for (QAction* a : recent->actions())
        if (!a->isSeparator()) titles << a->text();
    ASSERT_EQ(titles.size(), 3) << titles.join("|").toStdString();
    EXPECT_TRUE(titles[0].startsWith("&1 second.mov")) << titles[0].toStdString();
    EXPECT_TRUE(titles[1].startsWith("&2 first.mov")) << titles[1].toStdString();
    EXPECT_EQ(titles[2], "&Clear Menu");

    // Choosing an entry opens that movie (here: the open one comes forward).
    for (auto* d : documents().documents()) {
        d->updateChangeCount(kit::ChangeType::Cleared);
        d->close();
    }
    QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
    recent->actions()[1]->trigger();
    ASSERT_EQ(documents().documents().size(), 1);
    auto* doc = qobject_cast<MovieDoc*>(documents().documents().front());
    EXPECT_EQ(doc->fileName(), QString::fromStdString(first));

    // Moved, closed, opened again: where it was left.
    QRect avail = doc->movieWindow()->screen()->availableGeometry();
    QPoint where = avail.topLeft() + QPoint(37, 41);
    doc->movieWindow()->move(where);
    QPoint actual = doc->movieWindow()->pos();
    doc->close();
    QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
    MovieDoc* again = open(first);
    ASSERT_TRUE(again);
    EXPECT_EQ(again->movieWindow()->pos(), actual);
    // Another movie is not put there.
    MovieDoc* other = open(second);
    EXPECT_NE(other->movieWindow()->pos(), actual);

    // Clear Menu empties the list.
    emit recent->aboutToShow();
    recent->actions().back()->trigger();
    EXPECT_TRUE(DMDocumentController::recentFiles().isEmpty());
}

} // namespace

namespace {

// A movie saved with points opens with them; points go out to a text file
// and come back exactly; a bad file changes nothing.
TEST_F(RealUse, PointsComeBackWithTheMovieAndThroughTextFiles)
{
    ScratchDir dir;
    MovieDoc* doc = openCopy(dir, "talk.mov", cachedMovie("realuse-drift.mov", smallSpec(12, 0.3, 1.0 / 1.003)));
    ASSERT_TRUE(doc);
    SyncSession* s = doc->session();
    s->replacePoints({Offset(at(2), at(2.306)), Offset(at(10), at(10.33))});
    std::vector<Offset> made = s->offsets()->points();
    kit::setSavePanelResponder([&](kit::SavePanelSpec const& spec) { return QString::fromStdString(dir.file(spec.proposedName.toStdString())); });
    AlertRecorder alerts;
    doc->saveDocument();
    EXPECT_FALSE(doc->isDocumentEdited());
    doc->exportSyncPoints();
    std::string exported = dir.file("talk.points");
    ASSERT_FALSE(readFile(exported).empty());
    doc->close();
    QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);

    MovieDoc* again = open(dir.file("talk.mov"));
    ASSERT_TRUE(again);
    EXPECT_FALSE(again->isDocumentEdited()) << "points that came with the movie are no change";
    ASSERT_EQ(again->session()->offsets()->points().size(), made.size());
    for (std::size_t i = 0; i < made.size(); ++i) {
        EXPECT_EQ(again->session()->offsets()->points()[i].movieTime, made[i].movieTime);
        EXPECT_EQ(again->session()->offsets()->points()[i].audioTime, made[i].audioTime);
    }
    EXPECT_EQ(again->session()->movieMode(), "morePointsIfNeeded");
    int backups = 0;
    for (auto const& t : again->session()->movie()->tracks()) backups += t->displayName() == OffsetList::kBackupTrackName;
    EXPECT_EQ(backups, 1);
    EXPECT_TRUE(alerts.shown.empty());

    // Imported into another copy of the movie: the same points, one change.
    again->close();
    MovieDoc* other = openCopy(dir, "other.mov", cachedMovie("realuse-drift.mov", smallSpec(12, 0.3, 1.0 / 1.003)));
    kit::setOpenPanelResponder([&](kit::OpenPanelSpec const&) { return QString::fromStdString(exported); });
    other->importSyncPoints();
    ASSERT_EQ(other->session()->offsets()->points().size(), made.size());
    EXPECT_EQ(other->session()->offsets()->points()[1].audioTime, made[1].audioTime);
    EXPECT_TRUE(other->isDocumentEdited());

    // A damaged file: told which line, nothing changes.
    writeFile(dir.file("bad.points"), "1 = 1.2\n3 = three\n");
    kit::setOpenPanelResponder([&](kit::OpenPanelSpec const&) { return QString::fromStdString(dir.file("bad.points")); });
    other->importSyncPoints();
    ASSERT_EQ(alerts.shown.size(), 1u);
    EXPECT_TRUE(alerts.shown[0].informative.contains("line 2")) << alerts.shown[0].informative.toStdString();
    EXPECT_EQ(other->session()->offsets()->points().size(), made.size());
    kit::setOpenPanelResponder(nullptr);
}

} // namespace

namespace {

std::vector<std::pair<long long, long long>> ticksOf(std::vector<Offset> const& points)
{
    std::vector<std::pair<long long, long long>> t;
    for (auto const& p : points) t.push_back({std::llround(p.movieTime.seconds() * 1e6),
                                              std::llround(p.audioTime.seconds() * 1e6)});
    return t;
}

// Random edits, undos and redos against a model of the expected lists: after
// every step the document holds the list the history says, undo takes one
// change back and redo makes it again, and the change count follows.
TEST_F(RealUse, UndoAndRedoFollowEveryChangeOfThePoints)
{
    ScratchDir dir;
    MovieDoc* doc = openCopy(dir, "talk.mov", cachedMovie("realuse-drift.mov", smallSpec(12, 0.3, 1.0 / 1.003)));
    ASSERT_TRUE(doc);
    SyncSession* s = doc->session();
    std::vector<std::vector<std::pair<long long, long long>>> history = {ticksOf(s->offsets()->points())};
    std::size_t index = 0;
    std::mt19937 rng(11);
    auto points = [&] { return ticksOf(s->offsets()->points()); };
    auto changed = [&] {
        history.resize(index + 1);
        history.push_back(points());
        ++index;
    };
    int steps = 0, undos = 0, redos = 0;
    for (int step = 0; step < 120; ++step) {
        int n = static_cast<int>(s->offsets()->points().size());
        int op = std::uniform_int_distribution<int>(0, 7)(rng);
        int count = doc->changeCount();
        if (op <= 1) { // a new point: start, nudge, accept
            doc->player()->setCurrentTime(at(std::uniform_real_distribution<double>(4.5, 11.5)(rng)));
            doc->startSync();
            for (int k = std::uniform_int_distribution<int>(0, 5)(rng); k > 0; --k) doc->advanceAudio();
            doc->acceptSync();
            changed();
        } else if (op == 2 && n > 0) {
            s->deleteSync({std::uniform_int_distribution<int>(0, n - 1)(rng)});
            changed();
        } else if (op == 3 && n > 0) {
            s->setRowOffset(std::uniform_int_distribution<int>(0, n - 1)(rng), std::uniform_int_distribution<int>(-400, 400)(rng));
            changed();
        } else if (op == 4) {
            s->replacePoints({Offset(at(1 + step % 5), at(1.3 + step % 5)), Offset(at(9), at(9.35))});
            if (points() != history[index]) changed();
        } else if (op == 5 || op == 6) {
            bool could = doc->canUndo();
            EXPECT_EQ(could, index > 0) << "step " << step;
            doc->undo();
            if (could) {
                --index;
                ++undos;
                EXPECT_EQ(doc->changeCount(), count - 1) << "step " << step;
            }
        } else if (op == 7) {
            bool could = doc->canRedo();
            EXPECT_EQ(could, index + 1 < history.size()) << "step " << step;
            doc->redo();
            if (could) {
                ++index;
                ++redos;
                EXPECT_EQ(doc->changeCount(), count + 1) << "step " << step;
            }
        }
        ++steps;
        ASSERT_EQ(points(), history[index]) << "after step " << step << " (op " << op << ")";
    }
    EXPECT_GT(undos, 10);
    EXPECT_GT(redos, 5);

    // Undo during a point in progress gives the point up first.
    while (doc->canUndo()) doc->undo();
    doc->player()->setCurrentTime(at(6));
    doc->startSync();
    doc->acceptSync();
    std::size_t one = s->offsets()->points().size();
    doc->player()->setCurrentTime(at(9));
    doc->startSync();
    ASSERT_TRUE(s->syncInProgress());
    doc->undo();
    EXPECT_FALSE(s->syncInProgress());
    EXPECT_EQ(s->offsets()->points().size(), one - 1);

    // The Edit menu names the step.
    auto* app = static_cast<DMApplication*>(QApplication::instance());
    app->updateMenu();
    EXPECT_EQ(app->actionNamed("redo")->text(), "&Redo Add Sync Point");
    EXPECT_TRUE(app->actionNamed("redo")->isEnabled());
}

} // namespace

#include "ResidualPlot.h"

namespace {

// The residual plot: each point where its time and residual put it, the
// stray one red, the bands shaded, a click selecting the point.
TEST_F(RealUse, TheResidualPlotShowsHowThePointsAgree)
{
    ScratchDir dir;
    MovieDoc* doc = openCopy(dir, "talk.mov", cachedMovie("realuse-drift.mov", smallSpec(12, 0.3, 1.0 / 1.003)));
    ASSERT_TRUE(doc);
    doc->createInfoWindow(true);
    // Four points on a line and one 90 ms off it.
    doc->session()->replacePoints({Offset(at(1), at(1.303)), Offset(at(3), at(3.309)), Offset(at(5), at(5.315)),
                                   Offset(at(7), at(7.321 + 0.09)), Offset(at(9), at(9.327)), Offset(at(11), at(11.333))});
    auto* plot = doc->getInfoWindow()->findChild<ResidualPlot*>("residualPlot");
    ASSERT_TRUE(plot);
    ASSERT_EQ(plot->points().size(), 6u);
    OffsetList const& list = *doc->session()->offsets();
    int flagged = 0;
    for (std::size_t i = 0; i < plot->points().size(); ++i) {
        auto const& p = plot->points()[i];
        Offset const& o = list.points()[i];
        EXPECT_DOUBLE_EQ(p.movieSeconds, o.movieTime.seconds());
        EXPECT_NEAR(p.residualMs, (list.slope() * o.movieTime.seconds() + list.intercept() - o.audioTime.seconds()) * 1000, 1e-9);
        EXPECT_EQ(p.flagged, o.flag);
        flagged += p.flagged;
    }
    EXPECT_EQ(flagged, 1);
    EXPECT_TRUE(plot->points()[3].flagged);
    EXPECT_LT(plot->points()[3].residualMs, -60) << "the sound there comes late against the line";

    // The picture: the flagged point red where positionOf puts it, a blue one where it says, the early band shaded.
    QImage image = plot->grab().toImage();
    double dpr = image.devicePixelRatio();
    auto pixel = [&](QPointF p) { return image.pixelColor(static_cast<int>(p.x() * dpr), static_cast<int>(p.y() * dpr)); };
    QRectF bounds = plot->rect();
    QColor red = pixel(plot->positionOf(plot->points()[3], bounds));
    EXPECT_GT(red.red(), 150);
    EXPECT_LT(red.green(), 90);
    QColor blue = pixel(plot->positionOf(plot->points()[0], bounds));
    EXPECT_GT(blue.blue(), 140);
    EXPECT_LT(blue.red(), 90);
    QRectF area = plot->plotArea(bounds);
    QColor band = pixel(QPointF(area.right() - 3, area.top() + 3));
    QColor middle = pixel(QPointF(area.right() - 3, area.center().y() + 12));
    EXPECT_GT(middle.green() - band.green(), 10) << "the band is shaded";
    // x grows with movie time, y with the residual.
    EXPECT_LT(plot->positionOf(plot->points()[0], bounds).x(), plot->positionOf(plot->points()[5], bounds).x());
    EXPECT_GT(plot->positionOf(plot->points()[3], bounds).y(), area.center().y());

    // A click on the stray point selects its row, which loops around it.
    QTest::mouseClick(plot, Qt::LeftButton, {}, plot->positionOf(plot->points()[3], bounds).toPoint());
    EXPECT_EQ(doc->selectedRows(), (IndexSet{3}));
    EXPECT_EQ(doc->loopMiddle().seconds(), doc->session()->offsets()->points()[3].movieTime.seconds());

    QDir().mkpath(DUBMATCH_SCREENSHOT_DIR);
    EXPECT_TRUE(doc->getInfoWindow()->grab().save(QString(DUBMATCH_SCREENSHOT_DIR) + "/sync-points-residuals.png"));
}

} // namespace

#include "WaveformStrip.h"

namespace {

// Waits until the strip has drawn what was last asked of it.
bool waitForWaveform(WaveformStrip* strip)
{
    for (int i = 0; i < 400 && (strip->busy() || strip->envelope().columns.empty()); ++i) {
        QCoreApplication::processEvents();
        QThread::msleep(5);
    }
    return !strip->busy() && !strip->envelope().columns.empty();
}

// The column of the loudest moment: the click.
int loudestColumn(WaveformStrip::Envelope const& e)
{
    int best = 0;
    float most = -1;
    for (std::size_t i = 0; i < e.columns.size(); ++i) {
        float a = std::max(std::fabs(e.columns[i].first), std::fabs(e.columns[i].second));
        if (a > most) {
            most = a;
            best = static_cast<int>(i);
        }
    }
    return best;
}

// The strip shows the loop's sound as it plays now: the click where it is
// heard, moved by every nudge, redrawn without blocking anything.
TEST_F(RealUse, TheWaveformStripShowsTheClickWhereItIsHeard)
{
    ScratchDir dir;
    // A click 0.3 s after each flash (every 2 s), the sound not stretched.
    media::TestMovieSpec spec = smallSpec(12, 0.3, 1.0);
    MovieDoc* doc = openCopy(dir, "talk.mov", cachedMovie("realuse-strip.mov", spec));
    ASSERT_TRUE(doc);
    WaveformStrip* strip = doc->waveformStrip();
    ASSERT_TRUE(strip);
    doc->movieWindow()->resize(640, doc->movieWindow()->height());
    QCoreApplication::processEvents();
    EXPECT_TRUE(strip->envelope().columns.empty());

    doc->player()->setCurrentTime(at(7.0));
    doc->startSync(); // the loop of 4 s before 7 s: clicks at 4.3 and 6.3
    doc->player()->pause();
    ASSERT_TRUE(waitForWaveform(strip));
    auto e = strip->envelope();
    ASSERT_EQ(static_cast<int>(e.columns.size()), strip->width());
    double secondsPerColumn = static_cast<double>(e.end - e.start) / e.scale / static_cast<double>(e.columns.size());
    auto marks = media::testMovieMarks(spec);
    double start = static_cast<double>(e.start) / e.scale, end = static_cast<double>(e.end) / e.scale;
    std::vector<double> clicks;
    for (auto const& m : marks)
        if (m.audioTime > start && m.audioTime < end) clicks.push_back(m.audioTime);
    ASSERT_FALSE(clicks.empty());
    int column = loudestColumn(e);
    double nearest = 1e9;
    for (double c : clicks) nearest = std::min(nearest, std::fabs(strip->columnOf(c) - column));
    EXPECT_LE(nearest, 1.0) << "the click is drawn at its time (column " << column << ")";

    // Ten nudges of 10 ms: the loop's middle now plays the sound from 100 ms
    // before it (the point's audio time), so every click is heard, and
    // drawn, 100 ms later in the loop.
    int before = column;
    for (int i = 0; i < 10; ++i) doc->advanceAudio();
    ASSERT_TRUE(waitForWaveform(strip));
    double shift = doc->loopMiddle().seconds() - doc->session()->audioTime().seconds();
    EXPECT_NEAR(shift, 0.100, 1e-6);
    int after = loudestColumn(strip->envelope());
    EXPECT_NEAR(after - before, shift / secondsPerColumn, 1.5) << before << " -> " << after;
    nearest = 1e9;
    for (double c : clicks) nearest = std::min(nearest, std::fabs(strip->columnOf(c + shift) - after));
    EXPECT_LE(nearest, 1.0) << "the click is drawn where it is now heard";

    // The loop's end: the strip goes back to its hint.
    doc->abandonSync();
    QCoreApplication::processEvents();
    EXPECT_TRUE(strip->envelope().columns.empty());
    doc->player()->setCurrentTime(at(7.0));
    doc->startSync();
    for (int i = 0; i < 10; ++i) doc->advanceAudio();
    ASSERT_TRUE(waitForWaveform(strip));
    QDir().mkpath(DUBMATCH_SCREENSHOT_DIR);
    EXPECT_TRUE(doc->movieWindow()->grab().save(QString(DUBMATCH_SCREENSHOT_DIR) + "/movie-window-waveform.png"));
}

} // namespace

// The sound output delay set in Preferences reaches the open movies at once,
// and movies opened later start with it.
TEST_F(RealUse, OutputDelayPreferenceReachesOpenMovies)
{
    auto* delegate = DMApplication::instance()->delegate();
    ASSERT_TRUE(delegate);
    MovieDoc* doc = open(movie12());
    ASSERT_TRUE(doc && doc->player());
    if (!doc->player()->hasAudioDevice()) GTEST_SKIP() << "no sound device: " << doc->player()->audioStatus();
    int before = doc->player()->outputLatencyFrames();
    delegate->showPreferences();
    auto* prefs = static_cast<PreferencesWindow*>(delegate->preferencesWindow());
    auto* box = prefs->findChild<QSpinBox*>("soundOutputDelay");
    ASSERT_TRUE(box);
    box->setValue(150);
    EXPECT_DOUBLE_EQ(kit::UserDefaults<float>("soundOutputDelay"), 150.0);
    EXPECT_EQ(doc->player()->outputLatencyFrames() - before, 150 * doc->player()->sampleRate() / 1000);
    MovieDoc* second = open(cachedMovie("realuse-second-4s.mov", smallSpec(4, 0.0, 1.0)));
    ASSERT_TRUE(second && second->player());
    EXPECT_GE(second->player()->outputLatencyFrames(), 150 * second->player()->sampleRate() / 1000);
    box->setValue(0);
    EXPECT_EQ(doc->player()->outputLatencyFrames(), before);
    prefs->close();
}
