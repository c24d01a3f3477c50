// The document's file handling: the file types, reading a movie into a
// player and a sync session, writing it back, the first Save As panel, and
// refusing to close while a write runs.
#include "MovieDoc.h"

#include "PointsText.h"
#include "SavedSync.h"
#include "SyncLimits.h"

#include <QFile>
#include <QSaveFile>

#include "FileErrors.h"

#include "DMApplication.h"
#include "MovieView.h"
#include "ProgressSheet.h"
#include "SyncPointWindow.h"
#include "kit/Alert.h"
#include "kit/UserDefaults.h"

#include <QFileInfo>

namespace {

// The settings the workflow reads on every step; made once, live until exit.
kit::UserDefaults<float> const loopLength("loopLength");
kit::UserDefaults<float> const audioStep("audioStep");

media::SoundCodec soundCodecPreference()
{
    try {
        return media::soundCodecNamed(kit::Defaults::standard().value("soundCodec").toString().toStdString());
    } catch (media::MediaError const&) {
        return media::SoundCodec::Same;
    }
}

QString joined(std::vector<std::string> const& lines)
{
    QStringList out;
    for (auto const& l : lines) out << QString::fromStdString(l);
    return out.join("\n");
}

SyncSession::Settings currentSettings()
{
    SyncSession::Settings s;
    s.loopLength = loopLength;
    s.audioStep = audioStep;
    s.reverseWheel = kit::UserDefaults<int>("reverseWheel");
    s.reverseArrows = kit::UserDefaults<int>("reverseArrows");
    return s;
}

} // namespace

QString MovieDoc::typeForContainer(media::Container container)
{
    // The document types are the containers' titles: "QuickTime Movie", "Matroska Movie"...
    if (!container.takesSaves()) return "UnsavedDocument";
    return QString(container.title()) + " Movie";
}

media::Container MovieDoc::containerForType(QString const& type)
{
    for (auto kind : {media::Container::Kind::QuickTime, media::Container::Kind::Mpeg4, media::Container::Kind::Gpp,
                      media::Container::Kind::Gpp2, media::Container::Kind::Matroska, media::Container::Kind::WebM})
        if (typeForContainer(kind) == type) return kind;
    return {};
}

QString MovieDoc::typeForFile(QString const& path)
{
    QString ext = QFileInfo(path).suffix().toLower();
    if (ext == "qt") return "QuickTime Movie";
    return typeForContainer(media::Container::forPath(path.toStdString()));
}

QStringList MovieDoc::fileExtensionsFromType(QString const& type) const
{
    if (type == "QuickTime Movie") return {"mov", "qt"};
    if (type == "MPEG-4 Movie") return {"mp4", "m4v"};
    if (type == "3GPP Movie") return {"3gp"};
    if (type == "3GPP2 Movie") return {"3g2"};
    if (type == "Matroska Movie") return {"mkv"};
    if (type == "WebM Movie") return {"webm"};
    return {};
}

media::Container MovieDoc::saveAsContainer() const
{
    media::Container own = containerForType(fileType());
    if (own || !opened_) return own;
    return opened_->saveAsContainer();
}

std::optional<media::SaveOptions> MovieDoc::saveOptionsFor(media::Container container, QString const& what)
{
    if (refuseSyncProblem(what)) return std::nullopt;
    media::SaveOptions options;
    options.container = container;
    options.soundCodec = soundCodecPreference();
    options.losslessShift = kit::Defaults::standard().value("losslessShift").toBool() ? media::SaveOptions::LosslessShift::Auto
                                                                                      : media::SaveOptions::LosslessShift::Never;
    media::SavePlan plan;
    try {
        plan = opened_->plan(options);
    } catch (media::MediaError const& e) {
        kit::AlertSpec spec;
        spec.message = QString("The movie cannot be %1 as a %2 file.").arg(what, QString(container.title()));
        spec.informative = QString::fromStdString(e.what());
        spec.sheetParent = mMovieWindow;
        kit::runAlert(spec);
        return std::nullopt;
    }
    if (!plan.losses.empty()) {
        // Nothing is left out unless the user says so.
        kit::AlertSpec spec;
        spec.message = QString("Some streams of this movie cannot go into a %1 file.").arg(QString(container.title()));
        spec.informative = joined(plan.losses) +
                           "\n\nThey can be left out of the new file, or you can cancel and choose another format (Matroska holds the most).";
        spec.buttons = {"Leave Them Out", "Cancel"};
        spec.sheetParent = mMovieWindow;
        if (kit::runAlert(spec) != 0) return std::nullopt;
        options.dropUnsupported = true;
    }
    return options;
}

void MovieDoc::showWriterNotes(std::vector<std::string> const& notes, QString const& what)
{
    if (notes.empty()) return;
    kit::AlertSpec spec;
    spec.message = what;
    spec.informative = joined(notes);
    spec.icon = QMessageBox::Information;
    spec.sheetParent = mMovieWindow;
    kit::runAlert(spec);
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
    // Everything that can fail is built first: a refused movie leaves the
    // document as it was.
    Parts parts;
    try {
        parts = completeParts(openSession(path, 0), true);
    } catch (Refused const& r) {
        report(r.refusal());
        return false;
    } catch (std::bad_alloc const&) {
        report({"The file could not be opened as a movie.", "There is not enough memory to open it."});
        return false;
    } catch (std::exception const& e) {
        report({"The file could not be opened as a movie.", e.what()});
        return false;
    }
    adoptParts(std::move(parts));
    undo_->clear();
    faultShown_ = false;
    setFileName(path);
    // Saved in place only in a container the writer writes; any other file
    // is an imported document, saved as a new file.
    (void)type;
    setFileType(typeForContainer(opened_->file().container));
    updateMenu();
    if (opened_->file().truncated) {
        // Told once, at opening: the movie plays and saves as far as it can be read.
        kit::AlertSpec spec;
        spec.message = QString("\"%1\" is cut short.").arg(QFileInfo(path).fileName());
        spec.informative = QString("It can be read to %1 s of the %2 s it declares; a save keeps only what can be read.")
                               .arg(opened_->file().readableSeconds, 0, 'f', 1)
                               .arg(opened_->file().declaredSeconds, 0, 'f', 1);
        spec.icon = QMessageBox::Warning;
        kit::runAlert(spec);
    }
    if (!opened_->notes().empty()) {
        std::vector<std::string> const& notes = opened_->notes();
        kit::AlertSpec spec;
        spec.message = QString("\"%1\" was read with a change.").arg(QFileInfo(path).fileName());
        spec.informative = joined(notes) + ".";
        spec.icon = QMessageBox::Information;
        kit::runAlert(spec);
    }
    return true;
}

std::unique_ptr<dmsync::MovieSession> MovieDoc::openSession(QString const& path, int soundTrack)
{
    // A movie saved after a sync plays its unedited sound again, from its
    // backup, and gets its points back.
    auto opened = dmsync::MovieSession::open(path.toStdString(), soundTrack);
    if (soundTrack == 0 && !opened->canSync()) {
        // Several enabled sound tracks (a dub beside the original) and no
        // stored choice: the first is synced until the user chooses another
        // in Sync > Sound Track to Sync.
        std::vector<dm::TrackPtr> enabled;
        for (auto const& t : opened->soundTracks())
            if (t->isEnabled()) enabled.push_back(t);
        if (enabled.size() > 1) opened = dmsync::MovieSession::open(path.toStdString(), enabled.front()->id());
    }
    if (!opened->canSync()) throw Refused(opened->refusal());
    return opened;
}

MovieDoc::Parts MovieDoc::completeParts(std::unique_ptr<dmsync::MovieSession> opened, bool storedPoints)
{
    Parts p;
    p.opened = std::move(opened);
    // The player opens the sound decoder: a sound that can be read but not
    // decoded is refused here, with the movie.
    media::PlayerOptions options;
    options.outputDelayMs = kit::UserDefaults<float>("soundOutputDelay");
    options.sound = p.opened->roles().sound;
    p.player = std::make_unique<media::Player>(p.opened->sharedMovie(), std::move(options));
    p.session = SyncSession::make(*p.opened, p.player.get(), currentSettings, sessionHooks());
    if (storedPoints && p.opened->storedPoints()) p.session->replacePoints(*p.opened->storedPoints(), false);
    return p;
}

void MovieDoc::dropPlayer()
{
    if (mMovieView) mMovieView->setPlayer(nullptr, {}, 0);
    session_.reset();
    player_.reset(); // its threads end and the sound device closes
}

void MovieDoc::adoptParts(Parts parts)
{
    dropPlayer();
    opened_ = std::move(parts.opened);
    player_ = std::move(parts.player);
    session_ = std::move(parts.session);
    committed_ = session_->offsets()->points();
    player_->setSelectionFilter([this](QTTimeRange const&) { return allowSelectionChange(); });
    player_->setIdleCallback([this](myQTTime now) { onIdle(now); },
                             [this](std::function<void()> task) { QMetaObject::invokeMethod(this, std::move(task), Qt::QueuedConnection); });
    // Called at most once, on a playback thread.
    player_->setFaultCallback([this](std::string const& message) { emit playbackFault(QString::fromStdString(message)); });
    if (mMovieView) attachPlayerToView();
}

bool MovieDoc::chooseSoundTrack(int id)
{
    if (!canChooseSoundTrack()) return false;
    if (id == soundTrackId()) return true;
    auto tell = [this](QString const& message, std::string const& informative) {
        kit::AlertSpec spec;
        spec.message = message;
        spec.informative = QString::fromStdString(informative);
        spec.sheetParent = mMovieWindow;
        kit::runAlert(spec);
    };
    // The file is read for the new track first: a refusal (the movie was
    // synced before on another track) keeps everything as it is.
    std::unique_ptr<dmsync::MovieSession> opened;
    try {
        opened = openSession(fileName(), id);
    } catch (Refused const& r) {
        tell(QString::fromStdString(r.refusal().message), r.refusal().suggestion);
        return false;
    } catch (std::exception const& e) {
        tell(QString("Track %1 could not be opened for syncing.").arg(id), e.what());
        return false;
    }
    myQTTime now = player_->currentTime();
    normalSpeed();
    player_->pause();
    // The old player gives up the sound device before the new one opens it;
    // the movie it played is kept to fall back on.
    std::unique_ptr<dmsync::MovieSession> previous = std::move(opened_);
    dropPlayer();
    bool chosen = true;
    try {
        adoptParts(completeParts(std::move(opened), true));
    } catch (std::exception const& e) {
        chosen = false;
        tell(QString("Track %1 cannot be played.").arg(id), e.what());
        try {
            adoptParts(completeParts(std::move(previous), false));
        } catch (std::exception const& again) {
            // The track that played a moment ago no longer does: nothing
            // is left to show, and nothing is lost (there are no points).
            tell("The movie cannot be played any more.", again.what());
            QMetaObject::invokeMethod(this, [this] { close(); }, Qt::QueuedConnection);
            return false;
        }
    }
    // No point exists, so nothing is lost: the undo steps stay, and undoing
    // one puts its points on the track synced now.
    faultShown_ = false;
    player_->setCurrentTime(now);
    updateWaveform();
    didUpdateMode();
    emit pointsChanged();
    updateMenu();
    return chosen;
}

bool MovieDoc::writeToFile(QString const& path, QString const& type, kit::SaveOperation op)
{
    if (!opened_ || busy_) return false;
    myQTTime remembered = player_->currentTime();
    bool wasPlaying = player_->isPlaying();
    player_->pause();
    player_->setCurrentTime(myQTTime(0LL, player_->sampleRate()));

    (void)type; // the container follows the file: its own in place, the name's for a new file
    media::Container container = op == kit::SaveOperation::Save ? containerForType(fileType()) : media::Container::forPath(path.toStdString());
    if (!container) container = saveAsContainer();
    std::optional<media::SaveOptions> options = saveOptionsFor(container, "saved");
    if (!options) {
        player_->setCurrentTime(remembered);
        if (wasPlaying) player_->play();
        return false;
    }
    std::string target = path.toStdString();
    media::WriteResult result;
    // What stopped the write, when the user can do something about it.
    enum class Stop { None, WriteProtected, ChangedOnDisk } stop = Stop::None;
    std::optional<std::string> outcome;
    for (;;) {
        stop = Stop::None;
        // The worker writes `result` and `stop`; they are read only after the worker has ended.
        outcome = runWithProgress(op == kit::SaveOperation::Save ? "Saving" : "Writing",
                                  [&result, &stop, save = opened_->prepareSave({target, op == kit::SaveOperation::Save}, *options)](
                                      media::Progress const& progress) {
                                      try {
                                          result = save.run(progress);
                                      } catch (media::TargetWriteProtected const&) {
                                          stop = Stop::WriteProtected;
                                          throw;
                                      } catch (media::FileChangedOnDisk const&) {
                                          stop = Stop::ChangedOnDisk;
                                          throw;
                                      }
                                  });
        if (stop != Stop::WriteProtected || options->target.replaceWriteProtected) break;
        // Nothing was written: ask, and write again only on a yes.
        kit::AlertSpec ask;
        ask.message = QString("\"%1\" is write-protected.").arg(QFileInfo(path).fileName());
        ask.informative = "Replace it anyway? It stays write-protected.";
        ask.buttons = {"Replace", "Cancel"};
        ask.sheetParent = mMovieWindow;
        if (kit::runAlert(ask) != 0) {
            outcome = std::nullopt; // cancelled: no error to show
            break;
        }
        options->target.replaceWriteProtected = true;
    }
    if (stop == Stop::ChangedOnDisk) {
        // Another program changed the file: never overwrite its work; offer a new name.
        kit::AlertSpec spec;
        spec.message = "The file was changed by another program, so it was not replaced.";
        spec.informative = QString::fromStdString(*outcome) + "\n\nSave the movie under another name to keep both versions.";
        spec.buttons = {"Save As...", "Cancel"};
        spec.sheetParent = mMovieWindow;
        bool saveAs = kit::runAlert(spec) == 0;
        player_->setCurrentTime(remembered);
        if (wasPlaying) player_->play();
        if (saveAs) QMetaObject::invokeMethod(this, [this] { saveDocumentAs(); }, Qt::QueuedConnection);
        return false;
    }
    bool ok = outcome && outcome->empty();
    if (ok && lateStop_) tellLateStop("saved");
    if (ok) showWriterNotes(result.notes, "The movie was saved, with these changes:");
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

bool MovieDoc::saveToFile(QString const& path, kit::SaveOperation op)
{
    bool ok = ImportDocument::saveToFile(path, op);
    if (ok && op != kit::SaveOperation::SaveTo) setFileType(typeForFile(path));
    // The title of the sync point window follows the file's new name.
    reloadTable();
    return ok;
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

void MovieDoc::runModalSavePanel(kit::SaveOperation op, std::function<void(bool)> done)
{
    // The proposal has the extension of the container the movie is written
    // in: its own, or for a file that is read but not written, the one the
    // writer chooses. The first Save As proposes "<name>-synced".
    QString ext = saveAsContainer().extension();
    bool first = op == kit::SaveOperation::SaveAs && !alreadySavedAs_;
    kit::SavePanelSpec spec;
    spec.title = op == kit::SaveOperation::SaveTo ? "Save a Copy" : "Save As";
    QFileInfo info(fileName());
    spec.directory = info.absolutePath();
    spec.proposedName = info.completeBaseName() + (first ? "-synced." : ".") + ext;
    spec.nameFilters = QStringList{"Movies (*.mov *.mp4 *.m4v *.mkv *.webm)", "All Files (*)"};
    spec.sheetParent = mMovieWindow;
    QString path = kit::runSavePanel(spec);
    if (path.isEmpty()) {
        done(false);
        return;
    }
    // A name without a movie extension gets the proposed one.
    if (!media::Container::forPath(path.toStdString())) path += "." + ext;
    done(saveToFile(path, op));
}

std::optional<std::string> MovieDoc::runWithProgress(QString const& title, std::function<void(media::Progress const&)> work)
{
    // The table must not change the tracks while the worker reads them.
    if (DMTableView* t = getTableView()) t->commitEditing(); // an open edit lands before the write starts
    busy_ = true;
    updateMenu();
    std::optional<std::string> outcome;
    {
        ProgressSheet sheet(mMovieWindow, title);
        progress_ = &sheet;
        outcome = sheet.run(std::move(work));
        lateStop_ = sheet.stopCameTooLate();
        progress_ = nullptr;
    }
    busy_ = false;
    updateMenu();
    return outcome;
}

bool MovieDoc::refuseSyncProblem(QString const& what)
{
    // A line no transfer needs (or a point outside the movie) would write a
    // sound of any length: it is refused, with the reason, before any work.
    std::string problem = syncProblem();
    if (problem.empty()) return false;
    kit::AlertSpec spec;
    spec.message = QString("The movie cannot be %1 with these sync points.").arg(what);
    spec.informative = QString::fromStdString(problem) + "\n\nThe flagged points in the Sync Points window show where; change or delete them.";
    spec.sheetParent = mMovieWindow;
    kit::runAlert(spec);
    return true;
}

void MovieDoc::tellLateStop(QString const& what)
{
    kit::AlertSpec spec;
    spec.message = QString("The movie was %1.").arg(what);
    spec.informative = "Cancel came after the new file was complete and in place, so nothing was undone: the file is whole.";
    spec.icon = QMessageBox::Information;
    spec.sheetParent = mMovieWindow;
    kit::runAlert(spec);
}

QProgressDialog* MovieDoc::progressPanel() const { return progress_ ? progress_->panel() : nullptr; }

void MovieDoc::exportSyncPoints()
{
    if (!session_ || busy_) return;
    kit::SavePanelSpec spec;
    spec.title = "Export Sync Points";
    QFileInfo info(fileName());
    spec.directory = info.absolutePath();
    spec.proposedName = info.completeBaseName() + ".points";
    spec.requiredExtension = "points";
    spec.sheetParent = mMovieWindow;
    QString path = kit::runSavePanel(spec);
    if (path.isEmpty()) return;
    std::string text = formatPointsText(session_->offsets()->points(), "sync points of " + info.fileName().toStdString());
    QSaveFile file(path);
    if (!file.open(QIODevice::WriteOnly) || file.write(text.data(), static_cast<qint64>(text.size())) != static_cast<qint64>(text.size())
        || !file.commit()) {
        kit::AlertSpec a;
        a.message = "The sync points could not be exported.";
        a.informative = file.errorString();
        kit::runAlert(a);
    }
}

void MovieDoc::importSyncPoints()
{
    if (!session_ || busy_) return;
    kit::OpenPanelSpec spec;
    spec.title = "Import Sync Points";
    spec.directory = QFileInfo(fileName()).absolutePath();
    QString path = kit::runOpenPanel(spec);
    if (path.isEmpty()) return;
    kit::AlertSpec a;
    a.message = QString("\"%1\" could not be imported.").arg(QFileInfo(path).fileName());
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly) || file.size() > static_cast<qint64>(kMaxPointsTextBytes)) {
        a.informative = file.isOpen() ? "It is too large for a list of sync points." : file.errorString();
        kit::runAlert(a);
        return;
    }
    QByteArray bytes = file.readAll();
    std::vector<Offset> points;
    try {
        points = parsePointsText(bytes.toStdString(), session_->offsets()->soundTrack()->timeScale());
    } catch (PointsTextError const& e) {
        a.informative = QString::fromStdString(e.what()) + ". The sync points were not changed.";
        kit::runAlert(a);
        return;
    }
    nextLabel_ = "Import Sync Points";
    session_->replacePoints(std::move(points));
    nextLabel_.clear();
}
