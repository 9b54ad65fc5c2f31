#pragma once

// What the wizard's tests share beyond the plain helpers of testsupport.h.

#include "mainwindow.h"
#include "testsupport.h"

#include <QPushButton>

namespace TestSupport {

/// Where a run puts its desktop entry for the current user.
QString applicationsDir();

/// Writes a payload (manifest, desktop entry, the app tree's files, each
/// holding its own name) below strAppDir and loads the configuration from it.
bool loadPayload(const QString& strAppDir, int filesTotalCount, const QStringList& appFiles);

/// MainWindow with the run's slots and state open to the tests.
class DProbeWindow : public MainWindow
{
public:
    using MainWindow::onclickCancel;
    using MainWindow::onclickCreate;
    using MainWindow::timerProcRefresh;
    void setState(EInstallState state) { flagOfInstallState = state; }
    void setCounter(int value) { copyFilesCounter = value; }
    int counter() const { return copyFilesCounter; }
    bool timerActive() const { return timerRefresh.isActive(); }
    const QTimer& tick() const { return timerRefresh; }
    void startTick() { timerRefresh.start(500); }
    QPushButton* createButton() const { return btnCreate; }
    QPushButton* cancelButton() const { return btnCancel; }
};

} // namespace TestSupport
