// The movie document: one open movie, its sync point list, the sync
// workflow (start, nudge, accept, edit, delete, abandon) and its mode.
#pragma once

#include "ImportDocument.h"
#include "MovieFile.h"
#include "MovieWriter.h"
#include "OffsetList.h"
#include "Player.h"
#include "Refusal.h"
#include "kit/QtBridge.h"

#include <QLabel>
#include <QMainWindow>

#include <memory>
#include <optional>

class MovieView;
class OffsetListWindowController;
class DMTableView;
class QProgressDialog;

class MovieDoc : public ImportDocument, public SyncDocument {
    Q_OBJECT
public:
    MovieDoc();
    ~MovieDoc() override;

    // The file types: QuickTime and MPEG-4 movies are written back in place;
    // every other container opens as an imported document.
    static QString typeForFile(QString const& path);
    QStringList writableTypes() const override { return {"QuickTime Movie", "MPEG-4 Movie"}; }
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

    // The sync point table's data source.
    int numberOfRows() const;
    Offset GetOffset(int row) const;
    QVariant objectValue(QString const& column, int row) const;
    void setObjectValue(QVariant const& value, QString const& column, int row);
    void tableViewSelectionDidChange();
    OffsetListWindowController* findInfoWindowController() const;
    DMTableView* getTableView() const;
    QWidget* getInfoWindow() const;
    void createInfoWindow(bool show);
    void showInfo() { createInfoWindow(true); }
    void reloadTable();
    void setTimeDisplay();
    void setDurationDisplay();

    // Export: a save panel with a chooser of the seven formats.
    void doExport();
    // Prints the picture now shown (to the printer chosen in the dialog, or
    // to `printer` as it is set up when no dialog is asked for).
    bool printShowingPrintPanel(bool showPanel, class QPrinter* printer = nullptr);
    // The progress sheet of a running save or export (null otherwise).
    QProgressDialog* progressPanel() const { return progressPanel_; }
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

    // Whether an action (by name, e.g. "startSync") is enabled now.
    bool validateAction(QString const& action) const;
    // Runs an enabled action; false when disabled or unknown.
    bool performAction(QString const& action);

    // The mode: "noPoints", "pointInProgress", "endNeedsSync",
    // "checkRedDiamonds", "morePointsIfNeeded" or "unknown".
    QString movieMode() const;
    static QString instructionForMode(QString const& mode);
    void willUpdateMode() override;
    void didUpdateMode() override;

    bool syncInProgress() const { return syncInProgress_; }
    bool allowSelectionChange() const { return documentIsChangingSelection_; }
    void setSyncNotInProgress();

    // Selected rows of the sync point table (the table comes with its window).
    // The selected rows of the sync point table (none without the window).
    IndexSet selectedRows() const;
    void setSelectedRows(IndexSet rows);

    // For tests and the time read-outs.
    OffsetList* offsets() const { return offsets_.get(); }
    media::Player* player() const { return player_.get(); }
    dm::Movie* movie() const { return opened_ ? opened_->movie.get() : nullptr; }
    myQTTime startTime() const { return startTime_; }
    myQTTime endTime() const { return endTime_; }
    myQTTime audioTime() const { return audioTime_; }
    int syncRow() const { return syncRow_; }
    QMainWindow* movieWindow() const { return mMovieWindow; }
    MovieView* movieView() const { return mMovieView; }
    myQTTime loopMiddle() const;

signals:
    void movieModeChanged(QString const& mode);
    // The sync points or the point in progress changed (the table reloads).
    void pointsChanged();

private:
    void setMovie(media::OpenedMovie movie);
    void saveNewEditState();
    void resetAudioTrack();
    void offsetAudioTrack();
    void trimAndSetSelection();
    void setMovieSelection();
    void clearMovieSelection();
    void setSelection(QTTimeRange r);
    void setAudioTimeFromMovieTime(myQTTime t);
    // startTime and endTime: "loopLength" seconds centred on a point.
    void loopAround(myQTTime const& p);
    void onIdle(myQTTime now);
    void updateMenu();
    int durationFields() const;
    bool movieWindowIsKey() const;
    bool infoWindowIsKeyWindow() const;
    bool tableViewIsEditing() const;
    // Runs a long movie operation on a worker thread behind the progress
    // sheet; the document's state stays frozen meanwhile. Returns the
    // operation's error message ("" when it worked), or nullopt if cancelled.
    std::optional<std::string> runWithProgress(std::function<void(media::Progress const&)> work);
    void windowBecameKey(QWidget* window);
    bool eventFilter(QObject* watched, QEvent* event) override;

    std::optional<media::OpenedMovie> opened_;
    std::unique_ptr<media::Player> player_;
    std::unique_ptr<OffsetList> offsets_;
    dm::MovieEditState state_;
    dm::TrackPtr audioTrack_;
    bool syncInProgress_ = false;
    int syncRow_ = 0;
    myQTTime startTime_, endTime_, audioTime_;
    myQTTime previousPlayTime_{QTZeroTime};
    bool alreadySavedAs_ = false;
    bool documentIsChangingSelection_ = false;
    bool nowSizing_ = false;
    bool dontOrder_ = false;
    bool busy_ = false;
    QProgressDialog* progressPanel_ = nullptr;
    QMainWindow* mMovieWindow = nullptr;
    MovieView* mMovieView = nullptr;
    QLabel* instruction_ = nullptr;
    QWidget* controls_ = nullptr;
};
