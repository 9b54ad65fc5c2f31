#include "wizardsupport.h"

#include <QApplication>
#include <QFileDialog>
#include <QLabel>
#include <QLineEdit>
#include <QPushButton>
#include <QScopeGuard>
#include <QTemporaryDir>
#include <QTimer>
#include <QtTest>

#include <memory>

#include <sys/stat.h>

namespace {

TAppPackInfo& packInfo()
{
    return *DTavelinGuiConfig::getInstance().getAppPackInfo();
}

/// What the test saw while the directory dialog was open.
struct TDialogVisit
{
    bool bSeen = false;
    QString strStartDir;
    bool bLibraryPathSet = false;
    QByteArray baLibraryPath;
};

} // namespace

class tst_InstallLocation : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase()
    {
        QVERIFY(tmpDir.isValid());
        strBase = QFileInfo(tmpDir.path()).canonicalFilePath();
        qputenv("HOME", strBase.toLocal8Bit());
        // Qt's own dialog, whatever platform theme the environment names.
        QCoreApplication::setAttribute(Qt::AA_DontUseNativeDialogs);
    }

    void init()
    {
        wizard.reset();
        packInfo() = TAppPackInfo();
        packInfo().base.nameEng = "NameEng";
        packInfo().install.dir = "demo";
        wizard = std::make_unique<MainWindow>();
        wizard->init();
        page = wizard->findChild<DPageBaseInfo*>();
        editInstallDir = wizard->findChild<QLineEdit*>("editInstallDir");
    }

    void judgement_data()
    {
        QTest::addColumn<QString>("text"); // "@" stands for the case's directory
        QTest::addColumn<bool>("bAsNobody"); // root may write everywhere
        QTest::addColumn<bool>("expected");

        QTest::newRow("existing writable dir, trailing slash") << "@/" << false << true;
        QTest::newRow("missing path below writable dir") << "@/new/deeper/app" << false << true;
        QTest::newRow("path through a regular file") << "@/file/app" << false << true;
        QTest::newRow("text with no slash") << "tavelin-no-such-dir" << false << false;
        QTest::newRow("relative, leading part no directory") << "tavelin-no-such-dir/app" << false << false;
        QTest::newRow("missing dir directly below root, for root too") << "/tavelin-no-such-dir" << false << false;
        QTest::newRow("empty text") << "" << false << false;
        QTest::newRow("existing unwritable dir") << "@/locked" << true << false;
        QTest::newRow("missing path below unwritable dir") << "@/locked/new/app" << true << false;
        QTest::newRow("writable dir below unwritable one") << "@/locked/open/app" << true << true;
        QTest::newRow("root directory itself") << "/" << true << false;
    }

    void judgement()
    {
        QFETCH(QString, text);
        QFETCH(bool, bAsNobody);
        QFETCH(bool, expected);
        const QTemporaryDir caseDir;
        const QString strDir = TestSupport::unprivilegedChildDir().isEmpty() ? caseDir.path() : TestSupport::unprivilegedChildDir();
        const QByteArray baLocked = QFile::encodeName(strDir + "/locked");
        const auto unlock = qScopeGuard([&] { chmod(baLocked.constData(), 0755); });
        if (TestSupport::unprivilegedChildDir().isEmpty()) {
            QVERIFY(TestSupport::writeFile(strDir + "/file", "x") && QDir(strDir).mkpath("locked/open"));
            QVERIFY(chmod(QFile::encodeName(strDir + "/locked/open").constData(), 0777) == 0);
            QVERIFY(chmod(baLocked.constData(), 0555) == 0);
        }
        if (bAsNobody)
            TAVELIN_RUN_UNPRIVILEGED(strDir, "QT_QPA_PLATFORM=offscreen");

        editInstallDir->setText(text.replace('@', strDir));
        page->updateCreateState();
        QCOMPARE(createEnabled(), expected);
        QCOMPARE(rowShown(), !expected && DTavelinUtil::getCurrentUser() != QLatin1String("root"));
    }

    void showEventsJudgeTypingDoesNot()
    {
        setLocation("@");
        wizard->show();
        QVERIFY(QTest::qWaitForWindowExposed(wizard.get()));
        QVERIFY(createEnabled());

        editInstallDir->clear();
        QTest::keyClicks(editInstallDir, "no-such-dir");
        QVERIFY(createEnabled());
        // Hidden and shown again, as on a restore from minimised.
        wizard->hide();
        wizard->show();
        QVERIFY(!createEnabled());
        // The page judges when it is shown, without the window's show event.
        page->hide();
        setLocation("@");
        page->show();
        QVERIFY(createEnabled());
    }

    void deselectsOnlyOnce()
    {
        setLocation("@");
        editInstallDir->selectAll();
        QVERIFY(!editInstallDir->hasSelectedText());
        editInstallDir->selectAll();
        QCOMPARE(editInstallDir->selectedText(), strBase);
    }

    void chooseDirectory_data()
    {
        QTest::addColumn<QString>("text");
        QTest::addColumn<QString>("dir"); // install.dir of the manifest
        QTest::addColumn<QString>("choice"); // empty: cancel
        QTest::addColumn<QString>("startDir");
        QTest::addColumn<QString>("textAfter");
        QTest::addColumn<bool>("enabledAfter");
        QTest::addColumn<QString>("nextStartDir"); // after a hand edit to @/first
        QTest::addColumn<QByteArray>("libraryPath"); // LD_LIBRARY_PATH before; "-": unset

        const QString strCwd = QDir::currentPath();
        QTest::newRow("first dialog at the text, the next where the user chose")
            << "@/first" << "demo" << "@/second/chosen" << "@/first" << "@/second/chosen/demo" << true << "@/second/chosen" << QByteArray("/bundle/lib:/bundle/usr/lib");
        QTest::newRow("empty text: the current directory") << "" << "demo" << "" << strCwd << "" << false << "@/first" << QByteArray("-");
        QTest::newRow("cancel: nothing judged, the next at the first text")
            << "@/second" << "demo" << "" << "@/second" << "@/second" << false << "@/second" << QByteArray("/bundle/lib");
        QTest::newRow("root directory: no double slash") << "@" << "demo" << "/" << "@" << "/demo" << false << "/" << QByteArray("-");
        QTest::newRow("a link is resolved") << "@" << "demo" << "@/link" << "@" << "@/second/chosen/demo" << true << "@/second/chosen" << QByteArray("");
        QTest::newRow("empty dir takes the English name") << "@" << "" << "@" << "@" << "@/NameEng" << true << "@" << QByteArray("/x");
    }

    void chooseDirectory()
    {
        QFETCH(QString, text);
        QFETCH(QString, dir);
        QFETCH(QString, choice);
        QFETCH(QString, startDir);
        QFETCH(QString, textAfter);
        QFETCH(QString, nextStartDir);
        QFETCH(QByteArray, libraryPath);
        if (libraryPath == "-")
            qunsetenv("LD_LIBRARY_PATH");
        else
            qputenv("LD_LIBRARY_PATH", libraryPath);
        QVERIFY(QDir(strBase).mkpath("first") && QDir(strBase).mkpath("second/chosen"));
        QFile::link(strBase + "/second/chosen", strBase + "/link");
        packInfo().install.dir = dir.toStdString();
        setLocation("");
        page->updateCreateState(); // disabled: only an accepted choice judges again
        setLocation(text);

        const TDialogVisit visit = visitDialog(choice);
        QVERIFY(visit.bSeen);
        // Emptied while the dialog is open, then restored; an unset one comes back set and empty.
        QVERIFY(visit.bLibraryPathSet && visit.baLibraryPath.isEmpty());
        QVERIFY(qEnvironmentVariableIsSet("LD_LIBRARY_PATH"));
        QCOMPARE(qgetenv("LD_LIBRARY_PATH"), libraryPath == "-" ? QByteArray() : libraryPath);
        QCOMPARE(visit.strStartDir, startDir.replace('@', strBase));
        QCOMPARE(editInstallDir->text(), textAfter.replace('@', strBase));
        QTEST(createEnabled(), "enabledAfter");
        setLocation("@/first");
        QCOMPARE(visitDialog("").strStartDir, nextStartDir.replace('@', strBase));
        qunsetenv("LD_LIBRARY_PATH");
    }

private:
    bool rowShown() const
    {
        const bool bTip01 = page->findChild<QLabel*>("labelChange2RootTip01")->isVisibleTo(page);
        const bool bButton = page->findChild<QPushButton*>("btnChange2Root")->isVisibleTo(page);
        const bool bTip02 = page->findChild<QLabel*>("labelChange2RootTip02")->isVisibleTo(page);
        return bTip01 && bButton && bTip02;
    }

    // Clicks the choose button and acts in the dialog: choose strChoice, or cancel when it is empty.
    TDialogVisit visitDialog(const QString& strChoice)
    {
        TDialogVisit visit;
        QTimer timer;
        connect(&timer, &QTimer::timeout, [&] {
            auto* dialog = qobject_cast<QFileDialog*>(QApplication::activeModalWidget());
            if (!dialog || !dialog->isVisible())
                return;
            timer.stop();
            visit.bSeen = dialog->windowTitle() == QStringLiteral("选择安装文件夹")
                && dialog->testOption(QFileDialog::ShowDirsOnly) && dialog->testOption(QFileDialog::DontResolveSymlinks);
            visit.strStartDir = dialog->directory().absolutePath();
            visit.bLibraryPathSet = qEnvironmentVariableIsSet("LD_LIBRARY_PATH");
            visit.baLibraryPath = qgetenv("LD_LIBRARY_PATH");
            if (strChoice.isEmpty()) {
                dialog->reject();
                return;
            }
            // As a user does: go to the directory and confirm with nothing typed.
            dialog->setDirectory(QString(strChoice).replace('@', strBase));
            if (auto* edit = dialog->findChild<QLineEdit*>("fileNameEdit"))
                edit->clear();
            QMetaObject::invokeMethod(dialog, "accept");
        });
        timer.start(10);
        wizard->findChild<QPushButton*>("btnSelInstallDir")->click();
        return visit;
    }

    void setLocation(const QString& strText) { editInstallDir->setText(QString(strText).replace('@', strBase)); }
    bool createEnabled() const { return wizard->findChild<QPushButton*>("btnCreate")->isEnabled(); }

    QTemporaryDir tmpDir;
    QString strBase; // canonical path of tmpDir
    std::unique_ptr<MainWindow> wizard;
    DPageBaseInfo* page = nullptr;
    QLineEdit* editInstallDir = nullptr;
};

QTEST_MAIN(tst_InstallLocation)
#include "tst_installlocation.moc"
