// How well the sync points agree with the fitted line: every point's
// residual (milliseconds) against movie time, the line at 0, strays in red,
// and the bands where a sync error becomes noticeable in broadcast shaded
// (sound more than 45 ms early or more than 125 ms late, ITU-R BT.1359).
// Clicking a point selects it.
#pragma once

#include "OffsetList.h"

#include <QWidget>

#include <set>
#include <vector>

class ResidualPlot : public QWidget {
    Q_OBJECT
public:
    struct Point {
        double movieSeconds = 0;
        double residualMs = 0; // the line's audio time minus the point's: > 0, the sound comes early
        bool flagged = false;
        int row = 0;           // its row in the table
    };
    static constexpr double kEarlyLimitMs = 45;
    static constexpr double kLateLimitMs = 125;

    explicit ResidualPlot(QWidget* parent = nullptr);
    // The points of a list, row by row; `gapRow` (the point in progress,
    // which has no residual yet) is skipped in the numbering.
    static std::vector<Point> pointsOf(OffsetList const& list, int gapRow = -1);
    void setPoints(std::vector<Point> points, double durationSeconds);
    void setSelectedRows(std::set<int> rows);
    std::vector<Point> const& points() const { return points_; }

    // Where things are drawn, for printing at another size and for tests.
    QRectF plotArea(QRectF bounds) const;
    double rangeMs() const; // the vertical axis runs from -range to +range
    QPointF positionOf(Point const& p, QRectF bounds) const;
    // Draws the plot into `bounds` of any painter (the widget, a printer).
    void render(QPainter& painter, QRectF bounds) const;

    QSize sizeHint() const override { return {280, 130}; }
    QSize minimumSizeHint() const override { return {160, 90}; }

signals:
    void pointClicked(int row);

protected:
    void paintEvent(QPaintEvent*) override;
    void mousePressEvent(QMouseEvent* e) override;

private:
    std::vector<Point> points_;
    std::set<int> selected_;
    double duration_ = 1;
};
