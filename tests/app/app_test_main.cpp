// The application's tests run inside a real DMApplication on Qt's offscreen
// platform, with the sound on SDL's dummy driver. Alerts and panels are
// answered by the tests' responders.
#include "DMAppDelegate.h"
#include "DMApplication.h"
#include "DMDocumentController.h"
#include "FFmpeg.h"
#include "kit/UserDefaults.h"

#include <QFile>
#include <QTemporaryDir>

#include <gtest/gtest.h>

int main(int argc, char** argv)
{
    qputenv("QT_QPA_PLATFORM", qgetenv("QT_QPA_PLATFORM").isEmpty() ? "offscreen" : qgetenv("QT_QPA_PLATFORM"));
    if (qgetenv("SDL_AUDIODRIVER").isEmpty()) qputenv("SDL_AUDIODRIVER", "dummy");
    QTemporaryDir settings;
    kit::Defaults::useSettingsFile(settings.filePath("settings.ini"));
    media::setupMediaLogging();
    ::testing::InitGoogleTest(&argc, argv);
    DMApplication app(argc, argv);
    if (!DMAppDelegate::setupDefaults()) {
        std::fprintf(stderr, "the factory defaults did not load\n");
        return 1;
    }
    DMAppDelegate delegate;
    app.setDelegate(&delegate);
    DMDocumentController controller;
    delegate.applicationDidFinishLaunching();
    return RUN_ALL_TESTS();
}
