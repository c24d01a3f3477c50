#include "PreferencesWindow.h"

#include "DMApplication.h"
#include "ValueTransformers.h"
#include "kit/UserDefaults.h"

#include <QEvent>
#include <QFormLayout>
#include <QLabel>

#include <cmath>

std::vector<std::pair<QString, QString>> PreferencesWindow::soundCodecChoices()
{
    return {{"Same codec as the movie (lossless stays lossless)", "same"},
            {"Uncompressed (PCM)", "pcm"},
            {"FLAC (lossless)", "flac"},
            {"Apple Lossless (ALAC)", "alac"},
            {"AAC", "aac"}};
}

namespace {
// A check box bound to a sign-valued default through a named transformer.
void bindSign(QCheckBox* box, QString const& key, QString const& transformer, std::function<void()> changed)
{
    QObject::connect(box, &QCheckBox::toggled, box, [key, transformer, changed](bool on) {
        auto t = ValueTransformer::valueTransformerForName(transformer);
        kit::Defaults::standard().setValue(key, t->transformedValue(on).toInt());
        if (changed) changed();
    });
}
} // namespace

PreferencesWindow::PreferencesWindow(QWidget* parent) : QWidget(parent, Qt::Window)
{
    setWindowTitle("Dubmatch Preferences");
    setObjectName("Prefs");
    auto* form = new QFormLayout(this);
    loop_ = new QDoubleSpinBox(this);
    loop_->setRange(0.5, 30);
    loop_->setSingleStep(0.5);
    loop_->setSuffix(" s");
    step_ = new QDoubleSpinBox(this);
    step_->setRange(0.1, 500);
    step_->setSingleStep(1);
    step_->setSuffix(" ms");
    arrows_ = new QCheckBox("The right arrow moves the sound later", this);
    wheel_ = new QCheckBox("Turning the wheel up moves the sound earlier", this);
    inspector_ = new QCheckBox("Open the sync point window with every movie", this);
    updates_ = new QCheckBox("Check for updates when Dubmatch starts", this);
    soundCodec_ = new QComboBox(this);
    soundCodec_->setObjectName("soundCodec");
    for (auto const& [title, name] : soundCodecChoices()) soundCodec_->addItem(title, name);
    form->addRow("Loop length:", loop_);
    form->addRow("Nudge step:", step_);
    form->addRow("Arrow keys:", arrows_);
    form->addRow("Mouse wheel:", wheel_);
    form->addRow("Windows:", inspector_);
    form->addRow("Re-timed sound:", soundCodec_);
    losslessShift_ = new QCheckBox("Copy the sound unchanged when the points only move it", this);
    losslessShift_->setObjectName("losslessShift");
    losslessShift_->setToolTip("When the sound runs at the right speed and is only early or late, a save moves it without "
                               "re-encoding: the original sound, exactly.");
    form->addRow("", losslessShift_);
    outputDelay_ = new QSpinBox(this);
    outputDelay_->setObjectName("soundOutputDelay");
    outputDelay_->setRange(0, 1000);
    outputDelay_->setSingleStep(5);
    outputDelay_->setToolTip("How much later than Dubmatch can tell the sound reaches your ears. Bluetooth headphones and "
                             "some receivers add 100 to 250 ms: set it here so the picture waits for the sound, and the "
                             "points you accept are not off by that much.");
    form->addRow("Sound output delay (ms):", outputDelay_);
    auto* delayHelp = new QLabel("For Bluetooth headphones or a receiver that delays the sound. Dubmatch already "
                                 "allows for the delay of the computer's own sound output.", this);
    delayHelp->setWordWrap(true);
    form->addRow("", delayHelp);
    form->addRow("Updates:", updates_);
    confidence_ = new QDoubleSpinBox(this);
    confidence_->setObjectName("suggestConfidence");
    confidence_->setRange(0, 1);
    confidence_->setSingleStep(0.05);
    confidence_->setToolTip("Sync > Accept All Confident takes the suggested points whose confidence reaches this.");
    form->addRow("Suggested points:", confidence_);
    connect(confidence_, &QDoubleSpinBox::valueChanged, this, [](double v) { kit::Defaults::standard().setValue("suggestConfidence", v); });
    refresh();

    connect(loop_, &QDoubleSpinBox::valueChanged, this, [](double v) { kit::Defaults::standard().setValue("loopLength", v); });
    connect(step_, &QDoubleSpinBox::valueChanged, this, [](double v) { kit::Defaults::standard().setValue("audioStep", v); });
    // The arrow keys swap at once, and open tables show the new sign.
    bindSign(arrows_, "reverseArrows", "BooleanToSignTransformer", [] {
        if (auto* app = DMApplication::instance()) app->reverseArrows();
    });
    bindSign(wheel_, "reverseWheel", "BooleanToSignTransformer", {});
    connect(soundCodec_, &QComboBox::currentIndexChanged, this, [this](int i) {
        kit::Defaults::standard().setValue("soundCodec", soundCodec_->itemData(i).toString());
    });
    connect(inspector_, &QCheckBox::toggled, this, [](bool on) { kit::Defaults::standard().setValue("openInspector", on); });
    connect(losslessShift_, &QCheckBox::toggled, this, [](bool on) { kit::Defaults::standard().setValue("losslessShift", on); });
    // Open movies hear the new delay at once.
    connect(outputDelay_, &QSpinBox::valueChanged, this, [](int ms) {
        kit::Defaults::standard().setValue("soundOutputDelay", static_cast<double>(ms));
        if (auto* app = DMApplication::instance()) app->soundOutputDelayChanged();
    });
    // The update checker stores this one itself (and resets its last check).
}

void PreferencesWindow::refresh()
{
    auto& d = kit::Defaults::standard();
    auto sign = ValueTransformer::valueTransformerForName("BooleanToSignTransformer");
    QSignalBlocker b1(loop_), b2(step_), b3(arrows_), b4(wheel_), b5(inspector_), b6(updates_), b7(soundCodec_), b8(losslessShift_), b9(outputDelay_);
    outputDelay_->setValue(static_cast<int>(std::lround(d.value("soundOutputDelay").toDouble())));
    losslessShift_->setChecked(d.value("losslessShift").toBool());
    int codec = soundCodec_->findData(d.value("soundCodec").toString());
    soundCodec_->setCurrentIndex(codec < 0 ? 0 : codec);
    loop_->setValue(d.value("loopLength").toDouble());
    step_->setValue(d.value("audioStep").toDouble());
    arrows_->setChecked(sign->reverseTransformedValue(d.value("reverseArrows")).toBool());
    wheel_->setChecked(sign->reverseTransformedValue(d.value("reverseWheel")).toBool());
    inspector_->setChecked(d.value("openInspector").toBool());
    QVariant updates = d.value("PXUpdateCheckerCheckAtStartup"); // on until the user answers
    updates_->setChecked(!updates.isValid() || updates.toBool());
    QSignalBlocker b10(confidence_);
    confidence_->setValue(d.value("suggestConfidence").toDouble());
}

void PreferencesWindow::changeEvent(QEvent* e)
{
    if (e->type() == QEvent::ActivationChange && !isActiveWindow()) kit::Defaults::standard().synchronize();
    QWidget::changeEvent(e);
}
