#include "mainwindow.h"

#include <QCloseEvent>
#include <QPushButton>

MainWindow::MainWindow(QWidget* parent)
    : QWizard(parent)
    , flagOfInstallState(pending)
    , copyFilesCounter(0)
{
}

void MainWindow::init()
{
    initPageInfo();
    initWidgets();
    initConnect();
    initBiz();
}

void MainWindow::initWidgets()
{
    setWindowTitle(QStringLiteral("软件安装向导"));
    setMinimumSize(800, 720);

    for (int i = 0; i < itemsOfPage.size(); ++i) {
        DPageBaseInfo* pageObj = itemsOfPage[i].pageObj;
        pageObj->init();
        setPage(i, pageObj);
    }

    setButtonText(QWizard::BackButton, QStringLiteral("上一步"));
    setButtonText(QWizard::NextButton, QStringLiteral("下一步"));
    setButtonText(QWizard::CancelButton, QStringLiteral("取消"));

    btnCreate = new QPushButton(QStringLiteral("安装"), this);
    btnCreate->setObjectName(QStringLiteral("btnCreate"));
    setButton(QWizard::FinishButton, btnCreate);
    btnCancel = new QPushButton(QStringLiteral("取消"), this);
    btnCancel->setObjectName(QStringLiteral("btnCancel"));
    setButton(QWizard::CancelButton, btnCancel);

    setOption(QWizard::NoBackButtonOnStartPage, true);
    btnCreate->setEnabled(true);
}

void MainWindow::initConnect()
{
    connect(btnCreate, SIGNAL(clicked()), this, SLOT(onclickCreate()));
    connect(btnCancel, SIGNAL(clicked()), this, SLOT(onclickCancel()));
    connect(&timerRefresh, SIGNAL(timeout()), this, SLOT(timerProcRefresh()));
}

void MainWindow::initBiz()
{
    const TAppPackInfo* appPackInfo = DTavelinGuiConfig::getInstance().getAppPackInfo();
    setWindowTitle(QStringLiteral("安装向导 - %1").arg(QString::fromStdString(appPackInfo->base.nameEng)));
}

void MainWindow::closeBiz()
{
}

// Once a run has started the button stays disabled, show events included.
void MainWindow::enableCreate(bool bFlag)
{
    btnCreate->setEnabled(bFlag && flagOfInstallState == pending);
}

// Accept and reject both end here; the wizard leaves only through close().
void MainWindow::done(int result)
{
    Q_UNUSED(result)
}
