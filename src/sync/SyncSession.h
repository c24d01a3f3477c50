// The sync workflow of one movie, without any window: the sync point list,
// the point in progress with its loop and preview shift, the movie's mode,
// and the change count that the workflow implies. The document owns one and
// shows what it reports; tests drive it directly.
//
// Everything here runs on the document's thread. Nothing here knows Qt.
#pragma once

#include "MovieSession.h"
#include "OffsetList.h"
#include "Player.h"

#include <functional>
#include <memory>
#include <set>
#include <string>

class SyncSession : public SyncDocument {
public:
    // The preferences the workflow reads on every step.
    struct Settings {
        float loopLength = 4;  // seconds of the loop
        float audioStep = 10;  // milliseconds of one nudge
        int reverseWheel = 1;  // sign of one wheel notch
        int reverseArrows = 1; // sign of the offsets shown in the table
    };
    // What the session tells its document. Every hook may be empty.
    struct Hooks {
        std::function<void()> modeChanged;             // after every change of the mode
        std::function<void()> pointsChanged;           // the rows of the table changed
        std::function<void(QTTimeRange)> selectionShown; // the loop the movie now plays
        std::function<void(int)> changed;              // +1: a change made; -1: one taken back
    };

    // The workflow over the sync point list of `movie`; throws Refused when
    // the movie cannot be synced. The movie session and the player must
    // outlive the workflow.
    static std::unique_ptr<SyncSession> make(dmsync::MovieSession& movie, media::Player* player,
                                             std::function<Settings()> settings, Hooks hooks = {});
    ~SyncSession() override;
    SyncSession(SyncSession const&) = delete;
    SyncSession& operator=(SyncSession const&) = delete;

    // "noPoints", "pointInProgress", "endNeedsSync", "checkRedDiamonds",
    // "morePointsIfNeeded" or "unknown".
    std::string movieMode() const;
    static std::string instructionForMode(std::string const& mode);

    // The workflow. Each is a no-op with a message on standard error when
    // called in the wrong state.
    void startSync();
    void acceptSync();
    // Takes point `row` back into progress (the point leaves the list).
    void editSync(int row);
    void deleteSync(std::set<int> const& rows);
    void abandonSync();
    void advanceSelection();
    void retardSelection();
    void expandSelection();
    void contractSelection();
    void advanceAudio();
    void retardAudio();
    // Wheel motion in notches: one millisecond per notch, signed by "reverseWheel".
    void scrollWheel(double notches);

    // Replaces every point at once (the points a movie carries, an import,
    // undo and redo): the list refits from the unedited sound. A sync in
    // progress is abandoned first. One change unless `counted` is false
    // (points that came with the movie when it opened).
    void replacePoints(std::vector<Offset> points, bool counted = true);

    // Suggested points waiting for the user: shown after the points, each
    // with its confidence. Starting a candidate loops around it with its
    // offset applied: accepting makes it an ordinary point, abandoning
    // dismisses it.
    struct Candidate {
        myQTTime movieTime;
        myQTTime audioTime; // in the unedited sound
        double confidence = 0;
    };
    void setCandidates(std::vector<Candidate> candidates);
    std::vector<Candidate> const& candidates() const { return candidates_; }
    // The candidate shown in a row, or -1 for a point (or the point in progress).
    int candidateOfRow(int row) const;
    void startCandidate(int candidate);
    // Accepts every candidate of at least `threshold` as one change; returns
    // how many became points.
    int acceptConfident(double threshold);

    // The table: the points with the point in progress at `syncRow`, then
    // the candidates.
    int numberOfRows() const;
    Offset GetOffset(int row) const;
    // The offset shown in a row, in milliseconds, signed by "reverseArrows".
    double displayedOffset(int row) const;
    // Typed into a row's time cell; false (nothing changed) when the text is
    // not a time.
    bool setRowTime(int row, std::string const& text);
    // Typed into a row's offset cell, in displayed milliseconds.
    void setRowOffset(int row, double displayedMilliseconds);
    // The table's selection changed: one row loops around its point, none
    // plays the whole movie, several leave the loop as it is.
    void selectionChanged(std::set<int> const& rows);

    bool syncInProgress() const { return syncInProgress_; }
    // Whether a selection change comes from the session (the controller
    // bar's own changes are refused).
    bool allowSelectionChange() const { return changingSelection_; }
    int syncRow() const { return syncRow_; }
    myQTTime startTime() const { return startTime_; }
    myQTTime endTime() const { return endTime_; }
    myQTTime audioTime() const { return audioTime_; }
    myQTTime loopMiddle() const;
    OffsetList* offsets() const { return offsets_; }
    dm::Movie* movie() const { return movie_; }

    void willUpdateMode() override {}
    void didUpdateMode() override;

private:
    SyncSession(dm::Movie* movie, media::Player* player, std::function<Settings()> settings, Hooks hooks);
    void setSyncNotInProgress();
    void saveNewEditState();
    void resetAudioTrack();
    void offsetAudioTrack();
    void trimAndSetSelection();
    void setMovieSelection();
    void clearMovieSelection();
    void setSelection(QTTimeRange r);
    void setAudioTimeFromMovieTime(myQTTime t);
    void loopAround(myQTTime const& p);
    void nudge(double seconds);
    void changed(int delta);
    void pointsChanged();
    // The list index of a row that is not the point in progress.
    int entryOfRow(int row) const;

    dm::Movie* movie_;
    media::Player* player_;
    std::function<Settings()> settings_;
    Hooks hooks_;
    OffsetList* offsets_ = nullptr;
    dm::MovieEditState state_;
    dm::TrackPtr audioTrack_;
    bool syncInProgress_ = false;
    bool beganWithEdit_ = false; // the point in progress came out of the list
    bool changingSelection_ = false;
    int syncRow_ = 0;
    std::vector<Candidate> candidates_;
    myQTTime startTime_, endTime_, audioTime_;
};
