#include "mainwindow.h"
#include "testsupport.h"

#include <QtTest>

#include <unistd.h>

class tst_DTavelinGuiConfig : public QObject
{
    Q_OBJECT

private slots:
    void init();
    void cleanup();
    void appDirSet_data();
    void appDirSet();
    void appDirEmpty_data();
    void appDirEmpty();
    void noManifestKeepsDefaults();
    void currentUser_data();
    void currentUser();

private:
    static DTavelinGuiConfig& config() { return DTavelinGuiConfig::getInstance(); }
    QString makePayload(const QString& root, bool withApp, bool withDesktop);

    QTemporaryDir tempDir;
    QString strOldCwd;
};

static const char kManifest[] = R"({"base":{"nameEng":"Demo"},"install":{"desktopFile":"demo.desktop"}})";

QString tst_DTavelinGuiConfig::makePayload(const QString& root, bool withApp, bool withDesktop)
{
    TestSupport::writeFile(root + QStringLiteral("/soft/mainifest.json"), kManifest);
    if (withApp)
        QDir().mkpath(root + QStringLiteral("/soft/app/bin"));
    if (withDesktop)
        TestSupport::writeFile(root + QStringLiteral("/soft/desktop/share/applications/demo.desktop"), "[Desktop Entry]\n");
    return root;
}

void tst_DTavelinGuiConfig::init()
{
    *config().getAppPackInfo() = TAppPackInfo();
    strOldCwd = QDir::currentPath();
}

void tst_DTavelinGuiConfig::cleanup()
{
    QDir::setCurrent(strOldCwd);
    qunsetenv("APPDIR");
    qunsetenv("APPIMAGE");
}

void tst_DTavelinGuiConfig::appDirSet_data()
{
    QTest::addColumn<QString>("suffix");
    QTest::addColumn<QString>("joint");

    QTest::newRow("plain") << "" << "/";
    QTest::newRow("trailing slash stays doubled") << "/" << "//";
}

// Under an AppImage the paths are joined as they come, with no check.
void tst_DTavelinGuiConfig::appDirSet()
{
    QFETCH(QString, suffix);
    QFETCH(QString, joint);
    const QString strRoot = makePayload(tempDir.filePath(QStringLiteral("mounted")), false, false);
    qputenv("APPDIR", (strRoot + suffix).toLocal8Bit());
    qputenv("APPIMAGE", "/home/u/Demo.AppImage");
    config().init();

    QCOMPARE(config().getAppPackInfo()->base.nameEng, std::string("Demo"));
    QCOMPARE(config().getEnvAppDir(), strRoot + suffix);
    QCOMPARE(config().getEnvAppImage(), QStringLiteral("/home/u/Demo.AppImage"));
    QCOMPARE(config().getSrcAppFilesDir(), strRoot + joint + QStringLiteral("soft/app"));
    QCOMPARE(config().getSrcAppDesktopDir(),
             strRoot + joint + QStringLiteral("soft/desktop/share/applications/demo.desktop"));
}

void tst_DTavelinGuiConfig::appDirEmpty_data()
{
    QTest::addColumn<bool>("setEmpty");
    QTest::addColumn<bool>("withApp");
    QTest::addColumn<bool>("withDesktop");

    QTest::newRow("unset, full payload") << false << true << true;
    QTest::newRow("empty counts as unset") << true << true << true;
    QTest::newRow("soft/app missing") << false << false << true;
    QTest::newRow("desktop entry missing") << false << true << false;
}

// Unpacked, the payload is found through the current directory and its paths
// become canonical, or empty when missing.
void tst_DTavelinGuiConfig::appDirEmpty()
{
    QFETCH(bool, setEmpty);
    QFETCH(bool, withApp);
    QFETCH(bool, withDesktop);
    QTemporaryDir cwd;
    const QString strReal = QFileInfo(makePayload(cwd.filePath(QStringLiteral("real")), withApp, withDesktop))
                                .canonicalFilePath();
    const QString strLink = cwd.filePath(QStringLiteral("link"));
    QVERIFY(QFile::link(strReal, strLink));
    QVERIFY(QDir::setCurrent(strLink));
    if (setEmpty)
        qputenv("APPDIR", "");
    config().init();

    QCOMPARE(config().getAppPackInfo()->base.nameEng, std::string("Demo"));
    QCOMPARE(config().getEnvAppDir(), QString());
    QCOMPARE(config().getSrcAppFilesDir(), withApp ? strReal + QStringLiteral("/soft/app") : QString());
    QCOMPARE(config().getSrcAppDesktopDir(),
             withDesktop ? strReal + QStringLiteral("/soft/desktop/share/applications/demo.desktop") : QString());
}

void tst_DTavelinGuiConfig::noManifestKeepsDefaults()
{
    qputenv("APPDIR", tempDir.filePath(QStringLiteral("nothing-here")).toLocal8Bit());
    config().init();
    QVERIFY(*config().getAppPackInfo() == TAppPackInfo());
    QVERIFY(config().getSrcAppDesktopDir().endsWith(QStringLiteral("soft/desktop/share/applications/")));
}

void tst_DTavelinGuiConfig::currentUser_data()
{
    QTest::addColumn<QString>("uid");
    QTest::addColumn<QByteArray>("userEnv");
    QTest::addColumn<QString>("expected");

    QTest::newRow("known user: passwd name, not USER") << "65534" << QByteArray("someone") << "nobody";
    QTest::newRow("no passwd record: USER") << "54321" << QByteArray("fallback") << "fallback";
    QTest::newRow("no passwd record, USER unset: empty") << "54321" << QByteArray() << "";
}

// The effective user decides: each row runs in a child with another uid.
void tst_DTavelinGuiConfig::currentUser()
{
    if (qEnvironmentVariableIsSet("TAVELIN_CHILD_USER")) {
        QCOMPARE(DTavelinUtil::getCurrentUser(), QString::fromLocal8Bit(qgetenv("TAVELIN_CHILD_USER")));
        QCOMPARE(DTavelinUtil::getCurrentUserId(), uint(geteuid()));
        return;
    }
    QFETCH(QString, uid);
    QFETCH(QByteArray, userEnv);
    QFETCH(QString, expected);
    const QString strWhy = TestSupport::unprivilegedUnavailable();
    if (!strWhy.isEmpty())
        QSKIP(qPrintable(strWhy));

    QTemporaryDir caseDir;
    TestSupport::openForOthers(caseDir.path());
    const QString strExe = caseDir.filePath(QStringLiteral("tst-child"));
    QVERIFY(QFile::copy(QCoreApplication::applicationFilePath(), strExe));
    QProcess process;
    QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
    env.insert(QStringLiteral("TAVELIN_CHILD_USER"), expected);
    env.insert(QStringLiteral("HOME"), caseDir.path());
    env.remove(QStringLiteral("USER"));
    if (!userEnv.isNull())
        env.insert(QStringLiteral("USER"), QString::fromLocal8Bit(userEnv));
    process.setProcessEnvironment(env);
    process.setProcessChannelMode(QProcess::MergedChannels);
    process.start(QStringLiteral("setpriv"), {QStringLiteral("--reuid=") + uid, QStringLiteral("--regid=") + uid,
                                              QStringLiteral("--clear-groups"), strExe, QStringLiteral("currentUser")});
    QVERIFY(process.waitForFinished(30000));
    const QByteArray output = process.readAll();
    QVERIFY2(process.exitCode() == 0 && output.contains("PASS   : tst_DTavelinGuiConfig::currentUser("),
             output.constData());
}

QTEST_GUILESS_MAIN(tst_DTavelinGuiConfig)
#include "tst_dtavelinguiconfig.moc"
