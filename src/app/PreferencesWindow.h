// The preferences window ("Prefs"): every change takes effect at once and
// is written out when the window stops being active.
#pragma once

#include <QCheckBox>
#include <QComboBox>
#include <QDoubleSpinBox>
#include <QSpinBox>
#include <QWidget>

#include <utility>
#include <vector>

class PreferencesWindow : public QWidget {
    Q_OBJECT
public:
    explicit PreferencesWindow(QWidget* parent = nullptr);
    QCheckBox* arrowsBox() const { return arrows_; }
    QCheckBox* wheelBox() const { return wheel_; }
    QCheckBox* inspectorBox() const { return inspector_; }
    QCheckBox* updatesBox() const { return updates_; }
    QDoubleSpinBox* loopLengthBox() const { return loop_; }
    QDoubleSpinBox* audioStepBox() const { return step_; }
    QComboBox* soundCodecBox() const { return soundCodec_; }
    // The choices of the "soundCodec" default: a title and the codec's name
    // as the writer knows it.
    static std::vector<std::pair<QString, QString>> soundCodecChoices();
    // Reads every control back from the defaults.
    void refresh();

protected:
    void changeEvent(QEvent* e) override;

private:
    QCheckBox *arrows_, *wheel_, *inspector_, *updates_;
    QDoubleSpinBox *loop_, *step_;
    QCheckBox* losslessShift_ = nullptr;
    QSpinBox* outputDelay_ = nullptr;
    QComboBox* soundCodec_;
    QDoubleSpinBox* confidence_ = nullptr; // the confidence Accept All Confident asks of a suggested point
};
