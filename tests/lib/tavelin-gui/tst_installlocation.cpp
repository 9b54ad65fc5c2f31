#include "mainwindow.h"
#include "testsupport.h"

#include <QApplication>
#include <QFile>
#include <QFileDialog>
#include <QLabel>
#include <QLineEdit>
#include <QPushButton>
#include <QShowEvent>
#include <QTemporaryDir>
#include <QTimer>
#include <QUuid>
#include <QtTest>

#include <memory>

#include <unistd.h>

namespace {

TAppPackInfo& packInfo()
{
    return *DTavelinGuiConfig::getInstance().getAppPackInfo();
}

QString uniqueName()
{
    return QStringLiteral("tavelin-no-such-") + QUuid::createUuid().toString(QUuid::Id128);
}

/// A tree with a writable and an unwritable branch; writable again on the way out,
/// so that an unprivileged owner can remove it.
class DLockedTree
{
public:
    explicit DLockedTree(const QString& strBase)
        : strBase(strBase)
    {
        const auto open = QFileDevice::ReadOwner | QFileDevice::WriteOwner | QFileDevice::ExeOwner
            | QFileDevice::ReadGroup | QFileDevice::WriteGroup | QFileDevice::ExeGroup
            | QFileDevice::ReadOther | QFileDevice::WriteOther | QFileDevice::ExeOther;
        QDir dir(strBase);
        bOk = QFile::setPermissions(strBase, open & ~(QFileDevice::WriteGroup | QFileDevice::WriteOther))
            && dir.mkpath(QStringLiteral("open")) && dir.mkpath(QStringLiteral("locked/open"))
            && QFile::setPermissions(strBase + QStringLiteral("/open"), open)
            && QFile::setPermissions(strBase + QStringLiteral("/locked/open"), open)
            && QFile::setPermissions(strBase + QStringLiteral("/locked"), kLocked);
    }
    ~DLockedTree() { QFile::setPermissions(strBase + QStringLiteral("/locked"), kLocked | QFileDevice::WriteOwner); }

    bool bOk = false;

private:
    static constexpr QFileDevice::Permissions kLocked = QFileDevice::ReadOwner | QFileDevice::ExeOwner
        | QFileDevice::ReadGroup | QFileDevice::ExeGroup | QFileDevice::ReadOther | QFileDevice::ExeOther;
    QString strBase;
};

/// What the test saw while the directory dialog was open.
struct TDialogVisit
{
    bool bSeen = false;
    QString strTitle;
    QString strStartDir;
    bool bDirsOnly = false;
    bool bKeepsSymlinks = false;
    bool bLibraryPathSet = false;
    QByteArray baLibraryPath;
};

} // namespace

class tst_InstallLocation : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void init();
    void cleanupTestCase();

    void judgement_data();
    void judgement();
    void unprivilegedJudgement_data();
    void unprivilegedJudgement();
    void typingWaitsForShowEvent();
    void rootNeverSeesRow();
    void showEventJudgesAgain();
    void deselectsOnlyOnce();

    void firstChoiceOpensAtText();
    void emptyTextOpensAtCurrentPath();
    void cancelKeepsEverything();
    void chooseRoot();
    void chosenSymlinkIsResolved();
    void emptyDirTakesNameEng();
    void libraryPathAroundDialog_data();
    void libraryPathAroundDialog();

private:
    void buildWizard();
    void setLocation(const QString& strText);
    bool createEnabled() const;
    bool rowShown() const;
    TDialogVisit chooseDirectory(const QString& strChoice);
    void expectJudgement(bool bExpected);

    QTemporaryDir tmpDir;
    QString strBase; // canonical path of tmpDir
    QByteArray baLibraryPathAtStart;
    bool bLibraryPathSetAtStart = false;
    std::unique_ptr<MainWindow> wizard;
    DPageBaseInfo* page = nullptr;
    QLineEdit* editInstallDir = nullptr;
};

void tst_InstallLocation::initTestCase()
{
    QVERIFY(tmpDir.isValid());
    strBase = QFileInfo(tmpDir.path()).canonicalFilePath();
    qputenv("HOME", strBase.toLocal8Bit());
    // Qt's own dialog, whatever platform theme the environment names.
    QCoreApplication::setAttribute(Qt::AA_DontUseNativeDialogs);
    bLibraryPathSetAtStart = qEnvironmentVariableIsSet("LD_LIBRARY_PATH");
    baLibraryPathAtStart = qgetenv("LD_LIBRARY_PATH");
}

void tst_InstallLocation::init()
{
    wizard.reset();
    packInfo() = TAppPackInfo();
    packInfo().base.nameEng = "NameEng";
    packInfo().install.dir = "demo";
    DTavelinGuiConfig::getInstance().setEnvAppDir(strBase);
    buildWizard();
}

void tst_InstallLocation::cleanupTestCase()
{
    wizard.reset();
    if (bLibraryPathSetAtStart)
        qputenv("LD_LIBRARY_PATH", baLibraryPathAtStart);
    else
        qunsetenv("LD_LIBRARY_PATH");
}

void tst_InstallLocation::buildWizard()
{
    wizard = std::make_unique<MainWindow>();
    wizard->init();
    page = wizard->findChild<DPageBaseInfo*>();
    editInstallDir = wizard->findChild<QLineEdit*>(QStringLiteral("editInstallDir"));
    QVERIFY(page && editInstallDir);
}

// Sets the text without judging it, as typing does.
void tst_InstallLocation::setLocation(const QString& strText)
{
    editInstallDir->setText(strText);
}

bool tst_InstallLocation::createEnabled() const
{
    return wizard->findChild<QPushButton*>(QStringLiteral("btnCreate"))->isEnabled();
}

bool tst_InstallLocation::rowShown() const
{
    const bool bTip01 = page->findChild<QLabel*>(QStringLiteral("labelChange2RootTip01"))->isVisibleTo(page);
    const bool bButton = page->findChild<QPushButton*>(QStringLiteral("btnChange2Root"))->isVisibleTo(page);
    const bool bTip02 = page->findChild<QLabel*>(QStringLiteral("labelChange2RootTip02"))->isVisibleTo(page);
    if (bTip01 != bButton || bButton != bTip02)
        qWarning("switch-to-root row half shown");
    return bTip01 && bButton && bTip02;
}

void tst_InstallLocation::expectJudgement(bool bExpected)
{
    page->updateCreateState();
    QCOMPARE(createEnabled(), bExpected);
    QCOMPARE(rowShown(), !bExpected && DTavelinUtil::getCurrentUser() != QLatin1String("root"));
}

// Clicks the choose button and acts in the dialog: choose strChoice, or cancel when it is empty.
TDialogVisit tst_InstallLocation::chooseDirectory(const QString& strChoice)
{
    TDialogVisit visit;
    QTimer timer;
    timer.setInterval(10);
    connect(&timer, &QTimer::timeout, [&] {
        auto* dialog = qobject_cast<QFileDialog*>(QApplication::activeModalWidget());
        if (!dialog || !dialog->isVisible())
            return;
        timer.stop();
        visit.bSeen = true;
        visit.strTitle = dialog->windowTitle();
        visit.strStartDir = dialog->directory().absolutePath();
        visit.bDirsOnly = dialog->testOption(QFileDialog::ShowDirsOnly);
        visit.bKeepsSymlinks = dialog->testOption(QFileDialog::DontResolveSymlinks);
        visit.bLibraryPathSet = qEnvironmentVariableIsSet("LD_LIBRARY_PATH");
        visit.baLibraryPath = qgetenv("LD_LIBRARY_PATH");
        if (strChoice.isEmpty()) {
            dialog->reject();
            return;
        }
        // As a user does: go to the directory and confirm with nothing typed.
        dialog->setDirectory(strChoice);
        if (auto* edit = dialog->findChild<QLineEdit*>(QStringLiteral("fileNameEdit")))
            edit->clear();
        QMetaObject::invokeMethod(dialog, "accept");
        if (dialog->isVisible())
            dialog->reject();
    });
    timer.start();
    wizard->findChild<QPushButton*>(QStringLiteral("btnSelInstallDir"))->click();
    timer.stop();
    return visit;
}

// The locked tree of an unprivileged case: built here, or the parent's when we are the child.
#define LOCKED_TREE(strDir)                                                                        \
    const QTemporaryDir caseDir;                                                                   \
    const QString strDir = TestSupport::isUnprivilegedChild() ? TestSupport::unprivilegedChildDir() : caseDir.path();     \
    std::unique_ptr<DLockedTree> tree;                                                             \
    if (!TestSupport::isUnprivilegedChild()) {                                                                           \
        tree = std::make_unique<DLockedTree>(strDir);                                              \
        QVERIFY(tree->bOk);                                                                        \
    }

void tst_InstallLocation::judgement_data()
{
    QTest::addColumn<QString>("text"); // "@" stands for the temporary directory
    QTest::addColumn<bool>("expected");

    QTest::newRow("existing writable dir") << "@" << true;
    QTest::newRow("existing writable dir, trailing slash") << "@/" << true;
    QTest::newRow("missing path below writable dir") << "@/new/deeper/app" << true;
    QTest::newRow("path through a regular file") << "@/file/app" << true;
    QTest::newRow("text with no slash") << uniqueName() << false;
    QTest::newRow("relative, leading part no directory") << uniqueName() + QStringLiteral("/app") << false;
    QTest::newRow("missing dir directly below root") << QLatin1Char('/') + uniqueName() << false;
    QTest::newRow("empty text") << "" << false;
}

void tst_InstallLocation::judgement()
{
    QFETCH(QString, text);
    QFETCH(bool, expected);

    QVERIFY(TestSupport::writeFile(strBase + QStringLiteral("/file"), "x"));
    setLocation(text.replace(QLatin1Char('@'), strBase));
    expectJudgement(expected);
}

void tst_InstallLocation::unprivilegedJudgement_data()
{
    QTest::addColumn<QString>("text"); // "@" stands for the tree's directory
    QTest::addColumn<bool>("expected");

    QTest::newRow("existing unwritable dir") << "@/locked" << false;
    QTest::newRow("missing path below unwritable dir") << "@/locked/new/app" << false;
    QTest::newRow("writable dir below unwritable one") << "@/locked/open/app" << true;
    QTest::newRow("missing path below writable dir") << "@/open/new/app" << true;
    QTest::newRow("root directory itself") << "/" << false;
}

void tst_InstallLocation::unprivilegedJudgement()
{
    QFETCH(QString, text);
    QFETCH(bool, expected);

    LOCKED_TREE(strDir)
    TAVELIN_RUN_UNPRIVILEGED(strDir, {"QT_QPA_PLATFORM", "offscreen"});
    setLocation(text.replace(QLatin1Char('@'), strDir));
    expectJudgement(expected);
}

void tst_InstallLocation::typingWaitsForShowEvent()
{
    LOCKED_TREE(strDir)
    TAVELIN_RUN_UNPRIVILEGED(strDir, {"QT_QPA_PLATFORM", "offscreen"});

    setLocation(strDir + QStringLiteral("/open/app"));
    wizard->show();
    QVERIFY(createEnabled());
    QVERIFY(!rowShown());

    editInstallDir->setFocus();
    editInstallDir->selectAll();
    QTest::keyClick(editInstallDir, Qt::Key_Backspace);
    QTest::keyClicks(editInstallDir, strDir + QStringLiteral("/locked/app"));
    QCOMPARE(editInstallDir->text(), strDir + QStringLiteral("/locked/app"));
    QVERIFY(createEnabled());
    QVERIFY(!rowShown());

    QShowEvent event;
    QApplication::sendEvent(wizard.get(), &event);
    QVERIFY(!createEnabled());
    QVERIFY(rowShown());
}

void tst_InstallLocation::rootNeverSeesRow()
{
    if (DTavelinUtil::getCurrentUser() != QLatin1String("root"))
        QSKIP("needs the user root");
    setLocation(QString());
    page->updateChange2RootTip(true);
    QVERIFY(!rowShown());
    expectJudgement(false);
}

void tst_InstallLocation::showEventJudgesAgain()
{
    setLocation(strBase);
    wizard->show();
    QVERIFY(QTest::qWaitForWindowExposed(wizard.get()));
    QVERIFY(createEnabled());

    setLocation(QString());
    QVERIFY(createEnabled());
    QShowEvent event;
    QApplication::sendEvent(wizard.get(), &event);
    QVERIFY(!createEnabled());

    // Hidden and shown again, as on a restore from minimised.
    setLocation(strBase);
    wizard->hide();
    QVERIFY(!createEnabled());
    wizard->show();
    QVERIFY(createEnabled());

    // The page judges when it is shown, without the window's show event.
    page->hide();
    setLocation(QString());
    page->show();
    QVERIFY(!createEnabled());
}

void tst_InstallLocation::deselectsOnlyOnce()
{
    setLocation(strBase);
    editInstallDir->selectAll();
    QVERIFY(!editInstallDir->hasSelectedText());
    editInstallDir->selectAll();
    QCOMPARE(editInstallDir->selectedText(), strBase);
}

void tst_InstallLocation::firstChoiceOpensAtText()
{
    QDir(strBase).mkpath(QStringLiteral("first"));
    QDir(strBase).mkpath(QStringLiteral("second/chosen"));
    setLocation(strBase + QStringLiteral("/first"));
    page->updateCreateState();
    setLocation(QString()); // not judged: the button stays enabled until the choice

    setLocation(strBase + QStringLiteral("/first"));
    TDialogVisit visit = chooseDirectory(strBase + QStringLiteral("/second/chosen"));
    QVERIFY(visit.bSeen);
    QCOMPARE(visit.strTitle, QStringLiteral("选择安装文件夹"));
    QVERIFY(visit.bDirsOnly);
    QVERIFY(visit.bKeepsSymlinks);
    QCOMPARE(visit.strStartDir, strBase + QStringLiteral("/first"));
    QCOMPARE(editInstallDir->text(), strBase + QStringLiteral("/second/chosen/demo"));
    QVERIFY(createEnabled());

    // A later hand edit does not move the start: the dialog opens where the user chose last.
    setLocation(strBase + QStringLiteral("/first"));
    visit = chooseDirectory(QString());
    QVERIFY(visit.bSeen);
    QCOMPARE(visit.strStartDir, strBase + QStringLiteral("/second/chosen"));
}

void tst_InstallLocation::emptyTextOpensAtCurrentPath()
{
    setLocation(QString());
    const TDialogVisit visit = chooseDirectory(QString());
    QVERIFY(visit.bSeen);
    QCOMPARE(visit.strStartDir, QDir::currentPath());
}

void tst_InstallLocation::cancelKeepsEverything()
{
    QDir(strBase).mkpath(QStringLiteral("start"));
    setLocation(QString());
    page->updateCreateState();
    QVERIFY(!createEnabled());
    setLocation(strBase + QStringLiteral("/start"));

    const TDialogVisit visit = chooseDirectory(QString());
    QVERIFY(visit.bSeen);
    QCOMPARE(editInstallDir->text(), strBase + QStringLiteral("/start"));
    QVERIFY(!createEnabled()); // no judgement after a cancel

    // The cache kept the first text, so a hand edit does not move the next start.
    setLocation(strBase);
    QCOMPARE(chooseDirectory(QString()).strStartDir, strBase + QStringLiteral("/start"));
}

void tst_InstallLocation::chooseRoot()
{
    TDialogVisit visit = chooseDirectory(QStringLiteral("/"));
    QVERIFY(visit.bSeen);
    QCOMPARE(editInstallDir->text(), QStringLiteral("/demo"));

    visit = chooseDirectory(QString());
    QCOMPARE(visit.strStartDir, QStringLiteral("/"));
}

void tst_InstallLocation::chosenSymlinkIsResolved()
{
    QVERIFY(QDir(strBase).mkpath(QStringLiteral("real/target")));
    if (!QFile::link(strBase + QStringLiteral("/real/target"), strBase + QStringLiteral("/link")))
        QSKIP("cannot create a symbolic link here");
    QDir(strBase).mkpath(QStringLiteral("elsewhere"));
    setLocation(strBase + QStringLiteral("/elsewhere"));

    TDialogVisit visit = chooseDirectory(strBase + QStringLiteral("/link"));
    QVERIFY(visit.bSeen);
    QCOMPARE(editInstallDir->text(), strBase + QStringLiteral("/real/target/demo"));
    visit = chooseDirectory(QString());
    QCOMPARE(visit.strStartDir, strBase + QStringLiteral("/real/target"));
}

void tst_InstallLocation::emptyDirTakesNameEng()
{
    packInfo().install.dir.clear();
    const TDialogVisit visit = chooseDirectory(strBase);
    QVERIFY(visit.bSeen);
    QCOMPARE(editInstallDir->text(), strBase + QStringLiteral("/NameEng"));
}

void tst_InstallLocation::libraryPathAroundDialog_data()
{
    QTest::addColumn<bool>("bSet");
    QTest::addColumn<QByteArray>("value");
    QTest::addColumn<bool>("bAccept");

    QTest::newRow("set, accepted") << true << QByteArray("/bundle/lib:/bundle/usr/lib") << true;
    QTest::newRow("set, cancelled") << true << QByteArray("/bundle/lib") << false;
    QTest::newRow("unset, accepted") << false << QByteArray() << true;
    QTest::newRow("unset, cancelled") << false << QByteArray() << false;
    QTest::newRow("set but empty, accepted") << true << QByteArray() << true;
}

void tst_InstallLocation::libraryPathAroundDialog()
{
    QFETCH(bool, bSet);
    QFETCH(QByteArray, value);
    QFETCH(bool, bAccept);

    if (bSet)
        qputenv("LD_LIBRARY_PATH", value);
    else
        qunsetenv("LD_LIBRARY_PATH");

    const TDialogVisit visit = chooseDirectory(bAccept ? strBase : QString());
    QVERIFY(visit.bSeen);
    QVERIFY(visit.bLibraryPathSet);
    QCOMPARE(visit.baLibraryPath, QByteArray());
    // Restored; a variable that was unset comes back set and empty.
    QVERIFY(qEnvironmentVariableIsSet("LD_LIBRARY_PATH"));
    QCOMPARE(qgetenv("LD_LIBRARY_PATH"), value);
    QCOMPARE(editInstallDir->text() == strBase + QStringLiteral("/demo"), bAccept);
}

QTEST_MAIN(tst_InstallLocation)
#include "tst_installlocation.moc"
