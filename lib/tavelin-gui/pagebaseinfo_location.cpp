#include "mainwindow.h"

// The install location choice and its judgement. Not built yet.

void MainWindow::showEvent(QShowEvent* event)
{
    Q_UNUSED(event)
}

void DPageBaseInfo::setVisible(bool visible)
{
    QWidget::setVisible(visible);
}

void DPageBaseInfo::onclickSelInstallDir()
{
}

void DPageBaseInfo::slotDeselectEditInstallDir()
{
}

void DPageBaseInfo::updateCreateState()
{
}

void DPageBaseInfo::updateChange2RootTip(bool bShow)
{
    Q_UNUSED(bShow)
}

DClearLibraryPath::DClearLibraryPath() = default;

DClearLibraryPath::~DClearLibraryPath() = default;
