#include "mainwindow.h"
#include "testsupport.h"

#include <QApplication>
#include <QDir>
#include <QLineEdit>
#include <QProcess>
#include <QPushButton>
#include <QTemporaryDir>
#include <QtTest>

using namespace TestSupport;

namespace {

// The program and arguments of an Exec value, field codes dropped.
QStringList splitExec(const QString& strExec)
{
    QStringList words;
    QString strWord;
    bool bInWord = false;
    bool bQuoted = false;
    for (int i = 0; i < strExec.size(); ++i) {
        const QChar ch = strExec.at(i);
        if (bQuoted && ch == '\\' && i + 1 < strExec.size()) {
            strWord += strExec.at(++i);
        } else if (ch == '"') {
            bQuoted = !bQuoted;
            bInWord = true;
        } else if (ch == ' ' && !bQuoted) {
            if (bInWord)
                words << strWord;
            strWord.clear();
            bInWord = false;
        } else {
            strWord += ch;
            bInWord = true;
        }
    }
    if (bInWord)
        words << strWord;
    QStringList program;
    for (const QString& strArg : words) {
        if (!(strArg.size() == 2 && strArg.startsWith('%')))
            program << strArg;
    }
    return program;
}

} // namespace

class tst_DemoInstall : public QObject
{
    Q_OBJECT

private slots:
    void installsRunsAndUninstallsDemo();
};

void tst_DemoInstall::installsRunsAndUninstallsDemo()
{
    if (!applicationsDirUnavailable().isEmpty())
        QSKIP(qPrintable(applicationsDirUnavailable()));
    QTemporaryDir tmpDir;
    QTemporaryDir homeDir;
    QVERIFY(tmpDir.isValid() && homeDir.isValid());
    qputenv("HOME", QFile::encodeName(homeDir.path()));
    loadPayload(QStringLiteral(TAVELIN_SOURCE_DIR "/examples/demo"));
    const QString strLocation = tmpDir.path() + "/opt/tavelin-demo";
    const QString strEntry = applicationsDir() + "/tavelin-demo.desktop";
    if (QFileInfo::exists(strEntry))
        QSKIP("a tavelin-demo entry is installed already; it would be kept and the run not tell");

    MainWindow window;
    window.init();
    window.show();
    window.findChild<QLineEdit*>("editInstallDir")->setText(strLocation);
    auto* btnCreate = window.findChild<QPushButton*>("btnCreate");
    btnCreate->setEnabled(true);
    btnCreate->click();
    QTRY_COMPARE_WITH_TIMEOUT(btnCreate->text(), QStringLiteral("安装完成"), 30000);

    QVERIFY(QFileInfo(strLocation + "/bin/tavelin-demo").isExecutable());
    QCOMPARE(readFile(strLocation + "/share/tavelin-demo/greeting.txt"),
             readFile(TAVELIN_SOURCE_DIR "/examples/demo/soft/app/share/tavelin-demo/greeting.txt"));
    QVERIFY(QFileInfo(strLocation + "/README.txt").isFile());
    QVERIFY(QFileInfo(strLocation + "/uninstall.sh").isExecutable());

    const QStringList execLines = QString::fromUtf8(readFile(strEntry)).split('\n').filter(QRegularExpression("^Exec="));
    QCOMPARE(execLines, QStringList{"Exec=\"" + strLocation + "/bin/tavelin-demo\" %U"});
    const QStringList program = splitExec(execLines.first().mid(5));
    QProcess launcher;
    QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
    env.remove("DISPLAY");
    launcher.setProcessEnvironment(env);
    launcher.start(program.first(), program.mid(1));
    QVERIFY(launcher.waitForFinished(20000));
    QCOMPARE(launcher.exitCode(), 0);
    const QString strOut = QString::fromUtf8(launcher.readAllStandardOutput());
    QVERIFY2(strOut.contains("Installed in: " + strLocation), qPrintable(strOut));

    const TestSupport::TScriptRun run =
        TestSupport::runUninstallScript("sh", strLocation + "/uninstall.sh", "y\n", tmpDir.path());
    QVERIFY(run.bFinished);
    QCOMPARE(run.exitCode, 0);
    QVERIFY(!QFileInfo::exists(strLocation));
    QVERIFY(!QFileInfo::exists(strEntry));
    QVERIFY(QFileInfo(tmpDir.path() + "/opt").isDir());

    window.findChild<QPushButton*>("btnCancel")->click();
    QVERIFY(!window.isVisible());
}

TAVELIN_TEST_MAIN_ISOLATED(tst_DemoInstall)
#include "tst_demoinstall.moc"
