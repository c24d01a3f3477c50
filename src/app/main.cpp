// dubmatch: the application.
#include "DMAppDelegate.h"
#include "DMApplication.h"
#include "DMDocumentController.h"
#include "MediaError.h"
#include "MovieDoc.h"
#include "PXUpdateChecker.h"
#include "VersionCheck.h"
#include <QTimer>

#include <iostream>
#include <string>

int main(int argc, char** argv)
{
    for (int i = 1; i < argc; ++i)
        if (std::string(argv[i]) == "--version") {
            std::cout << "dubmatch " << DUBMATCH_VERSION << "\n";
            return 0;
        }
    if (!versionCheck(argc, argv)) return 1;
    media::setupMediaLogging();
    media::keepLargeAllocationsMapped();
    DMApplication app(argc, argv);
    app.installSignalHandlers();
    DMAppDelegate delegate; // factory defaults and transformers before anything reads them
    app.setDelegate(&delegate);
    DMDocumentController controller;
    delegate.applicationDidFinishLaunching();

    QStringList args = app.arguments().mid(1);
    if (args.contains("--help") || args.contains("-h")) {
        std::cout << "Usage: dubmatch [--demo] [MOVIE...] | --version\n"
                     "Opens each movie in its own window; --demo opens the demo movie.\n"
                     "In a movie window: play, press Return at a face, nudge the sound with the\n"
                     "arrow keys until the lips match, press Return again. Save when done.\n";
        return 0;
    }
    int opened = 0;
    for (QString const& a : args) {
        if (a == "--demo") opened += controller.openDemo() != nullptr;
        else if (!a.startsWith("-")) opened += controller.openDocumentWithContentsOfFile(a, true) != nullptr;
    }
    if (opened == 0) {
        // Nothing to show yet: ask for a movie, and quit when none is chosen.
        QTimer::singleShot(0, &app, [&] {
            controller.openDocument();
            if (controller.documents().isEmpty()) app.quit();
        });
    }
    // Once the windows are up: the update checker may ask its one question,
    // then checks in the background.
    QTimer::singleShot(1000, &app, [&] { delegate.updateChecker()->awakeFromNib(); });
    app.setQuitOnLastWindowClosed(true);
    return app.exec();
}
