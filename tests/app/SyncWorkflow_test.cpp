// The application driven as a user drives it: keys, the wheel and the middle
// button on a movie window.
#include "DMApplication.h"
#include "DMDocumentController.h"
#include "MediaTestSupport.h"
#include "MovieDoc.h"
#include "MovieView.h"
#include "AppTestSupport.h"
#include "SyncPointWindow.h"
#include "kit/Alert.h"
#include "kit/UserDefaults.h"

#include <QDir>
#include <QTest>
#include <QProgressDialog>
#include <QTimer>
#include <QWheelEvent>

#include <gtest/gtest.h>

using namespace testsupport;

namespace {

constexpr int kRate = 48000;

DMDocumentController& controller() { return *static_cast<DMDocumentController*>(kit::DocumentController::shared()); }


class App : public DocumentTest {
protected:
    void TearDown() override
    {
        DocumentTest::TearDown();
        kit::Defaults::standard().removeValue("reverseArrows");
        DMApplication::instance()->muckWithMenu();
    }

    void key(MovieDoc* doc, Qt::Key k, Qt::KeyboardModifiers m = Qt::NoModifier, QString text = {})
    {
        QKeyEvent press(QEvent::KeyPress, k, m, text);
        QApplication::sendEvent(doc->movieView(), &press);
    }
};

std::string movie12(std::string format = "mov")
{
    auto s = smallSpec(12, 0.0, 1.0);
    s.format = format == "mkv" ? "matroska" : format == "ts" ? "mpegts" : "mov";
    return cachedMovie("app-12s." + format, s);
}

TEST_F(App, ReturnArrowsReturnMakeASyncPoint)
{
    MovieDoc* doc = open(movie12());
    ASSERT_TRUE(doc);
    EXPECT_EQ(doc->movieMode(), "noPoints");
    std::vector<QString> modes;
    QObject::connect(doc, &MovieDoc::movieModeChanged, [&](QString const& m) { modes.push_back(m); });
    doc->player()->setCurrentTime(myQTTime(static_cast<long long>(6) * kRate, kRate));

    key(doc, Qt::Key_Return);
    ASSERT_TRUE(doc->syncInProgress());
    EXPECT_EQ(doc->movieMode(), "pointInProgress");
    EXPECT_EQ(doc->endTime().timeValue, 6 * kRate);
    EXPECT_EQ(doc->startTime().timeValue, 2 * kRate); // "loopLength" 4 s before the play head
    EXPECT_EQ(doc->changeCount(), 1);
    EXPECT_TRUE(doc->player()->loops());
    EXPECT_TRUE(doc->player()->playsSelectionOnly());

    for (int i = 0; i < 4; ++i) key(doc, Qt::Key_Right); // Advance Audio: 10 ms each
    myQTTime middle = doc->loopMiddle();
    EXPECT_EQ(middle.timeValue, 4 * kRate);
    EXPECT_EQ(doc->audioTime().timeValue, 4 * kRate - 4 * 480);
    // The preview: 40 ms of silence before the sound, the sound plays later.
    auto preview = doc->offsets()->soundTrack()->editList();
    ASSERT_FALSE(preview->segments().empty());
    EXPECT_TRUE(preview->segments().front().isEmpty());
    EXPECT_EQ(preview->segments().front().duration, 1920);

    key(doc, Qt::Key_Return);
    EXPECT_FALSE(doc->syncInProgress());
    ASSERT_EQ(doc->offsets()->points().size(), 1u);
    Offset p = doc->offsets()->points()[0];
    EXPECT_EQ(p.movieTime.timeValue, 4 * kRate);
    EXPECT_NEAR(p.audioTime.seconds(), 3.96, 1e-6);
    EXPECT_TRUE(doc->offsets()->backupTrack());
    EXPECT_EQ(doc->movieMode(), "endNeedsSync");
    EXPECT_FALSE(doc->player()->loops());
    EXPECT_EQ(doc->changeCount(), 1);
    ASSERT_GE(modes.size(), 2u);
    EXPECT_EQ(modes.front(), "pointInProgress");
    EXPECT_EQ(modes.back(), "endNeedsSync");

    // Escape abandons a new point: nothing is added, the count goes back.
    key(doc, Qt::Key_Return);
    EXPECT_EQ(doc->changeCount(), 2);
    key(doc, Qt::Key_Escape);
    EXPECT_FALSE(doc->syncInProgress());
    EXPECT_EQ(doc->offsets()->points().size(), 1u);
    EXPECT_EQ(doc->changeCount(), 1);
    EXPECT_EQ(doc->movieMode(), "endNeedsSync");
}

TEST_F(App, EditingAndDeletingPoints)
{
    MovieDoc* doc = open(movie12());
    ASSERT_TRUE(doc);
    for (int t : {2, 5, 8, 11}) {
        doc->player()->setCurrentTime(myQTTime(static_cast<long long>(t) * kRate, kRate));
        doc->startSync();
        doc->acceptSync();
    }
    ASSERT_EQ(doc->offsets()->points().size(), 4u);
    EXPECT_EQ(doc->changeCount(), 4);

    // Delete rows 1 and 3: exactly those, the later first.
    std::vector<std::int64_t> before;
    for (auto const& p : doc->offsets()->points()) before.push_back(p.movieTime.timeValue);
    doc->setSelectedRows({1, 3});
    doc->deleteSync();
    ASSERT_EQ(doc->offsets()->points().size(), 2u);
    EXPECT_EQ(doc->offsets()->points()[0].movieTime.timeValue, before[0]);
    EXPECT_EQ(doc->offsets()->points()[1].movieTime.timeValue, before[2]);
    EXPECT_EQ(doc->changeCount(), 2);

    // Edit a point, then abandon: it is gone.
    doc->setSelectedRows({0});
    doc->editSync();
    EXPECT_TRUE(doc->syncInProgress());
    EXPECT_EQ(doc->syncRow(), 0);
    EXPECT_EQ(doc->loopMiddle().timeValue, before[0]);
    EXPECT_EQ(doc->offsets()->points().size(), 1u);
    doc->abandonSync();
    EXPECT_EQ(doc->offsets()->points().size(), 1u);
    doc->setSelectedRows({0});
    doc->editSync();
    doc->abandonSync();
    EXPECT_EQ(doc->offsets()->points().size(), 0u);
    EXPECT_EQ(doc->movieMode(), "noPoints");
    EXPECT_FALSE(doc->offsets()->backupTrack());

    // acceptSync with no sync in progress says so and changes nothing.
    ::testing::internal::CaptureStderr();
    doc->acceptSync();
    EXPECT_EQ(::testing::internal::GetCapturedStderr(), "Error! acceptSync: called when sync not in progress\n");
}

TEST_F(App, KeyTable)
{
    DMApplication* app = DMApplication::instance();
    QAction* advance = app->actionNamed("advanceAudio");
    QAction* retard = app->actionNamed("retardAudio");
    EXPECT_TRUE(advance->text().endsWith(QString::fromUtf8("\t\u2192")));
    EXPECT_TRUE(retard->text().endsWith(QString::fromUtf8("\t\u2190")));
    EXPECT_TRUE(app->actionNamed("startSync")->text().endsWith(QString::fromUtf8("\t\u21A9")));
    EXPECT_TRUE(advance->shortcut().isEmpty()); // only the key table answers

    MovieDoc* doc = open(movie12());
    ASSERT_TRUE(doc);
    doc->player()->setCurrentTime(myQTTime(static_cast<long long>(6) * kRate, kRate));

    // Ctrl-Return is not intercepted.
    key(doc, Qt::Key_Return, Qt::ControlModifier);
    EXPECT_FALSE(doc->syncInProgress());
    // A wheel turn with no sync in progress reaches the view.
    int wheels = 0;
    struct Counter : QObject {
        int* n;
        explicit Counter(int* c) : n(c) {}
        bool eventFilter(QObject*, QEvent* e) override
        {
            if (e->type() == QEvent::Wheel) ++*n;
            return false;
        }
    } counter(&wheels);
    doc->movieView()->installEventFilter(&counter);
    QWheelEvent wheel(QPointF(10, 10), QPointF(10, 10), QPoint(), QPoint(0, 120), Qt::NoButton, Qt::NoModifier, Qt::NoScrollPhase, false);
    QApplication::sendEvent(doc->movieView(), &wheel);
    EXPECT_EQ(wheels, 1);

    // Enter starts (item 1); with a sync in progress Return falls through to item 3.
    key(doc, Qt::Key_Enter);
    ASSERT_TRUE(doc->syncInProgress());
    std::int64_t a0 = doc->audioTime().timeValue;
    // The wheel now nudges: one notch is one millisecond.
    QApplication::sendEvent(doc->movieView(), &wheel);
    EXPECT_EQ(wheels, 1); // taken before the view
    EXPECT_EQ(doc->audioTime().timeValue, a0 + 48);
    // "+" and "=" both expand the loop by the square root of two.
    myQTTime len = doc->endTime() - doc->startTime();
    key(doc, Qt::Key_Equal, Qt::NoModifier, "=");
    EXPECT_NEAR((doc->endTime() - doc->startTime()).seconds(), len.seconds() * std::sqrt(2.0), 1e-3);
    key(doc, Qt::Key_Plus, Qt::NoModifier, "+");
    EXPECT_NEAR((doc->endTime() - doc->startTime()).seconds(), len.seconds() * 2, 1e-3);
    key(doc, Qt::Key_Minus, Qt::NoModifier, "-");
    key(doc, Qt::Key_Minus, Qt::NoModifier, "-");
    EXPECT_NEAR((doc->endTime() - doc->startTime()).seconds(), len.seconds(), 1e-3);

    // The arrows swap with "reverseArrows" -1.
    kit::Defaults::standard().setValue("reverseArrows", -1);
    app->reverseArrows();
    EXPECT_TRUE(advance->text().endsWith(QString::fromUtf8("\t\u2190")));
    std::int64_t a1 = doc->audioTime().timeValue;
    key(doc, Qt::Key_Right); // now Retard Audio
    EXPECT_EQ(doc->audioTime().timeValue, a1 + 480);
    key(doc, Qt::Key_Left);
    EXPECT_EQ(doc->audioTime().timeValue, a1);

    key(doc, Qt::Key_Return); // accept
    EXPECT_FALSE(doc->syncInProgress());
    EXPECT_EQ(doc->offsets()->points().size(), 1u);

    // The middle button starts a point, and accepts it.
    QTest::mousePress(doc->movieView(), Qt::MiddleButton);
    EXPECT_TRUE(doc->syncInProgress());
    QTest::mousePress(doc->movieView(), Qt::MiddleButton);
    EXPECT_FALSE(doc->syncInProgress());
    EXPECT_EQ(doc->offsets()->points().size(), 2u);
}

TEST_F(App, RefusedMoviesOpenNoDocument)
{
    auto silent = smallSpec(4, 0, 1);
    silent.withSound = false;
    {
        AlertRecorder alerts;
        EXPECT_EQ(controller().openDocumentWithContentsOfFile(QString::fromStdString(cachedMovie("app-silent.mov", silent)), true), nullptr);
        ASSERT_EQ(alerts.shown.size(), 1u);
        EXPECT_EQ(alerts.shown[0].message.toStdString(), "There are no sound tracks in the movie.");
        EXPECT_TRUE(alerts.shown[0].informative.startsWith("Dubmatch is currently unable to combine")) << alerts.shown[0].informative.toStdString();
        EXPECT_TRUE(alerts.shown[0].informative.contains("Please contact"));
    }
    EXPECT_TRUE(controller().documents().isEmpty());

    // Two enabled sound tracks are no refusal: the movie opens on the first.
    auto two = smallSpec(4, 0, 1);
    two.extraSoundTracks = 1;
    two.extraSoundEnabled = true;
    {
        AlertRecorder alerts;
        auto* doc = qobject_cast<MovieDoc*>(controller().openDocumentWithContentsOfFile(QString::fromStdString(cachedMovie("app-two.mov", two)), true));
        ASSERT_TRUE(doc);
        EXPECT_TRUE(alerts.shown.empty());
        ASSERT_EQ(doc->soundTracks().size(), 2u);
        EXPECT_TRUE(doc->soundTracks()[1]->isEnabled());
        EXPECT_EQ(doc->soundTrackId(), doc->soundTracks()[0]->id());
        doc->close();
    }
    EXPECT_TRUE(controller().documents().isEmpty());

    ScratchDir dir;
    writeFile(dir.file("notes.mov"), "not a movie");
    AlertRecorder alerts;
    EXPECT_EQ(controller().openDocumentWithContentsOfFile(QString::fromStdString(dir.file("notes.mov")), true), nullptr);
    ASSERT_EQ(alerts.shown.size(), 1u);
    EXPECT_TRUE(controller().documents().isEmpty());
    EXPECT_FALSE(controller().panelShouldShowFilename(QString::fromStdString(dir.file("notes.mov"))));
    EXPECT_TRUE(controller().panelShouldShowFilename(QString::fromStdString(dir.path())));
    EXPECT_TRUE(controller().panelShouldShowFilename(QString::fromStdString(movie12())));
}

TEST_F(App, ClosingAnEditedImportedDocumentAsks)
{
    MovieDoc* doc = open(movie12("ts")); // read, not written: an imported document
    ASSERT_TRUE(doc);
    EXPECT_TRUE(doc->isImported());
    doc->player()->setCurrentTime(myQTTime(static_cast<long long>(6) * kRate, kRate));
    doc->startSync();
    doc->acceptSync();
    ASSERT_TRUE(doc->isDocumentEdited());
    EXPECT_TRUE(doc->movieWindow()->isWindowModified());
    {
        AlertRecorder alerts;
        alerts.answer = 1; // Cancel
        doc->movieWindow()->close();
        ASSERT_EQ(alerts.shown.size(), 1u);
        EXPECT_EQ(alerts.shown[0].message, QString::fromUtf8("Do you want to save the changes you made in the document \u201Capp-12s.ts\u201D?"));
        EXPECT_EQ(alerts.shown[0].buttons.last(), QString::fromUtf8("Don\u2019t Save"));
        EXPECT_EQ(controller().documents().size(), 1);
    }
    AlertRecorder alerts;
    alerts.answer = 2; // Don't Save
    doc->movieWindow()->close();
    EXPECT_EQ(alerts.shown.size(), 1u);
    EXPECT_TRUE(controller().documents().isEmpty());
}

TEST_F(App, SaveWritesInPlace)
{
    ScratchDir dir;
    std::string path = dir.file("talk.mov");
    auto spec = smallSpec(12, 0.3, 1.0);
    writeFile(path, readFile(cachedMovie("app-late.mov", spec)));
    MovieDoc* doc = open(path);
    ASSERT_TRUE(doc);
    EXPECT_FALSE(doc->isImported());
    // As a user would: at each point, nudge 1 ms at a time until the click
    // heard under the current re-timing meets the flash.
    kit::Defaults::standard().setValue("audioStep", 1.0);
    for (int at : {6, 11}) {
        doc->player()->setCurrentTime(myQTTime(static_cast<long long>(at) * kRate, kRate));
        doc->startSync();
        double middle = doc->loopMiddle().seconds();
        double heard = doc->offsets()->AudioTimeToMovieTime(myQTTime(middle + 0.3, kRate)).seconds();
        long steps = std::lround((heard - middle) * 1000);
        for (long i = 0; i < steps; ++i) doc->retardAudio();
        doc->acceptSync();
    }
    kit::Defaults::standard().removeValue("audioStep");
    doc->player()->pause();
    myQTTime playHead = doc->player()->currentTime();
    AlertRecorder alerts;
    doc->saveDocument();
    for (auto const& a : alerts.shown) ADD_FAILURE() << a.message.toStdString() << ": " << a.informative.toStdString();
    EXPECT_FALSE(doc->isDocumentEdited());
    EXPECT_EQ(doc->player()->currentTime().timeValue, playHead.timeValue);
    EXPECT_EQ(listDir(dir.path()), std::vector<std::string>{"talk.mov"});
    media::SyncMeasurement m = media::measureSync(path);
    EXPECT_LT(m.worst(), 0.001);
}

TEST_F(App, ScreenshotOfASync)
{
    MovieDoc* doc = open(cachedMovie("app-shot.mov", smallSpec(12, 0.35, 1.0 / 1.004)));
    ASSERT_TRUE(doc);
    doc->movieWindow()->resize(640, 560);
    // Two points already made; the third in progress between them.
    for (double t : {4.0, 11.0}) {
        doc->player()->setCurrentTime(myQTTime(static_cast<long long>(t * kRate), kRate));
        doc->startSync();
        for (int i = 0; i < 35; ++i) doc->retardAudio();
        doc->acceptSync();
    }
    doc->player()->setCurrentTime(myQTTime(static_cast<long long>(7) * kRate, kRate));
    key(doc, Qt::Key_Return);
    key(doc, Qt::Key_Right);
    // Wait for a picture to arrive from the player.
    for (int i = 0; i < 200 && doc->movieView()->currentPicture().isNull(); ++i) QTest::qWait(10);
    QTest::qWait(100);
    EXPECT_FALSE(doc->movieView()->currentPicture().isNull());
    QDir().mkpath(DUBMATCH_SCREENSHOT_DIR);
    QString file = QString(DUBMATCH_SCREENSHOT_DIR) + "/movie-window-sync.png";
    EXPECT_TRUE(doc->movieWindow()->grab().save(file));
    ASSERT_TRUE(doc->getInfoWindow());
    EXPECT_TRUE(doc->getInfoWindow()->grab().save(QString(DUBMATCH_SCREENSHOT_DIR) + "/sync-points-window.png"));
    auto* label = doc->movieWindow()->findChild<QLabel*>("instruction");
    ASSERT_TRUE(label);
    EXPECT_EQ(label->text(), MovieDoc::instructionForMode("pointInProgress"));
}

} // namespace

namespace {

// A movie whose flashes come at irregular times, so its picture and sound
// agree at one offset only: 0.3 s.
std::string irregularMovie()
{
    auto s = smallSpec(40, 0.3, 1.0);
    for (double t = 1.3, gap = 0.9; t < 39; t += gap, gap = gap > 2.5 ? 0.8 : gap + 0.55) s.flashTimes.push_back(t);
    return cachedMovie("app-irregular.mov", s);
}

} // namespace

// Sync > Suggest Points fills the table with greyed candidates; selecting one
// plays its offset, Return keeps it and Escape dismisses one; Accept All
// Confident takes the rest as one undo step. Cancel and a refusal change nothing.
TEST_F(App, SuggestedPointsAreConfirmedOrDismissed)
{
    MovieDoc* doc = open(irregularMovie());
    ASSERT_TRUE(doc);
    AlertRecorder alerts;
    EXPECT_TRUE(doc->validateAction("suggestPoints"));
    EXPECT_FALSE(doc->validateAction("acceptConfident")); // nothing suggested yet

    // Cancel on the progress sheet: no candidates.
    bool cancelled = false;
    QTimer poll;
    QObject::connect(&poll, &QTimer::timeout, [&] {
        if (doc->progressPanel() && !cancelled) {
            EXPECT_FALSE(doc->validateAction("startSync")); // frozen while it looks
            doc->progressPanel()->cancel();
            cancelled = true;
        }
    });
    poll.start(10);
    EXPECT_TRUE(doc->performAction("suggestPoints"));
    poll.stop();
    EXPECT_TRUE(cancelled);
    EXPECT_TRUE(doc->session()->candidates().empty());
    EXPECT_TRUE(alerts.shown.empty());
    EXPECT_FALSE(doc->isBusy());

    EXPECT_TRUE(doc->performAction("suggestPoints"));
    EXPECT_TRUE(alerts.shown.empty());
    auto candidates = doc->session()->candidates();
    ASSERT_GE(candidates.size(), 3u);
    for (auto const& c : candidates) EXPECT_NEAR(c.audioTime.seconds() - c.movieTime.seconds(), 0.3, 0.01);
    EXPECT_EQ(doc->changeCount(), 0);
    EXPECT_FALSE(doc->canUndo());
    // The table shows them greyed, with their confidence, not editable.
    auto* model = doc->findInfoWindowController()->model();
    ASSERT_EQ(model->rowCount(), static_cast<int>(candidates.size()));
    QModelIndex confidence = model->index(0, OffsetTableModel::kConfidence);
    EXPECT_EQ(model->data(confidence, Qt::DisplayRole).toString(), QString::number(candidates[0].confidence, 'f', 2));
    EXPECT_EQ(model->headerData(OffsetTableModel::kConfidence, Qt::Horizontal, Qt::DisplayRole).toString(), "Confidence");
    QColor grey = QApplication::palette().color(QPalette::Disabled, QPalette::Text);
    EXPECT_EQ(model->data(model->index(0, OffsetTableModel::kTime), Qt::ForegroundRole).value<QBrush>().color(), grey);
    EXPECT_FALSE(model->flags(model->index(0, OffsetTableModel::kOffset)) & Qt::ItemIsEditable);

    // Selecting the first starts a sync there with its offset applied; Return keeps it.
    doc->setSelectedRows({0});
    ASSERT_TRUE(doc->syncInProgress());
    EXPECT_TRUE(doc->loopMiddle() == candidates[0].movieTime);
    EXPECT_NEAR(doc->GetOffset(doc->syncRow()).audioTime.seconds(), candidates[0].audioTime.seconds(), 1e-4);
    focus(doc);
    key(doc, Qt::Key_Return);
    EXPECT_FALSE(doc->syncInProgress());
    ASSERT_EQ(doc->offsets()->points().size(), 1u);
    EXPECT_NEAR(doc->offsets()->points()[0].audioTime.seconds(), candidates[0].audioTime.seconds(), 1e-4);
    EXPECT_EQ(doc->undoText(), "Add Sync Point");
    EXPECT_EQ(doc->session()->candidates().size(), candidates.size() - 1);

    // The next one, dismissed with Escape: no point, no change.
    int points = 1, changes = doc->changeCount();
    doc->setSelectedRows({});
    doc->setSelectedRows({points});
    ASSERT_TRUE(doc->syncInProgress());
    EXPECT_TRUE(doc->loopMiddle() == candidates[1].movieTime);
    focus(doc);
    key(doc, Qt::Key_Escape);
    EXPECT_FALSE(doc->syncInProgress());
    EXPECT_EQ(doc->offsets()->points().size(), 1u);
    EXPECT_EQ(doc->changeCount(), changes);
    ASSERT_EQ(doc->session()->candidates().size(), candidates.size() - 2);

    // Accept All Confident with the threshold of the preference: one step.
    kit::Defaults::standard().setValue("suggestConfidence", 2.0);
    EXPECT_FALSE(doc->validateAction("acceptConfident"));
    kit::Defaults::standard().setValue("suggestConfidence", 0.0);
    EXPECT_TRUE(doc->performAction("acceptConfident"));
    kit::Defaults::standard().removeValue("suggestConfidence");
    EXPECT_TRUE(doc->session()->candidates().empty());
    EXPECT_EQ(doc->offsets()->points().size(), candidates.size() - 1);
    EXPECT_EQ(doc->undoText(), "Accept Suggested Points");
    EXPECT_NEAR(doc->offsets()->intercept(), 0.3, 0.01);
    doc->undo();
    EXPECT_EQ(doc->offsets()->points().size(), 1u);
    doc->undo();
    EXPECT_TRUE(doc->offsets()->points().empty());
    EXPECT_TRUE(alerts.shown.empty());

    // A movie whose flashes come every 2 s fits several offsets: refused, saying why.
    MovieDoc* regular = open(movie12());
    ASSERT_TRUE(regular);
    EXPECT_TRUE(regular->performAction("suggestPoints"));
    ASSERT_EQ(alerts.shown.size(), 1u);
    EXPECT_EQ(alerts.shown[0].message, "Dubmatch has no sync points to suggest.");
    // Why, as a sentence of its own, then what to do.
    QString const& why = alerts.shown[0].informative;
    EXPECT_TRUE(!why.isEmpty() && why[0].isUpper()) << why.toStdString();
    EXPECT_TRUE(why.contains("by ear")) << why.toStdString();
    EXPECT_TRUE(regular->session()->candidates().empty());
    EXPECT_EQ(regular->changeCount(), 0);
}
