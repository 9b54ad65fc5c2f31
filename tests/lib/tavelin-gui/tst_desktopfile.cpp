#include "wizardsupport.h"

#include <QDateTime>
#include <QRegularExpression>
#include <QTemporaryDir>
#include <QtTest>

using TestSupport::readFile;
using TestSupport::writeFile;

class tst_DesktopFile : public QObject
{
    Q_OBJECT

private slots:
    void init()
    {
        QVERIFY(QDir(tmpDir.path()).removeRecursively() && QDir().mkpath(tmpDir.path() + "/apps"));
        DTavelinGuiConfig& config = DTavelinGuiConfig::getInstance();
        config.setTargetDesktopFilePath("/earlier/path.desktop");
        config.setFlagOfOverrideTargetDir(false);
        config.setTargetInstallDir("/opt/demo");
        setFiles(QString(), QString());
    }

    void rewritesLines_data()
    {
        QTest::addColumn<QString>("localDir");
        QTest::addColumn<QString>("mainExePath"); // empty: the first form, Exec taken as a path below the location
        QTest::addColumn<QString>("location");
        QTest::addColumn<QByteArray>("input");
        QTest::addColumn<QByteArray>("expected");

        const QByteArray baOld = "Exec=old/path --opt %U\n";
        QTest::newRow("first form: lines trimmed, the whole value behind the location")
            << "" << "" << "/opt/demo" << QByteArray("[Desktop Entry]\nExec=bin/demo --new %U\nExec=/usr/bin/demo\n   Icon=demo   \n\n")
            << QByteArray("[Desktop Entry]\nExec=/opt/demo/bin/demo --new %U\nExec=/opt/demo//usr/bin/demo\nIcon=demo\n\n");
        QTest::newRow("CR LF line ends, no line end at the last line")
            << "" << "" << "/opt/demo" << QByteArray("[Desktop Entry]\r\nExec= demo %f\r\n\r\nIcon=x")
            << QByteArray("[Desktop Entry]\nExec=/opt/demo/demo %f\n\nIcon=x\n");
        QTest::newRow("only Exec= lines are rewritten") << "" << "" << "/opt/demo"
            << QByteArray("Exec =demo\nexec=demo\nTryExec=demo\nPath=/srv\n") << QByteArray("Exec =demo\nexec=demo\nTryExec=demo\nPath=/srv\n");
        QTest::newRow("empty Exec value, first form") << "" << "" << "/opt/demo" << QByteArray("Exec=\n") << QByteArray("Exec=/opt/demo/\n");
        QTest::newRow("location with a trailing slash, used as typed")
            << "" << "" << "/opt/demo/" << QByteArray("Exec=bin/demo\n") << QByteArray("Exec=/opt/demo//bin/demo\n");
        QTest::newRow("second form: action groups too, the tail kept or a blank")
            << "/build/demo/" << "/build/demo/bin/demo" << "/opt/demo"
            << QByteArray("Exec=demo %F\n[Desktop Action New]\nName=New\nExec=demo --new\n")
            << QByteArray("Exec=\"/opt/demo/bin/demo\" %F\n[Desktop Action New]\nName=New\nExec=\"/opt/demo/bin/demo\" \n");
        QTest::newRow("empty Exec value, second form")
            << "/b/" << "/b/bin/demo" << "/opt/demo" << QByteArray("Exec=   \n") << QByteArray("Exec=\"/opt/demo/bin/demo\" \n");
        QTest::newRow("percent inside the old path starts the tail")
            << "/b/" << "/b/bin/demo" << "/opt/demo" << QByteArray("Exec=/opt/100%/demo %U\n") << QByteArray("Exec=\"/opt/demo/bin/demo\" %/demo %U\n");
        QTest::newRow("location with percent signs and blanks")
            << "/b/" << "/b/bin/demo" << "/opt/%1 100%/x" << QByteArray("Exec=demo %u\n") << QByteArray("Exec=\"/opt/%1 100%/x/bin/demo\" %u\n");
        QTest::newRow("localDir without trailing slash leaves a doubled slash")
            << "/build/demo" << "/build/demo/bin/demo" << "/opt/demo" << baOld << QByteArray("Exec=\"/opt/demo//bin/demo\" %U\n");
        QTest::newRow("empty localDir") << "" << "bin/demo" << "/opt/demo" << baOld << QByteArray("Exec=\"/opt/demo/bin/demo\" %U\n");
        QTest::newRow("cut by length, not by content") << "src" << "bin/demo" << "/opt/demo" << baOld << QByteArray("Exec=\"/opt/demo//demo\" %U\n");
        QTest::newRow("localDir as long as mainExePath") << "12345678" << "bin/demo" << "/opt/demo" << baOld << QByteArray("Exec=\"/opt/demo/\" %U\n");
        QTest::newRow("localDir longer than mainExePath")
            << "/a/much/longer/dir" << "bin/demo" << "/opt/demo" << baOld << QByteArray("Exec=\"/opt/demo/bin/demo\" %U\n");
    }

    void rewritesLines()
    {
        QFETCH(QString, localDir);
        QFETCH(QString, mainExePath);
        QFETCH(QString, location);
        QFETCH(QByteArray, input);
        setFiles(localDir, mainExePath);
        DTavelinGuiConfig::getInstance().setTargetInstallDir(location);
        QVERIFY(writeFile(src(), input));

        QVERIFY(window.copyDesktopFile(src(), dst()));
        QTEST(readFile(dst()), "expected");
        QCOMPARE(DTavelinGuiConfig::getInstance().getTargetDesktopFilePath(), dst());
    }

    // The location is new and an entry of that name exists: a second, time-stamped one.
    void newNameBesideExistingEntry()
    {
        setFiles("/build/demo", "/build/demo/bin/demo");
        DTavelinGuiConfig::getInstance().setTargetInstallDir("/opt/demo 2");
        QVERIFY(writeFile(dst(), "Exec=old\n"));
        QVERIFY(writeFile(src(), "Name=Demo\nName[zh_CN]=演示\nGenericName=Tool\nExec=/usr/bin/demo --new %U\n"
                                 "Exec=demo \"%f\"\nExec=\"%f\"\nExec=演示 --new %U\nExec=\"demo\" %u\nExec=demo\"\nTryExec=demo\n"));

        QVERIFY(window.copyDesktopFile(src(), dst()));
        QCOMPARE(readFile(dst()), QByteArray("Exec=old\n"));
        QStringList entries = QDir(tmpDir.path() + "/apps").entryList(QDir::Files);
        QVERIFY(entries.removeOne("demo.desktop") && entries.size() == 1);
        QVERIFY2(QRegularExpression("^demo-\\d{8}-\\d{6}\\.desktop$").match(entries.at(0)).hasMatch(), qPrintable(entries.at(0)));
        const QString strNewPath = QDir(tmpDir.path() + "/apps").canonicalPath() + "/" + entries.at(0);
        QCOMPARE(DTavelinGuiConfig::getInstance().getTargetDesktopFilePath(), strNewPath);
        QCOMPARE(readFile(strNewPath), QByteArray("Name=Demo(/opt/demo 2)\nName[zh_CN]=演示(/opt/demo 2)\nGenericName=Tool\n"
                                                  "Exec=\"/opt/demo 2//bin/demo\" %U\nExec=\"/opt/demo 2//bin/demo\" \"%f\"\n"
                                                  "Exec=\"/opt/demo 2//bin/demo\" \"%f\"\nExec=\"/opt/demo 2//bin/demo\" %U\n"
                                                  "Exec=\"/opt/demo 2//bin/demo\" %u\nExec=\"/opt/demo 2//bin/demo\" \nTryExec=demo\n"));
    }

    void destinationCases_data()
    {
        QTest::addColumn<QString>("srcName");
        QTest::addColumn<QString>("dstName");
        QTest::addColumn<QString>("setup");
        QTest::addColumn<bool>("result");
        QTest::addColumn<QString>("recorded"); // "dst": the destination path; else kept as it was
        QTest::addColumn<QStringList>("apps");
        QTest::newRow("existing directory keeps its entry byte for byte")
            << "src.desktop" << "apps/demo.desktop" << "override" << true << "" << QStringList{"demo.desktop"};
        QTest::newRow("time-stamped name taken too") << "src.desktop" << "apps/demo.desktop" << "taken" << false << "" << QStringList();
        QTest::newRow("source missing: no entry, the run goes on")
            << "missing.desktop" << "apps/demo.desktop" << "" << true << "dst" << QStringList();
        // An empty install.desktopFile leaves both paths naming directories.
        QTest::newRow("empty desktopFile") << "" << "apps/" << "" << true << "dst" << QStringList();
        QTest::newRow("destination cannot be opened") << "src.desktop" << "no-such-dir/demo.desktop" << "" << false << "dst" << QStringList();
    }

    void destinationCases()
    {
        QFETCH(QString, srcName);
        QFETCH(QString, dstName);
        QFETCH(QString, setup);
        QFETCH(QString, recorded);
        QFETCH(QStringList, apps);
        QVERIFY(writeFile(src(), "Exec=new\n"));
        if (!setup.isEmpty())
            QVERIFY(writeFile(dst(), "Exec=old\r\n"));
        DTavelinGuiConfig::getInstance().setFlagOfOverrideTargetDir(setup == "override");
        // The names of this second and the next few, so the clock cannot slip past them.
        for (int i = 0; setup == "taken" && i < 5; ++i)
            QVERIFY(writeFile(dst().chopped(8) + "-" + QDateTime::currentDateTime().addSecs(i).toString("yyyyMMdd-HHmmss") + ".desktop", "taken"));
        const QString strDst = tmpDir.path() + "/" + dstName;

        QTEST(window.copyDesktopFile(tmpDir.path() + "/" + srcName, strDst), "result");
        QCOMPARE(DTavelinGuiConfig::getInstance().getTargetDesktopFilePath(), recorded == "dst" ? strDst : "/earlier/path.desktop");
        if (setup.isEmpty())
            QCOMPARE(QDir(tmpDir.path() + "/apps").entryList(QDir::Files), apps);
        else
            QCOMPARE(readFile(dst()), QByteArray("Exec=old\r\n"));
    }

private:
    QString src() const { return tmpDir.path() + "/src.desktop"; }
    QString dst() const { return tmpDir.path() + "/apps/demo.desktop"; }
    static void setFiles(const QString& strLocalDir, const QString& strMainExePath)
    {
        TAppFiles& files = DTavelinGuiConfig::getInstance().getAppPackInfo()->files;
        files.localDir = strLocalDir.toStdString();
        files.mainExePath = strMainExePath.toStdString();
    }

    QTemporaryDir tmpDir;
    MainWindow window;
};

QTEST_MAIN(tst_DesktopFile)
#include "tst_desktopfile.moc"
