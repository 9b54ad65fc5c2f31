#include "mainwindow.h"
#include "testsupport.h"

#include <QApplication>
#include <QDateTime>
#include <QDir>
#include <QDirIterator>
#include <QLabel>
#include <QLineEdit>
#include <QProcess>
#include <QProgressBar>
#include <QPushButton>
#include <QTemporaryDir>
#include <QtTest>

#include <memory>
#include <thread>

#include <sys/resource.h>
#include <unistd.h>

using namespace TestSupport;

namespace {

const int kRunTimeoutMs = 30000;
const QByteArray kDesktop("[Desktop Entry]\nName=Probe\nExec=bin/probe %U\n");
const QStringList kAppFiles{"a", "b/c", "d"};

QStringList filesBelow(const QString& strRoot)
{
    QStringList paths;
    QDirIterator it(strRoot, QDir::AllEntries | QDir::Hidden | QDir::System | QDir::NoDotAndDotDot,
                    QDirIterator::Subdirectories);
    while (it.hasNext())
        paths << it.next().mid(strRoot.size() + 1);
    paths.sort();
    return paths;
}

} // namespace

class tst_InstallRun : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void init();
    void cleanup();
    void refusals_data();
    void refusals();
    void tickPaintsOneState_data();
    void tickPaintsOneState();
    void completeRun();
    void repeatedRunOverExistingTree();
    void emptyOrMissingTree_data();
    void emptyOrMissingTree();
    void relativeLocation();
    void cancelPoints_data();
    void cancelPoints();
    void cancelDuringDesktopStage();
    void workerFailures_data();
    void workerFailures();
    void closeDuringRunWaitsForWorker();
    void threadStartFailure();

private:
    bool preparePayload(int filesTotalCount, const QStringList& appFiles = kAppFiles);
    void openWindow();
    void startRun(const QString& strLocation);
    QString entryPath() const { return applicationsDir() + "/probe.desktop"; }
    QString labelText() const;
    int barValue() const;

    QTemporaryDir tmpDir;
    QTemporaryDir homeDir;
    std::unique_ptr<DProbeWindow> window;
};

void tst_InstallRun::initTestCase()
{
    QVERIFY(tmpDir.isValid() && homeDir.isValid());
    qputenv("HOME", QFile::encodeName(homeDir.path()));
    QApplication::setQuitOnLastWindowClosed(false);
}

void tst_InstallRun::init()
{
    QDir(tmpDir.path()).removeRecursively();
    QVERIFY(QDir().mkpath(tmpDir.path()));
    // Only a private or temporary applications directory is ever cleaned.
    if (applicationsDirUnavailable().isEmpty()) {
        for (const QString& strName : QDir(applicationsDir()).entryList({"probe*"}, QDir::AllEntries | QDir::System))
            QFile::remove(applicationsDir() + "/" + strName);
    }
    DTavelinGuiConfig::getInstance().setTargetDesktopFilePath(QString());
    QVERIFY(preparePayload(4));
}

void tst_InstallRun::cleanup()
{
    window.reset();
}

bool tst_InstallRun::preparePayload(int filesTotalCount, const QStringList& appFiles)
{
    const QString strAppDir = tmpDir.path() + "/payload";
    QDir(strAppDir).removeRecursively();
    const bool bOk = writePayload(strAppDir, manifestJson(filesTotalCount, "probe.desktop"), kDesktop, appFiles);
    loadPayload(strAppDir);
    return bOk;
}

void tst_InstallRun::openWindow()
{
    window.reset(new DProbeWindow);
    window->init();
    window->show();
}

void tst_InstallRun::startRun(const QString& strLocation)
{
    openWindow();
    window->findChild<QLineEdit*>("editInstallDir")->setText(strLocation);
    window->createButton()->setEnabled(true);
    window->createButton()->click();
}

QString tst_InstallRun::labelText() const
{
    return window->findChild<QLabel*>("labelProgressBarInstall")->text();
}

int tst_InstallRun::barValue() const
{
    return window->findChild<QProgressBar*>("progressBarInstall")->value();
}

void tst_InstallRun::refusals_data()
{
    QTest::addColumn<int>("filesTotalCount");
    QTest::addColumn<QString>("location");
    QTest::addColumn<QString>("title");
    QTest::addColumn<QString>("text");
    const QString strNoFiles = QStringLiteral("安装包里没有需要安装的应用软件文件");
    const QString strNoMkdir = QStringLiteral("无法在当前的“安装位置”上，创建安装目录。\n[选中的“安装位置”，可能没有写入权限]");
    QTest::newRow("no files in the package") << 0 << "TMP/new" << "提示" << strNoFiles;
    QTest::newRow("negative file count") << -3 << "TMP/new" << "提示" << strNoFiles;
    QTest::newRow("empty location") << 4 << "" << "错误" << strNoMkdir;
    QTest::newRow("location is a plain file") << 4 << "TMP/plain" << "错误" << strNoMkdir;
    QTest::newRow("location below a plain file") << 4 << "TMP/plain/sub" << "错误" << strNoMkdir;
    QTest::newRow("location not writable") << 4 << "TMP/readonly" << "错误" << "无法在不可写的目录里，安装应用软件";
}

void tst_InstallRun::refusals()
{
    QFETCH(int, filesTotalCount);
    QFETCH(QString, location);
    QFETCH(QString, title);
    QFETCH(QString, text);
    location.replace("TMP", tmpDir.path());
    QVERIFY(preparePayload(filesTotalCount));
    QVERIFY(writeFile(tmpDir.path() + "/plain", "x"));
    const QString strReadOnly = tmpDir.path() + "/readonly";
    QVERIFY(QDir().mkpath(strReadOnly));
    bool bMounted = false;
    if (location == strReadOnly) {
        // Root writes everywhere except on a read-only mount.
        if (geteuid() == 0) {
            if (!applicationsDirUnavailable().isEmpty())
                QSKIP(qPrintable(applicationsDirUnavailable()));
            QCOMPARE(QProcess::execute("mount", {"--bind", strReadOnly, strReadOnly}), 0);
            bMounted = true;
            QCOMPARE(QProcess::execute("mount", {"-o", "remount,bind,ro", strReadOnly}), 0);
        } else {
            QVERIFY(QFile::setPermissions(strReadOnly, QFile::ReadOwner | QFile::ExeOwner));
        }
    }

    TMessageBoxSeen seen;
    {
        DMessageBoxCloser closer(&seen);
        startRun(location);
    }
    if (bMounted)
        QProcess::execute("umount", {strReadOnly});
    QFile::setPermissions(strReadOnly, QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner);

    QCOMPARE(seen.count, 1);
    QCOMPARE(seen.title, title);
    QCOMPARE(seen.text, text);
    QCOMPARE(seen.buttons, QMessageBox::StandardButtons(QMessageBox::Ok));
    QCOMPARE(seen.icon, QMessageBox::Information);
    QCOMPARE(window->installState(), MainWindow::pending);
    QCOMPARE(window->counter(), 0);
    QVERIFY(!window->timerActive());
    QCOMPARE(window->createButton()->text(), QString("安装"));
    QVERIFY(window->createButton()->isEnabled());
    QVERIFY(window->findChild<QLineEdit*>("editInstallDir")->isEnabled());
    QVERIFY(!window->findChild<QPushButton*>("btnSelInstallDir")->isHidden());
    if (filesTotalCount < 1)
        QVERIFY(!QFileInfo::exists(location));
}

void tst_InstallRun::tickPaintsOneState_data()
{
    QTest::addColumn<int>("state");
    QTest::addColumn<int>("counter");
    QTest::addColumn<QString>("createText");
    QTest::addColumn<QString>("cancelText");
    QTest::addColumn<int>("barValue");
    QTest::addColumn<bool>("timerRuns");
    QTest::newRow("installing, 29 of 100 shows 28")
        << int(MainWindow::installing) << 29 << "正在安装： 28%" << "取消" << 28 << true;
    QTest::newRow("installing, 57 of 100 shows 56")
        << int(MainWindow::installing) << 57 << "正在安装： 56%" << "取消" << 56 << true;
    QTest::newRow("installing, 58 of 100 shows 57")
        << int(MainWindow::installing) << 58 << "正在安装： 57%" << "取消" << 57 << true;
    QTest::newRow("installing, above the total is not clamped")
        << int(MainWindow::installing) << 150 << "正在安装： 150%" << "取消" << -1 << true;
    QTest::newRow("installed paints 100 whatever the counter")
        << int(MainWindow::installed) << 3 << "安装完成" << "关闭" << 100 << false;
    QTest::newRow("failed shows the counter") << int(MainWindow::failed) << 29 << "安装失败" << "关闭" << 28 << false;
    QTest::newRow("cancel shows the counter") << int(MainWindow::cancel) << 57 << "取消安装" << "关闭" << 56 << false;
    QTest::newRow("pending paints nothing") << int(MainWindow::pending) << 50 << "安装" << "取消" << -1 << true;
}

void tst_InstallRun::tickPaintsOneState()
{
    QFETCH(int, state);
    QFETCH(int, counter);
    QFETCH(QString, createText);
    QFETCH(QString, cancelText);
    QFETCH(int, barValue);
    QFETCH(bool, timerRuns);
    QVERIFY(preparePayload(100));
    openWindow();
    const QString strLabelBefore = labelText();
    window->startTick();
    window->setState(MainWindow::EInstallState(state));
    window->setCounter(counter);

    window->timerProcRefresh();

    QCOMPARE(window->createButton()->text(), createText);
    QCOMPARE(window->cancelButton()->text(), cancelText);
    QCOMPARE(window->timerActive(), timerRuns);
    if (state == MainWindow::pending) {
        QCOMPARE(labelText(), strLabelBefore);
        return;
    }
    const QString strLabel = state == MainWindow::installing ? QString("正在安装") : createText;
    QCOMPARE(labelText(), strLabel);
    if (barValue >= 0)
        QCOMPARE(this->barValue(), barValue);
}

void tst_InstallRun::completeRun()
{
    if (!applicationsDirUnavailable().isEmpty())
        QSKIP(qPrintable(applicationsDirUnavailable()));
    const QString strLocation = tmpDir.path() + "/new/deep/probe";
    startRun(strLocation);

    QCOMPARE(window->createButton()->text(), QString("正在安装：1%"));
    QVERIFY(!window->createButton()->isEnabled());
    QVERIFY(window->findChild<QPushButton*>("btnSelInstallDir")->isHidden());
    QVERIFY(!window->findChild<QLineEdit*>("editInstallDir")->isEnabled());
    QCOMPARE(labelText(), QString("正在安装"));
    QVERIFY(window->timerActive());
    QVERIFY(!DTavelinGuiConfig::getInstance().getFlagOfOverrideTargetDir());

    QTRY_COMPARE_WITH_TIMEOUT(window->createButton()->text(), QString("安装完成"), kRunTimeoutMs);
    QCOMPARE(window->installState(), MainWindow::installed);
    QCOMPARE(window->cancelButton()->text(), QString("关闭"));
    QCOMPARE(labelText(), QString("安装完成"));
    QCOMPARE(barValue(), 100);
    QCOMPARE(window->counter(), 4);
    QCOMPARE(filesBelow(strLocation), QStringList({"a", "b", "b/c", "d", "uninstall.sh"}));
    QCOMPARE(readFile(entryPath()), "[Desktop Entry]\nName=Probe\nExec=" + strLocation.toUtf8() + "/bin/probe %U\n");
    QVERIFY(readFile(strLocation + "/uninstall.sh").contains("rm -f \"" + entryPath().toUtf8() + "\""));

    // One run per window: the button stays off and a second press starts nothing.
    window->enableCreate(true);
    QVERIFY(!window->createButton()->isEnabled());
    window->hide();
    window->show();
    QVERIFY(!window->createButton()->isEnabled());
    QVERIFY(QFile::remove(strLocation + "/a"));
    window->createButton()->setEnabled(true);
    window->createButton()->click();
    QCOMPARE(window->installState(), MainWindow::installed);
    QVERIFY(!QFileInfo::exists(strLocation + "/a"));

    window->cancelButton()->click();
    QVERIFY(!window->isVisible());
}

void tst_InstallRun::repeatedRunOverExistingTree()
{
    if (!applicationsDirUnavailable().isEmpty())
        QSKIP(qPrintable(applicationsDirUnavailable()));
    const QString strLocation = tmpDir.path() + "/probe";
    startRun(strLocation);
    QTRY_COMPARE_WITH_TIMEOUT(window->installState(), MainWindow::installed, kRunTimeoutMs);
    const QByteArray baScript = readFile(strLocation + "/uninstall.sh");
    const QByteArray baEntry = readFile(entryPath());
    QVERIFY(writeFile(tmpDir.path() + "/payload/soft/app/a", "new content"));
    QVERIFY(writeFile(strLocation + "/only-installed", "kept"));

    startRun(strLocation);
    QVERIFY(DTavelinGuiConfig::getInstance().getFlagOfOverrideTargetDir());
    QTRY_COMPARE_WITH_TIMEOUT(window->createButton()->text(), QString("安装完成"), kRunTimeoutMs);
    QCOMPARE(window->counter(), 3);
    QCOMPARE(barValue(), 100);
    QCOMPARE(readFile(strLocation + "/a"), QByteArray("new content"));
    QCOMPARE(readFile(strLocation + "/only-installed"), QByteArray("kept"));
    QCOMPARE(readFile(strLocation + "/uninstall.sh"), baScript);
    QCOMPARE(readFile(entryPath()), baEntry);
    QCOMPARE(QDir(applicationsDir()).entryList({"probe*"}).size(), 1);
}

void tst_InstallRun::emptyOrMissingTree_data()
{
    QTest::addColumn<bool>("missing");
    QTest::newRow("empty tree") << false;
    QTest::newRow("missing tree") << true;
}

void tst_InstallRun::emptyOrMissingTree()
{
    QFETCH(bool, missing);
    if (!applicationsDirUnavailable().isEmpty())
        QSKIP(qPrintable(applicationsDirUnavailable()));
    QVERIFY(preparePayload(4, {}));
    if (missing)
        QVERIFY(QDir(tmpDir.path() + "/payload/soft/app").removeRecursively());
    const QString strLocation = tmpDir.path() + "/probe";
    startRun(strLocation);
    QTRY_COMPARE_WITH_TIMEOUT(window->createButton()->text(), QString("安装完成"), kRunTimeoutMs);
    QCOMPARE(window->counter(), 0);
    QCOMPARE(filesBelow(strLocation), QStringList{"uninstall.sh"});
}

// The copy, the entry and the script name one tree, from any directory.
void tst_InstallRun::relativeLocation()
{
    if (!applicationsDirUnavailable().isEmpty())
        QSKIP(qPrintable(applicationsDirUnavailable()));
    const QString strSaved = QDir::currentPath();
    QVERIFY(QDir().mkpath(tmpDir.path() + "/cwd"));
    QVERIFY(QDir::setCurrent(tmpDir.path() + "/cwd"));
    startRun("rel/probe");
    QVERIFY(QDir::setCurrent(strSaved));
    QTRY_COMPARE_WITH_TIMEOUT(window->installState(), MainWindow::installed, kRunTimeoutMs);

    const QString strTree = tmpDir.path() + "/cwd/rel/probe";
    QCOMPARE(filesBelow(tmpDir.path() + "/cwd"),
             QStringList({"rel", "rel/probe", "rel/probe/a", "rel/probe/b", "rel/probe/b/c", "rel/probe/d",
                          "rel/probe/uninstall.sh"}));
    QVERIFY(readFile(entryPath()).contains("Exec=" + strTree.toUtf8() + "/bin/probe %U"));
    QVERIFY(TestSupport::runUninstallScript("sh", strTree + "/uninstall.sh", "y\n", tmpDir.path()).bFinished);
    QCOMPARE(filesBelow(tmpDir.path() + "/cwd"), QStringList{"rel"});
    QVERIFY(!QFileInfo::exists(entryPath()));
}

// A FIFO link in the tree holds the worker inside one entry's copy.
void tst_InstallRun::cancelPoints_data()
{
    QTest::addColumn<QString>("gateAt");
    QTest::addColumn<QStringList>("expected");
    QTest::newRow("during the copy: stops at the next entry") << "c-gate" << QStringList({"a", "b", "b/c", "c-gate"});
    QTest::newRow("after the last entry: the run completes")
        << "z-gate" << QStringList({"a", "b", "b/c", "d", "uninstall.sh", "z-gate"});
}

void tst_InstallRun::cancelPoints()
{
    QFETCH(QString, gateAt);
    QFETCH(QStringList, expected);
    if (!applicationsDirUnavailable().isEmpty())
        QSKIP(qPrintable(applicationsDirUnavailable()));
    DFifoGate gate(tmpDir.path() + "/gate");
    QVERIFY(QFile::link(tmpDir.path() + "/gate", tmpDir.path() + "/payload/soft/app/" + gateAt));
    const QString strLocation = tmpDir.path() + "/probe";
    startRun(strLocation);

    QVERIFY(gate.waitForReader(kRunTimeoutMs));
    window->cancelButton()->click();
    QVERIFY(window->isVisible());
    QCOMPARE(window->installState(), MainWindow::cancel);
    gate.releaseReader();

    QTRY_COMPARE_WITH_TIMEOUT(window->createButton()->text(), QString("取消安装"), kRunTimeoutMs);
    QCOMPARE(window->cancelButton()->text(), QString("关闭"));
    QCOMPARE(labelText(), QString("取消安装"));
    window.reset(); // waits for the worker, so the tree below is final
    QCOMPARE(filesBelow(strLocation), expected);
    QVERIFY(QFileInfo(entryPath()).isFile());
}

// The entry is written through a FIFO, which holds the worker in the desktop stage.
void tst_InstallRun::cancelDuringDesktopStage()
{
    if (!applicationsDirUnavailable().isEmpty())
        QSKIP(qPrintable(applicationsDirUnavailable()));
    QVERIFY(QDir().mkpath(applicationsDir()));
    DFifoGate gate(tmpDir.path() + "/entry-gate");
    QVERIFY(QFile::link(tmpDir.path() + "/entry-gate", entryPath()));
    const QString strLocation = tmpDir.path() + "/probe";
    startRun(strLocation);
    window->cancelButton()->click();
    QCOMPARE(window->installState(), MainWindow::cancel);

    QCOMPARE(gate.drainWriter(), "[Desktop Entry]\nName=Probe\nExec=" + strLocation.toUtf8() + "/bin/probe %U\n");
    QTRY_COMPARE_WITH_TIMEOUT(window->createButton()->text(), QString("取消安装"), kRunTimeoutMs);
    window.reset();
    QCOMPARE(filesBelow(strLocation), QStringList());
}

void tst_InstallRun::workerFailures_data()
{
    QTest::addColumn<QString>("kind");
    QTest::newRow("applications directory cannot be made") << "mkpath";
    QTest::newRow("time-stamped entry name taken") << "entry";
    QTest::newRow("directory where a file is to be replaced") << "remove";
    QTest::newRow("file where a directory must go") << "mkdir";
}

void tst_InstallRun::workerFailures()
{
    QFETCH(QString, kind);
    if (!applicationsDirUnavailable().isEmpty())
        QSKIP(qPrintable(applicationsDirUnavailable()));
    const QString strLocation = tmpDir.path() + "/probe";
    QStringList expected;
    if (kind == "mkpath") {
        // Root's entries go to /usr/share/applications, which exists.
        TAVELIN_RUN_UNPRIVILEGED(tmpDir.path());
        QVERIFY(QDir(homeDir.path() + "/.local").removeRecursively());
        QVERIFY(writeFile(homeDir.path() + "/.local", "a file"));
    } else if (kind == "entry") {
        QVERIFY(writeFile(entryPath(), "earlier"));
        const QDateTime now = QDateTime::currentDateTime();
        for (int i = 0; i < 10; ++i)
            QVERIFY(writeFile(applicationsDir() + "/probe-" + now.addSecs(i).toString("yyyyMMdd-HHmmss") + ".desktop",
                              "taken"));
    } else if (kind == "remove") {
        QVERIFY(writeFile(strLocation + "/d/inside", "x"));
        expected = QStringList({"a", "b", "b/c", "d", "d/inside"});
    } else {
        QVERIFY(writeFile(strLocation + "/b", "a file"));
        expected = QStringList({"a", "b"});
    }
    startRun(strLocation);

    QTRY_COMPARE_WITH_TIMEOUT(window->createButton()->text(), QString("安装失败"), kRunTimeoutMs);
    QCOMPARE(window->installState(), MainWindow::failed);
    QCOMPARE(labelText(), QString("安装失败"));
    QCOMPARE(window->cancelButton()->text(), QString("关闭"));
    window.reset();
    QCOMPARE(filesBelow(strLocation), expected);
    if (kind == "mkpath")
        QFile::remove(homeDir.path() + "/.local");
}

// The window lives on main's stack: its end must wait for the worker.
void tst_InstallRun::closeDuringRunWaitsForWorker()
{
    if (!applicationsDirUnavailable().isEmpty())
        QSKIP(qPrintable(applicationsDirUnavailable()));
    DFifoGate gate(tmpDir.path() + "/gate");
    QVERIFY(QFile::link(tmpDir.path() + "/gate", tmpDir.path() + "/payload/soft/app/c-gate"));
    const QString strLocation = tmpDir.path() + "/probe";
    startRun(strLocation);
    QVERIFY(gate.waitForReader(kRunTimeoutMs));

    window->close();
    QVERIFY(!window->isVisible());
    QCOMPARE(window->installState(), MainWindow::cancel);
    // Released late, so a destructor that did not wait would return first.
    std::thread releaser([&gate]() {
        std::this_thread::sleep_for(std::chrono::milliseconds(200));
        gate.releaseReader();
    });
    window.reset();
    QVERIFY(QFileInfo::exists(strLocation + "/c-gate"));
    releaser.join();
    QCOMPARE(filesBelow(strLocation), QStringList({"a", "b", "b/c", "c-gate"}));
}

// A worker that cannot start ends the run as failed, painted by the next tick.
void tst_InstallRun::threadStartFailure()
{
    // Root may start threads beyond any limit.
    TAVELIN_RUN_UNPRIVILEGED(tmpDir.path());
    const QString strLocation = tmpDir.path() + "/probe";
    openWindow();
    QVERIFY(QTest::qWaitForWindowExposed(window.get()));
    window->findChild<QLineEdit*>("editInstallDir")->setText(strLocation);
    // Only the press runs under the limit: Qt's own pooled threads must not starve.
    struct rlimit saved;
    QCOMPARE(getrlimit(RLIMIT_NPROC, &saved), 0);
    struct rlimit noThreads = saved;
    noThreads.rlim_cur = 0;
    QCOMPARE(setrlimit(RLIMIT_NPROC, &noThreads), 0);
    window->createButton()->setEnabled(true);
    window->createButton()->click();
    QCOMPARE(setrlimit(RLIMIT_NPROC, &saved), 0);

    QCOMPARE(window->installState(), MainWindow::failed);
    QCOMPARE(window->createButton()->text(), QString("正在安装：1%"));
    QTRY_COMPARE_WITH_TIMEOUT(window->createButton()->text(), QString("安装失败"), kRunTimeoutMs);
    QCOMPARE(window->cancelButton()->text(), QString("关闭"));
    QVERIFY(!window->createButton()->isEnabled());
    QCOMPARE(filesBelow(strLocation), QStringList());
    QVERIFY(!QFileInfo::exists(entryPath()));
    window->cancelButton()->click();
    QVERIFY(!window->isVisible());
}

TAVELIN_TEST_MAIN_ISOLATED(tst_InstallRun)
#include "tst_installrun.moc"
