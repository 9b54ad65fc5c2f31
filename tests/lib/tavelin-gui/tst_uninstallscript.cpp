#include "wizardsupport.h"

#include <QStandardPaths>
#include <QTemporaryDir>
#include <QtTest>

#include <sys/stat.h>

using namespace TestSupport;

namespace {

const QByteArray kScriptHead("#!/bin/sh\n\n"
                             "echo -n \"\\033[31m将要卸载软件：输出Y或y继续卸载，输入其他值退出：\\033[0m\"\n\n"
                             "read -r inputVal\n\n"
                             "if [ \"$inputVal\" != \"y\" ]&&[ \"$inputVal\" != \"Y\" ]; then\n\n"
                             "exit 0\n\n"
                             "fi\n\n"
                             "echo \"开始卸载\"\n\n");

mode_t modeOf(const QString& strPath)
{
    struct stat st;
    return ::stat(QFile::encodeName(strPath).constData(), &st) == 0 ? st.st_mode & 07777 : 0;
}

} // namespace

class tst_UninstallScript : public QObject
{
    Q_OBJECT

private slots:
    void init()
    {
        QVERIFY(QDir(tmpDir.path()).removeRecursively() && QDir().mkpath(tmpDir.path()));
    }

    void writesExactBytes_data()
    {
        QTest::addColumn<QString>("location"); // below the temporary directory
        QTest::addColumn<QString>("entry"); // below apps/; "dir:" makes it a directory, "none:" records none
        QTest::addColumn<QByteArray>("escapedLocation");
        QTest::addColumn<QByteArray>("escapedEntry"); // empty: no rm -f line
        QTest::newRow("entry file exists") << "opt/demo 2" << "demo.desktop" << QByteArray("opt/demo 2") << QByteArray("demo.desktop");
        QTest::newRow("no entry recorded") << "opt/demo" << "none:" << QByteArray("opt/demo") << QByteArray();
        QTest::newRow("entry recorded, no file there") << "opt/demo" << "none:gone.desktop" << QByteArray("opt/demo") << QByteArray();
        QTest::newRow("entry path is a directory") << "opt/demo" << "dir:demo.desktop" << QByteArray("opt/demo") << QByteArray();
        QTest::newRow("quote, dollar, backtick and backslash escaped")
            << "a\"b$c`d\\e f" << "$x`y\".desktop" << QByteArray("a\\\"b\\$c\\`d\\\\e f") << QByteArray("\\$x\\`y\\\".desktop");
    }

    void writesExactBytes()
    {
        QFETCH(QString, location);
        QFETCH(QString, entry);
        QFETCH(QByteArray, escapedLocation);
        QFETCH(QByteArray, escapedEntry);
        const QString strLocation = tmpDir.path() + "/" + location;
        const QString strEntry = tmpDir.path() + "/apps/" + entry.section(':', -1);
        QVERIFY(QDir().mkpath(strLocation));
        if (entry.startsWith("dir:"))
            QVERIFY(QDir().mkpath(strEntry));
        else if (!entry.contains(':'))
            QVERIFY(writeFile(strEntry, "[Desktop Entry]\n"));
        writeScript(strLocation, entry == "none:" ? QString() : strEntry);

        const QByteArray baBase = tmpDir.path().toUtf8() + "/";
        QByteArray baExpected = kScriptHead + "cd \"" + baBase + escapedLocation + "/../\"\n\nrm -rf \"" + baBase + escapedLocation + "\"\n\n";
        if (!escapedEntry.isEmpty())
            baExpected += "rm -f \"" + baBase + "apps/" + escapedEntry + "\"\n\n";
        QCOMPARE(readFile(strLocation + "/uninstall.sh"), baExpected + "echo \"完成卸载\"\n\n");
        // What a new file gets, plus the owner's execute bit and nothing else.
        QVERIFY(writeFile(tmpDir.path() + "/fresh", QByteArray()));
        QCOMPARE(modeOf(strLocation + "/uninstall.sh"), modeOf(tmpDir.path() + "/fresh") | S_IXUSR);
    }

    void runsUnderShells_data()
    {
        QTest::addColumn<QString>("shell");
        QTest::addColumn<QString>("component");
        QTest::addColumn<QString>("trailer");
        QTest::addColumn<QByteArray>("answer");
        QTest::addColumn<bool>("removes");

        const QList<QPair<const char*, QString>> components = {
            {"blank", "my app"}, {"double quote", "a\"b"}, {"single quote", "it's"},
            {"command substitution", "$(touch pwned)"}, {"backtick", "`touch pwned`"}, {"variable", "$HOME"},
            {"backslash", "a\\b\\\\"}, {"newline", "line\none"}, {"leading dash", "-rf"}, {"glob", "*"}, {"CJK", "演示程序"},
        };
        for (const char* shell : {"sh", "dash", "bash"}) {
            for (const auto& component : components) {
                QTest::addRow("%s, %s, answer n", shell, component.first) << shell << component.second << "" << QByteArray("n\n") << false;
                QTest::addRow("%s, %s, answer y", shell, component.first) << shell << component.second << "" << QByteArray("y\n") << true;
            }
            QTest::addRow("%s, trailing slash, answer Y", shell) << shell << "app" << "/" << QByteArray("Y\n") << true;
            QTest::addRow("%s, answer yes", shell) << shell << "app" << "" << QByteArray("yes\n") << false;
            QTest::addRow("%s, no answer at all", shell) << shell << "app" << "" << QByteArray() << false;
        }
    }

    void runsUnderShells()
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
        for (const QString& strFile : {strLocation + "/bin/demo", strLocation + "/.hidden", strParent + "/sentinel",
                                       strParent + "/" + component + "-sibling", strBase + "/parent/sentinel", strEntry,
                                       strBase + "/apps/other.desktop", strBase + "/run/sentinel"})
            QVERIFY(writeFile(strFile, "s"));
        writeScript(strLocation, strEntry);
        QStringList expected = treeOf(strBase);

        const TScriptRun run = runUninstallScript(strShell, strLocation + "/uninstall.sh", answer, strBase + "/run");
        QVERIFY(run.bFinished);
        QCOMPARE(run.exitCode, 0);
        QVERIFY2(run.strErr.isEmpty(), qPrintable(run.strErr));
        QCOMPARE(run.strOut.contains(QStringLiteral("完成卸载")), removes);
        if (removes) {
            const QString strTree = strParent.mid(strBase.size() + 1) + "/" + component + "/";
            expected.erase(std::remove_if(expected.begin(), expected.end(), [&](const QString& p) {
                return p.startsWith(strTree) || p == strEntry.mid(strBase.size() + 1);
            }), expected.end());
        }
        QCOMPARE(treeOf(strBase), expected);
    }

private:
    void writeScript(const QString& strLocation, const QString& strEntry)
    {
        DTavelinGuiConfig::getInstance().setTargetInstallDir(strLocation);
        DTavelinGuiConfig::getInstance().setTargetDesktopFilePath(strEntry);
        window.createUninstallFile();
    }

    QTemporaryDir tmpDir;
    MainWindow window;
};

QTEST_MAIN(tst_UninstallScript)
#include "tst_uninstallscript.moc"
