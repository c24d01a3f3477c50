// A text view whose links show a pointing finger: the cursor changes only
// over the visible parts of links, one rectangle per line piece.
#pragma once

#include <QCursor>
#include <QTextBrowser>

#include <functional>
#include <optional>
#include <vector>

class LinkTextView : public QTextBrowser {
    Q_OBJECT
public:
    explicit LinkTextView(QWidget* parent = nullptr);

    // The finger cursor: a pointing hand of our own, hot spot top-left.
    static QCursor const& fingerCursor();

    struct CursorRect {
        QRect rect; // in viewport coordinates
        QCursor cursor;
        QString link;
    };
    // The cursor rectangles of the visible links.
    std::vector<CursorRect> cursorRects() const;

    // May give its own cursor for a link (at the link's first character),
    // or nothing for the finger.
    using CursorDelegate = std::function<std::optional<QCursor>(QString const& link, int index)>;
    void setCursorDelegate(CursorDelegate d) { delegate_ = std::move(d); }
    QCursor cursorForLink(QString const& link, int index) const;

protected:
    void mouseMoveEvent(QMouseEvent* e) override;

private:
    CursorDelegate delegate_;
};
