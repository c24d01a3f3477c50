// The sync point window: a table of the points (time, offset, marker), the
// movie's duration and current time.
#pragma once

#include "kit/Document.h"

#include <QAbstractTableModel>
#include <QLabel>
#include <QPixmap>
#include <QTableView>

class MovieDoc;

// The marker images "RedDiamond" (a point that strays from the line) and
// "BlueStar" (the point in progress), drawn by the application itself.
QPixmap markerImage(QString const& name);

// Asks the document for everything it shows; edits go back to it.
class OffsetTableModel : public QAbstractTableModel {
    Q_OBJECT
public:
    static constexpr int kTime = 0, kOffset = 1, kFlag = 2;
    explicit OffsetTableModel(MovieDoc* doc, QObject* parent = nullptr) : QAbstractTableModel(parent), doc_(doc) {}
    int rowCount(QModelIndex const& parent = {}) const override;
    int columnCount(QModelIndex const& parent = {}) const override { return parent.isValid() ? 0 : 3; }
    QVariant data(QModelIndex const& index, int role) const override;
    bool setData(QModelIndex const& index, QVariant const& value, int role) override;
    Qt::ItemFlags flags(QModelIndex const& index) const override;
    QVariant headerData(int section, Qt::Orientation o, int role) const override;
    // The column identifiers: "time", "offset", "flag".
    static QString identifier(int column);
    void reloadData();

private:
    MovieDoc* doc_;
};

// The table. Return ends an edit without moving on to the next row.
class DMTableView : public QTableView {
    Q_OBJECT
public:
    using QTableView::QTableView;
    bool isEditing() const { return state() == QAbstractItemView::EditingState; }

protected:
    void closeEditor(QWidget* editor, QAbstractItemDelegate::EndEditHint hint) override;
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

private:
    DMTableView* table_;
    OffsetTableModel* model_;
    QLabel* duration_;
    QLabel* time_;
};
