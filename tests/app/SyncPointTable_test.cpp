// The sync point window, Save As, export with progress and Cancel, printing.
#include "Codec.h"
#include "DMApplication.h"
#include "DMDocumentController.h"
#include "MediaTestSupport.h"
#include "AppTestSupport.h"
#include "MovieDoc.h"
#include "MovieView.h"
#include "ProgressSheet.h"
#include "SyncPointWindow.h"
#include "kit/Alert.h"
#include "kit/UserDefaults.h"

#include <QComboBox>
#include <QLineEdit>
#include <QPrinter>
#include <QProgressDialog>
#include <QPushButton>
#include <QTest>
#include <QTimer>

#include <gtest/gtest.h>

#include <chrono>
#include <thread>

using namespace testsupport;

namespace {

constexpr int kRate = 48000;


myQTTime at(double s) { return myQTTime(static_cast<long long>(std::llround(s * kRate)), kRate); }

class Table : public DocumentTest {
protected:
    void TearDown() override
    {
        DocumentTest::TearDown();
        kit::Defaults::standard().removeValue("reverseArrows");
    }
    static MovieDoc* open(std::string const& path) { return DocumentTest::open(path, false); }
    QVariant cell(MovieDoc* doc, int row, int column, int role = Qt::DisplayRole)
    {
        auto* m = doc->findInfoWindowController()->model();
        return m->data(m->index(row, column), role);
    }
    void type(MovieDoc* doc, int row, int column, QString const& text)
    {
        auto* m = doc->findInfoWindowController()->model();
        m->setData(m->index(row, column), text, Qt::EditRole);
    }
};

std::string movie12() { return cachedMovie("table-12s.mov", smallSpec(12, 0.0, 1.0)); }

TEST_F(Table, RowsAndMarkersDuringASync)
{
    MovieDoc* doc = open(movie12());
    ASSERT_TRUE(doc);
    ASSERT_TRUE(doc->getTableView()) << "openInspector makes the window with every movie";
    EXPECT_EQ(doc->getInfoWindow()->windowTitle(), "table-12s.mov Sync Points");
    doc->createInfoWindow(true);
    doc->createInfoWindow(true);
    int infoControllers = 0;
    for (auto* wc : doc->windowControllers()) infoControllers += wc->windowNibName() == "OffsetList";
    EXPECT_EQ(infoControllers, 1);

    // The middle point strays by 0.4 s: it alone is flagged.
    doc->offsets()->replacePoints({Offset(at(2), at(2)), Offset(at(5), at(5.4)), Offset(at(8), at(8))});
    doc->reloadTable();
    ASSERT_TRUE(doc->offsets()->points()[1].flag);
    doc->player()->setCurrentTime(at(5.5));
    doc->startSync(); // loop 1.5 .. 5.5, middle 3.5
    EXPECT_EQ(doc->syncRow(), 1);
    EXPECT_EQ(doc->numberOfRows(), 4);
    EXPECT_EQ(cell(doc, 0, OffsetTableModel::kTime).toString(), "02.000");
    EXPECT_EQ(cell(doc, 1, OffsetTableModel::kTime).toString(), "03.500");
    EXPECT_EQ(cell(doc, 2, OffsetTableModel::kTime).toString(), "05.000");
    EXPECT_EQ(cell(doc, 3, OffsetTableModel::kTime).toString(), "08.000");
    auto marker = [&](int row) { return cell(doc, row, OffsetTableModel::kFlag, Qt::DecorationRole).value<QPixmap>().cacheKey(); };
    EXPECT_EQ(marker(1), markerImage("BlueStar").cacheKey());
    EXPECT_EQ(marker(2), markerImage("RedDiamond").cacheKey());
    EXPECT_EQ(cell(doc, 0, OffsetTableModel::kFlag, Qt::DecorationRole), QVariant());
    EXPECT_EQ(cell(doc, 3, OffsetTableModel::kFlag, Qt::DecorationRole), QVariant());

    // Typing a time into the point in progress moves the loop, not the list.
    type(doc, 1, OffsetTableModel::kTime, "4");
    EXPECT_EQ(doc->loopMiddle().timeValue, 4 * kRate);
    EXPECT_EQ(doc->offsets()->points().size(), 3u);
    // Typing an offset into it sets the preview: the sound 30 ms later.
    type(doc, 1, OffsetTableModel::kOffset, "30");
    EXPECT_NEAR(doc->loopMiddle().seconds() - doc->audioTime().seconds(), 0.030, 1e-6);
    doc->abandonSync();
    EXPECT_EQ(doc->numberOfRows(), 3);
}

TEST_F(Table, TypingTimesAndOffsets)
{
    MovieDoc* doc = open(movie12());
    ASSERT_TRUE(doc);
    doc->offsets()->replacePoints({Offset(at(2), at(2.04)), Offset(at(9), at(9.04))});
    doc->reloadTable();
    EXPECT_NEAR(cell(doc, 0, OffsetTableModel::kOffset, Qt::EditRole).toDouble(), -40, 1e-6);

    // With "reverseArrows" -1 the sign turns: -40 ms shows 40, and typing 40 keeps it.
    kit::Defaults::standard().setValue("reverseArrows", -1);
    EXPECT_NEAR(cell(doc, 0, OffsetTableModel::kOffset, Qt::EditRole).toDouble(), 40, 1e-6);
    type(doc, 0, OffsetTableModel::kOffset, "40");
    EXPECT_NEAR(doc->offsets()->points()[0].audioTime.seconds(), 2.04, 1e-4);
    kit::Defaults::standard().removeValue("reverseArrows");
    type(doc, 0, OffsetTableModel::kOffset, "25");
    EXPECT_NEAR(doc->offsets()->points()[0].offset().seconds(), 0.025, 1e-4);

    // A new time keeps the offset and re-sorts the list.
    type(doc, 0, OffsetTableModel::kTime, "10.5");
    ASSERT_EQ(doc->offsets()->points().size(), 2u);
    EXPECT_EQ(doc->offsets()->points()[1].movieTime.timeValue, 6300); // 10.5 s at 600
    EXPECT_NEAR(doc->offsets()->points()[1].offset().seconds(), 0.025, 1e-4);

    // Bad time text beeps and changes nothing.
    int beeps = 0;
    kit::setBeepResponder([&] { ++beeps; });
    auto before = doc->offsets()->points();
    type(doc, 0, OffsetTableModel::kTime, "1:60");
    type(doc, 1, OffsetTableModel::kTime, "soon");
    EXPECT_EQ(beeps, 2);
    ASSERT_EQ(doc->offsets()->points().size(), before.size());
    for (std::size_t i = 0; i < before.size(); ++i) EXPECT_TRUE(doc->offsets()->points()[i].movieTime == before[i].movieTime);
    EXPECT_EQ(doc->changeCount(), 3); // each edit that changed a point is a change; the refused ones are not
}

TEST_F(Table, SelectingOnePointLoopsAroundIt)
{
    MovieDoc* doc = open(movie12());
    ASSERT_TRUE(doc);
    doc->offsets()->replacePoints({Offset(at(3), at(3.1)), Offset(at(9), at(9.1))});
    doc->reloadTable();
    doc->setSelectedRows({1});
    EXPECT_TRUE(doc->player()->loops());
    EXPECT_EQ(doc->startTime().timeValue, 7 * kRate);
    EXPECT_EQ(doc->endTime().timeValue, 11 * kRate);
    doc->setSelectedRows({0, 1}); // two rows: the loop stays
    EXPECT_TRUE(doc->player()->loops());
    EXPECT_EQ(doc->startTime().timeValue, 7 * kRate);
    doc->setSelectedRows({});
    EXPECT_FALSE(doc->player()->loops());

    // Edit and Delete need the sync point window to be the key window.
    doc->setSelectedRows({0});
    QApplication::setActiveWindow(doc->getInfoWindow());
    EXPECT_TRUE(doc->validateAction("editSync"));
    EXPECT_TRUE(doc->validateAction("deleteSync"));
    EXPECT_FALSE(doc->validateAction("startSync")); // one row selected, table key
    QApplication::setActiveWindow(doc->movieWindow());
    EXPECT_FALSE(doc->validateAction("editSync"));
    EXPECT_TRUE(doc->validateAction("startSync"));

    // Return ends an edit and stays on its row; it starts no sync point.
    QApplication::setActiveWindow(doc->getInfoWindow());
    DMTableView* table = doc->getTableView();
    QModelIndex index = table->model()->index(0, OffsetTableModel::kOffset);
    table->setCurrentIndex(index);
    table->edit(index);
    auto* editor = table->findChild<QLineEdit*>();
    ASSERT_TRUE(editor);
    editor->setText("50");
    QKeyEvent ret(QEvent::KeyPress, Qt::Key_Return, Qt::NoModifier, "\r");
    QApplication::sendEvent(editor, &ret);
    QCoreApplication::processEvents(); // the delegate commits and closes the editor queued
    EXPECT_FALSE(table->isEditing());
    EXPECT_EQ(table->currentIndex().row(), 0);
    EXPECT_FALSE(doc->syncInProgress());
    EXPECT_NEAR(doc->offsets()->points()[0].offset().seconds(), 0.050, 1e-4);
}

TEST_F(Table, FirstSaveAsProposesSynced)
{
    ScratchDir dir;
    std::string talk = dir.file("Talk.ts");
    auto spec = smallSpec(12, 0.0, 1.0);
    spec.format = "mpegts";
    writeFile(talk, readFile(cachedMovie("app-12s.ts", spec))); // a container Dubmatch reads but does not write
    MovieDoc* doc = open(talk);
    ASSERT_TRUE(doc);
    EXPECT_TRUE(doc->isImported());
    kit::SavePanelSpec asked;
    kit::setSavePanelResponder([&](kit::SavePanelSpec const& s) {
        asked = s;
        return QString();
    });
    bool reported = true;
    doc->runModalSavePanel(kit::SaveOperation::SaveAs, [&](bool saved) { reported = saved; });
    EXPECT_FALSE(reported);
    EXPECT_EQ(asked.title, "Save As");
    EXPECT_EQ(asked.proposedName, "Talk-synced.mkv"); // saved as Matroska, which holds any codec
    EXPECT_EQ(listDir(dir.path()), std::vector<std::string>{"Talk.ts"});

    // Saved for real, then reopened: in sync, with its backup.
    doc->player()->setCurrentTime(at(6));
    doc->startSync();
    doc->acceptSync();
    kit::setSavePanelResponder([&](kit::SavePanelSpec const& s) {
        asked = s;
        return QString::fromStdString(dir.file("Talk-synced")); // no extension: the proposed one is added
    });
    doc->saveDocument(); // an imported document saves through Save As
    EXPECT_EQ(doc->fileName().toStdString(), dir.file("Talk-synced.mkv"));
    EXPECT_FALSE(doc->isDocumentEdited());
    EXPECT_FALSE(doc->isImported()); // now a Matroska movie, saved in place from here on
    EXPECT_EQ(doc->fileType(), "Matroska Movie");
    EXPECT_LT(media::measureSync(dir.file("Talk-synced.mkv")).worst(), 0.001);
    // A later Save As is the ordinary one.
    doc->runModalSavePanel(kit::SaveOperation::SaveAs, [](bool) {});
    EXPECT_EQ(asked.proposedName, "Talk-synced.mkv");
}

TEST_F(Table, ExportsEveryFormatAndCancelLeavesNothing)
{
    ScratchDir dir;
    MovieDoc* doc = open(movie12());
    ASSERT_TRUE(doc);
    doc->player()->setCurrentTime(at(4));
    auto const& formats = media::exportFormats();
    for (std::size_t i = 0; i < formats.size(); ++i) {
        SCOPED_TRACE(formats[i].title);
        std::string out = dir.file(std::string("out.") + formats[i].extension);
        kit::setSavePanelResponder([&](kit::SavePanelSpec const& s) {
            auto* chooser = s.accessory->findChild<QComboBox*>("exportType");
            EXPECT_EQ(chooser->count(), 7);
            EXPECT_EQ(chooser->itemText(static_cast<int>(i)), formats[i].title);
            chooser->setCurrentIndex(static_cast<int>(i));
            return QString::fromStdString(out);
        });
        doc->doExport();
        ASSERT_TRUE(exists(out));
        media::OpenedMovie back = media::openMovie(out);
        auto videos = back.movie->tracksOfMediaType(dm::MediaType::Video);
        if (formats[i].type == media::ExportType::BMP || formats[i].type == media::ExportType::FLC) {
            ASSERT_EQ(videos.size(), 1u);
            EXPECT_EQ(media::OpenedMovie::mediaOf(*videos[0]).width, 320);
            EXPECT_EQ(media::OpenedMovie::mediaOf(*videos[0]).height, 240);
        }
        if (formats[i].type == media::ExportType::AIFF) EXPECT_TRUE(videos.empty());
        else EXPECT_FALSE(videos.empty());
    }

    // Cancel on the progress sheet of a long export: no file.
    MovieDoc* longDoc = open(cachedMovie("table-long.mov", smallSpec(60, 0, 1)));
    ASSERT_TRUE(longDoc);
    std::string out = dir.file("cancelled.dv");
    kit::setSavePanelResponder([&](kit::SavePanelSpec const& s) {
        s.accessory->findChild<QComboBox*>("exportType")->setCurrentIndex(2); // DV: slow enough
        return QString::fromStdString(out);
    });
    bool cancelled = false;
    QTimer poll;
    QObject::connect(&poll, &QTimer::timeout, [&] {
        if (longDoc->progressPanel() && !cancelled) {
            EXPECT_TRUE(longDoc->isBusy());
            EXPECT_FALSE(longDoc->validateAction("startSync")); // frozen while it writes
            bool mayClose = true;
            longDoc->canClose([&](bool ok) { mayClose = ok; });
            EXPECT_FALSE(mayClose);
            // Closing the sheet cancels; it stays up, saying so, until the
            // export has stopped, so the window is not handed back busy.
            QProgressDialog* panel = longDoc->progressPanel();
            panel->close();
            EXPECT_TRUE(panel->isVisible());
            EXPECT_EQ(panel->labelText(), "Stopping\u2026");
            auto* button = panel->findChild<QPushButton*>();
            ASSERT_TRUE(button);
            EXPECT_FALSE(button->isEnabled());
            cancelled = true;
        } else if (longDoc->progressPanel()) {
            EXPECT_TRUE(longDoc->progressPanel()->isVisible()); // still stopping
            EXPECT_TRUE(longDoc->isBusy());
        }
    });
    poll.start(20);
    std::vector<kit::AlertSpec> alerts;
    kit::setAlertResponder([&](kit::AlertSpec const& a) {
        alerts.push_back(a);
        return 0;
    });
    longDoc->doExport();
    EXPECT_TRUE(cancelled);
    EXPECT_TRUE(alerts.empty());
    EXPECT_FALSE(exists(out));
    for (auto const& name : listDir(dir.path())) EXPECT_EQ(name.find("cancelled"), std::string::npos) << name;
    EXPECT_FALSE(longDoc->isBusy());
}

// Points no movie needs: a point outside the movie is flagged with its
// reason, and a line no transfer needs is refused by Save and Export before
// any work, the file as it was.
TEST_F(Table, PointsNoMovieNeedsAreFlaggedAndNeitherSavedNorExported)
{
    ScratchDir dir;
    std::string path = dir.file("m.mov"), exported = dir.file("e.aiff");
    writeFile(path, readFile(movie12()));
    std::string original = readFile(path);
    MovieDoc* doc = open(path);
    ASSERT_TRUE(doc);
    auto tip = [&](int row) { return cell(doc, row, OffsetTableModel::kFlag, Qt::ToolTipRole).toString(); };
    auto flagged = [&](int row) { return !cell(doc, row, OffsetTableModel::kFlag, Qt::DecorationRole).isNull(); };
    std::vector<kit::AlertSpec> alerts;
    kit::setAlertResponder([&](kit::AlertSpec const& a) {
        alerts.push_back(a);
        return 0;
    });
    kit::setSavePanelResponder([&](kit::SavePanelSpec const& s) {
        s.accessory->findChild<QComboBox*>("exportType")->setCurrentIndex(3); // AIFF: the re-timed sound alone
        return QString::fromStdString(exported);
    });
    struct Row {
        char const* name;
        std::vector<Offset> points;
        int flaggedRow; // -1: none
        char const* says;
    };
    for (Row const& row : {Row{"a point after the movie", {Offset(at(2), at(2)), Offset(at(8), at(8)), Offset(at(40), at(40))}, 2,
                               "after the end of the movie"},
                           Row{"a point before the sound", {Offset(at(2), at(-9)), Offset(at(8), at(8))}, 0, "before the start of the unedited sound"},
                           Row{"slope 0.2", {Offset(at(2), at(2)), Offset(at(10), at(3.6))}, -1, "slope of 0.2"},
                           Row{"slope 3", {Offset(at(1), at(1)), Offset(at(4), at(10))}, -1, "slope of 3"}}) {
        SCOPED_TRACE(row.name);
        alerts.clear();
        doc->offsets()->replacePoints(row.points);
        doc->reloadTable();
        for (int r = 0; r < static_cast<int>(row.points.size()); ++r) {
            EXPECT_EQ(flagged(r), r == row.flaggedRow) << r;
            EXPECT_EQ(tip(r).contains(row.says), r == row.flaggedRow) << r << ": " << tip(r).toStdString();
        }
        doc->saveDocument();
        doc->doExport();
        EXPECT_EQ(readFile(path), original);
        EXPECT_FALSE(exists(exported));
        ASSERT_EQ(alerts.size(), 2u);
        EXPECT_EQ(alerts[0].message, "The movie cannot be saved with these sync points.");
        EXPECT_EQ(alerts[1].message, "The movie cannot be exported with these sync points.");
        for (auto const& a : alerts) EXPECT_TRUE(a.informative.contains(row.says)) << a.informative.toStdString();
    }
    // Points a real transfer gives are neither flagged nor refused.
    alerts.clear();
    doc->offsets()->replacePoints({Offset(at(2), at(2.1)), Offset(at(10), at(10.5))});
    doc->reloadTable();
    EXPECT_FALSE(flagged(0));
    EXPECT_FALSE(flagged(1));
    doc->saveDocument();
    for (auto const& a : alerts) EXPECT_FALSE(a.message.contains("cannot be")) << a.message.toStdString();
    EXPECT_NE(readFile(path), original);
    EXPECT_FALSE(doc->isDocumentEdited());
}

// Cancel that comes once the work has done what cannot be undone (the new
// file in place) finds it done: the sheet says it worked and that the stop
// came too late. Cancel in time cancels.
TEST_F(Table, ACancelAfterTheWorkIsDoneReportsItDone)
{
    auto cancelSoon = [](ProgressSheet& sheet) {
        QTimer::singleShot(100, sheet.panel(), [&sheet] { sheet.panel()->close(); }); // closing the sheet cancels
    };
    ProgressSheet late(nullptr, "Saving");
    cancelSoon(late);
    auto outcome = late.run([](media::Progress const& progress) {
        // The work has passed its point of no return when it sees the stop: it ends as done.
        while (progress("Saving", media::Phase::Update, 0.99)) std::this_thread::sleep_for(std::chrono::milliseconds(5));
    });
    ASSERT_TRUE(outcome.has_value());
    EXPECT_EQ(*outcome, "");
    EXPECT_TRUE(late.stopCameTooLate());

    ProgressSheet inTime(nullptr, "Saving");
    cancelSoon(inTime);
    outcome = inTime.run([](media::Progress const& progress) {
        while (progress("Saving", media::Phase::Update, 0.5)) std::this_thread::sleep_for(std::chrono::milliseconds(5));
        throw media::Cancelled();
    });
    EXPECT_FALSE(outcome.has_value());
    EXPECT_FALSE(inTime.stopCameTooLate());

    ProgressSheet untouched(nullptr, "Saving");
    outcome = untouched.run([](media::Progress const&) {});
    ASSERT_TRUE(outcome.has_value());
    EXPECT_EQ(*outcome, "");
    EXPECT_FALSE(untouched.stopCameTooLate());
}

TEST_F(Table, ExportFailureSaysSo)
{
    MovieDoc* doc = open(movie12());
    ASSERT_TRUE(doc);
    kit::setSavePanelResponder([](kit::SavePanelSpec const&) { return QString("/no/such/folder/out.mov"); });
    std::vector<kit::AlertSpec> alerts;
    kit::setAlertResponder([&](kit::AlertSpec const& a) {
        alerts.push_back(a);
        return 0;
    });
    doc->doExport();
    ASSERT_EQ(alerts.size(), 1u);
    EXPECT_EQ(alerts[0].title, "Error");
    EXPECT_EQ(alerts[0].message, "Error exporting movie.");
}

TEST_F(Table, PrintsThePicture)
{
    ScratchDir dir;
    MovieDoc* doc = open(movie12());
    ASSERT_TRUE(doc);
    doc->player()->setCurrentTime(at(3));
    for (int i = 0; i < 200 && doc->movieView()->currentPicture().isNull(); ++i) QTest::qWait(10);
    QPrinter printer;
    printer.setOutputFormat(QPrinter::PdfFormat);
    printer.setOutputFileName(QString::fromStdString(dir.file("picture.pdf")));
    EXPECT_TRUE(doc->printShowingPrintPanel(false, &printer));
    std::string pdf = readFile(dir.file("picture.pdf"));
    EXPECT_EQ(pdf.substr(0, 5), "%PDF-");
    EXPECT_GT(pdf.size(), 2000u);
}

} // namespace
