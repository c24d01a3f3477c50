// Alerts, sheets and panels. Tests replace the interactive parts with
// responders, so that no modal loop waits for a person.
#pragma once

#include <QMessageBox>
#include <QString>
#include <QStringList>
#include <QWidget>

class QFileDialog;

#include <functional>

namespace kit {

struct AlertSpec {
    QString title;
    QString message;
    QString informative;
    QStringList buttons;         // first is the default; empty: one "OK"
    QWidget* sheetParent = nullptr; // window-modal on this window; else application-modal
    QMessageBox::Icon icon = QMessageBox::Warning;
};

// Shows the alert; returns the index of the button chosen.
int runAlert(AlertSpec const& spec);
using AlertResponder = std::function<int(AlertSpec const&)>;
void setAlertResponder(AlertResponder responder);

// The system beep; tests may count beeps instead.
void beep();
void setBeepResponder(std::function<void()> responder);

struct SavePanelSpec {
    QString title;
    QString directory;
    QString proposedName;
    QString requiredExtension; // without the point; empty: any
    QStringList nameFilters;
    QWidget* accessory = nullptr; // shown under the file list; still the caller's after the panel
    QWidget* sheetParent = nullptr;
    std::function<void(QFileDialog&)> customize; // runs on the real panel before it shows
};
// The chosen path, or empty for Cancel.
QString runSavePanel(SavePanelSpec const& spec);
using SavePanelResponder = std::function<QString(SavePanelSpec const&)>;
void setSavePanelResponder(SavePanelResponder responder);

struct OpenPanelSpec {
    QString title;
    QString directory;
    std::function<bool(QString const& path)> shouldShow; // files only; folders always show
};
QString runOpenPanel(OpenPanelSpec const& spec);
using OpenPanelResponder = std::function<QString(OpenPanelSpec const&)>;
void setOpenPanelResponder(OpenPanelResponder responder);

} // namespace kit
