#include "mainwindow.h"

#include <QFileInfo>
#include <QHBoxLayout>
#include <QLabel>
#include <QLineEdit>
#include <QPixmap>
#include <QProgressBar>
#include <QPushButton>
#include <QVBoxLayout>

namespace {

const char* const kNoneAppIcon = ":/tavelin/images/none_app_icon.png";

QString textOr(const std::string& value, const QString& strDefault)
{
    return value.empty() ? strDefault : QString::fromStdString(value);
}

template <typename Widget>
Widget* namedWidget(Widget* widget, const char* name)
{
    widget->setObjectName(QLatin1String(name));
    return widget;
}

} // namespace

void MainWindow::initPageInfo()
{
    TAppPackPageInfo pageInfo;
    pageInfo.sideMsg = QStringLiteral("应用软件信息");
    pageInfo.title = QStringLiteral("应用软件信息");
    pageInfo.subtitle = QStringLiteral("请填写应用软件的软件名、版本号、发行商等信息");
    pageInfoSet = new DPageBaseInfo(this);
    pageInfo.pageObj = pageInfoSet;
    itemsOfPage.append(pageInfo);
}

void MainWindow::updateInstallConfig()
{
    DTavelinGuiConfig::getInstance().setTargetInstallDir(pageInfoSet->editInstallDir->text());
}

DPageBaseInfo::DPageBaseInfo(QWidget* parent)
    : QWizardPage(parent)
{
}

DPageBaseInfo::~DPageBaseInfo() = default;

void DPageBaseInfo::init()
{
    initWidgets();
    initConnect();
    initBiz();
}

void DPageBaseInfo::closeBiz()
{
}

void DPageBaseInfo::initWidgets()
{
    auto* vlayoutRoot = new QVBoxLayout(this);
    auto* hlayoutAppIcon = new QHBoxLayout;
    auto* hlayoutAppNameChs = new QHBoxLayout;
    auto* hlayoutAppNameEng = new QHBoxLayout;
    auto* hlayoutAppVersion = new QHBoxLayout;
    auto* hlayoutAppCompany = new QHBoxLayout;
    auto* hlayoutAppAuthor = new QHBoxLayout;
    auto* hlayoutInstallDir = new QHBoxLayout;
    auto* hlayoutProgress = new QHBoxLayout;
    auto* hlayoutChange2Root = new QHBoxLayout;

    vlayoutRoot->addStretch(0);
    vlayoutRoot->addLayout(hlayoutAppIcon);
    vlayoutRoot->addLayout(hlayoutAppNameChs);
    vlayoutRoot->addLayout(hlayoutAppNameEng);
    vlayoutRoot->addLayout(hlayoutAppVersion); // stays empty: the version sits beside the name
    vlayoutRoot->addLayout(hlayoutAppCompany);
    vlayoutRoot->addLayout(hlayoutAppAuthor);
    vlayoutRoot->addStretch(0);
    vlayoutRoot->addLayout(hlayoutInstallDir);
    vlayoutRoot->addSpacing(20);
    vlayoutRoot->addLayout(hlayoutProgress);
    vlayoutRoot->addSpacing(20);
    vlayoutRoot->addLayout(hlayoutChange2Root);

    labelAppIcon = namedWidget(new QLabel(this), "labelAppIcon");
    labelAppNameChs = namedWidget(new QLabel(this), "labelAppNameChs");
    labelAppNameEng = namedWidget(new QLabel(this), "labelAppNameEng");
    labelAppVersion = namedWidget(new QLabel(this), "labelAppVersion");
    labelAppPublisher = namedWidget(new QLabel(this), "labelAppPublisher");
    labelAppWebsite = namedWidget(new QLabel(this), "labelAppWebsite");
    labelAppAuthor = namedWidget(new QLabel(this), "labelAppAuthor");
    labelAppEmail = namedWidget(new QLabel(this), "labelAppEmail");
    auto* labelInstallDir = new QLabel(QStringLiteral("安装位置"), this);
    editInstallDir = namedWidget(new QLineEdit(this), "editInstallDir");
    btnSelInstallDir = namedWidget(new QPushButton(QStringLiteral("选择其他位置..."), this), "btnSelInstallDir");
    labelProgressBarInstall = namedWidget(new QLabel(QStringLiteral("等待安装"), this), "labelProgressBarInstall");
    progressBarInstall = namedWidget(new QProgressBar(this), "progressBarInstall");
    labelChange2RootTip01 = namedWidget(new QLabel(QStringLiteral("选择的“安装位置”当前用户不可写，点击"), this),
                                        "labelChange2RootTip01");
    btnChange2Root = namedWidget(new QPushButton(QStringLiteral("切换为root用户"), this), "btnChange2Root");
    labelChange2RootTip02 = namedWidget(new QLabel(QStringLiteral("，可进行root用户切换。"), this),
                                        "labelChange2RootTip02");

    labelAppIcon->setFixedSize(128, 128);
    // Screen readers announce the field by its label; nothing shown changes.
    labelInstallDir->setBuddy(editInstallDir);

    hlayoutAppIcon->addStretch(0);
    hlayoutAppIcon->addWidget(labelAppIcon);
    hlayoutAppIcon->addStretch(0);

    hlayoutAppNameChs->addStretch(0);
    hlayoutAppNameChs->addWidget(labelAppNameChs);
    hlayoutAppNameChs->addStretch(0);

    hlayoutAppNameEng->addStretch(0);
    hlayoutAppNameEng->addWidget(labelAppNameEng);
    hlayoutAppNameEng->addSpacing(20);
    hlayoutAppNameEng->addWidget(labelAppVersion);
    hlayoutAppNameEng->addStretch(0);

    hlayoutAppCompany->addStretch(0);
    hlayoutAppCompany->addWidget(labelAppPublisher);
    hlayoutAppCompany->addSpacing(20);
    hlayoutAppCompany->addWidget(labelAppWebsite);
    hlayoutAppCompany->addStretch(0);

    hlayoutAppAuthor->addStretch(0);
    hlayoutAppAuthor->addWidget(labelAppAuthor);
    hlayoutAppAuthor->addSpacing(20);
    hlayoutAppAuthor->addWidget(labelAppEmail);
    hlayoutAppAuthor->addStretch(0);

    hlayoutInstallDir->addWidget(labelInstallDir);
    hlayoutInstallDir->addWidget(editInstallDir, 1);
    hlayoutInstallDir->addWidget(btnSelInstallDir);

    hlayoutProgress->addWidget(labelProgressBarInstall);
    hlayoutProgress->addWidget(progressBarInstall, 1);
    progressBarInstall->setRange(0, 100);

    hlayoutChange2Root->addWidget(labelChange2RootTip01);
    hlayoutChange2Root->addWidget(btnChange2Root);
    hlayoutChange2Root->addWidget(labelChange2RootTip02);
    hlayoutChange2Root->addStretch(0);

    labelChange2RootTip01->setStyleSheet(QStringLiteral("QLabel{color:red;}"));
    labelChange2RootTip02->setStyleSheet(QStringLiteral("QLabel{color:red;}"));

    updateInstallProgress(false, 0, QString());
}

void DPageBaseInfo::initConnect()
{
    connect(btnSelInstallDir, SIGNAL(clicked()), this, SLOT(onclickSelInstallDir()));
    connect(editInstallDir, SIGNAL(selectionChanged()), this, SLOT(slotDeselectEditInstallDir()));
    connect(btnChange2Root, SIGNAL(clicked()), this, SLOT(onclickChange2Root()));
}

void DPageBaseInfo::initBiz()
{
    const TAppPackInfo* appPackInfo = DTavelinGuiConfig::getInstance().getAppPackInfo();

    // No current-directory form here: without APPDIR the path starts at "/".
    const QString strFileAppIcon = QStringLiteral("%1/%2/%3")
                                       .arg(DTavelinGuiConfig::getInstance().getEnvAppDir(),
                                            DTavelinGuiConfig::getImagesDirPath(),
                                            QString::fromStdString(appPackInfo->install.appIcon));
    const QFileInfo fiAppIcon(strFileAppIcon);
    QPixmap pixmap;
    if (fiAppIcon.isFile())
        pixmap.load(fiAppIcon.canonicalFilePath());
    if (pixmap.isNull())
        pixmap.load(QLatin1String(kNoneAppIcon));
    labelAppIcon->setScaledContents(true);
    labelAppIcon->setPixmap(pixmap);

    const TAppBaseInfo& base = appPackInfo->base;
    // A screen reader says the package's name where a sighted user sees its icon.
    labelAppIcon->setAccessibleName(textOr(base.nameChs, QString::fromStdString(base.nameEng)));
    labelAppNameChs->setText(QString::fromStdString(base.nameChs));
    labelAppNameEng->setText(QString::fromStdString(base.nameEng));
    labelAppVersion->setText(textOr(base.version, QStringLiteral("1.0.0")));
    labelAppPublisher->setText(textOr(base.publisher, QStringLiteral("发行商：未知")));
    labelAppWebsite->setText(textOr(base.website, QStringLiteral("网址：未知")));
    labelAppAuthor->setText(textOr(base.author, QStringLiteral("开发者：未知")));
    labelAppEmail->setText(textOr(base.email, QStringLiteral("E-mail：未知")));

    QString strInstallDefaultParentDir = QString::fromStdString(appPackInfo->install.defaultParentDir);
    QString strInstallDir = QString::fromStdString(appPackInfo->install.dir);
    if (strInstallDefaultParentDir.isEmpty())
        strInstallDefaultParentDir = QStringLiteral("/opt");
    if (strInstallDir.isEmpty())
        strInstallDir = QString::fromStdString(base.nameEng);
    while (strInstallDefaultParentDir.endsWith(QLatin1Char('/')))
        strInstallDefaultParentDir.chop(1);
    const QString strTargetInstallFullDir = QStringLiteral("%1/%2").arg(strInstallDefaultParentDir, strInstallDir);
    editInstallDir->setText(strTargetInstallFullDir);
}

void DPageBaseInfo::updateInstallProgress(bool bShow, int value, const QString& text)
{
    labelProgressBarInstall->setVisible(bShow);
    progressBarInstall->setVisible(bShow);
    if (!bShow)
        return;
    labelProgressBarInstall->setText(text);
    progressBarInstall->setValue(value);
}
