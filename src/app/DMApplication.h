// The application object: the menus, and the key table that lets single
// keys without Ctrl drive the Sync menu. Key presses, wheel turns and the
// middle mouse button are looked at before normal dispatch.
#pragma once

#include "kit/QtBridge.h"

#include <QAction>
#include <QApplication>
#include <QMenu>
#include <QMenuBar>

#include <map>
#include <memory>

class MovieDoc;
class DMAppDelegate;

class DMApplication : public QApplication {
    Q_OBJECT
public:
    DMApplication(int& argc, char** argv);
    ~DMApplication() override;
    static DMApplication* instance();
    void setDelegate(DMAppDelegate* d) { delegate_ = d; }
    DMAppDelegate* delegate() const { return delegate_; }

    // Adds the application's menus to a window's menu bar.
    void populateMenuBar(QMenuBar* bar);
    // The Sync menu: the menu whose menu item is tagged 100.
    QMenu* getSyncMenu() const;
    // Rebuilds the key table and the keys shown on the Sync menu.
    void muckWithMenu();
    // Re-validates the menus against the current document.
    void updateMenu();
    // The arrow-direction preference changed.
    void reverseArrows();
    // The sound output delay preference changed: open movies take it.
    void soundOutputDelayChanged() { emit outputDelayChanged(); }
    QAction* actionNamed(QString const& name) const;
    // Sends an action to the current document; true when it was handled.
    bool sendAction(QString const& name);

    using KeyTable = std::multimap<NSStringWrapper, QAction*>;
    KeyTable const& keyTable() const { return *selectorMapPtr_; }
    // The characters a key press stands for, with the special keys as the
    // characters of the key table (Return "\r", Enter U+0003, arrows U+F700...).
    static QString characters(QKeyEvent const* event);
    // The movie document of a widget's window, if any.
    static MovieDoc* documentFor(QObject* receiver);

    bool notify(QObject* receiver, QEvent* event) override;

    // Quit: asks every open document as closing its window does, one after
    // the other; when all may close, closes them and leaves the event loop.
    // Returns whether the application is quitting.
    bool terminate();
    // SIGINT and SIGTERM ask the documents as Quit does (through a pipe
    // read by the event loop, never from inside the signal handler).
    void installSignalHandlers();
    // Quit for a termination signal: a dialog that is open is given up
    // first (the signal would otherwise wait on the user for ever).
    void terminateOnceUnblocked();
    // The About box.
    void showAbout();
    // Whether a key press belongs to a menu, a dialog or a cell editor
    // rather than to the document's key table.
    static bool keyBelongsToWidget(QObject* receiver);

signals:
    // A termination signal arrived (before the documents are asked).
    void terminationRequested(int signal);
    // The arrow direction changed: tables redisplay their offsets.
    void reverseArrowsChanged();
    void outputDelayChanged();

private:
    QAction* addSyncItem(QString const& title, QString const& name, int tag, QString const& key);
    // Sync > Sound Track to Sync.
    // Sync > Suggest Points from a Sound Track: the other tracks and a file.
    void addReferenceMenu();
    void addSoundTrackMenu();
    void lastDocumentMayHaveClosed();
    bool terminating_ = false;
    std::unique_ptr<KeyTable> selectorMapPtr_;
    QList<QMenu*> menus_; // File, Edit, Sync: shared by every window's menu bar
    QMenu* syncMenu_ = nullptr;
    DMAppDelegate* delegate_ = nullptr;
};
