#include "SyncPointWindow.h"

#include "ResidualPlot.h"

#include "MovieDoc.h"
#include "kit/Alert.h"

#include <cmath>

#include <QApplication>
#include <QGridLayout>
#include <QDoubleValidator>
#include <QHeaderView>
#include <QLineEdit>
#include <QPainter>
#include <QPainterPath>
#include <QVBoxLayout>

QPixmap markerImage(QString const& name)
{
    static QPixmap diamond, star;
    auto make = [](QColor fill, QPainterPath const& shape) {
        QPixmap pm(16, 16);
        pm.fill(Qt::transparent);
        QPainter p(&pm);
        p.setRenderHint(QPainter::Antialiasing);
        p.setPen(QPen(fill.darker(160), 1));
        p.setBrush(fill);
        p.drawPath(shape);
        return pm;
    };
    if (name == "RedDiamond") {
        if (diamond.isNull()) {
            QPainterPath path;
            path.moveTo(8, 1);
            path.lineTo(15, 8);
            path.lineTo(8, 15);
            path.lineTo(1, 8);
            path.closeSubpath();
            diamond = make(QColor(210, 30, 30), path);
        }
        return diamond;
    }
    if (name == "BlueStar") {
        if (star.isNull()) {
            QPainterPath path;
            for (int i = 0; i < 10; ++i) {
                double r = i % 2 ? 3.0 : 7.2, a = -M_PI / 2 + i * M_PI / 5;
                QPointF pt(8 + r * std::cos(a), 8.5 + r * std::sin(a));
                if (i == 0) path.moveTo(pt);
                else path.lineTo(pt);
            }
            path.closeSubpath();
            star = make(QColor(40, 100, 220), path);
        }
        return star;
    }
    return {};
}

QString OffsetTableModel::identifier(int column)
{
    switch (column) {
    case kTime: return "time";
    case kOffset: return "offset";
    case kFlag: return "flag";
    case kConfidence: return "confidence";
    default: return {};
    }
}

SyncSession const* OffsetTableModel::session(int row) const
{
    SyncSession const* s = doc_->session();
    return s && row >= 0 && row < s->numberOfRows() ? s : nullptr;
}

int OffsetTableModel::rowCount(QModelIndex const& parent) const
{
    SyncSession const* s = doc_->session();
    return parent.isValid() || !s ? 0 : s->numberOfRows();
}

QVariant OffsetTableModel::data(QModelIndex const& index, int role) const
{
    SyncSession const* s = session(index.row());
    if (!s) return {};
    int row = index.row();
    bool candidate = s->candidateOfRow(row) >= 0;
    if (role == Qt::ForegroundRole)
        return candidate ? QVariant(QApplication::palette().brush(QPalette::Disabled, QPalette::Text)) : QVariant();
    Offset p = s->GetOffset(row);
    if (index.column() == kFlag) {
        std::string outside = doc_->pointOutside(p);
        if (role == Qt::ToolTipRole) {
            if (!outside.empty()) return QString::fromStdString(outside);
            if (p.flag) return "This point strays from the line through the others.";
            return {};
        }
        if (role != Qt::DecorationRole) return {};
        if (p.flag || !outside.empty()) return markerImage("RedDiamond");
        if (s->syncInProgress() && row == s->syncRow()) return markerImage("BlueStar");
        return {};
    }
    if (role == Qt::TextAlignmentRole) return int(Qt::AlignRight | Qt::AlignVCenter);
    if (role != Qt::DisplayRole && role != Qt::EditRole) return {};
    switch (index.column()) {
    case kTime: return QString::fromStdString(p.movieTime.asString(doc_->durationFields(), 3));
    case kOffset: return role == Qt::DisplayRole ? QVariant(QString::number(s->displayedOffset(row), 'f', 1)) : QVariant(s->displayedOffset(row));
    case kConfidence:
        if (!candidate) return {};
        return QString::number(s->candidates()[static_cast<std::size_t>(s->candidateOfRow(row))].confidence, 'f', 2);
    default: return {};
    }
}

bool OffsetTableModel::setData(QModelIndex const& index, QVariant const& value, int role)
{
    if (role != Qt::EditRole || !(flags(index) & Qt::ItemIsEditable)) return false;
    SyncSession* s = doc_->session();
    int row = index.row();
    bool ok = false;
    try {
        if (index.column() == kTime) {
            ok = s->setRowTime(row, value.toString().toStdString());
        } else if (index.column() == kOffset) {
            double ms = value.toString().trimmed().toDouble(&ok);
            if (!ok && value.canConvert<double>()) ms = value.toDouble(&ok);
            ok = ok && std::isfinite(ms);
            if (ok) s->setRowOffset(row, ms);
        }
    } catch (OffsetList::BadBackup const&) {
        ok = false;
    }
    if (!ok) kit::beep();
    doc_->tableEdited();
    return ok;
}

Qt::ItemFlags OffsetTableModel::flags(QModelIndex const& index) const
{
    Qt::ItemFlags f = Qt::ItemIsSelectable | Qt::ItemIsEnabled;
    SyncSession const* s = session(index.row());
    bool fixed = !s || index.column() == kFlag || index.column() == kConfidence || s->candidateOfRow(index.row()) >= 0;
    // While a save runs the worker reads the tracks: the table stays as it is.
    if (!fixed && doc_->canEditTable()) f |= Qt::ItemIsEditable;
    return f;
}

QVariant OffsetTableModel::headerData(int section, Qt::Orientation o, int role) const
{
    if (o != Qt::Horizontal || role != Qt::DisplayRole) return {};
    switch (section) {
    case kTime: return "Time";
    case kOffset: return "Offset (ms)";
    case kConfidence: return "Confidence";
    default: return "";
    }
}

void OffsetTableModel::reloadData()
{
    int rows = rowCount();
    if (rows == rows_ && rows > 0) {
        emit dataChanged(index(0, 0), index(rows - 1, columnCount() - 1));
        return;
    }
    beginResetModel();
    rows_ = rows;
    endResetModel();
}

QWidget* OffsetCellDelegate::createEditor(QWidget* parent, QStyleOptionViewItem const&, QModelIndex const& index) const
{
    auto* edit = new QLineEdit(parent);
    edit->setObjectName("cellEditor");
    edit->setAutoFillBackground(true);
    edit->setFrame(false);
    edit->setAlignment(Qt::AlignRight | Qt::AlignVCenter);
    if (index.column() == OffsetTableModel::kOffset) {
        auto* v = new QDoubleValidator(edit);
        v->setNotation(QDoubleValidator::StandardNotation);
        v->setLocale(QLocale::c());
        edit->setValidator(v);
    }
    editor_ = edit;
    return edit;
}

void OffsetCellDelegate::setEditorData(QWidget* editor, QModelIndex const& index) const
{
    auto* edit = static_cast<QLineEdit*>(editor);
    QVariant v = index.data(Qt::EditRole);
    edit->setText(index.column() == OffsetTableModel::kOffset ? QString::number(v.toDouble(), 'f', 1) : v.toString());
    edit->selectAll();
}

void OffsetCellDelegate::setModelData(QWidget* editor, QAbstractItemModel* model, QModelIndex const& index) const
{
    model->setData(index, static_cast<QLineEdit*>(editor)->text(), Qt::EditRole);
}

DMTableView::DMTableView(QWidget* parent) : QTableView(parent), delegate_(new OffsetCellDelegate(this))
{
    setItemDelegate(delegate_);
}

void DMTableView::commitEditing()
{
    QWidget* editor = delegate_->openEditor();
    if (!isEditing() || !editor) return;
    commitData(editor);
    closeEditor(editor, QAbstractItemDelegate::NoHint);
}

void DMTableView::closeEditor(QWidget* editor, QAbstractItemDelegate::EndEditHint hint)
{
    // Return commits the edit and stays on the row; Tab still moves on.
    if (hint == QAbstractItemDelegate::SubmitModelCache) hint = QAbstractItemDelegate::NoHint;
    QTableView::closeEditor(editor, hint);
}

OffsetListWindowController::OffsetListWindowController(MovieDoc* doc) : kit::WindowController("OffsetList", new QWidget)
{
    QWidget* w = window();
    w->setProperty("dubmatchDocument", QVariant::fromValue(static_cast<QObject*>(doc)));
    w->setWindowTitle(doc->infoWindowTitle());
    auto* layout = new QVBoxLayout(w);
    table_ = new DMTableView(w);
    model_ = new OffsetTableModel(doc, w);
    table_->setModel(model_);
    table_->setSelectionBehavior(QAbstractItemView::SelectRows);
    table_->setSelectionMode(QAbstractItemView::ExtendedSelection);
    table_->setEditTriggers(QAbstractItemView::DoubleClicked | QAbstractItemView::EditKeyPressed);
    table_->verticalHeader()->hide();
    table_->horizontalHeader()->setSectionResizeMode(OffsetTableModel::kTime, QHeaderView::Stretch);
    table_->horizontalHeader()->setSectionResizeMode(OffsetTableModel::kOffset, QHeaderView::Stretch);
    table_->horizontalHeader()->setSectionResizeMode(OffsetTableModel::kFlag, QHeaderView::Fixed);
    table_->horizontalHeader()->resizeSection(OffsetTableModel::kFlag, 28);
    table_->horizontalHeader()->setSectionResizeMode(OffsetTableModel::kConfidence, QHeaderView::ResizeToContents);
    layout->addWidget(table_, 1);
    plot_ = new ResidualPlot(w);
    plot_->setMinimumHeight(120);
    layout->addWidget(plot_);
    // A click on a point in the plot selects it in the table (which loops around it).
    connect(plot_, &ResidualPlot::pointClicked, table_, [this](int row) {
        table_->selectRow(row);
        table_->scrollTo(model_->index(row, 0));
    });
    auto* grid = new QGridLayout;
    duration_ = new QLabel(w);
    time_ = new QLabel(w);
    for (QLabel* l : {duration_, time_}) l->setFont(QFont("monospace"));
    grid->addWidget(new QLabel("Duration:", w), 0, 0);
    grid->addWidget(duration_, 0, 1);
    grid->addWidget(new QLabel("Current time:", w), 1, 0);
    grid->addWidget(time_, 1, 1);
    grid->setColumnStretch(1, 1);
    layout->addLayout(grid);
    w->resize(380, 500);
    connect(table_->selectionModel(), &QItemSelectionModel::selectionChanged, doc, [doc] { doc->tableViewSelectionDidChange(); });
}
