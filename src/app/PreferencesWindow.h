// The preferences window ("Prefs"): every change takes effect at once and
// is written out when the window stops being active.
#pragma once

#include <QCheckBox>
#include <QDoubleSpinBox>
#include <QWidget>

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
    // Reads every control back from the defaults.
    void refresh();

protected:
    void changeEvent(QEvent* e) override;

private:
    QCheckBox *arrows_, *wheel_, *inspector_, *updates_;
    QDoubleSpinBox *loop_, *step_;
};
