#pragma once

#include "mainwindow.h"

/// The real wizard window, with the handles a headless bench needs.
class DBenchWindow : public MainWindow
{
public:
    bool setInstallDirText(const QString& strDir);
    void pressCreate();
    void pressCancel();
    int copiedCount() const { return copyFilesCounter; }
    /// The tree copy alone, on the calling thread, as the worker would run it.
    bool copyTreeDirect(const QString& srcPath, const QString& dstPath);
};
