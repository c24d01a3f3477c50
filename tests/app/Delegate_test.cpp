// The delegate's transformers, defaults, preferences window, Read Me, and
// the link cursors of text views.
#include "DMAppDelegate.h"
#include "DMApplication.h"
#include "LinkTextView.h"
#include "PreferencesWindow.h"
#include "ReadMeWindowController.h"
#include "ValueTransformers.h"
#include "kit/UserDefaults.h"

#include <QDialog>
#include <QDir>
#include <QScrollBar>
#include <QTest>
#include <QTimer>

#include <gtest/gtest.h>

namespace {

QVariant nil;

TEST(Delegate, TransformersRegisteredInOrder)
{
    std::vector<QString> expected = {"~movieModeIsNoPoints", "~movieModeIsPointInProgress", "~movieModeIsEndNeedsSync",
                                     "~movieModeIsCheckRedDiamonds", "~movieModeIsMorePointsIfNeeded", "BooleanToSignTransformer",
                                     "BooleanToInverseSignTransformer", "SignToBooleanTransformer", "InverseSignToBooleanTransformer"};
    EXPECT_EQ(ValueTransformer::valueTransformerNames(), expected);
}

TEST(Delegate, TransformerTable)
{
    auto t = [](char const* name) { return ValueTransformer::valueTransformerForName(name); };
    auto noPoints = t("~movieModeIsNoPoints");
    EXPECT_FALSE(noPoints->transformedValue(QString("noPoints")).toBool());
    for (char const* other : {"pointInProgress", "endNeedsSync", "checkRedDiamonds", "morePointsIfNeeded", "unknown"})
        EXPECT_TRUE(noPoints->transformedValue(QString(other)).toBool()) << other;
    EXPECT_TRUE(noPoints->transformedValue(nil).toBool());
    EXPECT_FALSE(noPoints->allowsReverseTransformation());
    EXPECT_FALSE(t("~movieModeIsPointInProgress")->transformedValue(QString("pointInProgress")).toBool());
    EXPECT_FALSE(MatchesTransformer(QString("x")).transformedValue(QString("y")).toBool());
    EXPECT_TRUE(MatchesTransformer(QString("x")).transformedValue(QString("x")).toBool());

    struct Row {
        char const* name;
        QVariant forwardTrue, forwardFalse;
    };
    auto sign = t("BooleanToSignTransformer");
    EXPECT_EQ(sign->transformedValue(true).toInt(), 1);
    EXPECT_EQ(sign->transformedValue(false).toInt(), -1);
    EXPECT_EQ(sign->transformedValue(nil).toInt(), -1);
    EXPECT_TRUE(sign->allowsReverseTransformation());
    for (int i : {1, 2, 7, -3, -9}) EXPECT_TRUE(sign->reverseTransformedValue(i).toBool()) << i;
    for (int i : {0, -1, -2}) EXPECT_FALSE(sign->reverseTransformedValue(i).toBool()) << i;
    EXPECT_FALSE(sign->reverseTransformedValue(nil).toBool());

    auto inverse = t("BooleanToInverseSignTransformer");
    EXPECT_EQ(inverse->transformedValue(true).toInt(), -1);
    EXPECT_EQ(inverse->transformedValue(false).toInt(), 1);
    for (int i : {-1, -5, 3, 8}) EXPECT_TRUE(inverse->reverseTransformedValue(i).toBool()) << i;
    for (int i : {0, 1, 2}) EXPECT_FALSE(inverse->reverseTransformedValue(i).toBool()) << i;

    // Both sign-to-boolean transformers map as the sign one turned around.
    for (char const* name : {"SignToBooleanTransformer", "InverseSignToBooleanTransformer"}) {
        auto s = t(name);
        EXPECT_TRUE(s->transformedValue(1).toBool()) << name;
        EXPECT_FALSE(s->transformedValue(-1).toBool()) << name;
        EXPECT_FALSE(s->transformedValue(0).toBool()) << name;
        EXPECT_TRUE(s->transformedValue(-3).toBool()) << name;
        EXPECT_EQ(s->reverseTransformedValue(true).toInt(), 1) << name;
        EXPECT_EQ(s->reverseTransformedValue(false).toInt(), -1) << name;
    }
}

TEST(Delegate, PreferencesWriteSignsAndSwapTheArrowsAtOnce)
{
    auto* delegate = DMApplication::instance()->delegate();
    ASSERT_TRUE(delegate);
    EXPECT_FLOAT_EQ(static_cast<float>(kit::UserDefaults<float>("loopLength")), 4.0f);
    EXPECT_FLOAT_EQ(static_cast<float>(kit::UserDefaults<float>("audioStep")), 10.0f);
    delegate->showPreferences();
    auto* prefs = static_cast<PreferencesWindow*>(delegate->preferencesWindow());
    ASSERT_TRUE(prefs);
    QDir().mkpath(DUBMATCH_SCREENSHOT_DIR);
    EXPECT_TRUE(prefs->grab().save(QString(DUBMATCH_SCREENSHOT_DIR) + "/preferences.png"));
    EXPECT_TRUE(prefs->arrowsBox()->isChecked()); // factory "reverseArrows" 1
    QAction* advance = DMApplication::instance()->actionNamed("advanceAudio");
    EXPECT_TRUE(advance->text().endsWith(QString::fromUtf8("\u2192")));

    prefs->arrowsBox()->setChecked(false);
    EXPECT_EQ(kit::Defaults::standard().value("reverseArrows").toInt(), -1);
    EXPECT_TRUE(advance->text().endsWith(QString::fromUtf8("\u2190"))); // swapped at once
    bool leftAdvances = false;
    for (auto const& [key, action] : DMApplication::instance()->keyTable())
        if (key.string() == QString(QChar(0xF702)) && action == advance) leftAdvances = true;
    EXPECT_TRUE(leftAdvances);
    prefs->arrowsBox()->setChecked(true);
    EXPECT_EQ(kit::Defaults::standard().value("reverseArrows").toInt(), 1);

    prefs->wheelBox()->setChecked(false);
    EXPECT_EQ(static_cast<int>(kit::UserDefaults<int>("reverseWheel")), -1);
    prefs->wheelBox()->setChecked(true);
    EXPECT_EQ(static_cast<int>(kit::UserDefaults<int>("reverseWheel")), 1);
    prefs->loopLengthBox()->setValue(6);
    EXPECT_FLOAT_EQ(static_cast<float>(kit::UserDefaults<float>("loopLength")), 6.0f);
    kit::Defaults::standard().removeValue("loopLength");
    prefs->refresh();
    EXPECT_DOUBLE_EQ(prefs->loopLengthBox()->value(), 4.0);
    prefs->close();
}

TEST(Delegate, ReadMeNormallyAndModally)
{
    auto* delegate = DMApplication::instance()->delegate();
    delegate->showReadMe();
    ReadMeWindowController* rm = delegate->readMeWindowController();
    ASSERT_TRUE(rm);
    EXPECT_TRUE(rm->window()->isVisible());
    EXPECT_EQ(rm->window()->windowModality(), Qt::NonModal);
    EXPECT_TRUE(rm->textView()->toPlainText().contains("Syncing a movie, step by step"));
    EXPECT_EQ(rm->noteField()->text(), "The manual of Dubmatch.");
    QDir().mkpath(DUBMATCH_SCREENSHOT_DIR);
    EXPECT_TRUE(rm->window()->grab().save(QString(DUBMATCH_SCREENSHOT_DIR) + "/read-me.png"));
    rm->window()->close();

    // From inside a modal dialog, the Read Me runs modally until it closes.
    QDialog dialog;
    bool wasModal = false, returned = false;
    QTimer::singleShot(0, &dialog, [&] {
        QTimer::singleShot(50, [&] {
            wasModal = rm->window()->windowModality() == Qt::ApplicationModal && rm->window()->isVisible();
            rm->window()->close();
        });
        delegate->showReadMe(); // blocks until the Read Me closes
        returned = true;
        dialog.accept();
    });
    dialog.exec();
    EXPECT_TRUE(wasModal);
    EXPECT_TRUE(returned);
    EXPECT_EQ(rm->window()->windowModality(), Qt::NonModal);
}

TEST(Delegate, LinkCursorRectangles)
{
    LinkTextView view;
    view.resize(300, 200);
    view.show();
    view.setHtml("<p>No links in this text at all.</p>");
    EXPECT_TRUE(view.cursorRects().empty());

    // A link that wraps over two lines: one rectangle per line piece.
    view.resize(160, 200);
    view.setHtml("<p>Read <a href=\"https://dubmatch.org/manual\">the whole manual about syncing movies</a> now.</p>");
    auto rects = view.cursorRects();
    ASSERT_GE(rects.size(), 2u);
    EXPECT_LT(rects[0].rect.top(), rects[1].rect.top());
    for (auto const& r : rects) {
        EXPECT_EQ(r.link, "https://dubmatch.org/manual");
        EXPECT_EQ(r.cursor.pixmap().cacheKey(), LinkTextView::fingerCursor().pixmap().cacheKey());
        EXPECT_EQ(r.cursor.hotSpot(), QPoint(0, 0));
    }

    // A delegate's own cursor, or the finger when it gives none.
    view.setCursorDelegate([](QString const& link, int) -> std::optional<QCursor> {
        if (link.contains("manual")) return QCursor(Qt::WhatsThisCursor);
        return std::nullopt;
    });
    view.setHtml("<p><a href=\"a/manual\">manual</a> and <a href=\"b\">other</a></p>");
    rects = view.cursorRects();
    ASSERT_EQ(rects.size(), 2u);
    EXPECT_EQ(rects[0].cursor.shape(), Qt::WhatsThisCursor);
    EXPECT_EQ(rects[1].cursor.pixmap().cacheKey(), LinkTextView::fingerCursor().pixmap().cacheKey());
    view.setCursorDelegate(nullptr);

    // Partly scrolled out of view: only the visible part counts.
    view.resize(300, 120);
    QString html = "<p><a href=\"top\">a link at the top</a></p>";
    for (int i = 0; i < 40; ++i) html += "<p>filler line</p>";
    view.setHtml(html);
    auto whole = view.cursorRects();
    ASSERT_EQ(whole.size(), 1u);
    int height = whole[0].rect.height();
    view.verticalScrollBar()->setValue(whole[0].rect.top() + height / 2);
    auto part = view.cursorRects();
    ASSERT_EQ(part.size(), 1u);
    EXPECT_LT(part[0].rect.height(), height);
    EXPECT_EQ(part[0].rect.top(), 0);
    view.verticalScrollBar()->setValue(view.verticalScrollBar()->maximum());
    EXPECT_TRUE(view.cursorRects().empty());
}

} // namespace
