// The document's export and print actions.
#include "MovieDoc.h"
#include "ResidualPlot.h"

#include "MovieView.h"
#include "kit/Alert.h"

#include <QComboBox>
#include <QFileDialog>
#include <QFileInfo>
#include <QAbstractItemView>
#include <QHBoxLayout>
#include <QLineEdit>
#include <QPainter>
#include <QPrintDialog>
#include <QPrinter>

QString MovieDoc::exportPathWithExtension(QString const& path, QString const& extension)
{
    QFileInfo info(path);
    QString suffix = info.suffix().toLower();
    // A known movie or export extension is replaced; any other is kept and extended.
    bool known = suffix == "mov" || suffix == "qt" || suffix == "m4v";
    for (auto const& f : media::exportFormats()) known = known || suffix == QString::fromLatin1(f.extension);
    if (suffix == extension.toLower()) return path;
    QString base = known ? info.path() + "/" + info.completeBaseName() : path;
    return base + "." + extension;
}

void MovieDoc::doExport()
{
    if (!opened_ || busy_) return;
    auto const& formats = media::exportFormats();
    // The accessory belongs to this function; the panel only borrows it.
    QWidget accessory;
    auto* row = new QHBoxLayout(&accessory);
    row->setContentsMargins(0, 0, 0, 0);
    auto* label = new QLabel("&Format:", &accessory);
    row->addWidget(label);
    auto* chooser = new QComboBox(&accessory);
    label->setBuddy(chooser);
    chooser->setObjectName("exportType");
    for (auto const& f : formats) chooser->addItem(f.title);
    chooser->setCurrentIndex(static_cast<int>(formats.size()) - 2); // QuickTime Movie
    row->addWidget(chooser, 1);

    auto extensionAt = [&formats](int index) {
        return QString::fromLatin1(formats[static_cast<std::size_t>(std::clamp<int>(index, 0, static_cast<int>(formats.size()) - 1))].extension);
    };
    kit::SavePanelSpec spec;
    spec.title = "Export";
    QFileInfo info(fileName());
    spec.directory = info.absolutePath();
    spec.proposedName = info.completeBaseName() + "." + extensionAt(chooser->currentIndex());
    spec.accessory = &accessory;
    spec.sheetParent = mMovieWindow;
    // In the real panel the typed name takes the chosen format's extension.
    spec.customize = [chooser, extensionAt](QFileDialog& dialog) {
        QObject::connect(chooser, &QComboBox::currentIndexChanged, &dialog, [&dialog, extensionAt](int index) {
            QString ext = extensionAt(index);
            dialog.setDefaultSuffix(ext);
            // The name as typed so far (Qt's own dialog keeps it in this field).
            auto* edit = dialog.findChild<QLineEdit*>("fileNameEdit");
            QString name = edit ? edit->text() : QString();
            if (name.isEmpty()) return;
            QString renamed = QFileInfo(exportPathWithExtension(name, ext)).fileName();
            // The file list must not keep the old file selected: Save takes
            // a selected file over the typed name.
            for (auto* view : dialog.findChildren<QAbstractItemView*>()) view->clearSelection();
            dialog.selectFile(renamed);
            if (edit) edit->setText(renamed);
        });
        dialog.setDefaultSuffix(extensionAt(chooser->currentIndex()));
    };
    QString path = kit::runSavePanel(spec);
    int index = chooser->currentIndex();
    if (path.isEmpty()) return;

    media::ExportType chosen = media::ExportType::QuickTime;
    if (index >= 0 && index < static_cast<int>(formats.size())) chosen = formats[static_cast<std::size_t>(index)].type;
    path = exportPathWithExtension(path, extensionAt(index));
    // Never export over the movie that is open.
    if (QFileInfo(path).absoluteFilePath() == QFileInfo(fileName()).absoluteFilePath())
        path = info.absolutePath() + "/" + info.completeBaseName() + " export." + extensionAt(index);
    if (refuseSyncProblem("exported")) return;
    // The movie exports take every stream they can; the user decides on the rest.
    media::SaveOptions options;
    if (chosen == media::ExportType::MPEG4 || chosen == media::ExportType::QuickTime || chosen == media::ExportType::QuickTimeWeb) {
        auto asked = saveOptionsFor(chosen == media::ExportType::MPEG4 ? media::Container::Kind::Mpeg4 : media::Container::Kind::QuickTime, "exported");
        if (!asked) return;
        options.dropUnsupported = asked->dropUnsupported;
    }
    myQTTime now = player_->currentTime();
    dm::Movie& movie = opened_->movie();
    std::string target = path.toStdString();
    media::WriteResult result;
    // The worker writes `result`; it is read only after the worker has ended.
    auto outcome = runWithProgress("Exporting", [&movie, &result, target, chosen, now, options](media::Progress const& progress) {
        result = media::exportMovie(movie, target, chosen, now, progress, options);
    });
    if (outcome && outcome->empty() && lateStop_) tellLateStop("exported");
    if (outcome && outcome->empty()) showWriterNotes(result.notes, "The movie was exported, with these changes:");
    if (outcome && !outcome->empty()) {
        kit::AlertSpec a;
        a.title = "Error";
        a.message = "Error exporting movie.";
        a.informative = QString::fromStdString(*outcome);
        a.sheetParent = mMovieWindow;
        kit::runAlert(a);
    }
}

bool MovieDoc::printShowingPrintPanel(bool showPanel, QPrinter* given)
{
    if (!mMovieView) return false;
    QPrinter fallback(QPrinter::HighResolution);
    QPrinter* printer = given ? given : &fallback;
    if (showPanel) {
        QPrintDialog dialog(printer, mMovieWindow);
        if (dialog.exec() != QDialog::Accepted) return false;
    }
    QImage picture = mMovieView->currentPicture();
    if (picture.isNull()) picture = mMovieView->grab().toImage();
    QPainter painter;
    if (!painter.begin(printer)) return false;
    QRect page = painter.viewport();
    // The picture on the upper part of the page; with sync points, the plot
    // of their residuals below it.
    bool withPlot = session_ && !session_->offsets()->points().empty();
    QSize room(page.width(), withPlot ? page.height() * 2 / 3 : page.height());
    QSize size = picture.size().scaled(room, Qt::KeepAspectRatio);
    painter.save();
    painter.setViewport(page.x() + (page.width() - size.width()) / 2, page.y(), size.width(), size.height());
    painter.setWindow(picture.rect());
    painter.drawImage(0, 0, picture);
    painter.restore();
    if (withPlot) {
        ResidualPlot plot;
        plot.setPoints(ResidualPlot::pointsOf(*session_->offsets()), opened_->movie().duration().seconds());
        // Drawn at screen size and scaled to the page, so lines and text keep their proportions.
        QRectF logical(0, 0, 640, 200);
        double scale = std::min(page.width() / logical.width(), (page.height() - size.height() - 20) / logical.height());
        painter.save();
        painter.translate(page.x() + (page.width() - logical.width() * scale) / 2, page.y() + size.height() + 20);
        painter.scale(scale, scale);
        plot.render(painter, logical);
        painter.restore();
    }
    return painter.end();
}
