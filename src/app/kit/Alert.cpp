#include "Alert.h"

#include <QApplication>
#include <QFileDialog>
#include <QFileInfo>
#include <QGridLayout>
#include <QHeaderView>
#include <QPushButton>
#include <QSortFilterProxyModel>
#include <QFileSystemModel>
#include <QTreeView>

namespace kit {

namespace {
AlertResponder alertResponder;
SavePanelResponder saveResponder;
OpenPanelResponder openResponder;

// Hides files the open panel's filter refuses; folders always show.
class FilterProxy : public QSortFilterProxyModel {
public:
    explicit FilterProxy(std::function<bool(QString const&)> f) : filter_(std::move(f)) {}

protected:
    bool filterAcceptsRow(int row, QModelIndex const& parent) const override
    {
        auto* fs = qobject_cast<QFileSystemModel*>(sourceModel());
        if (!fs || !filter_) return true;
        QModelIndex idx = fs->index(row, 0, parent);
        if (fs->isDir(idx)) return true;
        return filter_(fs->filePath(idx));
    }

private:
    std::function<bool(QString const&)> filter_;
};

// Qt's own file dialog leaves its size, type and date columns what the
// names do not take, and a date reads "26 Nov...:58:02". Each of them is
// made as wide as what it shows; the names take the rest.
void showWholeColumns(QFileDialog& dialog)
{
    if (!dialog.testOption(QFileDialog::DontUseNativeDialog)) return;
    auto* list = dialog.findChild<QTreeView*>("treeView");
    if (!list || !list->header()) return;
    QHeaderView* header = list->header();
    header->setStretchLastSection(false);
    for (int c = 0; c < header->count(); ++c) header->setSectionResizeMode(c, c == 0 ? QHeaderView::Stretch : QHeaderView::ResizeToContents);
}

} // namespace

void setAlertResponder(AlertResponder r) { alertResponder = std::move(r); }
void setSavePanelResponder(SavePanelResponder r) { saveResponder = std::move(r); }
void setOpenPanelResponder(OpenPanelResponder r) { openResponder = std::move(r); }

int runAlert(AlertSpec const& spec)
{
    if (alertResponder) return alertResponder(spec);
    QMessageBox box(spec.sheetParent);
    box.setIcon(spec.icon);
    box.setWindowTitle(spec.title.isEmpty() ? QApplication::applicationName() : spec.title);
    box.setText(spec.message);
    box.setInformativeText(spec.informative);
    QStringList buttons = spec.buttons.isEmpty() ? QStringList{"OK"} : spec.buttons;
    QList<QAbstractButton*> made;
    for (int i = 0; i < buttons.size(); ++i) {
        auto role = i == 0 ? QMessageBox::AcceptRole : (buttons[i] == "Cancel" ? QMessageBox::RejectRole : QMessageBox::DestructiveRole);
        made.push_back(box.addButton(buttons[i], role));
    }
    box.setDefaultButton(qobject_cast<QPushButton*>(made.front()));
    if (buttons.contains("Cancel")) box.setEscapeButton(made[buttons.indexOf("Cancel")]);
    box.setWindowModality(spec.sheetParent ? Qt::WindowModal : Qt::ApplicationModal);
    box.exec();
    int index = static_cast<int>(made.indexOf(box.clickedButton()));
    return index < 0 ? static_cast<int>(buttons.indexOf("Cancel")) : index;
}

namespace {
std::function<void()> beepResponder;
}

void setBeepResponder(std::function<void()> r) { beepResponder = std::move(r); }

void beep()
{
    if (beepResponder) beepResponder();
    else QApplication::beep();
}

QString runSavePanel(SavePanelSpec const& spec)
{
    if (saveResponder) return saveResponder(spec);
    QFileDialog dialog(spec.sheetParent, spec.title, spec.directory);
    dialog.setAcceptMode(QFileDialog::AcceptSave);
    dialog.setFileMode(QFileDialog::AnyFile);
    if (!spec.nameFilters.isEmpty()) dialog.setNameFilters(spec.nameFilters);
    if (!spec.requiredExtension.isEmpty()) dialog.setDefaultSuffix(spec.requiredExtension);
    if (spec.accessory) {
        // An accessory view needs Qt's own dialog: put it under the file list.
        dialog.setOption(QFileDialog::DontUseNativeDialog, true);
        if (auto* grid = qobject_cast<QGridLayout*>(dialog.layout())) grid->addWidget(spec.accessory, grid->rowCount(), 0, 1, -1);
    }
    showWholeColumns(dialog);
    dialog.selectFile(spec.proposedName);
    dialog.setWindowModality(spec.sheetParent ? Qt::WindowModal : Qt::ApplicationModal);
    if (spec.customize) spec.customize(dialog);
    int result = dialog.exec();
    // The accessory goes back to its owner before the dialog is destroyed.
    if (spec.accessory) {
        spec.accessory->hide();
        spec.accessory->setParent(nullptr);
    }
    if (result != QDialog::Accepted || dialog.selectedFiles().isEmpty()) return {};
    QString path = dialog.selectedFiles().front();
    if (!spec.requiredExtension.isEmpty() && QFileInfo(path).suffix().compare(spec.requiredExtension, Qt::CaseInsensitive) != 0)
        path += "." + spec.requiredExtension;
    return path;
}

QString runOpenPanel(OpenPanelSpec const& spec)
{
    if (openResponder) return openResponder(spec);
    QFileDialog dialog(nullptr, spec.title, spec.directory);
    dialog.setAcceptMode(QFileDialog::AcceptOpen);
    dialog.setFileMode(QFileDialog::ExistingFile);
    dialog.setOption(QFileDialog::DontUseNativeDialog, true); // the filter needs Qt's own dialog
    if (spec.shouldShow) dialog.setProxyModel(new FilterProxy(spec.shouldShow));
    showWholeColumns(dialog);
    if (dialog.exec() != QDialog::Accepted || dialog.selectedFiles().isEmpty()) return {};
    return dialog.selectedFiles().back();
}

} // namespace kit
