#include "ResidualPlot.h"

#include <QMouseEvent>
#include <QPainter>
#include <QPainterPath>

#include <algorithm>
#include <cmath>

ResidualPlot::ResidualPlot(QWidget* parent) : QWidget(parent)
{
    setObjectName("residualPlot");
    setToolTip("How far each sync point lies from the fitted line. Points in the shaded bands are off by enough to be "
               "noticed: sound more than 45 ms early (top) or 125 ms late (bottom).");
}

std::vector<ResidualPlot::Point> ResidualPlot::pointsOf(OffsetList const& list, int gapRow)
{
    std::vector<Point> points;
    int row = 0;
    for (Offset const& p : list.points()) {
        if (row == gapRow) ++row;
        points.push_back({p.movieTime.seconds(), list.residual(p) * 1000, p.flag, row++});
    }
    return points;
}

void ResidualPlot::setPoints(std::vector<Point> points, double durationSeconds)
{
    points_ = std::move(points);
    duration_ = durationSeconds > 0 ? durationSeconds : 1;
    update();
}

void ResidualPlot::setSelectedRows(std::set<int> rows)
{
    selected_ = std::move(rows);
    update();
}

double ResidualPlot::rangeMs() const
{
    // Always room for both bands; more when a point lies further out.
    double worst = 0;
    for (auto const& p : points_) worst = std::max(worst, std::fabs(p.residualMs));
    double range = std::max(kLateLimitMs * 1.4, worst * 1.15);
    // A round number of milliseconds for the axis.
    for (double step : {200.0, 250.0, 500.0, 1000.0, 2000.0, 5000.0, 10000.0})
        if (range <= step) return step;
    return std::ceil(range / 10000.0) * 10000.0;
}

QRectF ResidualPlot::plotArea(QRectF bounds) const
{
    double left = std::min(44.0, bounds.width() * 0.25);
    return bounds.adjusted(left, 8, -8, -16);
}

QPointF ResidualPlot::positionOf(Point const& p, QRectF bounds) const
{
    QRectF a = plotArea(bounds);
    double x = a.left() + std::clamp(p.movieSeconds / duration_, 0.0, 1.0) * a.width();
    double range = rangeMs();
    double y = a.center().y() - std::clamp(p.residualMs / range, -1.0, 1.0) * a.height() / 2;
    return {x, y};
}

void ResidualPlot::render(QPainter& painter, QRectF bounds) const
{
    painter.save();
    painter.setRenderHint(QPainter::Antialiasing);
    QRectF a = plotArea(bounds);
    double range = rangeMs();
    auto yOf = [&](double ms) { return a.center().y() - ms / range * a.height() / 2; };
    painter.fillRect(a, QColor(252, 252, 252));
    // The bands where the error shows.
    QColor band(230, 120, 90, 45);
    painter.fillRect(QRectF(QPointF(a.left(), a.top()), QPointF(a.right(), yOf(kEarlyLimitMs))), band);
    painter.fillRect(QRectF(QPointF(a.left(), yOf(-kLateLimitMs)), QPointF(a.right(), a.bottom())), band);
    painter.setPen(QPen(QColor(200, 200, 200), 1));
    painter.drawRect(a);
    // The line, at zero.
    painter.setPen(QPen(QColor(40, 90, 180), 1.5));
    painter.drawLine(QPointF(a.left(), yOf(0)), QPointF(a.right(), yOf(0)));
    // Axis labels.
    QFont small = painter.font();
    small.setPointSizeF(std::max(6.0, small.pointSizeF() * 0.8));
    painter.setFont(small);
    painter.setPen(QColor(90, 90, 90));
    QRectF labels(bounds.left(), a.top() - 6, a.left() - bounds.left() - 4, 12);
    painter.drawText(labels, Qt::AlignRight | Qt::AlignVCenter, QString("+%1").arg(range, 0, 'f', 0));
    painter.drawText(labels.translated(0, yOf(0) - a.top()), Qt::AlignRight | Qt::AlignVCenter, "0 ms");
    painter.drawText(labels.translated(0, a.height()), Qt::AlignRight | Qt::AlignVCenter, QString("-%1").arg(range, 0, 'f', 0));
    painter.drawText(QRectF(a.left() + 4, a.top() + 1, a.width() - 8, 12), Qt::AlignLeft | Qt::AlignTop, "sound early");
    painter.drawText(QRectF(a.left() + 4, a.bottom() - 13, a.width() - 8, 12), Qt::AlignLeft | Qt::AlignBottom, "sound late");
    painter.drawText(QRectF(a.left(), a.bottom() + 2, a.width(), 12), Qt::AlignRight | Qt::AlignTop, "movie time");
    // The points.
    for (auto const& p : points_) {
        QPointF c = positionOf(p, bounds);
        bool selected = selected_.count(p.row) > 0;
        QColor fill = p.flagged ? QColor(210, 40, 40) : QColor(40, 90, 180);
        painter.setPen(QPen(selected ? QColor(20, 20, 20) : fill.darker(130), selected ? 2.0 : 1.0));
        painter.setBrush(fill);
        double r = selected ? 5 : 4;
        if (p.flagged) { // the table's red diamond
            QPainterPath d;
            d.moveTo(c + QPointF(0, -r - 1));
            d.lineTo(c + QPointF(r + 1, 0));
            d.lineTo(c + QPointF(0, r + 1));
            d.lineTo(c + QPointF(-r - 1, 0));
            d.closeSubpath();
            painter.drawPath(d);
        } else {
            painter.drawEllipse(c, r, r);
        }
    }
    painter.restore();
}

void ResidualPlot::paintEvent(QPaintEvent*)
{
    QPainter p(this);
    render(p, rect());
}

void ResidualPlot::mousePressEvent(QMouseEvent* e)
{
    // The nearest point within a few pixels.
    double best = 10;
    int row = -1;
    for (auto const& p : points_) {
        QPointF d = positionOf(p, rect()) - e->position();
        double dist = std::hypot(d.x(), d.y());
        if (dist < best) {
            best = dist;
            row = p.row;
        }
    }
    if (row >= 0) emit pointClicked(row);
    else QWidget::mousePressEvent(e);
}
