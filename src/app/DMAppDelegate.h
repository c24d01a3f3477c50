// The application's delegate: factory defaults and value transformers
// before anything reads them, the menus after launch, the preferences
// window and the Read Me window.
#pragma once

#include <QObject>
#include <QPointer>
#include <QWidget>

class MovieDoc;
class ReadMeWindowController;
class PXUpdateChecker;
class PXFeedbackProvider;

class DMAppDelegate : public QObject {
    Q_OBJECT
public:
    // Registers the factory defaults and the transformers (once).
    static void initialize();
    // Factory defaults from the "UserDefaults" resource; false when missing.
    static bool setupDefaults();

    DMAppDelegate();
    ~DMAppDelegate() override;
    void applicationDidFinishLaunching();
    static bool applicationShouldOpenUntitledFile() { return false; }
    MovieDoc* openDocumentWithContentsOfFile(QString const& path, bool display);

    void showPreferences();
    void showReadMe();
    QWidget* preferencesWindow() const { return preferencesWindow_; }
    ReadMeWindowController* readMeWindowController() const { return readMe_; }

    // The application's name from Info.plist ("CFBundleName").
    static QString bundleName();

    PXUpdateChecker* updateChecker();
    PXFeedbackProvider* feedbackProvider();

private:
    QPointer<QWidget> preferencesWindow_;
    ReadMeWindowController* readMe_ = nullptr;
    PXUpdateChecker* updateChecker_ = nullptr;
    PXFeedbackProvider* feedback_ = nullptr;
};
