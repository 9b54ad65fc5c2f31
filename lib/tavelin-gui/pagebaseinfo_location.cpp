#include "mainwindow.h"

#include <QDir>
#include <QFileDialog>
#include <QFileInfo>
#include <QLabel>
#include <QLineEdit>
#include <QPushButton>

namespace {

// The nearest existing directory on the path decides; nothing above it is tried.
bool nearestExistingDirWritable(const QString& strPath)
{
    QString tmpDir = strPath;
    for (;;) {
        const QFileInfo fi(tmpDir);
        if (fi.isDir())
            return fi.isWritable();
        const int pos = tmpDir.lastIndexOf(QLatin1Char('/'));
        if (pos < 0)
            return false;
        tmpDir = tmpDir.left(pos);
        if (tmpDir.isEmpty())
            return false;
    }
}

} // namespace

void MainWindow::showEvent(QShowEvent* event)
{
    Q_UNUSED(event)
    if (pageInfoSet)
        pageInfoSet->updateCreateState();
}

void DPageBaseInfo::setVisible(bool visible)
{
    QWidget::setVisible(visible);
    if (visible)
        updateCreateState();
}

void DPageBaseInfo::onclickSelInstallDir()
{
    if (cacheLastOpenDir.isEmpty())
        cacheLastOpenDir = editInstallDir->text();

    // Also covers updateCreateState below: the variable returns only when we leave.
    DClearLibraryPath objClearLibraryPath;

    const QString strTitle = tr("选择安装文件夹");
    const QString strStartDir = cacheLastOpenDir.isEmpty() ? QDir::currentPath() : cacheLastOpenDir;
    QString strDir = QFileDialog::getExistingDirectory(this, strTitle, strStartDir,
                                                       QFileDialog::ShowDirsOnly
                                                           | QFileDialog::DontResolveSymlinks);
    if (strDir.isEmpty())
        return;
    const QFileInfo fileInfo(strDir);
    if (!fileInfo.isDir())
        return;

    cacheLastOpenDir = fileInfo.canonicalFilePath();
    strDir = cacheLastOpenDir;
    // Only "/" ends with a slash here; emptied, it yields a single leading slash below.
    while (strDir.endsWith(QLatin1Char('/')))
        strDir.chop(1);

    const TAppPackInfo* appPackInfo = DTavelinGuiConfig::getInstance().getAppPackInfo();
    const std::string& strName = appPackInfo->install.dir.empty() ? appPackInfo->base.nameEng
                                                                   : appPackInfo->install.dir;
    strDir = QStringLiteral("%1/%2").arg(strDir, QString::fromStdString(strName));

    editInstallDir->setText(strDir);
    updateCreateState();
}

void DPageBaseInfo::slotDeselectEditInstallDir()
{
    editInstallDir->deselect();
    QObject::disconnect(editInstallDir, SIGNAL(selectionChanged()), this, SLOT(slotDeselectEditInstallDir()));
}

void DPageBaseInfo::updateCreateState()
{
    // Qt may show the page before init has built its widgets.
    if (!editInstallDir)
        return;

    const QString strInstallDir = editInstallDir->text();
    bool bRet = false;
    if (!strInstallDir.isEmpty())
        bRet = nearestExistingDirWritable(strInstallDir);

    auto* win = qobject_cast<MainWindow*>(wizard());
    if (win)
        win->enableCreate(bRet);
    updateChange2RootTip(!bRet);
}

void DPageBaseInfo::updateChange2RootTip(bool bShow)
{
    if (DTavelinUtil::getCurrentUser() == QLatin1String("root"))
        bShow = false;
    labelChange2RootTip01->setVisible(bShow);
    btnChange2Root->setVisible(bShow);
    labelChange2RootTip02->setVisible(bShow);
}

DClearLibraryPath::DClearLibraryPath()
    : strLibraryPath(QString::fromUtf8(qgetenv("LD_LIBRARY_PATH")))
{
    qputenv("LD_LIBRARY_PATH", QByteArray());
}

DClearLibraryPath::~DClearLibraryPath()
{
    qputenv("LD_LIBRARY_PATH", strLibraryPath.toLocal8Bit());
}
