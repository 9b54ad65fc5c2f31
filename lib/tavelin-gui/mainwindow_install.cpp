#include "mainwindow.h"

#include <QCloseEvent>

// The install run: the refusals, the worker and the tick. Not built yet.

MainWindow::~MainWindow() = default;

void MainWindow::closeEvent(QCloseEvent* event)
{
    Q_UNUSED(event)
}

void MainWindow::onclickCreate()
{
}

void MainWindow::onclickCancel()
{
    close();
}

void MainWindow::timerProcRefresh()
{
}

void* MainWindow::threadProcHandle(void* arg)
{
    static_cast<MainWindow*>(arg)->threadProcHandleObj();
    return nullptr;
}

void MainWindow::threadProcHandleObj()
{
}
