#include "wizardsupport.h"

#include <QTemporaryDir>
#include <QtTest>

namespace {

DTavelinGuiConfig& config()
{
    return DTavelinGuiConfig::getInstance();
}

} // namespace

class tst_DTavelinGuiConfig : public QObject
{
    Q_OBJECT

private slots:
    void loadsPayload_data()
    {
        QTest::addColumn<QString>("appDir"); // "unset", or a value; REAL is the payload, reached through the link LINK
        QTest::addColumn<bool>("bWithApp");
        QTest::addColumn<bool>("bWithDesktop");
        QTest::addColumn<QString>("filesDir");
        QTest::addColumn<QString>("desktop");
        const QString strEntry = "/soft/desktop/share/applications/demo.desktop";
        QTest::newRow("APPDIR set: joined as they come") << "LINK" << true << true << "LINK/soft/app" << "LINK" + strEntry;
        QTest::newRow("APPDIR with a trailing slash stays doubled") << "LINK/" << false << false << "LINK//soft/app" << "LINK/" + strEntry;
        QTest::newRow("unset: the current directory, links resolved") << "unset" << true << true << "REAL/soft/app" << "REAL" + strEntry;
        QTest::newRow("empty counts as unset") << "" << true << true << "REAL/soft/app" << "REAL" + strEntry;
        QTest::newRow("unset, soft/app missing") << "unset" << false << true << "" << "REAL" + strEntry;
        QTest::newRow("unset, desktop entry missing") << "unset" << true << false << "REAL/soft/app" << "";
    }

    void loadsPayload()
    {
        QFETCH(QString, appDir);
        QFETCH(bool, bWithApp);
        QFETCH(bool, bWithDesktop);
        QFETCH(QString, filesDir);
        QFETCH(QString, desktop);
        QTemporaryDir cwd;
        const QString strReal = QFileInfo(cwd.path()).canonicalFilePath() + "/real";
        const QString strLink = cwd.path() + "/link";
        QVERIFY(TestSupport::writeFile(strReal + "/soft/mainifest.json",
                                       R"({"base":{"nameEng":"Demo"},"install":{"desktopFile":"demo.desktop"}})"));
        QVERIFY(!bWithApp || QDir().mkpath(strReal + "/soft/app/bin"));
        QVERIFY(!bWithDesktop || TestSupport::writeFile(strReal + "/soft/desktop/share/applications/demo.desktop", "x"));
        QVERIFY(QFile::link(strReal, strLink));
        const QString strSavedCwd = QDir::currentPath();
        QVERIFY(QDir::setCurrent(strLink));
        if (appDir == "unset")
            qunsetenv("APPDIR");
        else
            qputenv("APPDIR", QFile::encodeName(QString(appDir).replace("LINK", strLink)));
        qputenv("APPIMAGE", "/home/u/Demo.AppImage");
        *config().getAppPackInfo() = TAppPackInfo();
        config().init();
        QDir::setCurrent(strSavedCwd);
        qunsetenv("APPDIR");

        QCOMPARE(config().getAppPackInfo()->base.nameEng, std::string("Demo"));
        QCOMPARE(config().getEnvAppDir(), appDir == "unset" ? QString() : appDir.replace("LINK", strLink));
        QCOMPARE(config().getEnvAppImage(), QStringLiteral("/home/u/Demo.AppImage"));
        QCOMPARE(config().getSrcAppFilesDir(), filesDir.replace("LINK", strLink).replace("REAL", strReal));
        QCOMPARE(config().getSrcAppDesktopDir(), desktop.replace("LINK", strLink).replace("REAL", strReal));
    }

    void currentUser_data()
    {
        QTest::addColumn<int>("uid");
        QTest::addColumn<QString>("userEnv"); // NAME=value sets it, NAME alone removes it
        QTest::addColumn<QString>("expected");
        QTest::newRow("known user: passwd name, not USER") << 65534 << "USER=someone" << "nobody";
        QTest::newRow("no passwd record: USER") << 54321 << "USER=fallback" << "fallback";
        QTest::newRow("no passwd record, USER unset: empty") << 54321 << "USER" << "";
    }

    // The effective user decides: each row runs again in a child with another uid.
    void currentUser()
    {
        QFETCH(int, uid);
        QFETCH(QString, userEnv);
        QTemporaryDir caseDir;
        TAVELIN_RUN_AS(uid, caseDir.path(), userEnv);
        QTEST(DTavelinUtil::getCurrentUser(), "expected");
        QCOMPARE(DTavelinUtil::getCurrentUserId(), uint(uid));
    }
};

QTEST_GUILESS_MAIN(tst_DTavelinGuiConfig)
#include "tst_dtavelinguiconfig.moc"
