#include "mainwindow.h"
#include "testsupport.h"

#include <QDir>
#include <QDirIterator>
#include <QProcess>
#include <QStandardPaths>
#include <QTemporaryDir>
#include <QtTest>

#include <sys/stat.h>

using TestSupport::readFile;
using TestSupport::writeFile;

namespace {

const QByteArray kScriptHead("#!/bin/sh\n\n"
                             "echo -n \"\\033[31m将要卸载软件：输出Y或y继续卸载，输入其他值退出：\\033[0m\"\n\n"
                             "read -r inputVal\n\n"
                             "if [ \"$inputVal\" != \"y\" ]&&[ \"$inputVal\" != \"Y\" ]; then\n\n"
                             "exit 0\n\n"
                             "fi\n\n"
                             "echo \"开始卸载\"\n\n");
const QByteArray kScriptTail("echo \"完成卸载\"\n\n");

QStringList treeOf(const QString& strRoot)
{
    QStringList paths;
    QDirIterator it(strRoot, QDir::AllEntries | QDir::Hidden | QDir::System | QDir::NoDotAndDotDot,
                    QDirIterator::Subdirectories);
    while (it.hasNext())
        paths << it.next().mid(strRoot.size());
    paths.sort();
    return paths;
}

mode_t modeOf(const QString& strPath)
{
    struct stat st;
    if (::stat(QFile::encodeName(strPath).constData(), &st) != 0)
        return 0;
    return st.st_mode & 07777;
}

} // namespace

class tst_UninstallScript : public QObject
{
    Q_OBJECT

private slots:
    void init();
    void writesExactBytes_data();
    void writesExactBytes();
    void escapesShellCharacters();
    void leavesExistingUninstallAlone_data();
    void leavesExistingUninstallAlone();
    void runsUnderShells_data();
    void runsUnderShells();

private:
    QTemporaryDir tmpDir;
    MainWindow window;
};

void tst_UninstallScript::init()
{
    QVERIFY(tmpDir.isValid());
    QDir(tmpDir.path()).removeRecursively();
    QVERIFY(QDir().mkpath(tmpDir.path()));
    DTavelinGuiConfig::getInstance().setTargetDesktopFilePath(QString());
}

void tst_UninstallScript::writesExactBytes_data()
{
    QTest::addColumn<QString>("entryKind");
    QTest::addColumn<bool>("withRmLine");
    QTest::newRow("entry file exists") << "file" << true;
    QTest::newRow("no entry recorded") << "none" << false;
    QTest::newRow("entry recorded, no file there") << "missing" << false;
    QTest::newRow("entry path is a directory") << "dir" << false;
}

void tst_UninstallScript::writesExactBytes()
{
    QFETCH(QString, entryKind);
    QFETCH(bool, withRmLine);
    const QString strLocation = tmpDir.path() + "/opt/demo 2";
    const QString strEntry = tmpDir.path() + "/apps/demo.desktop";
    QVERIFY(QDir().mkpath(strLocation));
    if (entryKind == "file")
        QVERIFY(writeFile(strEntry, "[Desktop Entry]\n"));
    if (entryKind == "dir")
        QVERIFY(QDir().mkpath(strEntry));
    DTavelinGuiConfig& config = DTavelinGuiConfig::getInstance();
    config.setTargetInstallDir(strLocation);
    if (entryKind != "none")
        config.setTargetDesktopFilePath(strEntry);

    window.createUninstallFile();

    const QString strScript = strLocation + "/uninstall.sh";
    QByteArray baExpected = kScriptHead + "cd \"" + strLocation.toUtf8() + "/../\"\n\n" + "rm -rf \""
        + strLocation.toUtf8() + "\"\n\n";
    if (withRmLine)
        baExpected += "rm -f \"" + strEntry.toUtf8() + "\"\n\n";
    baExpected += kScriptTail;
    QCOMPARE(readFile(strScript), baExpected);

    // What a new file gets, plus the owner's execute bit and nothing else.
    QVERIFY(writeFile(tmpDir.path() + "/fresh", QByteArray()));
    QCOMPARE(modeOf(strScript), modeOf(tmpDir.path() + "/fresh") | S_IXUSR);
}

void tst_UninstallScript::escapesShellCharacters()
{
    const QString strLocation = tmpDir.path() + "/a\"b$c`d\\e f";
    const QString strEntry = tmpDir.path() + "/$x`y\".desktop";
    QVERIFY(QDir().mkpath(strLocation));
    QVERIFY(writeFile(strEntry, "x"));
    DTavelinGuiConfig& config = DTavelinGuiConfig::getInstance();
    config.setTargetInstallDir(strLocation);
    config.setTargetDesktopFilePath(strEntry);

    window.createUninstallFile();

    const QByteArray baBase = tmpDir.path().toUtf8();
    QCOMPARE(readFile(strLocation + "/uninstall.sh"),
             kScriptHead + "cd \"" + baBase + "/a\\\"b\\$c\\`d\\\\e f/../\"\n\n" + "rm -rf \"" + baBase
                 + "/a\\\"b\\$c\\`d\\\\e f\"\n\n" + "rm -f \"" + baBase + "/\\$x\\`y\\\".desktop\"\n\n" + kScriptTail);
}

void tst_UninstallScript::leavesExistingUninstallAlone_data()
{
    QTest::addColumn<bool>("asDirectory");
    QTest::newRow("a file named uninstall.sh") << false;
    QTest::newRow("a directory named uninstall.sh") << true;
}

void tst_UninstallScript::leavesExistingUninstallAlone()
{
    QFETCH(bool, asDirectory);
    const QString strLocation = tmpDir.path() + "/demo";
    const QString strScript = strLocation + "/uninstall.sh";
    if (asDirectory)
        QVERIFY(writeFile(strScript + "/inside", "kept"));
    else
        QVERIFY(writeFile(strScript, "echo earlier install\n"));
    // Odd bits that a chmod by the stage would change.
    const QFile::Permissions odd = QFile::ReadOwner | QFile::WriteOwner | QFile::ReadOther
        | (asDirectory ? QFile::ExeOwner | QFile::ExeOther : QFile::Permissions());
    QVERIFY(QFile::setPermissions(strScript, odd));
    const mode_t before = modeOf(strScript);
    DTavelinGuiConfig::getInstance().setTargetInstallDir(strLocation);

    window.createUninstallFile();

    QCOMPARE(modeOf(strScript), before);
    if (asDirectory) {
        QCOMPARE(treeOf(strScript), QStringList{"/inside"});
        QCOMPARE(readFile(strScript + "/inside"), QByteArray("kept"));
    } else {
        QCOMPARE(readFile(strScript), QByteArray("echo earlier install\n"));
    }
}

void tst_UninstallScript::runsUnderShells_data()
{
    QTest::addColumn<QString>("shell");
    QTest::addColumn<QString>("component");
    QTest::addColumn<QString>("trailer");
    QTest::addColumn<QByteArray>("answer");
    QTest::addColumn<bool>("removes");

    const QList<QPair<const char*, QString>> components = {
        {"blank", "my app"},
        {"double quote", "a\"b"},
        {"single quote", "it's"},
        {"command substitution", "$(touch pwned)"},
        {"backtick", "`touch pwned`"},
        {"variable", "$HOME"},
        {"backslash", "a\\b\\\\"},
        {"newline", "line\none"},
        {"leading dash", "-rf"},
        {"glob", "*"},
        {"CJK", "演示程序"},
    };
    for (const char* shell : {"sh", "dash", "bash"}) {
        for (const auto& component : components) {
            QTest::addRow("%s, %s, answer n", shell, component.first)
                << shell << component.second << "" << QByteArray("n\n") << false;
            QTest::addRow("%s, %s, answer y", shell, component.first)
                << shell << component.second << "" << QByteArray("y\n") << true;
        }
        QTest::addRow("%s, trailing slash, answer Y", shell) << shell << "app" << "/" << QByteArray("Y\n") << true;
        QTest::addRow("%s, answer yes", shell) << shell << "app" << "" << QByteArray("yes\n") << false;
        QTest::addRow("%s, empty answer", shell) << shell << "app" << "" << QByteArray("\n") << false;
        QTest::addRow("%s, no answer at all", shell) << shell << "app" << "" << QByteArray() << false;
    }
}

void tst_UninstallScript::runsUnderShells()
{
    QFETCH(QString, shell);
    QFETCH(QString, component);
    QFETCH(QString, trailer);
    QFETCH(QByteArray, answer);
    QFETCH(bool, removes);
    const QString strShell = QStandardPaths::findExecutable(shell);
    if (strShell.isEmpty())
        QSKIP("this shell is not installed");

    // The tree sits two hostile levels deep, beside sentinels that must survive.
    const QString strBase = tmpDir.path();
    const QString strParent = strBase + "/parent/" + component;
    const QString strLocation = strParent + "/" + component + trailer;
    const QString strEntry = strBase + "/apps/" + component + ".desktop";
    QVERIFY(writeFile(strLocation + "/bin/demo", "#!/bin/sh\n"));
    QVERIFY(writeFile(strLocation + "/.hidden", "h"));
    QVERIFY(writeFile(strParent + "/sentinel", "s"));
    QVERIFY(writeFile(strParent + "/" + component + "-sibling", "s"));
    QVERIFY(writeFile(strBase + "/parent/sentinel", "s"));
    QVERIFY(writeFile(strEntry, "[Desktop Entry]\n"));
    QVERIFY(writeFile(strBase + "/apps/other.desktop", "[Desktop Entry]\n"));
    QVERIFY(QDir().mkpath(strBase + "/run"));
    DTavelinGuiConfig& config = DTavelinGuiConfig::getInstance();
    config.setTargetInstallDir(strLocation);
    config.setTargetDesktopFilePath(strEntry);
    window.createUninstallFile();
    const QString strScript = strLocation + "/uninstall.sh";
    QVERIFY(QFileInfo(strScript).isFile());
    const QStringList before = treeOf(strBase);

    const TestSupport::TScriptRun run = TestSupport::runUninstallScript(strShell, strScript, answer, strBase + "/run");
    QVERIFY(run.bFinished);
    QCOMPARE(run.exitCode, 0);
    const QString strOut = run.strOut;
    QVERIFY2(run.strErr.isEmpty(), qPrintable(run.strErr));

    QStringList expected = before;
    if (removes) {
        const QString strTree = (strLocation.endsWith('/') ? strLocation.chopped(1) : strLocation).mid(strBase.size());
        const QString strEntryRel = strEntry.mid(strBase.size());
        expected.erase(std::remove_if(expected.begin(), expected.end(),
                                      [&](const QString& p) {
                                          return p == strTree || p.startsWith(strTree + "/") || p == strEntryRel;
                                      }),
                       expected.end());
        QVERIFY(strOut.contains(QStringLiteral("完成卸载")));
    } else {
        QVERIFY(!strOut.contains(QStringLiteral("开始卸载")));
    }
    QCOMPARE(treeOf(strBase), expected);
    QCOMPARE(readFile(strParent + "/sentinel"), QByteArray("s"));
}

QTEST_MAIN(tst_UninstallScript)
#include "tst_uninstallscript.moc"
