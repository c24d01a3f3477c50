// The sync point window: a table of the points (time, offset, marker), the
// movie's duration and current time.
#pragma once

#include "kit/Document.h"

#include <QAbstractTableModel>
#include <QLabel>
#include <QPixmap>
#include <QPointer>
#include <QStyledItemDelegate>
#include <QTableView>

class MovieDoc;
class ResidualPlot;

// The marker images "RedDiamond" (a point that strays from the line) and
// "BlueStar" (the point in progress), drawn by the application itself.
QPixmap markerImage(QString const& name);

class SyncSession;

// The rows of the document's sync session: its points, the point in
// progress and the suggested candidates. Edits go to the session; the
// document is told after each.
class OffsetTableModel : public QAbstractTableModel {
    Q_OBJECT
public:
    static constexpr int kTime = 0, kOffset = 1, kFlag = 2, kConfidence = 3;
    explicit OffsetTableModel(MovieDoc* doc, QObject* parent = nullptr) : QAbstractTableModel(parent), doc_(doc) {}
    int rowCount(QModelIndex const& parent = {}) const override;
    int columnCount(QModelIndex const& parent = {}) const override { return parent.isValid() ? 0 : 4; }
    QVariant data(QModelIndex const& index, int role) const override;
    bool setData(QModelIndex const& index, QVariant const& value, int role) override;
    Qt::ItemFlags flags(QModelIndex const& index) const override;
    QVariant headerData(int section, Qt::Orientation o, int role) const override;
    // The column identifiers: "time", "offset", "flag", "confidence" (of a
    // suggested point; its row is greyed until the user takes it).
    static QString identifier(int column);
    // Shows the document's rows again. When the number of rows is the same,
    // the cells are refreshed in place, so an open editor stays valid.
    void reloadData();

private:
    // The session, when `row` is one of its rows.
    SyncSession const* session(int row) const;

    MovieDoc* doc_;
    int rows_ = -1; // as last shown
};

// The cell editor: an opaque line edit (the cell's old text does not show
// through), numbers only in the offset column.
class OffsetCellDelegate : public QStyledItemDelegate {
    Q_OBJECT
public:
    using QStyledItemDelegate::QStyledItemDelegate;
    QWidget* createEditor(QWidget* parent, QStyleOptionViewItem const& option, QModelIndex const& index) const override;
    void setEditorData(QWidget* editor, QModelIndex const& index) const override;
    void setModelData(QWidget* editor, QAbstractItemModel* model, QModelIndex const& index) const override;
    // The editor now open, if any.
    QWidget* openEditor() const { return editor_; }

private:
    mutable QPointer<QWidget> editor_;
};

// The table. Return ends an edit without moving on to the next row.
class DMTableView : public QTableView {
    Q_OBJECT
public:
    explicit DMTableView(QWidget* parent = nullptr);
    bool isEditing() const { return state() == QAbstractItemView::EditingState; }
    // Commits and closes the editor that is open, if any.
    void commitEditing();
    OffsetCellDelegate* cellDelegate() const { return delegate_; }

protected:
    void closeEditor(QWidget* editor, QAbstractItemDelegate::EndEditHint hint) override;

private:
    OffsetCellDelegate* delegate_;
};

class OffsetListWindowController : public kit::WindowController {
    Q_OBJECT
public:
    explicit OffsetListWindowController(MovieDoc* doc);
    static QString windowTitleForDocumentDisplayName(QString const& name) { return name + " Sync Points"; }
    DMTableView* tableView() const { return table_; }
    OffsetTableModel* model() const { return model_; }
    QLabel* durationDisplay() const { return duration_; }
    QLabel* timeDisplay() const { return time_; }
    ResidualPlot* residualPlot() const { return plot_; }

private:
    DMTableView* table_;
    ResidualPlot* plot_;
    OffsetTableModel* model_;
    QLabel* duration_;
    QLabel* time_;
};
