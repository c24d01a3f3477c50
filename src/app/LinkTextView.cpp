#include "LinkTextView.h"

#include <QAbstractTextDocumentLayout>
#include <QMouseEvent>
#include <QPainter>
#include <QPainterPath>
#include <QScrollBar>
#include <QTextBlock>

LinkTextView::LinkTextView(QWidget* parent) : QTextBrowser(parent)
{
    setMouseTracking(true);
    viewport()->setMouseTracking(true);
}

QCursor const& LinkTextView::fingerCursor()
{
    static QCursor* finger = [] {
        // A hand pointing up and to the left: the fingertip is the hot spot.
        QPixmap pm(24, 24);
        pm.fill(Qt::transparent);
        QPainter p(&pm);
        p.setRenderHint(QPainter::Antialiasing);
        QPainterPath hand;
        hand.moveTo(1, 1);
        hand.lineTo(5, 1);
        hand.lineTo(12, 8);
        hand.lineTo(20, 10);
        hand.lineTo(22, 16);
        hand.lineTo(16, 22);
        hand.lineTo(9, 20);
        hand.lineTo(7, 12);
        hand.lineTo(1, 5);
        hand.closeSubpath();
        p.setPen(QPen(Qt::black, 1.2));
        p.setBrush(Qt::white);
        p.drawPath(hand);
        p.end();
        return new QCursor(pm, 0, 0);
    }();
    return *finger;
}

QCursor LinkTextView::cursorForLink(QString const& link, int index) const
{
    if (delegate_)
        if (auto c = delegate_(link, index)) return *c;
    return fingerCursor();
}

std::vector<LinkTextView::CursorRect> LinkTextView::cursorRects() const
{
    std::vector<CursorRect> out;
    QRect visible = viewport()->rect();
    QPoint scroll(horizontalScrollBar()->value(), verticalScrollBar()->value());
    QTextDocument* doc = document();
    QAbstractTextDocumentLayout* layout = doc->documentLayout();
    // Only the visible characters are examined.
    int first = cursorForPosition(visible.topLeft()).position();
    int last = cursorForPosition(visible.bottomRight()).position();
    for (QTextBlock block = doc->findBlock(first); block.isValid() && block.position() <= last; block = block.next()) {
        QTextLayout* tl = block.layout();
        QPointF origin = layout->blockBoundingRect(block).topLeft();
        for (auto it = block.begin(); !it.atEnd(); ++it) {
            QTextFragment f = it.fragment();
            QTextCharFormat cf = f.charFormat();
            if (!cf.isAnchor() || cf.anchorHref().isEmpty()) continue;
            QCursor cursor = cursorForLink(cf.anchorHref(), f.position());
            int start = f.position() - block.position(), end = start + f.length();
            for (int i = 0; i < tl->lineCount(); ++i) {
                QTextLine line = tl->lineAt(i);
                int s = std::max(start, line.textStart()), e = std::min(end, line.textStart() + line.textLength());
                if (s >= e) continue;
                qreal x1 = line.cursorToX(s), x2 = line.cursorToX(e);
                QRectF r(std::min(x1, x2), line.y(), std::fabs(x2 - x1), line.height());
                r.translate(origin - scroll);
                QRect piece = r.toAlignedRect() & visible;
                if (!piece.isEmpty()) out.push_back({piece, cursor, cf.anchorHref()});
            }
        }
    }
    return out;
}

void LinkTextView::mouseMoveEvent(QMouseEvent* e)
{
    QTextBrowser::mouseMoveEvent(e);
    QPoint at = e->position().toPoint();
    for (auto const& r : cursorRects())
        if (r.rect.contains(at)) {
            viewport()->setCursor(r.cursor);
            return;
        }
    viewport()->setCursor(Qt::IBeamCursor);
}
