// The movie document: one open movie, its player and its sync session, as
// the document framework knows it. The workflow itself lives in SyncSession;
// this class turns it into menu actions, keys, a table and windows. Its
// member functions are spread over four files by responsibility:
// MovieDoc.cpp (actions, keys, the table's data), MovieDocFile.cpp (reading
// and writing), MovieDocWindows.cpp (the windows), MovieDocExport.cpp
// (export and print).
#pragma once

#include "ImportDocument.h"
#include "MovieFile.h"
#include "MovieWriter.h"
#include "OffsetList.h"
#include "Player.h"
#include "Refusal.h"
#include "SyncSession.h"
#include "kit/QtBridge.h"

#include <QLabel>
#include <QMainWindow>
#include <QUndoStack>

#include <memory>
#include <optional>

class MovieView;
class OffsetListWindowController;
class DMTableView;
class QProgressDialog;

class WaveformStrip;

class MovieDoc : public ImportDocument {
    Q_OBJECT
public:
    MovieDoc();
    ~MovieDoc() override;

    // The file types: QuickTime and MPEG-4 movies are written back in place;
    // every other container opens as an imported document.
    static QString typeForFile(QString const& path);
    // The document type of a container that takes saves ("QuickTime
    // Movie", "Matroska Movie"...), else "UnsavedDocument"; and back.
    static QString typeForContainer(media::Container container);
    static media::Container containerForType(QString const& type);
    QStringList writableTypes() const override { return {"QuickTime Movie", "MPEG-4 Movie", "Matroska Movie", "WebM Movie", "3GPP Movie", "3GPP2 Movie"}; }
    // The container Save As writes: the document's own, or the writer's
    // choice for a file that is read but not written.
    media::Container saveAsContainer() const;
    QStringList fileExtensionsFromType(QString const& type) const override;

    // Reading: refusals appear as alerts with their fixed texts (or, with
    // `error`, are returned there instead).
    bool readFromFile(QString const& path, QString const& type) override;
    bool readFromFile(QString const& path, QString const& type, Refusal* error);
    bool writeToFile(QString const& path, QString const& type, kit::SaveOperation op) override;
    void makeWindowControllers() override;
    QWidget* windowForSheet() const override { return mMovieWindow; }
    void showWindows() override;
    // A document that is writing cannot close until the write ends.
    void canClose(std::function<void(bool)> done) override;
    // The first Save As proposes "<name>-synced.<ext>" in the document's own
    // panel; later ones use the ordinary panel.
    void runModalSavePanel(kit::SaveOperation op, std::function<void(bool)> done) override;
    bool saveToFile(QString const& path, kit::SaveOperation op) override;

    // The rows of the sync point table (its model reads the session).
    int numberOfRows() const;
    Offset GetOffset(int row) const;
    // Cells can be edited (not while a save or export runs).
    bool canEditTable() const;
    // A cell of the table was edited (or an edit refused).
    void tableEdited() { emit pointsChanged(); }
    void tableViewSelectionDidChange();
    OffsetListWindowController* findInfoWindowController() const;
    DMTableView* getTableView() const;
    QWidget* getInfoWindow() const;
    // "<name> Sync Points", with the synced track named when the movie has several.
    QString infoWindowTitle() const;
    void createInfoWindow(bool show);
    void showInfo() { createInfoWindow(true); }
    void reloadTable();
    void setTimeDisplay();
    void setDurationDisplay();

    // Export: a save panel with a chooser of the seven formats.
    void doExport();
    // The sync points as text (the format dubmatch-cli reads with --points).
    void exportSyncPoints();
    // Replaces the points with those of a text file; bad text changes nothing.
    void importSyncPoints();
    // `path` with the extension of the chosen format (a movie or export
    // extension it has is replaced).
    static QString exportPathWithExtension(QString const& path, QString const& extension);
    // Prints the picture now shown (to the printer chosen in the dialog, or
    // to `printer` as it is set up when no dialog is asked for).
    bool printShowingPrintPanel(bool showPanel, class QPrinter* printer = nullptr);
    // The progress sheet of a running save or export (null otherwise).
    QProgressDialog* progressPanel() const;
    bool isBusy() const { return busy_; }

    // Movie window sizing.
    QSize windowContentSizeForMovieSize(QSize movieSize) const;
    void sizeWindowToMovie();

    // The sync workflow (the Sync menu's actions).
    void startSync();
    void acceptSync();
    void editSync();
    void deleteSync();
    void abandonSync();
    void advanceSelection();
    void retardSelection();
    void expandSelection();
    void contractSelection();
    void advanceAudio();
    void retardAudio();
    // Wheel motion in notches (one notch is one unit, one millisecond).
    void scrollWheel(double deltaY);
    void otherMouseDown();
    void togglePlay();
    // Keyboard transport outside a sync: Left/Right one frame, with Shift
    // one second, Home/End, J/K/L shuttle. True when the key was a
    // transport key and the document took it.
    bool transportKey(int key, Qt::KeyboardModifiers modifiers);
    // The shuttle speed J/K/L set last (0: stopped).
    double shuttleRate() const { return shuttle_; }

    // Sync > Suggest Points: the picture and the sound are compared on a
    // worker thread behind a progress sheet (Cancel stops it); the points
    // they agree on join the table as greyed candidate rows, with their
    // confidence. Selecting one starts a sync at it with its offset applied.
    void suggestPoints();
    // Sync > Accept All Confident: every candidate whose confidence reaches
    // the "suggestConfidence" preference becomes a point, as one undo step.
    void acceptConfidentPoints();
    bool isCandidateRow(int row) const { return session_ && session_->candidateOfRow(row) >= 0; }

    // Sync > Suggest Points from a Sound Track: the unedited sound to sync
    // is compared with track `id` of the movie (the original language), or
    // with the sound of a file chosen in an open panel (another release).
    // The candidates appear as the picture's do; stretches where the two
    // sounds differ are told in an alert.
    void suggestPointsFromTrack(int id);
    void suggestPointsFromFile();
    void suggestPointsFrom(dmsync::ReferenceSound const& reference);

    // Sync > Sound Track to Sync: the movie's sound tracks a user can
    // choose (not the backup of an earlier sync), in the file's order, and
    // the one synced now.
    std::vector<dm::TrackPtr> soundTracks() const;
    int soundTrackId() const;
    // The menu title of a sound track: "Track 3: aac, 2 channels, ger, "German"".
    static QString soundTrackTitle(dm::Track const& track);
    // Syncs the sound track numbered `id` instead (allowed while the movie
    // has more than one sound track and no sync point): the movie is read
    // again for it, with a new player and sync session, in the same
    // windows. A refusal is told in an alert and keeps the track synced now.
    // True when `id` is the track synced afterwards.
    bool chooseSoundTrack(int id);
    // Whether another sound track can be chosen now: the movie has more
    // than one, no sync point exists and no save or export runs.
    bool canChooseSoundTrack() const;

    // Whether an action (by name, e.g. "startSync") is enabled now.
    bool validateAction(QString const& action) const;
    // Runs an enabled action; false when disabled or unknown.
    bool performAction(QString const& action);

    // The mode: "noPoints", "pointInProgress", "endNeedsSync",
    // "checkRedDiamonds", "morePointsIfNeeded" or "unknown".
    QString movieMode() const;
    static QString instructionForMode(QString const& mode);

    bool syncInProgress() const { return session_ && session_->syncInProgress(); }
    bool allowSelectionChange() const { return session_ && session_->allowSelectionChange(); }

    // Selected rows of the sync point table (the table comes with its window).
    // The selected rows of the sync point table (none without the window).
    IndexSet selectedRows() const;
    void setSelectedRows(IndexSet rows);

    // For tests and the time read-outs.
    SyncSession* session() const { return session_.get(); }
    OffsetList* offsets() const { return session_ ? session_->offsets() : nullptr; }
    media::Player* player() const { return player_.get(); }
    dm::Movie* movie() const { return opened_ ? &opened_->movie() : nullptr; }
    myQTTime startTime() const { return session_ ? session_->startTime() : myQTTime(); }
    myQTTime endTime() const { return session_ ? session_->endTime() : myQTTime(); }
    myQTTime audioTime() const { return session_ ? session_->audioTime() : myQTTime(); }
    int syncRow() const { return session_ ? session_->syncRow() : 0; }
    QMainWindow* movieWindow() const { return mMovieWindow; }
    MovieView* movieView() const { return mMovieView; }
    WaveformStrip* waveformStrip() const { return waveform_; }
    myQTTime loopMiddle() const;

    // Undo and redo of every change of the sync points, one step each.
    void undo();
    void redo();
    bool canUndo() const;
    bool canRedo() const;
    QString undoText() const;
    QString redoText() const;
    QUndoStack* undoStack() const { return undo_; }

signals:
    void movieModeChanged(QString const& mode);
    // The sync points or the point in progress changed (the table reloads).
    void pointsChanged();
    // A playback fault was reported (once per player).
    void playbackFault(QString const& message);

private:
    friend class OffsetTableModel; // reads the line checks and the time format of the rows
    friend class PointsCommand;
    bool enabledVideo() const; // the movie has a picture to compare the sound with
    // After the points changed outside a sync in progress: one undo step
    // from the points before to the points now, when they differ.
    void recordPoints();
    void updateResidualPlot();
    void updateWaveform();
    // Puts back a list of points (undo and redo).
    void applyPoints(std::vector<Offset> const& points);
    QUndoStack* undo_ = nullptr;
    std::vector<Offset> committed_; // the points at the last undo step
    bool applyingPoints_ = false;
    QString nextLabel_; // the name of the next step, when the change has one of its own
    void didUpdateMode();
    // The save options for writing the movie in `container` (the sound
    // codec preference; streams left out only when the user agrees), or
    // nullopt when the user cancelled or the container cannot take the
    // movie (after an alert). `what` is "saved" or "exported".
    std::optional<media::SaveOptions> saveOptionsFor(media::Container container, QString const& what);
    void showWriterNotes(std::vector<std::string> const& notes, QString const& what);
    void normalSpeed();
    SyncSession::Hooks sessionHooks();
    void showPlaybackFault(QString const& message);
    void onIdle(myQTTime now);
    void updateMenu();
    int durationFields() const;
    bool movieWindowIsKey() const;
    bool infoWindowIsKeyWindow() const;
    bool tableViewIsEditing() const;
    // Runs a long movie operation on a worker thread behind the progress
    // sheet; the document's state stays frozen meanwhile. Returns the
    // operation's error message ("" when it worked), or nullopt if cancelled.
    std::optional<std::string> runWithProgress(QString const& title, std::function<void(media::Progress const&)> work);
    void windowBecameKey(QWidget* window);
    // Moves `window` beside `anchor` the first time it is shown.
    void placeBeside(QWidget* window, QWidget* anchor);
    void placeWindows();
    // Where the user left this movie's windows, kept per file.
    bool restoreWindowPositions();
    void rememberWindowPositions();
    // Notes the movie times of the selected points.
    void rememberSelection();
    // Gives the hint line the height its longest text needs at `width`.
    void fitHintHeight(int width);
    // Why a point lies outside the movie or its unedited sound; empty when within.
    std::string pointOutside(Offset const& point) const;
    // Why a save would refuse the points and their line; empty when it takes them.
    std::string syncProblem() const;
    // Tells why a save or export refuses the points, and returns true, when it does.
    bool refuseSyncProblem(QString const& what);
    // A save or export whose Cancel came after the new file was complete says so.
    void tellLateStop(QString const& what);
    bool eventFilter(QObject* watched, QEvent* event) override;

    // A movie read for syncing with its player and sync session: built
    // whole before the document takes it, so that a refusal leaves the
    // document as it was.
    struct Parts {
        std::unique_ptr<dmsync::MovieSession> opened;
        std::unique_ptr<media::Player> player;
        std::unique_ptr<SyncSession> session;
    };
    // Reads `path` syncing sound track `soundTrack` (0: the movie's own
    // choice; a movie with several enabled sound tracks and none stored
    // syncs the first of them). Throws what the reading throws, and
    // Refused when the movie cannot be synced.
    static std::unique_ptr<dmsync::MovieSession> openSession(QString const& path, int soundTrack);
    // The player and the sync session of `opened`, with the points stored
    // in the file when `storedPoints`. Throws when the sound cannot be played.
    Parts completeParts(std::unique_ptr<dmsync::MovieSession> opened, bool storedPoints);
    // Drops the player and the session (the view lets go first): the sound
    // device is free for the next player.
    void dropPlayer();
    // The document takes `parts`, dropping the player and session it had.
    void adoptParts(Parts parts);
    // Gives the movie view the player, with the picture's natural size.
    void attachPlayerToView();
    // Shows suggested points as candidates in the sync point window, or
    // when there are none, an alert with the reason and `whenRefused`.
    bool offerCandidates(suggest::Suggestion const& suggestion, QString const& whenRefused);

    std::unique_ptr<dmsync::MovieSession> opened_;
    std::unique_ptr<media::Player> player_;
    std::unique_ptr<SyncSession> session_;
    myQTTime previousPlayTime_{QTZeroTime};
    bool alreadySavedAs_ = false;
    bool nowSizing_ = false;
    bool dontOrder_ = false;
    bool busy_ = false;
    bool lateStop_ = false; // the last run's Cancel came after its work was done
    bool faultShown_ = false;
    double shuttle_ = 0;
    std::vector<myQTTime> selectedTimes_; // the points the table's selection marks
    class ProgressSheet* progress_ = nullptr;
    QMainWindow* mMovieWindow = nullptr;
    MovieView* mMovieView = nullptr;
    QLabel* instruction_ = nullptr;
    WaveformStrip* waveform_ = nullptr;
    QWidget* controls_ = nullptr;
};
