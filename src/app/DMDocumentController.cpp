#include "DMDocumentController.h"

#include "MovieDoc.h"
#include "TestMovie.h"
#include "kit/Alert.h"
#include "kit/UserDefaults.h"

#include <QApplication>
#include <QDir>
#include <QFileInfo>
#include <QStandardPaths>

kit::Document* DMDocumentController::openDocumentWithContentsOfFile(QString const& path, bool display)
{
    if (kit::Document* open = documentForFileName(path)) {
        if (display) open->showWindows();
        return open;
    }
    auto* doc = new MovieDoc;
    if (!doc->readFromFile(path, "UnsavedDocument")) {
        delete doc;
        return nullptr;
    }
    addDocument(doc);
    noteRecentFile(path);
    if (shouldCreateUI()) doc->makeWindowControllers();
    if (display) doc->showWindows();
    return doc;
}

bool DMDocumentController::panelShouldShowFilename(QString const& path) const
{
    if (QFileInfo(path).isDir()) return true;
    return media::canOpenMovie(path.toStdString());
}

QString DMDocumentController::demoMoviePath()
{
    QString dir = QStandardPaths::writableLocation(QStandardPaths::CacheLocation);
    QDir().mkpath(dir);
    return dir + "/Dubmatch Demo.mov";
}

MovieDoc* DMDocumentController::openDemo()
{
    QString path = demoMoviePath();
    if (!QFileInfo::exists(path)) {
        QApplication::setOverrideCursor(Qt::WaitCursor);
        try {
            media::TestMovieSpec spec; // 30 s, sound 0.35 s late and 0.4 % fast
            media::writeTestMovie(path.toStdString(), spec);
        } catch (std::exception const& e) {
            QApplication::restoreOverrideCursor();
            kit::AlertSpec a;
            a.message = "The demo movie could not be made.";
            a.informative = e.what();
            kit::runAlert(a);
            return nullptr;
        }
        QApplication::restoreOverrideCursor();
    }
    return qobject_cast<MovieDoc*>(openDocumentWithContentsOfFile(path, true));
}

QStringList DMDocumentController::recentFiles()
{
    QStringList kept;
    for (QString const& p : kit::Defaults::standard().value("recentFiles").toStringList())
        if (QFileInfo(p).isFile()) kept << p;
    return kept;
}

void DMDocumentController::noteRecentFile(QString const& path)
{
    QString full = QFileInfo(path).absoluteFilePath();
    QStringList list = kit::Defaults::standard().value("recentFiles").toStringList();
    list.removeAll(full);
    list.prepend(full);
    while (list.size() > kRecentLimit) list.removeLast();
    kit::Defaults::standard().setValue("recentFiles", list);
}

void DMDocumentController::clearRecentFiles() { kit::Defaults::standard().removeValue("recentFiles"); }
