#include "wizardsupport.h"

#include <QApplication>
#include <QDateTime>
#include <QLabel>
#include <QLineEdit>
#include <QMessageBox>
#include <QProcess>
#include <QProgressBar>
#include <QPushButton>
#include <QTemporaryDir>
#include <QtTest>

#include <memory>
#include <thread>

using namespace TestSupport;

class tst_InstallRun : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase()
    {
        QVERIFY(tmpDir.isValid());
        qputenv("HOME", QFile::encodeName(tmpDir.path() + "/home"));
        QApplication::setQuitOnLastWindowClosed(false);
    }

    void init()
    {
        window.reset();
        QDir(tmpDir.path()).removeRecursively();
        QVERIFY(QDir().mkpath(tmpDir.path() + "/home"));
        if (!applicationsDirUnavailable().isEmpty())
            QSKIP(qPrintable(applicationsDirUnavailable()));
        // Only a private or temporary applications directory is ever cleaned.
        for (const QString& strName : QDir(applicationsDir()).entryList({"probe*"}, QDir::AllEntries | QDir::System))
            QFile::remove(applicationsDir() + "/" + strName);
        DTavelinGuiConfig::getInstance().setTargetDesktopFilePath(QString());
        QVERIFY(loadPayload(tmpDir.path() + "/payload", 4, {"a", "b/c", "d"}));
    }

    void refusals_data()
    {
        QTest::addColumn<int>("filesTotalCount");
        QTest::addColumn<QString>("location");
        QTest::addColumn<QString>("title");
        QTest::addColumn<QString>("text");
        const QString strNoFiles = "安装包里没有需要安装的应用软件文件";
        const QString strNoMkdir = "无法在当前的“安装位置”上，创建安装目录。\n[选中的“安装位置”，可能没有写入权限]";
        QTest::newRow("no files in the package") << 0 << "TMP/new" << "提示" << strNoFiles;
        QTest::newRow("negative file count") << -3 << "TMP/new" << "提示" << strNoFiles;
        QTest::newRow("empty location") << 4 << "" << "错误" << strNoMkdir;
        QTest::newRow("location below a plain file") << 4 << "TMP/plain/sub" << "错误" << strNoMkdir;
        QTest::newRow("location not writable") << 4 << "TMP/readonly" << "错误" << "无法在不可写的目录里，安装应用软件";
    }

    void refusals()
    {
        QFETCH(int, filesTotalCount);
        QFETCH(QString, location);
        location.replace("TMP", tmpDir.path());
        QVERIFY(loadPayload(tmpDir.path() + "/payload", filesTotalCount, {"a"}));
        QVERIFY(writeFile(tmpDir.path() + "/plain", "x"));
        const QString strReadOnly = tmpDir.path() + "/readonly";
        QVERIFY(QDir().mkpath(strReadOnly));
        // Root writes everywhere but on a read-only mount; this namespace is private.
        if (geteuid() == 0) {
            QCOMPARE(QProcess::execute("mount", {"--bind", strReadOnly, strReadOnly}), 0);
            QCOMPARE(QProcess::execute("mount", {"-o", "remount,bind,ro", strReadOnly}), 0);
        } else {
            QVERIFY(QFile::setPermissions(strReadOnly, QFile::ReadOwner | QFile::ExeOwner));
        }
        QStringList seen; // title, text, buttons and icon of every refusal box, closed as it shows
        QTimer closer;
        connect(&closer, &QTimer::timeout, [&seen] {
            if (auto* box = qobject_cast<QMessageBox*>(QApplication::activeModalWidget())) {
                seen << box->windowTitle() << box->text() << QString::number(box->standardButtons()) << QString::number(box->icon());
                box->done(QMessageBox::Ok);
            }
        });
        closer.start(10);
        startRun(location);
        QProcess::execute("umount", {strReadOnly});
        QFETCH(QString, title);
        QFETCH(QString, text);
        QCOMPARE(seen, QStringList({title, text, QString::number(QMessageBox::Ok), QString::number(QMessageBox::Information)}));
        QCOMPARE(window->installState(), MainWindow::pending);
        QVERIFY(!window->timerActive());
        QCOMPARE(window->createButton()->text(), QString("安装"));
        QVERIFY(window->createButton()->isEnabled() && window->findChild<QLineEdit*>("editInstallDir")->isEnabled());
        QVERIFY(!window->findChild<QPushButton*>("btnSelInstallDir")->isHidden());
        QCOMPARE(QFileInfo::exists(location), filesTotalCount > 0 && location.endsWith("readonly"));
    }

    void tickPaintsOneState_data()
    {
        QTest::addColumn<int>("state");
        QTest::addColumn<int>("counter");
        QTest::addColumn<QString>("createText");
        QTest::addColumn<QString>("cancelText");
        QTest::addColumn<int>("barValue"); // -1: the bar as built, never set
        const int installing = MainWindow::installing;
        QTest::newRow("installing, 29 of 100 shows 28") << installing << 29 << "正在安装： 28%" << "取消" << 28;
        // The bar's range ends at 100: it ignores the value.
        QTest::newRow("installing, above the total is not clamped") << installing << 150 << "正在安装： 150%" << "取消" << -1;
        QTest::newRow("installed paints 100 whatever the counter") << int(MainWindow::installed) << 3 << "安装完成" << "关闭" << 100;
        QTest::newRow("failed shows the counter") << int(MainWindow::failed) << 29 << "安装失败" << "关闭" << 28;
        QTest::newRow("cancel shows the counter") << int(MainWindow::cancel) << 57 << "取消安装" << "关闭" << 56;
        QTest::newRow("pending paints nothing") << int(MainWindow::pending) << 50 << "安装" << "取消" << -1;
    }

    void tickPaintsOneState()
    {
        QFETCH(int, state);
        QFETCH(int, counter);
        QFETCH(QString, createText);
        QVERIFY(loadPayload(tmpDir.path() + "/payload", 100, {}));
        window.reset(new DProbeWindow);
        window->init();
        window->startTick();
        window->setState(MainWindow::EInstallState(state));
        window->setCounter(counter);

        window->timerProcRefresh();
        QCOMPARE(window->createButton()->text(), createText);
        QTEST(window->cancelButton()->text(), "cancelText");
        QCOMPARE(window->timerActive(), state == MainWindow::installing || state == MainWindow::pending);
        QCOMPARE(window->findChild<QLabel*>("labelProgressBarInstall")->isHidden(), state == MainWindow::pending);
        QCOMPARE(label(), state == MainWindow::pending ? QString("等待安装")
                          : state == MainWindow::installing ? QString("正在安装") : createText);
        QTEST(window->findChild<QProgressBar*>("progressBarInstall")->value(), "barValue");
    }

    void runEnds_data()
    {
        QTest::addColumn<QString>("setup");
        QTest::addColumn<QString>("endText");
        QTest::addColumn<int>("counter");
        QTest::addColumn<QStringList>("tree");
        const QStringList full{"a", "b/", "b/c", "d", "uninstall.sh"};
        QTest::newRow("new location, its parents made") << "new" << "安装完成" << 4 << full;
        QTest::newRow("relative location: one tree from any directory") << "relative" << "安装完成" << 4 << full;
        QTest::newRow("into an existing tree: files replaced, its script kept") << "existing" << "安装完成" << 3 << full;
        QTest::newRow("empty tree") << "empty" << "安装完成" << 0 << QStringList{"uninstall.sh"};
        QTest::newRow("missing tree") << "missing" << "安装完成" << 0 << QStringList{"uninstall.sh"};
        QTest::newRow("applications directory cannot be made") << "mkpath" << "安装失败" << 0 << QStringList();
        QTest::newRow("time-stamped entry name taken") << "taken" << "安装失败" << 0 << QStringList();
        QTest::newRow("directory where a file is to be replaced")
            << "remove" << "安装失败" << 3 << QStringList{"a", "b/", "b/c", "d/", "d/in"};
    }

    void runEnds()
    {
        QFETCH(QString, setup);
        QFETCH(QString, endText);
        const QString strApp = tmpDir.path() + "/payload/soft/app";
        const QString strCwd = QDir::currentPath();
        QString strLocation = location();
        if (setup == "new") {
            strLocation = tmpDir.path() + "/new/deep/probe";
        } else if (setup == "relative") {
            strLocation = tmpDir.path() + "/cwd/rel/probe";
            QVERIFY(QDir().mkpath(tmpDir.path() + "/cwd") && QDir::setCurrent(tmpDir.path() + "/cwd"));
        } else if (setup == "existing") {
            QVERIFY(writeFile(location() + "/a", "old") && writeFile(location() + "/b/c", "old"));
            QVERIFY(writeFile(location() + "/uninstall.sh", "earlier"));
        } else if (setup == "empty" || setup == "missing") {
            QVERIFY(QDir(strApp).removeRecursively() && (setup == "missing" || QDir().mkpath(strApp)));
        } else if (setup == "mkpath") {
            // Root's entries go to /usr/share/applications, which exists.
            TAVELIN_RUN_UNPRIVILEGED(tmpDir.path());
            QVERIFY(writeFile(QDir::homePath() + "/.local", "a file"));
        } else if (setup == "taken") {
            QVERIFY(writeFile(entryPath(), "earlier"));
            for (int i = 0; i < 10; ++i) {
                const QString strStamp = QDateTime::currentDateTime().addSecs(i).toString("yyyyMMdd-HHmmss");
                QVERIFY(writeFile(applicationsDir() + "/probe-" + strStamp + ".desktop", "taken"));
            }
        } else {
            QVERIFY(writeFile(location() + "/d/in", "x"));
        }
        startRun(setup == "relative" ? "rel/probe" : strLocation);
        QVERIFY(QDir::setCurrent(strCwd));
        QCOMPARE(window->createButton()->text(), QString("正在安装：1%"));
        QVERIFY(!window->createButton()->isEnabled() && !window->findChild<QLineEdit*>("editInstallDir")->isEnabled());
        QVERIFY(window->findChild<QPushButton*>("btnSelInstallDir")->isHidden());
        QCOMPARE(label(), QString("正在安装"));
        QCOMPARE(window->findChild<QProgressBar*>("progressBarInstall")->value(), 1);
        QVERIFY(window->timerActive() && !window->tick().isSingleShot());
        QCOMPARE(window->tick().interval(), 500);
        QCOMPARE(DTavelinGuiConfig::getInstance().getFlagOfOverrideTargetDir(), setup == "existing" || setup == "remove");

        QTRY_COMPARE_WITH_TIMEOUT(window->createButton()->text(), endText, 30000);
        QCOMPARE(label(), endText);
        QCOMPARE(window->cancelButton()->text(), QString("关闭"));
        QTEST(window->counter(), "counter");
        // One run per window: the button stays off through show events, and a press starts nothing.
        window->hide();
        window->show();
        QVERIFY(!window->createButton()->isEnabled());
        window->onclickCreate();
        QVERIFY(window->installState() != MainWindow::installing);
        window->cancelButton()->click();
        QVERIFY(!window->isVisible());
        QTEST(finalTree(strLocation), "tree");
        if (setup == "existing") {
            QCOMPARE(readFile(location() + "/a"), QByteArray("a"));
            QCOMPARE(readFile(location() + "/uninstall.sh"), QByteArray("earlier"));
        } else if (endText == "安装完成") {
            QCOMPARE(readFile(entryPath()), "[Desktop Entry]\nName=Probe\nExec=" + strLocation.toUtf8() + "/bin/probe %U\n");
            QVERIFY(runUninstallScript("sh", strLocation + "/uninstall.sh", "y\n", tmpDir.path()).bFinished);
            QVERIFY(!QFileInfo::exists(strLocation) && QFileInfo::exists(QFileInfo(strLocation).path()));
            QVERIFY(!QFileInfo::exists(entryPath()));
        }
    }

    // A FIFO holds the worker inside one stage: the entry, or one entry of the copy.
    void cancelPoints_data()
    {
        QTest::addColumn<QString>("gateAt");
        QTest::addColumn<bool>("bClose"); // the window closed instead of the cancel button
        QTest::addColumn<QStringList>("tree");
        QTest::newRow("during the desktop stage: the entry still written") << "entry" << false << QStringList();
        QTest::newRow("during the copy: stops at the next entry") << "c-gate" << false << QStringList({"a", "b/", "b/c", "c-gate"});
        QTest::newRow("last entry of a subdirectory: seen at the parent's next entry")
            << "b/z-gate" << false << QStringList({"a", "b/", "b/c", "b/z-gate"});
        QTest::newRow("after the last entry: the run completes")
            << "z-gate" << false << QStringList({"a", "b/", "b/c", "d", "uninstall.sh", "z-gate"});
        // The window lives on main's stack: its end must wait for the worker.
        QTest::newRow("window closed during the copy: its end waits") << "c-gate" << true << QStringList({"a", "b/", "b/c", "c-gate"});
    }

    void cancelPoints()
    {
        QFETCH(QString, gateAt);
        QFETCH(bool, bClose);
        DFifoGate gate(tmpDir.path() + "/gate");
        QVERIFY(QDir().mkpath(applicationsDir()));
        QVERIFY(QFile::link(tmpDir.path() + "/gate", gateAt == "entry" ? entryPath() : tmpDir.path() + "/payload/soft/app/" + gateAt));
        startRun(location());
        if (gateAt != "entry")
            QVERIFY(gate.waitForReader());
        if (bClose) {
            window->close();
            QCOMPARE(window->installState(), MainWindow::cancel);
            // Released late, so a destructor that did not wait would return first.
            std::thread releaser([&gate] {
                std::this_thread::sleep_for(std::chrono::milliseconds(200));
                gate.releaseReader();
            });
            QTEST(finalTree(location()), "tree");
            releaser.join();
            return;
        }
        window->cancelButton()->click();
        QVERIFY(window->isVisible());
        QCOMPARE(window->installState(), MainWindow::cancel);
        if (gateAt == "entry")
            QCOMPARE(gate.drainWriter(), "[Desktop Entry]\nName=Probe\nExec=" + location().toUtf8() + "/bin/probe %U\n");
        gate.releaseReader();
        QTRY_COMPARE_WITH_TIMEOUT(window->createButton()->text(), QString("取消安装"), 30000);
        QCOMPARE(label(), QString("取消安装"));
        QTEST(finalTree(location()), "tree");
    }

    // Runs cancelled, closed or destroyed at varied moments, or left to end; for the thread checkers above all.
    void manyRunsEndedAtVariedMoments()
    {
        QStringList appFiles;
        for (int i = 0; i < 24; ++i)
            appFiles << QStringLiteral("dir%1/file%2").arg(i % 4).arg(i);
        QVERIFY(loadPayload(tmpDir.path() + "/payload", 28, appFiles));
        for (int run = 0; run < 100; ++run) {
            const int ending = run % 5; // cancel at once, cancel later, close later, destroy later, run to the end
            // Existing locations keep the first run's entry, so no run fails on a taken name.
            const QString strLocation = tmpDir.path() + QStringLiteral("/runs/%1").arg(run);
            QVERIFY(QDir().mkpath(strLocation));
            startRun(strLocation);
            if (ending != 0 && ending != 4)
                QTRY_VERIFY_WITH_TIMEOUT(window->counter() >= (run * 7) % 29 || window->installState() != MainWindow::installing,
                                         60000);
            if (ending < 2)
                window->cancelButton()->click();
            else if (ending == 2)
                window->close();
            if (ending != 3) {
                QTRY_VERIFY_WITH_TIMEOUT(window->installState() != MainWindow::installing, 60000);
                window->timerProcRefresh();
                QCOMPARE(window->cancelButton()->text(), QStringLiteral("关闭"));
                QVERIFY(window->installState() == (ending == 4 ? MainWindow::installed : MainWindow::cancel)
                        || (ending != 4 && window->installState() == MainWindow::installed));
            }
            window.reset();
            // The script comes only after a complete tree.
            if (QFileInfo::exists(strLocation + "/uninstall.sh"))
                QVERIFY(QFileInfo::exists(strLocation + "/dir3/file23"));
        }
    }

private:
    void startRun(const QString& strLocation)
    {
        window.reset(new DProbeWindow);
        window->init();
        window->show();
        window->findChild<QLineEdit*>("editInstallDir")->setText(strLocation);
        window->createButton()->setEnabled(true);
        window->createButton()->click();
    }

    QString label() const { return window->findChild<QLabel*>("labelProgressBarInstall")->text(); }
    QString entryPath() const { return applicationsDir() + "/probe.desktop"; }
    QString location() const { return tmpDir.path() + "/probe"; }
    QStringList finalTree(const QString& strRoot)
    {
        window.reset(); // waits for the worker
        return treeOf(strRoot);
    }

    QTemporaryDir tmpDir;
    std::unique_ptr<DProbeWindow> window;
};

QTEST_MAIN(tst_InstallRun)
#include "tst_installrun.moc"
