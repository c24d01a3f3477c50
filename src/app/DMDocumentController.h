// Every opened file becomes a movie document; the Open panel lists folders
// and the files the media engine can open.
#pragma once

#include "kit/Document.h"

class MovieDoc;

class DMDocumentController : public kit::DocumentController {
    Q_OBJECT
public:
    kit::Document* openDocumentWithContentsOfFile(QString const& path, bool display) override;
    bool panelShouldShowFilename(QString const& path) const override;
    // Opens the demo movie, making it first when it does not exist yet.
    MovieDoc* openDemo();
    static QString demoMoviePath();

    // The movies opened most recently, newest first, that still exist.
    static QStringList recentFiles();
    static void noteRecentFile(QString const& path);
    static void clearRecentFiles();
    static constexpr int kRecentLimit = 10;
};
