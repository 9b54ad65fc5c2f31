#include "mainwindow.h"

// The uninstall script stage. Not built yet.
void MainWindow::createUninstallFile()
{
}
