// Choosing the sound track to sync in a movie with several: Sync > Sound
// Track to Sync, what it lists and when it can be used, and what a save
// does with the choice.
#include "AppTestSupport.h"
#include "DMApplication.h"
#include "MediaTestSupport.h"
#include "MovieSession.h"

#include <QMenu>

#include <gtest/gtest.h>

using namespace testsupport;

namespace {

constexpr int kRate = 48000;

myQTTime at(double s) { return myQTTime(static_cast<long long>(std::llround(s * kRate)), kRate); }

// A movie with an original and a dub, both enabled, named by language.
media::TestMovieSpec dubbedSpec()
{
    auto s = smallSpec(12, 0.0, 1.0);
    s.extraSoundTracks = 1;
    s.extraSoundEnabled = true;
    s.languages = {"eng", "ger"};
    return s;
}

std::string dubbedMovie() { return cachedMovie("app-dubbed.mov", dubbedSpec()); }

class SoundTrackChoice : public DocumentTest {
protected:
    // The submenu's items as the user sees them when it opens.
    static QList<QAction*> trackItems()
    {
        auto* app = DMApplication::instance();
        app->updateMenu();
        QMenu* menu = app->getSyncMenu()->findChild<QMenu*>("soundTrackMenu");
        EXPECT_NE(menu, nullptr);
        if (!menu) return {};
        EXPECT_TRUE(menu->menuAction()->isEnabled());
        emit menu->aboutToShow();
        return menu->actions();
    }
    static std::vector<int> soundIds(MovieDoc* doc)
    {
        std::vector<int> ids;
        for (auto const& t : doc->soundTracks()) ids.push_back(t->id());
        return ids;
    }
};

TEST_F(SoundTrackChoice, TheMenuListsTheTracksAndSwitchesTheSession)
{
    AlertRecorder alerts;
    MovieDoc* doc = open(dubbedMovie());
    ASSERT_TRUE(doc);
    EXPECT_TRUE(alerts.shown.empty());
    std::vector<int> ids = soundIds(doc);
    ASSERT_EQ(ids.size(), 2u);
    // The first enabled sound track is synced until another is chosen.
    EXPECT_EQ(doc->soundTrackId(), ids[0]);
    EXPECT_EQ(doc->player()->soundTrack(), doc->offsets()->soundTrack());

    QList<QAction*> items = trackItems();
    ASSERT_EQ(items.size(), 2);
    int channels = media::OpenedMovie::mediaOf(*doc->soundTracks()[0]).channels;
    QString ch = channels == 1 ? "1 channel" : QString("%1 channels").arg(channels);
    EXPECT_EQ(items[0]->text(), QString("Track %1: aac, %2, eng, \"Sound\"").arg(ids[0]).arg(ch));
    EXPECT_EQ(items[1]->text(), QString("Track %1: aac, %2, ger, \"Sound 2\"").arg(ids[1]).arg(ch));
    EXPECT_TRUE(items[0]->isChecked());
    EXPECT_FALSE(items[1]->isChecked());
    EXPECT_TRUE(items[0]->isEnabled() && items[1]->isEnabled());

    // Choosing the dub: a new session and player for it, in the same window.
    doc->createInfoWindow(false);
    EXPECT_EQ(doc->getInfoWindow()->windowTitle(), QString("app-dubbed.mov Sync Points \u2014 Track %1 \"Sound\"").arg(ids[0]));
    QMainWindow* window = doc->movieWindow();
    bool const hadDevice = doc->player()->hasAudioDevice();
    doc->player()->setCurrentTime(at(5));
    items[1]->trigger();
    EXPECT_TRUE(alerts.shown.empty());
    EXPECT_EQ(doc->movieWindow(), window);
    EXPECT_EQ(doc->soundTrackId(), ids[1]);
    EXPECT_EQ(doc->offsets()->soundTrack()->id(), ids[1]);
    EXPECT_EQ(doc->player()->soundTrack(), doc->offsets()->soundTrack());
    EXPECT_EQ(doc->player()->currentTime().timeValue, at(5).timeValue);
    // The old player let go of the sound device before the new one opened it.
    EXPECT_EQ(doc->player()->hasAudioDevice(), hadDevice) << doc->player()->audioStatus();
    EXPECT_EQ(doc->getInfoWindow()->windowTitle(), QString("app-dubbed.mov Sync Points \u2014 Track %1 \"Sound 2\"").arg(ids[1]));
    items = trackItems();
    ASSERT_EQ(items.size(), 2);
    EXPECT_FALSE(items[0]->isChecked());
    EXPECT_TRUE(items[1]->isChecked());

    // The loop's waveform and the sync work on the dub.
    doc->startSync();
    ASSERT_TRUE(doc->syncInProgress());
    EXPECT_EQ(doc->session()->offsets()->soundTrack()->id(), ids[1]);
    // A point in progress settles the track.
    items = trackItems();
    ASSERT_EQ(items.size(), 2);
    EXPECT_FALSE(items[0]->isEnabled());
    EXPECT_FALSE(items[1]->isEnabled());
    doc->acceptSync();
    ASSERT_EQ(doc->offsets()->points().size(), 1u);
    items = trackItems();
    ASSERT_EQ(items.size(), 2);
    EXPECT_FALSE(items[0]->isEnabled());
    EXPECT_TRUE(items[1]->isChecked());
    EXPECT_FALSE(doc->chooseSoundTrack(ids[0]));
    EXPECT_EQ(doc->soundTrackId(), ids[1]);
    EXPECT_EQ(doc->offsets()->points().size(), 1u);

    // Without points again (undone), the choice is open again, and the undo
    // history still applies to the track synced now.
    doc->undo();
    ASSERT_TRUE(doc->offsets()->points().empty());
    items = trackItems();
    ASSERT_EQ(items.size(), 2);
    EXPECT_TRUE(items[0]->isEnabled());
    items[0]->trigger();
    EXPECT_EQ(doc->soundTrackId(), ids[0]);
    doc->redo();
    EXPECT_EQ(doc->offsets()->points().size(), 1u);
    EXPECT_EQ(doc->offsets()->soundTrack()->id(), ids[0]);
}

TEST_F(SoundTrackChoice, OneSoundTrackIsShownGreyed)
{
    MovieDoc* doc = open(cachedMovie("app-12s.mov", smallSpec(12, 0.0, 1.0)));
    ASSERT_TRUE(doc);
    QList<QAction*> items = trackItems();
    ASSERT_EQ(items.size(), 1);
    EXPECT_TRUE(items[0]->text().startsWith(QString("Track %1: aac, ").arg(doc->soundTrackId()))) << items[0]->text().toStdString();
    EXPECT_TRUE(items[0]->isChecked());
    EXPECT_FALSE(items[0]->isEnabled());
    EXPECT_FALSE(doc->validateAction("chooseSoundTrack"));
    doc->createInfoWindow(false);
    EXPECT_EQ(doc->getInfoWindow()->windowTitle(), "app-12s.mov Sync Points"); // no track named without a choice
}

// The dub chosen and synced, saved, then read back: the saved sync names the
// dub, so the movie opens on it and refuses a sync of the original.
TEST_F(SoundTrackChoice, ASaveReTimesTheChosenTrack)
{
    ScratchDir dir;
    std::string path = dir.file("dubbed.mov");
    writeFile(path, readFile(dubbedMovie()));
    MovieDoc* doc = open(path);
    ASSERT_TRUE(doc);
    std::vector<int> ids = soundIds(doc);
    ASSERT_EQ(ids.size(), 2u);
    ASSERT_TRUE(doc->chooseSoundTrack(ids[1]));
    doc->offsets()->replacePoints(markPoints(dubbedSpec()));
    EXPECT_FALSE(doc->validateAction("chooseSoundTrack"));

    std::string saved = dir.file("dubbed-synced.mov");
    kit::setSavePanelResponder([&](kit::SavePanelSpec const&) { return QString::fromStdString(saved); });
    AlertRecorder alerts;
    doc->saveDocumentAs();
    ASSERT_TRUE(exists(saved));
    EXPECT_EQ(doc->fileName().toStdString(), saved);

    auto session = dmsync::MovieSession::open(saved);
    ASSERT_TRUE(session->canSync()) << session->refusal().message;
    EXPECT_TRUE(session->syncedBefore());
    EXPECT_EQ(session->list().soundTrack()->id(), ids[1]);
    EXPECT_EQ(disabledSoundTracks(saved), 1); // the dub's backup; the original stays enabled
    doc->close();

    // Reopened: the dub again, its points back, so no other track can be chosen.
    MovieDoc* again = open(saved);
    ASSERT_TRUE(again);
    EXPECT_EQ(again->soundTrackId(), ids[1]);
    EXPECT_EQ(soundIds(again), ids); // the backup is not offered
    EXPECT_FALSE(again->offsets()->points().empty());
    QList<QAction*> items = trackItems();
    ASSERT_EQ(items.size(), 2);
    EXPECT_FALSE(items[0]->isEnabled());
    EXPECT_TRUE(items[1]->isChecked());

    // With the points gone, the original can be asked for, but a sync of it
    // would write over the dub's sync: refused, with the reason, and the dub stays.
    again->offsets()->replacePoints({});
    ASSERT_TRUE(again->validateAction("chooseSoundTrack"));
    alerts.shown.clear();
    EXPECT_FALSE(again->chooseSoundTrack(ids[0]));
    ASSERT_EQ(alerts.shown.size(), 1u);
    EXPECT_TRUE(alerts.shown[0].message.contains(QString("synced on track %1").arg(ids[1]))) << alerts.shown[0].message.toStdString();
    EXPECT_FALSE(alerts.shown[0].informative.isEmpty());
    EXPECT_EQ(again->soundTrackId(), ids[1]);
    EXPECT_EQ(again->player()->soundTrack(), again->offsets()->soundTrack());
}

} // namespace

// Sync > Suggest Points from a Sound Track: the sound to sync compared with
// another track of the movie (here a copy of it, so the points lie on the
// line of no change) or with a file; a file that shares nothing is refused.
class ReferenceSuggestions : public SoundTrackChoice {
protected:
    static QList<QAction*> referenceItems()
    {
        auto* app = DMApplication::instance();
        app->updateMenu();
        QMenu* menu = app->getSyncMenu()->findChild<QMenu*>("referenceMenu");
        EXPECT_NE(menu, nullptr);
        if (!menu) return {};
        EXPECT_TRUE(menu->menuAction()->isEnabled());
        emit menu->aboutToShow();
        QList<QAction*> items;
        for (QAction* a : menu->actions())
            if (!a->isSeparator()) items << a;
        return items;
    }
};

TEST_F(ReferenceSuggestions, AnotherTrackGivesCandidatesAndAnUnrelatedFileIsRefused)
{
    auto spec = dubbedSpec();
    spec.seconds = 40;
    spec.music = true;
    std::string path = cachedMovie("app-dub-music.mov", spec);
    std::string unrelated = cachedMovie("app-reference-clicks.mov", smallSpec(20, 0.0, 1.0));

    AlertRecorder alerts;
    MovieDoc* doc = open(path);
    ASSERT_TRUE(doc);
    std::vector<int> ids = soundIds(doc);
    ASSERT_EQ(ids.size(), 2u);
    QList<QAction*> items = referenceItems();
    // The other track, then a file.
    ASSERT_EQ(items.size(), 2);
    EXPECT_EQ(items[0]->data().toInt(), ids[1]);
    EXPECT_TRUE(items[1]->text().startsWith("Another Movie or Sound File"));

    items[0]->trigger();
    auto const& candidates = doc->session()->candidates();
    ASSERT_GE(candidates.size(), 2u) << (alerts.shown.empty() ? "" : alerts.shown.back().informative.toStdString());
    for (auto const& c : candidates) {
        EXPECT_NEAR(c.audioTime.seconds() - c.movieTime.seconds(), 0.0, 0.001);
        EXPECT_GT(c.confidence, 0.5);
    }
    EXPECT_TRUE(alerts.shown.empty()) << alerts.shown.front().message.toStdString();

    // Another film's sound (clicks over a quiet tone): refused, nothing offered.
    doc->session()->setCandidates({});
    // A candidate shown with its loop is a point in progress: let it go.
    if (doc->syncInProgress()) doc->performAction("abandonSync");
    QApplication::setActiveWindow(doc->movieWindow());
    kit::setOpenPanelResponder([&](kit::OpenPanelSpec const&) { return QString::fromStdString(unrelated); });
    items = referenceItems();
    ASSERT_EQ(items.size(), 2);
    items[1]->trigger();
    kit::setOpenPanelResponder(nullptr);
    EXPECT_TRUE(doc->session()->candidates().empty());
    ASSERT_EQ(alerts.shown.size(), 1u);
    EXPECT_EQ(alerts.shown[0].message.toStdString(), "Dubmatch has no sync points to suggest.");
    EXPECT_TRUE(alerts.shown[0].informative.contains("is the same film")) << alerts.shown[0].informative.toStdString();
}
