// A long movie operation (a save or an export) run on a worker thread behind
// a window-modal progress sheet with a Cancel button. The event loop keeps
// running meanwhile, so the window repaints and Cancel acts at once.
#pragma once

#include "MovieWriter.h"

#include <QProgressDialog>
#include <QWidget>

#include <functional>
#include <optional>
#include <string>

class ProgressSheet {
public:
    // `title` names the operation in the sheet's title bar.
    ProgressSheet(QWidget* parent, QString const& title);
    ~ProgressSheet();
    ProgressSheet(ProgressSheet const&) = delete;
    ProgressSheet& operator=(ProgressSheet const&) = delete;

    // Runs `work` on a worker thread and returns when it has ended: the
    // operation's error message ("" when it worked), or nullopt when it
    // was cancelled. Every exception of `work` ends up in the result.
    std::optional<std::string> run(std::function<void(media::Progress const&)> work);
    // Whether the last run was asked to stop but its work had already done
    // what cannot be undone (a new file put in place) and ended as it would
    // have without the stop: the result says it worked.
    bool stopCameTooLate() const { return stopCameTooLate_; }
    QProgressDialog* panel() { return &panel_; }

private:
    struct CloseGuard : QObject {
        bool eventFilter(QObject* watched, QEvent* event) override;
    };
    QProgressDialog panel_;
    CloseGuard closeGuard_;
    bool stopCameTooLate_ = false;
};
