#include "mainwindow.h"

#include <QCloseEvent>
#include <QDir>
#include <QFileInfo>
#include <QLineEdit>
#include <QMessageBox>
#include <QPushButton>
#include <QThread>

#include <pthread.h>

namespace {

void showRefusal(QWidget* parent, const QString& strTitle, const QString& strText)
{
    QMessageBox::information(parent, strTitle, strText, QMessageBox::Ok, QMessageBox::NoButton);
}

} // namespace

// The window lives on main's stack and the worker holds a plain pointer to it.
MainWindow::~MainWindow()
{
    waitForWorker();
}

void MainWindow::closeEvent(QCloseEvent* event)
{
    Q_UNUSED(event)
    // The window closes at once; the worker stops at its next test of the state.
    EInstallState expected = installing;
    flagOfInstallState.compare_exchange_strong(expected, cancel);
}

void MainWindow::onclickCreate()
{
    // One run per window: two workers must never share a tree.
    if (flagOfInstallState != pending || flagWorkerRunning)
        return;

    updateInstallConfig();
    resolveRelativeInstallDir();
    DTavelinGuiConfig& config = DTavelinGuiConfig::getInstance();
    if (config.getAppPackInfo()->install.filesTotalCount < 1) {
        showRefusal(this, QStringLiteral("提示"), QStringLiteral("安装包里没有需要安装的应用软件文件"));
        return;
    }

    const QString strTargetInstallDir = config.getTargetInstallDir();
    config.setFlagOfOverrideTargetDir(false);
    if (QFileInfo(strTargetInstallDir).isDir())
        config.setFlagOfOverrideTargetDir(true);

    QDir dirInstallTarget(strTargetInstallDir);
    if (!dirInstallTarget.mkpath(strTargetInstallDir)) {
        showRefusal(this, QStringLiteral("错误"),
                    QStringLiteral("无法在当前的“安装位置”上，创建安装目录。\n[选中的“安装位置”，可能没有写入权限]"));
        return;
    }
    const QFileInfo fiTargetInstallDir(strTargetInstallDir);
    if (!fiTargetInstallDir.isWritable()) {
        showRefusal(this, QStringLiteral("错误"), QStringLiteral("无法在不可写的目录里，安装应用软件"));
        return;
    }

    pageInfoSet->btnSelInstallDir->hide();
    pageInfoSet->editInstallDir->setEnabled(false);
    flagOfInstallState = installing;
    copyFilesCounter = 0;
    startWorker();
    setOption(QWizard::DisabledBackButtonOnLastPage, true);
    timerRefresh.start(500);
    pageInfoSet->updateInstallProgress(true, 1, QStringLiteral("正在安装"));
    btnCreate->setText(QStringLiteral("正在安装：1%"));
    btnCreate->setEnabled(false);
}

// The copy, the desktop entry and the script must all name one tree,
// whatever the current directory of whoever later runs the script.
void MainWindow::resolveRelativeInstallDir()
{
    DTavelinGuiConfig& config = DTavelinGuiConfig::getInstance();
    const QString strTargetInstallDir = config.getTargetInstallDir();
    if (strTargetInstallDir.isEmpty() || QDir::isAbsolutePath(strTargetInstallDir))
        return;
    config.setTargetInstallDir(QDir::current().absoluteFilePath(strTargetInstallDir));
}

void MainWindow::startWorker()
{
    flagWorkerRunning = true;
    pthread_attr_t attr;
    pthread_attr_init(&attr);
    pthread_attr_setdetachstate(&attr, PTHREAD_CREATE_DETACHED);
    pthread_t threadId;
    const int ret = pthread_create(&threadId, &attr, &MainWindow::threadProcHandle, this);
    pthread_attr_destroy(&attr);
    if (ret != 0) {
        // The next tick paints the outcome, as for any other failure.
        flagWorkerRunning = false;
        flagOfInstallState = failed;
    }
}

void MainWindow::waitForWorker()
{
    EInstallState expected = installing;
    flagOfInstallState.compare_exchange_strong(expected, cancel);
    while (flagWorkerRunning)
        QThread::msleep(1);
}

void MainWindow::onclickCancel()
{
    EInstallState expected = installing;
    if (flagOfInstallState.compare_exchange_strong(expected, cancel))
        return;
    close();
}

void MainWindow::timerProcRefresh()
{
    const TAppPackInfo* appPackInfo = DTavelinGuiConfig::getInstance().getAppPackInfo();
    // Divided before multiplied: 29 of 100 shows 28.
    const double dRatio = static_cast<double>(copyFilesCounter) / static_cast<double>(appPackInfo->install.filesTotalCount);
    const int progressValue = static_cast<int>(dRatio * 100.0);

    if (flagOfInstallState == installing) {
        const QString strInfo = QStringLiteral("正在安装： %1%").arg(progressValue);
        btnCreate->setText(strInfo);
        pageInfoSet->updateInstallProgress(true, progressValue, QStringLiteral("正在安装"));
    } else if (flagOfInstallState == installed) {
        paintRunEnd(100, QStringLiteral("安装完成"));
    } else if (flagOfInstallState == failed) {
        paintRunEnd(progressValue, QStringLiteral("安装失败"));
    } else if (flagOfInstallState == cancel) {
        paintRunEnd(progressValue, QStringLiteral("取消安装"));
    }
}

void MainWindow::paintRunEnd(int value, const QString& strText)
{
    timerRefresh.stop();
    btnCreate->setText(strText);
    btnCancel->setText(QStringLiteral("关闭"));
    pageInfoSet->updateInstallProgress(true, value, strText);
}

void* MainWindow::threadProcHandle(void* arg)
{
    MainWindow* objThis = static_cast<MainWindow*>(arg);
    objThis->threadProcHandleObj();
    // The last touch of the window: its destructor may go on from here.
    objThis->flagWorkerRunning = false;
    return nullptr;
}

void MainWindow::threadProcHandleObj()
{
    const bool bRet = runInstallStages();
    // A cancelled run stays cancelled, and a failure of the copy stays.
    EInstallState expected = installing;
    flagOfInstallState.compare_exchange_strong(expected, bRet ? installed : failed);
}

bool MainWindow::runInstallStages()
{
    DTavelinGuiConfig& config = DTavelinGuiConfig::getInstance();
    const QString currentUser = DTavelinUtil::getCurrentUser();
    QString desktopPrefixPath = QStringLiteral("%1/.local").arg(QDir::homePath());
    if (currentUser.compare(QLatin1String("root"), Qt::CaseSensitive) == 0)
        desktopPrefixPath = QStringLiteral("/usr");
    QString destDesktopPath = QStringLiteral("%1/share/applications").arg(desktopPrefixPath);

    QDir dirTmp(QString{});
    if (!dirTmp.mkpath(destDesktopPath))
        return false;
    destDesktopPath += QStringLiteral("/%1").arg(QString::fromStdString(config.getAppPackInfo()->install.desktopFile));

    if (!copyDesktopFile(config.getSrcAppDesktopDir(), destDesktopPath))
        return false;
    if (!copyDirectory(config.getSrcAppFilesDir(), config.getTargetInstallDir(), true, copyFilesCounter))
        return false;
    createUninstallFile();
    return true;
}
